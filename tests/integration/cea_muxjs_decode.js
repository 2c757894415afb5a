'use strict';
// Decodes the caption events pelvane-cc prints (JSON, one a line, in the file
// named on the command line) with mux.js and prints what it shows as JSON:
// {"cc608": [...], "cc708": [...]}, each entry {stream, start, end, text,
// rows}, times in milliseconds: Cea608Stream over the CC1 pairs, Cea708Stream
// over the DTVCC words. NODE_PATH must reach mux.js.
const fs = require('fs');
const { Cea608Stream, Cea708Stream } = require('mux.js').mp2t;

const cc608 = new Map();  // ms -> pair
const cc708 = new Map();  // ms -> [[type, value]...]
for (const line of fs.readFileSync(process.argv[2], 'utf8').split('\n').filter(Boolean)) {
  const ev = JSON.parse(line);
  for (const [ms, pair] of ev.cc608) {
    if (cc608.has(ms)) throw new Error(`608 key ${ms} used twice`);
    cc608.set(ms, parseInt(pair, 16));
  }
  const own = new Set();
  for (const [ms, type, value] of ev.cc708) {
    if (!own.has(ms) && cc708.has(ms)) throw new Error(`708 key ${ms} used twice`);
    own.add(ms);
    cc708.set(ms, [...(cc708.get(ms) || []), [parseInt(type, 16), parseInt(value, 16)]]);
  }
}
const sorted = (m) => [...m].sort((a, b) => a[0] - b[0]);
const end = Math.max(0, ...cc608.keys(), ...cc708.keys()) + 34;

function entry(c) {
  const rows = c.content ? c.content.map((x) => ({ line: x.line, position: x.position, text: x.text })) : null;
  const text = c.text !== undefined ? c.text : rows.map((r) => r.text).join('\n');
  return { stream: c.stream, start: c.startPts / 90, end: c.endPts / 90, text, rows };
}

function collect(stream, feed) {
  const out = [];
  stream.on('data', (c) => out.push(entry(c)));
  feed(stream);
  if (stream.flush) stream.flush();
  return out;
}

const decoded = {
  cc608: collect(new Cea608Stream(0, 0), (s) => {  // field 1, data channel 1: CC1
    for (const [ms, pair] of sorted(cc608)) s.push({ pts: ms * 90, ccData: pair, type: 0 });
  }),
  cc708: collect(new Cea708Stream(), (s) => {
    for (const [ms, words] of sorted(cc708))
      for (const [type, value] of words) s.push({ pts: ms * 90, type: type & 3, ccData: value });
    s.push({ pts: end * 90, type: 3, ccData: 0xC100 });  // a packet is parsed when the next one starts
  }),
};
process.stdout.write(JSON.stringify(decoded) + '\n');
