# pelvane-cc --a53 end to end: the Matroska source of test_captions (its cue set: identifiers,
# placement, italics, accents, two and three rows, back-to-back and overlapping cues), here with
# B-frames, relayed by pelvane over HTTP and written again with the captions in the H.264 SEI. Read
# back by decoders nobody here wrote: the ffmpeg tool's caption decoder (subcc of the movie source)
# and mux.js's own transport stream demuxer and caption parser (node; installed from npm).

import json
import os
import re
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402
import test_captions as tc  # noqa: E402  (its cues and SRT reader)

FRAME_MS = 40  # 25 fps
# The relay of a Matroska source with B-frames starts at its second key frame (2021 ms: the first
# has no dts), so the cues come 2002 ms later than in test_captions (60 frames of the 608 grid).
SHIFT = 2002
CC_SEI = b'\x04'  # SEI payload type 4: user data registered by ITU-T T.35 ...
CC_T35 = b'\xb5\x00\x31GA94\x03'  # ... country B5, provider 0031, "GA94", cc_data

harness.register_media('a53_av.mkv', lambda out: [
    '-f', 'lavfi', '-i', 'testsrc=size=320x180:rate=25', '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000',
    '-t', '21', '-c:v', 'libx264', '-preset', 'ultrafast', '-g', '50', '-bf', '3', '-pix_fmt', 'yuv420p',
    '-c:a', 'aac', '-b:a', '64k', '-ac', '2'])
harness.register_media('a53_av_vtt.mkv', lambda out: ['-i', harness.media_path('a53_av.mkv'), '-itsoffset',
                                                      str(SHIFT / 1000), '-i', harness.media_path('captions.vtt'),
                                                      '-map', '0', '-map', '1', '-c', 'copy'])

MUXJS = ('mux.js', '7.1.0', os.path.join(os.path.expanduser('~'), '.cache', 'pelvane-npm'))


# mux.js's 708 decoder ends its cue at every window command: join contiguous pieces of one text.
def merge_pieces(entries):
    out = []
    for e in entries:
        if out and out[-1]['text'] == e['text'] and out[-1]['end'] == e['start']:
            out[-1] = dict(out[-1], end=e['end'])
        else:
            out.append(dict(e))
    return out


# NODE_PATH holding mux.js, installed from npm into the cache dir when missing.
def muxjs_modules():
    name, version, cache = MUXJS
    pkg = os.path.join(cache, 'node_modules', name, 'package.json')
    installed = lambda: os.path.exists(pkg) and json.load(open(pkg)).get('version') == version  # noqa: E731
    harness.require(shutil.which('node') or '/usr/bin/node', 'nodejs')
    harness.require(shutil.which('npm') or '/usr/bin/npm', 'npm')
    if not installed():
        os.makedirs(cache, exist_ok=True)
        r = subprocess.run(['npm', 'install', '--prefix', cache, '--no-audit', '--no-fund', '--loglevel=error',
                            '%s@%s' % (name, version)], capture_output=True, text=True, timeout=300)
        assert installed(), 'npm install %s@%s failed: %s' % (name, version, r.stderr.strip()[-500:])
    return os.path.join(cache, 'node_modules')


def run_a53(data):
    r = subprocess.run([harness.CC_BIN, '--a53'], input=data, capture_output=True, timeout=60)
    return r.returncode, r.stdout, r.stderr.decode('utf-8', 'replace')


def nal_units(path):
    # NAL units of the first video stream, its packets' Annex B bytes copied as stored.
    es = subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-i', path, '-map', '0:v:0', '-c', 'copy', '-f', 'h264',
                         '-'], capture_output=True, timeout=60).stdout
    return [u.rstrip(b'\0') for u in es.split(b'\0\0\1') if u.rstrip(b'\0')]


def is_cc_sei(nal):
    return nal[0] & 0x1F == 6 and nal[1:2] == CC_SEI and nal[3:3 + len(CC_T35)] == CC_T35


