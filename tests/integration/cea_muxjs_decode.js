'use strict';
// Decodes the output of cea_dump (JSON) with mux.js and prints what it shows
// as JSON: {"cc608": [...], "cc708": [...], "sei": [...]}, each entry
// {stream, start, end, text, rows}. Times in milliseconds.
//   node cea_muxjs_decode.js dump.json      (NODE_PATH must reach mux.js)
//
// Three routes: Cea608Stream (CC1 pairs), Cea708Stream (DTVCC words) and
// CaptionStream fed H.264 SEI user data (GA94 cc_data, 608 triplets first),
// which also checks the cc_data header bytes.
const fs = require('fs');
const muxjs = require('mux.js');
const { Cea608Stream, Cea708Stream, CaptionStream } = muxjs.mp2t;

const dump = JSON.parse(fs.readFileSync(process.argv[2], 'utf8'));
const cc608 = new Map();
const cc708 = new Map();
for (const cue of dump.cues) {
  for (const [key, b1, b2] of cue.cc608) {
    if (cc608.has(key)) throw new Error(`608 key ${key} used twice`);
    cc608.set(key, [b1, b2]);
  }
  for (const [key, words] of cue.cc708) {
    if (cc708.has(key)) throw new Error(`708 key ${key} used twice`);
    cc708.set(key, words);
  }
}
const sorted = (m) => [...m].sort((a, b) => a[0] - b[0]);
const lastKey = Math.max(0, ...cc608.keys(), ...cc708.keys());

function entry(c) {
  const rows = c.content ? c.content.map((x) => ({ line: x.line, position: x.position, text: x.text })) : null;
  const text = c.text !== undefined ? c.text : rows.map((r) => r.text).join('\n');
  return { stream: c.stream, start: c.startPts / 90, end: c.endPts / 90, text, rows };
}

function decode608() {
  const s = new Cea608Stream(0, 0);  // field 1, data channel 1: CC1
  const out = [];
  s.on('data', (c) => out.push(entry(c)));
  for (const [ms, [b1, b2]] of sorted(cc608)) s.push({ pts: ms * 90, ccData: (b1 << 8) | b2, type: 0 });
  s.flush();
  return out;
}

function decode708() {
  const s = new Cea708Stream();
  const out = [];
  s.on('data', (c) => out.push(entry(c)));
  for (const [ms, words] of sorted(cc708))
    for (const [type, value] of words) s.push({ pts: ms * 90, type: type & 3, ccData: value });
  // A packet is parsed when the next one starts: close with an empty one.
  s.push({ pts: (lastKey + 34) * 90, type: 3, ccData: 0xC100 });
  return out;
}

function seiNal(triplets) {
  const ccData = [0x40 | triplets.length, 0xFF, ...triplets.flat(), 0xFF];
  const t35 = [0xB5, 0x00, 0x31, 0x47, 0x41, 0x39, 0x34, 0x03, ...ccData];
  return Uint8Array.from([0x04, t35.length, ...t35, 0x80]);
}

function decodeSei() {
  const cs = new CaptionStream();
  const out = [];
  cs.on('data', (c) => out.push(entry(c)));
  const keys = [...new Set([...cc608.keys(), ...cc708.keys()])].sort((a, b) => a - b);
  for (const ms of keys) {
    const trip = [];
    if (cc608.has(ms)) trip.push([0xFC, ...cc608.get(ms)]);
    for (const [h, v] of cc708.get(ms) || []) trip.push([h, v >> 8, v & 0xFF]);
    cs.push({ nalUnitType: 'sei_rbsp', escapedRBSP: seiNal(trip), pts: ms * 90, dts: ms * 90 });
  }
  const end = lastKey + 34;
  cs.push({ nalUnitType: 'sei_rbsp', escapedRBSP: seiNal([[0xFF, 0xC1, 0x00]]), pts: end * 90, dts: end * 90 });
  cs.flush();
  return out;
}

process.stdout.write(JSON.stringify({ cc608: decode608(), cc708: decode708(), sei: decodeSei() }) + '\n');
