"""Captions end to end: Matroska sources with a WebVTT track (copied from a .vtt file, so cue
identifiers and settings survive) served over HTTP on 127.0.0.1, relayed by pelvane, and the
output read back by pelvane-cc (JSON events and the CEA-608 data decoded to SRT), ffprobe and
the ffmpeg decoder. Also: fragmented MP4 carries no caption events and audio-only input queues
none."""

import json
import os
import re
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402

CAPTION_PID = 0x1FFE
MAGIC = b'MOLVAR:VTT'

# (identifier, start ms, end ms, settings, text): 0.8 s apart, so each caption's CEA-608 data
# can load before its start; two 188-byte packets or more per event, so the continuity
# counter wraps.
CUES = [
    ('c01', 600, 1100, 'align:start line:90%', 'One, café'),
    ('c02', 1400, 1900, 'position:30% align:left', 'Two: niño'),
    ('c03', 2200, 2700, 'line:2', 'Three ü'),
    ('', 3000, 3500, '', 'Four'),
    ('c05', 3800, 4300, 'align:end', 'Five, <i>italic</i>'),
    ('c06', 4600, 5100, '', 'Six ½ ♪'),
    ('c07', 5400, 5900, 'line:-1 align:center', 'Seven'),
    ('c08', 6200, 6700, '', 'Eight, two\nlines'),
    ('c09', 7000, 7500, 'align:right', '¿Nine?'),
    ('c10', 7800, 8300, 'line:0', 'Ten'),
]

# A cue shows on the 29.97 fps frame grid, up to two frames late after the previous erase.
SRT_SLACK_MS = 100