class A53(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        harness.media_path('a53_av_vtt.mkv')
        with peers.HttpPeer(harness.MEDIA) as http:
            cls.relay = harness.run_pelvane(['--url', http.url('a53_av_vtt.mkv')], timeout=60, tag='a53-relay')
        cls.status, cls.out, cls.err = run_a53(cls.relay.stdout)
        cls.path = harness.write_file(harness.scratch('a53.ts'), cls.out)

    def test_stream_copied_with_captions_in_the_video(self):
        self.assertEqual((self.relay.status, self.status, self.err), (0, 0, ''), self.relay.describe())
        self.assertRelayTs(self.out, ['h264', 'aac'], name='a53-out')  # includes: decodes without an error
        self.assertEqual(tc.caption_packets(self.out), [], 'PID 0x1FFE is not written out')
        before = nal_units(harness.write_file(harness.scratch('a53-in.ts'), self.relay.stdout))
        after = nal_units(self.path)
        self.assertEqual([n for n in after if not is_cc_sei(n)], before, 'only the caption SEI was added')
        self.assertGreater(sum(map(is_cc_sei, after)), 100)

    def test_ffmpeg_caption_decoder(self):
        # The movie source starts its clock at the first picture (21 ms), hence the shift.
        first = float(harness.ffprobe_streams(self.path)[0]['start_time']) * 1000
        srt = harness.scratch('a53.srt')
        r = subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-y', '-f', 'lavfi', '-i',
                            'movie=%s[out0+subcc]' % self.path, '-map', '0:s', srt], capture_output=True, text=True,
                           timeout=120)
        got = tc.read_srt(open(srt, encoding='utf-8').read()) if r.returncode == 0 else []
        self.assertEqual(len(got), len(tc.CUES), r.stderr + str(got))
        # Words and which of them are in italics; the decoder's own line breaks and styling aside.
        words = lambda t: (re.sub(r'<[^>]*>|\{\\[^}]*\}', '', t).replace('\\h', ' ').split(),  # noqa: E731
                           ' '.join(re.findall(r'<i>(.*?)</i>', t, re.S)).split())
        for (start, end, text), c in zip(got, tc.CUES):
            self.assertEqual(words(text), words(c.want608))
            for shown, due in ((start + first, c.t608[0] + SHIFT), (end + first, c.t608[1] + SHIFT)):
                self.assertTrue(0 <= shown - due < FRAME_MS + 1, (c.id, shown, due))

    def test_muxjs_reads_608_and_708_from_the_stream(self):
        r = subprocess.run(['node', os.path.join(harness.HERE, 'a53_muxjs_decode.js'), self.path], capture_output=True,
                           text=True, timeout=120, env=dict(os.environ, NODE_PATH=muxjs_modules()))
        self.assertEqual(r.returncode, 0, r.stderr)
        got = json.loads(r.stdout)
        # A picture shows what is due at or before its time, never earlier: mux.js gives the
        # picture's pts, which is the cue's caption-clock time in ms times 90.
        on_time = lambda shown, due: all(0 <= s - d - SHIFT < FRAME_MS for s, d in zip(shown, due))  # noqa: E731
        cc1 = [g for g in got if g['stream'] == 'CC1']
        self.assertEqual([(g['text'], g['rows']) for g in cc1], [(c.want608, c.rows608) for c in tc.CUES])
        for g, c in zip(cc1, tc.CUES):
            self.assertTrue(on_time((g['start'], g['end']), c.t608), (g, c.t608))
        # mux.js parses a DTVCC packet when the next one starts: the last cue never ends there.
        svc1 = merge_pieces([g for g in got if g['stream'] == 'cc708_1'])
        self.assertEqual([g['text'] for g in svc1], [c.want708 for c in tc.CUES[:-1]])
        for g, c in zip(svc1, tc.CUES):
            self.assertTrue(on_time((g['start'], g['end']), c.t708), (g, c.t708))


if __name__ == '__main__':
    harness.main()
