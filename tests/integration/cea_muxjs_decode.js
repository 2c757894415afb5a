'use strict';
// Decodes the caption events pelvane-cc prints (JSON, one a line, in the file
// named on the command line) with mux.js and prints what it shows as JSON:
// {"cc608": [...], "cc708": [...], "sei": [...]}, each entry {stream, start,
// end, text, rows}, times in milliseconds. NODE_PATH must reach mux.js.
//
// Three routes: Cea608Stream (CC1 pairs), Cea708Stream (DTVCC words) and
// CaptionStream fed H.264 SEI user data (GA94 cc_data, 608 triplets first),
// which also checks the cc_data header bytes.
const fs = require('fs');
const { Cea608Stream, Cea708Stream, CaptionStream } = require('mux.js').mp2t;

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

function seiNal(triplets) {
  const ccData = [0x40 | triplets.length, 0xFF, ...triplets.flat(), 0xFF];
  const t35 = [0xB5, 0x00, 0x31, 0x47, 0x41, 0x39, 0x34, 0x03, ...ccData];
  return Uint8Array.from([0x04, t35.length, ...t35, 0x80]);
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
  sei: collect(new CaptionStream(), (s) => {
    const push = (ms, trip) =>
      s.push({ nalUnitType: 'sei_rbsp', escapedRBSP: seiNal(trip), pts: ms * 90, dts: ms * 90 });
    for (const ms of [...new Set([...cc608.keys(), ...cc708.keys()])].sort((a, b) => a - b)) {
      const trip = cc608.has(ms) ? [[0xFC, cc608.get(ms) >> 8, cc608.get(ms) & 0xFF]] : [];
      for (const [h, v] of cc708.get(ms) || []) trip.push([h, v >> 8, v & 0xFF]);
      push(ms, trip);
    }
    push(end, [[0xFF, 0xC1, 0x00]]);
  }),
};
process.stdout.write(JSON.stringify(decoded) + '\n');
