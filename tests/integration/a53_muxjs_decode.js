'use strict';
// Reads a transport stream (file named on the command line) with mux.js's
// own demuxer and H.264 parser and prints the captions its caption parser
// finds in the video's SEI as JSON: [{stream, start, end, text, rows}], times
// in milliseconds of the video clock, rows the screen rows a CEA-608 caption
// uses. NODE_PATH must reach mux.js.
const fs = require('fs');
const muxjs = require('mux.js');
const { TransportPacketStream, TransportParseStream, ElementaryStream, CaptionStream } = muxjs.mp2t;

const [packets, parse, elementary] = [new TransportPacketStream(), new TransportParseStream(), new ElementaryStream()];
const [h264, captions, found] = [new muxjs.codecs.h264.H264Stream(), new CaptionStream(), []];
packets.pipe(parse).pipe(elementary);
elementary.on('data', (pes) => { if (pes.type === 'video') h264.push(pes); });
h264.on('data', (nal) => captions.push(nal));
captions.on('data', (c) => {
  const text = c.text !== undefined ? c.text : c.content.map((r) => r.text).join('\n');
  const rows = c.content ? c.content.map((r) => r.line) : [];
  found.push({ stream: c.stream, start: c.startPts / 90, end: c.endPts / 90, text, rows });
});
packets.push(new Uint8Array(fs.readFileSync(process.argv[2])));
[packets, h264, captions].forEach((s) => s.flush());
process.stdout.write(JSON.stringify(found) + '\n');
