'use strict';
// Reads a transport stream (file named on the command line) with mux.js's
// own demuxer and H.264 parser and prints the captions its caption parser
// finds in the video's SEI as JSON: [{stream, start, end, text, rows}], times
// in milliseconds of the video clock, rows the screen rows a CEA-608 caption
// uses. NODE_PATH must reach mux.js.
const fs = require('fs');
const muxjs = require('mux.js');
const { TransportPacketStream, TransportParseStream, ElementaryStream, CaptionStream } = muxjs.mp2t;

const packets = new TransportPacketStream();
const parse = new TransportParseStream();
const elementary = new ElementaryStream();
const h264 = new muxjs.codecs.h264.H264Stream();
const captions = new CaptionStream();
const found = [];
packets.pipe(parse).pipe(elementary);
elementary.on('data', (pes) => { if (pes.type === 'video') h264.push(pes); });
h264.on('data', (nal) => captions.push(nal));
captions.on('data', (c) => {
  const text = c.text !== undefined ? c.text : c.content.map((r) => r.text).join('\n');
  const rows = c.content ? c.content.map((r) => r.line) : [];
  found.push({ stream: c.stream, start: c.startPts / 90, end: c.endPts / 90, text, rows });
});
packets.push(new Uint8Array(fs.readFileSync(process.argv[2])));
packets.flush();
h264.flush();
captions.flush();
process.stdout.write(JSON.stringify(found) + '\n');
