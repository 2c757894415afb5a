# Captions end to end: WebVTT cues in a Matroska source over HTTP, relayed, then read back by
# pelvane-cc (events as JSON, and CEA-608 decoded to SRT). Independent decoders read the same cues
# from the video in test_a53.

import collections
import json
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402

# What CEA-608 shows (italics as <i>, rows joined by a line feed), when (ms) and on which rows;
# what CEA-708 shows, and when.
Cue = collections.namedtuple('Cue', 'id start end settings text want608 t608 rows608 want708 t708')
CUES = [
    Cue('c1', 1000, 3000, '', 'Hello, world', 'Hello, world', (1001, 3003), [15], 'Hello, world', (1001, 3003)),
    # back to back with the first: italics, accents, specials, two rows, line 90%
    Cue('c2', 3000, 5000, 'align:start line:90%', '<i>Second</i> cue, two\nlines: café ñ ü ½ ♪ “ok”',
        '<i>Second</i> cue, two\nlines: café ñ ü ½ ♪ “ok”', (3070, 5005), [14, 15],
        'Second cue, two\nlines: café ñ ü ½ ♪ “ok”', (3036, 4805)),
    # overlaps the second: 608 waits for its erase, 708 replaces it at once
    Cue('c3', 4800, 6400, 'line:0 align:start position:10%', '<v Bob>Overlap {x} *y* &amp; more',
        'Overlap {x) *y* & more', (5072, 6406), [1], 'Overlap {x} *y* & more', (4805, 6406)),
    # wrapped at 32 columns
    Cue('c5', 8000, 10000, 'position:50%,line-left', 'Ça va? Él está aquí. Ärger über Öl',
        'Ça va? Él está aquí. Ärger über\nÖl', (8008, 10010), [14, 15],
        'Ça va? Él está aquí. Ärger über\nÖl', (8008, 10010)),
    Cue('c6', 10000, 12000, 'align:end line:3', 'Right <i>side</i>', 'Right <i>side</i>', (10077, 12012), [4],
        'Right side', (10043, 12012)),
    Cue('c7', 13000, 16000, 'line:50%,center', 'Line one of three\nLine two\nLine three is here',
        'Line one of three\nLine two\nLine three is here', (13013, 16016), [7, 8, 9],
        'Line one of three\nLine two\nLine three is here', (13013, 16016)),
    Cue('', 16500, 18000, '', '¡Sí! — ¿Qué? … ♪♪ ß', '¡Sí! -- ¿Qué? ... ♪ ♪ ß', (16517, 17985), [15],
        '¡Sí! - ¿Qué? … ♪♪ ß', (16517, 17985)),
]