def captions_vtt():
    """The cues as a .vtt file (all within the first minute)."""
    def stamp(ms):
        return '00:00:%02d.%03d' % (ms // 1000, ms % 1000)
    return 'WEBVTT\n\n' + ''.join('%s%s --> %s%s\n%s\n\n' % (i and i + '\n', stamp(s), stamp(e), st and ' ' + st, t)
                                  for i, s, e, st, t in CUES)


def carried_settings(settings):
    """Settings as an event carries them: name:value pairs in byte-wise order of the names."""
    pairs = [p.split(':', 1) for p in settings.split()]
    return ' '.join('%s:%s' % (n, v) for n, v in sorted(pairs, key=lambda p: p[0].encode()))


def _write_vtt(out):
    with open(out, 'w') as f:
        f.write(captions_vtt())


harness.register_media('cc_cues.vtt', lambda out: _write_vtt(out))
harness.register_media('cc_av.mkv', lambda out: [
    '-f', 'lavfi', '-i', 'testsrc=size=320x180:rate=25',
    '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000', '-t', '9',
    '-c:v', 'libx264', '-preset', 'ultrafast', '-g', '25', '-bf', '0', '-pix_fmt', 'yuv420p',
    '-c:a', 'aac', '-b:a', '64k', '-ac', '2'])
# -c copy keeps the identifiers and settings of the .vtt cues (re-encoding would drop them).
harness.register_media('cc_av_vtt.mkv', lambda out: [
    '-i', harness.media_path('cc_av.mkv'), '-i', harness.media_path('cc_cues.vtt'),
    '-map', '0', '-map', '1', '-c', 'copy'])
harness.register_media('cc_audio_vtt.mkv', lambda out: [
    '-i', harness.media_path('audio_only.mkv'), '-i', harness.media_path('cc_cues.vtt'),
    '-map', '0', '-map', '1', '-c', 'copy'])


def caption_packets(data):
    """The PID 0x1FFE packets of a transport stream, in order."""
    return [data[off:off + 188] for off in range(0, len(data) - 187, 188)
            if ((data[off + 1] & 0x1F) << 8 | data[off + 2]) == CAPTION_PID]


def run_cc(data, *args, tag='cc'):
    """pelvane-cc over `data` on its standard input: (status, stdout text, stderr text)."""
    src = harness.write_file(harness.scratch(tag + '.in'), data)
    with open(src, 'rb') as f:
        r = subprocess.run([harness.CC_BIN] + list(args), stdin=f, capture_output=True, timeout=60)
    return r.returncode, r.stdout.decode('utf-8'), r.stderr.decode('utf-8', 'replace')


def parse_srt(text):
    """[(start ms, end ms, text)] of an SRT document (all within the first minute)."""
    blocks = re.findall(r'\d+\n00:00:(\d\d),(\d{3}) --> 00:00:(\d\d),(\d{3})\n(.*?)\n\n', text, re.S)
    return [(int(s) * 1000 + int(sm), int(e) * 1000 + int(em), t) for s, sm, e, em, t in blocks]


class Captions(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        for name in ('cc_av_vtt.mkv', 'cc_audio_vtt.mkv'):
            harness.media_path(name)
        cls.http = peers.HttpPeer(harness.MEDIA).__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.http.__exit__()

    def assertCaptionsCarried(self, run):
        ctx = run.describe()
        self.assertIn('Found VTT stream.', run.stderr, ctx)
        self.assertNotIn('VTT event', run.stderr, ctx)  # no overrun, no cut event
        self.assertRelayTs(run, ['h264', 'aac'], name='cc-relay')

        packets = caption_packets(run.stdout)
        counters = [p[3] & 0x0F for p in packets]
        self.assertGreater(len(counters), 16, 'too few caption packets to wrap the counter\n' + ctx)
        self.assertEqual(counters, [n % 16 for n in range(len(counters))], ctx)
        self.assertTrue(all(p[3] & 0xF0 == 0x10 for p in packets), 'payload-only caption packets')

        status, out, err = run_cc(run.stdout, tag='cc-json')
        self.assertEqual((status, err), (0, ''), ctx)
        events = [json.loads(line) for line in out.splitlines()]
        got = [(e['identifier'], e['start'], e['end'], e['settings'], e['text']) for e in events]
        want = [(i, s, e, carried_settings(st), t) for i, s, e, st, t in CUES]
        self.assertEqual(got, want, ctx)
        for e in events:
            self.assertTrue(e['cc608'] and e['cc708'], 'no CEA-608/708 data in %r' % e['text'])
            times = [p[0] for p in e['cc608']]
            self.assertEqual(times, sorted(times), 'CEA-608 times of %r' % e['text'])

        status, out, err = run_cc(run.stdout, '--srt', tag='cc-srt')
        self.assertEqual((status, err), (0, ''), ctx)
        shown = parse_srt(out)
        self.assertEqual([c[2] for c in shown], [c[4] for c in CUES], out)
        for (start, end, text), (_, cue_start, cue_end, _, _) in zip(shown, CUES):
            self.assertLessEqual(abs(start - cue_start), SRT_SLACK_MS, '%r shown at %d' % (text, start))
            self.assertLessEqual(abs(end - cue_end), SRT_SLACK_MS, '%r erased at %d' % (text, end))

    def test_file_and_live_listener_over_http(self):
        run = harness.run_pelvane(['--url', self.http.url('cc_av_vtt.mkv')], timeout=60, tag='cc-file')
        self.assertEqual(run.status, 0, run.describe())
        self.assertCaptionsCarried(run)
        with peers.ListenerPeer(harness.media_path('cc_av_vtt.mkv'), 'http', loop=False,
                                fmt='matroska') as live:  # paced by the ffmpeg tool's -re
            run = harness.run_pelvane(['--url', live.url], timeout=60, tag='cc-live')
        self.assertEqual(run.status, 0, run.describe())
        self.assertCaptionsCarried(run)

    def test_mp4_output_carries_no_events(self):
        run = harness.run_pelvane(['--mp4', '--url', self.http.url('cc_av_vtt.mkv')], timeout=60, tag='cc-mp4')
        self.assertEqual(run.status, 0, run.describe())
        self.assertIn('moov', harness.mp4_top_boxes(run.stdout), run.describe())
        self.assertNotIn(MAGIC, run.stdout, run.describe())

    def test_audio_only_queues_nothing(self):
        run = harness.run_pelvane(['--url', self.http.url('cc_audio_vtt.mkv')], timeout=60, tag='cc-audio')
        self.assertEqual(run.status, 0, run.describe())
        self.assertIn('Found VTT stream.', run.stderr, run.describe())
        self.assertRelayTs(run, ['aac'], name='cc-audio')
        self.assertEqual(caption_packets(run.stdout), [], run.describe())

    def test_dump_tool_arguments(self):
        for args in (['--json'], ['--srt', '--srt'], ['x']):
            with self.subTest(args=args):
                status, out, err = run_cc(b'', *args, tag='cc-args')
                self.assertEqual((status, out), (1, ''))
                self.assertIn("pelvane-cc: unexpected argument '%s'\n" % args[-1], err)
                self.assertIn('usage: pelvane-cc [--srt] < stream.ts\n', err)
        self.assertEqual(run_cc(b'', tag='cc-empty'), (0, '', ''))

if __name__ == '__main__':
    harness.main()
