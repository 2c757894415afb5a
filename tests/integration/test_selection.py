"""Stream selection against generated Matroska files served over HTTP on 127.0.0.1: the three
report lines on standard error, the exit status, and which streams really come out."""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402

# (case, media, extra arguments, video index, audio index, caption index); None = not picked.
# two_h264_vtt.mkv: 0 H.264 1280x720, 1 H.264 640x360, 2 AAC 48 kHz, 3 WebVTT.
# h264_720_1080.mkv: 0 H.264 1280x720, 1 H.264 1280x1080.
# hevc_aac.mkv: 0 HEVC, 1 AAC. aac_two_rates.mkv: 0 AAC 44.1 kHz, 1 AAC 48 kHz.
# aac_equal_rates.mkv: 0 and 1 AAC 48 kHz.
CASES = [
    ('largest video, no limits', 'two_h264_vtt.mkv', [], 0, 2, 3),
    ('-w 800 leaves the smaller one', 'two_h264_vtt.mkv', ['-w', '800'], 1, 2, 3),
    ('limits are inclusive', 'two_h264_vtt.mkv', ['-w', '1280', '-h', '720'], 0, 2, 3),
    ('one pixel too narrow', 'two_h264_vtt.mkv', ['-w', '1279'], 1, 2, 3),
    ('-h 400 alone', 'two_h264_vtt.mkv', ['-h', '400'], 1, 2, 3),
    ('none fits, smallest as fallback', 'two_h264_vtt.mkv', ['-w', '600', '-h', '300'], 1, 2, 3),
    ('-h 17 still falls back', 'two_h264_vtt.mkv', ['-h', '17'], 1, 2, 3),
    ('-h 16 means no video', 'two_h264_vtt.mkv', ['-h', '16'], None, 2, 3),
    ('taller of two equally wide', 'h264_720_1080.mkv', [], 1, None, None),
    ('-h 1000 keeps the 720-line one', 'h264_720_1080.mkv', ['-h', '1000'], 0, None, None),
    ('HEVC is not relayed, AAC is', 'hevc_aac.mkv', [], None, 1, None),
    ('higher sample rate wins', 'aac_two_rates.mkv', [], None, 1, None),
    ('equal rates keep the lower index', 'aac_equal_rates.mkv', [], None, 0, None),
    ('WebVTT alone is not enough', 'vtt_only.mkv', [], None, None, 0),
]


def stream_table(path):
    return {s['index']: s for s in harness.ffprobe_streams(path)}


def report_lines(streams, v, a, t):
    """The three lines pelvane writes after choosing, from ffprobe's view of the same file."""
    x = {i: streams[i].get('extradata_size', 0) for i in (v, a) if i is not None}
    return '\n'.join([
        'Did not find video stream' if v is None else 'Found video stream. Index %d, %d x %d. %d bytes extradata' % (
            v, streams[v]['width'], streams[v]['height'], x[v]),
        'Did not find audio stream' if a is None else 'Found audio stream. Index %d, %sHz %d-channel. %d bytes '
        'extradata' % (a, streams[a]['sample_rate'], streams[a]['channels'], x[a]),
        'Did not find VTT stream' if t is None else 'Found VTT stream. Index %d' % t]) + '\n'


def signature(s):
    """What tells the streams of one file apart."""
    return tuple(str(s.get(k)) for k in ('codec_type', 'codec_name', 'width', 'height', 'sample_rate', 'channels'))


class Selection(harness.RelayChecks):

    def test_selection(self):
        with peers.HttpPeer(harness.MEDIA) as http:
            for case, name, args, v, a, t in CASES:
                with self.subTest(case=case):
                    self.check(stream_table(harness.media_path(name)), args + ['--url', http.url(name)], v, a, t)

    def check(self, streams, args, v, a, t):
        run = harness.run_pelvane(args, timeout=60, tag='select')
        expected = report_lines(streams, v, a, t)
        if v is None and a is None:
            self.assertTrue(run.stderr.endswith(expected + 'Did not find any streams\n'), run.describe())
            self.assertEqual(run.status, 1, run.describe())
            self.assertGreaterEqual(run.elapsed, 3.0, run.describe())
            self.assertEqual(run.stdout, b'', run.describe())
            return
        self.assertIn(expected, run.stderr, run.describe())
        self.assertNotIn('Did not find any streams', run.stderr, run.describe())
        self.assertEqual(run.status, 0, run.describe())
        # What was chosen is what comes out.
        out = harness.write_file(harness.scratch('select.ts'), run.stdout)
        got = sorted(signature(s) for s in harness.ffprobe_streams(out))
        want = sorted(signature(streams[i]) for i in (v, a) if i is not None)
        self.assertEqual(got, want, run.describe())


if __name__ == '__main__':
    harness.main()