def vtt_text():
    stamp = lambda ms: '00:00:%02d.%03d' % (ms // 1000, ms % 1000)  # noqa: E731
    return 'WEBVTT\n\n' + ''.join('%s%s --> %s%s\n%s\n\n' % (c.id and c.id + '\n', stamp(c.start), stamp(c.end),
                                                          c.settings and ' ' + c.settings, c.text) for c in CUES)


harness.register_media('captions.vtt', lambda out: harness.write_file(out, vtt_text().encode()) and None)
harness.register_media('captions_av.mkv', lambda out: [
    '-f', 'lavfi', '-i', 'testsrc=size=320x180:rate=25', '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000',
    '-t', '19', '-c:v', 'libx264', '-preset', 'ultrafast', '-g', '25', '-bf', '0', '-pix_fmt', 'yuv420p',
    '-c:a', 'aac', '-ac', '2'])
# -c copy keeps the cues' identifiers and settings (re-encoding would drop them).
for name, av in (('captions_av_vtt.mkv', 'captions_av.mkv'), ('captions_audio_vtt.mkv', 'audio_only.mkv')):
    harness.register_media(name, lambda out, av=av: ['-i', harness.media_path(av), '-i',
                                                     harness.media_path('captions.vtt'), '-map', '0', '-map', '1',
                                                     '-c', 'copy'])


# Frames padded with runs of 0x47 ('G') to 20,104 bytes: with its 112-byte moof each 25-frame MP4
# fragment then ends in a write of 19 * 188 bytes that looks like whole transport packets.
def sync_run_h264(out):
    h264 = subprocess.run(['ffmpeg', '-v', 'error', '-i', harness.media_path('captions_av.mkv'), '-map', '0:v', '-c',
                           'copy', '-bsf:v', 'h264_mp4toannexb', '-f', 'h264', '-'], capture_output=True, check=True,
                          timeout=120).stdout
    frames, au = [], []
    for nal in h264.split(b'\0\0\1')[1:]:
        au.append(b'\0\0\0\1' + nal.rstrip(b'\0'))
        if nal[0] & 0x1F in (1, 5):  # one slice per frame
            frames, au = frames + [b''.join(au).ljust(20104, b'G')], []
    harness.write_file(out, b''.join(frames))


harness.register_media('sync_run.h264', sync_run_h264)
harness.register_media('sync_run_vtt.mkv', lambda out: ['-framerate', '25', '-i', harness.media_path('sync_run.h264'),
                                                        '-i', harness.media_path('captions.vtt'), '-map', '0', '-map',
                                                        '1', '-c', 'copy'])


def caption_packets(data):
    return [data[off:off + 188] for off in range(0, len(data) - 187, 188)
            if (data[off + 1] & 0x1F, data[off + 2]) == (0x1F, 0xFE)]


# pelvane-cc over `data` on its standard input: (status, stdout text, stderr text).
def run_cc(data, *args):
    r = subprocess.run([harness.CC_BIN] + list(args), input=data, capture_output=True, timeout=60)
    return r.returncode, r.stdout.decode('utf-8'), r.stderr.decode('utf-8', 'replace')


# [(start ms, end ms, text)] of an SRT document.
def read_srt(text):
    ms = lambda h, m, s, f: ((int(h) * 60 + int(m)) * 60 + int(s)) * 1000 + int(f)  # noqa: E731
    return [(ms(*b[:4]), ms(*b[4:8]), b[8]) for b in re.findall(
        r'\d+\n(\d+):(\d+):(\d+),(\d+) --> (\d+):(\d+):(\d+),(\d+)\n(.*?)\n\n', text.strip() + '\n\n', re.S)]


class Captions(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        for name in ('captions_av_vtt.mkv', 'captions_audio_vtt.mkv', 'sync_run_vtt.mkv'):
            harness.media_path(name)
        cls.http = peers.HttpPeer(harness.MEDIA).__enter__()
        cls.relay = harness.run_pelvane(['--url', cls.http.url('captions_av_vtt.mkv')], tag='cc-file')
        cls.cc = run_cc(cls.relay.stdout)  # (status, JSON events, messages)

    @classmethod
    def tearDownClass(cls):
        cls.http.__exit__()

    def test_one_event_per_cue(self):
        run, ctx = self.relay, self.relay.describe()
        self.assertEqual((run.status, self.cc[0], self.cc[2]), (0, 0, ''), ctx)
        self.assertNotIn('VTT event', run.stderr, ctx)  # no overrun, no cut event
        self.assertRelayTs(run, ['h264', 'aac'])
        packets = caption_packets(run.stdout)
        self.assertGreater(len(packets), 16, 'too few caption packets to wrap the counter')
        self.assertEqual([p[3] for p in packets], [0x10 | n % 16 for n in range(len(packets))], ctx)
        # Settings as an event carries them: name:value pairs in byte-wise order of the names.
        settings = lambda s: ' '.join(sorted(s.split(), key=lambda p: p.split(':', 1)[0].encode()))  # noqa: E731
        got = [(e['identifier'], e['start'], e['end'], e['settings'], e['text']) for e in map(
            json.loads, self.cc[1].splitlines())]
        self.assertEqual(got, [(c.id, c.start, c.end, settings(c.settings), c.text) for c in CUES], ctx)
        # A lost packet is reported and the reader goes on with the next event.
        lost = run.stdout.find(packets[3])
        status, out, err = run_cc(run.stdout[:lost] + run.stdout[lost + 188:])
        self.assertIn('caption continuity counter', err)
        self.assertEqual(len(out.splitlines()), len(CUES) - 1, err)

    def test_pelvane_cc_srt(self):
        status, out, err = run_cc(self.relay.stdout, '--srt')
        self.assertEqual((status, err), (0, ''))
        self.assertEqual(read_srt(out), [(c.t608[0], c.t608[1], c.want608) for c in CUES], out)

    def test_no_events_in_mp4_or_without_video(self):
        mp4 = harness.run_pelvane(['--mp4', '--url', self.http.url('sync_run_vtt.mkv')], tag='cc-mp4')
        self.assertEqual(mp4.status, 0, mp4.describe())
        self.assertEqual(mp4.stdout.count(b'MOLVAR:VTT'), 0, mp4.describe())
        audio = harness.run_pelvane(['--url', self.http.url('captions_audio_vtt.mkv')], tag='cc-audio')
        self.assertEqual(audio.status, 0, audio.describe())
        self.assertIn('Found VTT stream.', audio.stderr, audio.describe())
        self.assertRelayTs(audio, ['aac'], name='cc-audio')
        self.assertEqual(caption_packets(audio.stdout), [], audio.describe())


if __name__ == '__main__':
    harness.main()
