"""Captions end to end: a Matroska source with a WebVTT track copied from a .vtt file (so cue
identifiers and settings survive), served over HTTP on 127.0.0.1 as a file and live by the ffmpeg
tool's listener, relayed by pelvane. The output is read back with independent decoders: pelvane-cc
(events as JSON, CEA-608 decoded to SRT), mux.js (608, 708 and the SEI route; installed from npm
into a cache dir), the ffmpeg tool's EIA-608 decoder through an SCC file, and ffprobe/ffmpeg for
the video and audio. Also: fragmented MP4 carries no events, audio-only input queues none."""

import collections
import json
import os
import re
import shutil
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402

MUXJS = ('mux.js', '7.1.0', os.path.join(os.path.expanduser('~'), '.cache', 'pelvane-npm'))

# What CEA-608 shows (italics as <i>, rows joined by a line feed), when (grid keys in ms, later
# where a caption waits for the previous erase) and on which rows; what CEA-708 shows, and when.
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
    Cue('', 6500, 7000, 'line:-1', 'Short one', 'Short one', (6507, 7007), [15], 'Short one', (6507, 7007)),
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


def carried_settings(settings):
    """Settings as an event carries them: name:value pairs in byte-wise order of the names."""
    return ' '.join(sorted(settings.split(), key=lambda p: p.split(':', 1)[0].encode()))


harness.register_media('captions.vtt', harness.text_recipe(vtt_text()))
harness.register_media('captions_av.mkv', lambda out: [
    '-f', 'lavfi', '-i', 'testsrc=size=320x180:rate=25', '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000',
    '-t', '19', '-c:v', 'libx264', '-preset', 'ultrafast', '-g', '25', '-bf', '0', '-pix_fmt', 'yuv420p',
    '-c:a', 'aac', '-b:a', '64k', '-ac', '2'])
# -c copy keeps the cues' identifiers and settings (re-encoding would drop them).
for name, av in (('captions_av_vtt.mkv', 'captions_av.mkv'), ('captions_audio_vtt.mkv', 'audio_only.mkv')):
    harness.register_media(name, lambda out, av=av: ['-i', harness.media_path(av), '-i',
                                                     harness.media_path('captions.vtt'), '-map', '0', '-map', '1',
                                                     '-c', 'copy'])


def caption_packets(data):
    return [data[off:off + 188] for off in range(0, len(data) - 187, 188)
            if (data[off + 1] & 0x1F, data[off + 2]) == (0x1F, 0xFE)]


def run_cc(data, *args):
    """pelvane-cc over `data` on its standard input: (status, stdout text, stderr text)."""
    r = subprocess.run([harness.CC_BIN] + list(args), input=data, capture_output=True, timeout=60)
    return r.returncode, r.stdout.decode('utf-8'), r.stderr.decode('utf-8', 'replace')


def read_srt(text):
    """[(start ms, end ms, text)] of an SRT document."""
    ms = lambda h, m, s, f: ((int(h) * 60 + int(m)) * 60 + int(s)) * 1000 + int(f)  # noqa: E731
    return [(ms(*b[:4]), ms(*b[4:8]), b[8]) for b in re.findall(
        r'\d+\n(\d+):(\d+):(\d+),(\d+) --> (\d+):(\d+):(\d+),(\d+)\n(.*?)\n\n', text.strip() + '\n\n', re.S)]


def scc_document(events):
    """The events' CC1 pairs as a Scenarist SCC file on 30-frame non-drop labels; EOC and EDM start a
    line of their own, because readers stamp a whole line with its label."""
    frames = {(t * 60 + 1001) // 2002: p.lower() for e in events for t, p in e['cc608']}
    lines, prev, prev_pair = ['Scenarist_SCC V1.0'], -2, None
    for f in sorted(frames):
        p = frames[f]
        if f != prev + 1 or (p in ('942f', '942c') and p != prev_pair):
            lines.append('\n%02d:%02d:%02d:%02d\t%s' % (f // 108000, f // 1800 % 60, f // 30 % 60, f % 30, p))
        else:
            lines[-1] += ' ' + p
        prev, prev_pair = f, p
    return '\n'.join(lines) + '\n\n'


def scc_label_ms(ms):
    """Time an SCC reader gives the frame of key `ms`: its 30-frame label, a frame counted as 33 ms."""
    frame = (ms * 60 + 1001) // 2002
    return (frame // 30) * 1000 + (frame % 30) * 33


def plain(text):
    return ' '.join(re.sub(r'</?i>', '', text).split())


def italic_words(text):
    return set(' '.join(re.findall(r'<i>(.*?)</i>', text, re.S)).split())


def merge_pieces(entries):
    """mux.js's 708 decoder ends its cue at every window command: join contiguous pieces of one text."""
    out = []
    for e in entries:
        if out and out[-1]['text'] == e['text'] and out[-1]['end'] == e['start']:
            out[-1] = dict(out[-1], end=e['end'])
        else:
            out.append(dict(e))
    return out


def muxjs_modules():
    """(NODE_PATH with mux.js, None), installing it from npm into the cache dir when missing; or (None, why)."""
    name, version, cache = MUXJS
    pkg = os.path.join(cache, 'node_modules', name, 'package.json')
    installed = lambda: os.path.exists(pkg) and json.load(open(pkg)).get('version') == version  # noqa: E731
    if not shutil.which('node') or not shutil.which('npm'):
        return None, 'node or npm is not installed'
    if not installed():
        os.makedirs(cache, exist_ok=True)
        r = subprocess.run(['npm', 'install', '--prefix', cache, '--no-audit', '--no-fund', '--loglevel=error',
                            '%s@%s' % (name, version)], capture_output=True, text=True, timeout=300)
        if r.returncode != 0 or not installed():
            return None, 'npm install %s@%s failed: %s' % (name, version, r.stderr.strip()[-500:])
    return os.path.join(cache, 'node_modules'), None


class Captions(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        for name in ('captions_av_vtt.mkv', 'captions_audio_vtt.mkv'):
            harness.media_path(name)
        cls.http = peers.HttpPeer(harness.MEDIA).__enter__()
        cls.relay = harness.run_pelvane(['--url', cls.http.url('captions_av_vtt.mkv')], timeout=60, tag='cc-file')
        cls.cc = run_cc(cls.relay.stdout)  # (status, JSON events, messages)
        cls.cc_json = cls.cc[1]
        cls.events = [json.loads(line) for line in cls.cc_json.splitlines()] if cls.cc[0] == 0 else []

    @classmethod
    def tearDownClass(cls):
        cls.http.__exit__()

    def assertCaptionsCarried(self, run, events):
        ctx = run.describe()
        self.assertEqual(run.status, 0, ctx)
        self.assertIn('Found VTT stream.', run.stderr, ctx)
        self.assertNotIn('VTT event', run.stderr, ctx)  # no overrun, no cut event
        self.assertRelayTs(run, ['h264', 'aac'], name='cc-relay')
        packets = caption_packets(run.stdout)
        self.assertGreater(len(packets), 16, 'too few caption packets to wrap the counter\n' + ctx)
        self.assertEqual([p[3] for p in packets], [0x10 | n % 16 for n in range(len(packets))], ctx)
        got = [(e['identifier'], e['start'], e['end'], e['settings'], e['text']) for e in events]
        self.assertEqual(got, [(c.id, c.start, c.end, carried_settings(c.settings), c.text) for c in CUES], ctx)

    def test_file_relay_carries_one_event_per_cue(self):
        self.assertEqual((self.cc[0], self.cc[2]), (0, ''))
        self.assertCaptionsCarried(self.relay, self.events)

    def test_live_listener_gives_the_same_events(self):
        with peers.ListenerPeer(harness.media_path('captions_av_vtt.mkv'), 'http', loop=False,
                                fmt='matroska') as live:  # paced by the ffmpeg tool's -re
            run = harness.run_pelvane(['--url', live.url], timeout=60, tag='cc-live')
        status, out, err = run_cc(run.stdout)
        self.assertEqual((status, err), (0, ''))
        self.assertCaptionsCarried(run, [json.loads(line) for line in out.splitlines()])
        self.assertEqual(out, self.cc_json, 'the same cues give the same events')

    def test_pelvane_cc_srt(self):
        status, out, err = run_cc(self.relay.stdout, '--srt')
        self.assertEqual((status, err), (0, ''))
        self.assertEqual(read_srt(out), [(c.t608[0], c.t608[1], c.want608) for c in CUES], out)

    def test_muxjs_routes(self):
        node_path, problem = muxjs_modules()
        if problem:
            self.skipTest(problem)
        events = harness.write_file(harness.scratch('cc-events.json'), self.cc_json.encode())
        r = subprocess.run(['node', os.path.join(harness.HERE, 'cea_muxjs_decode.js'), events], capture_output=True,
                           text=True, timeout=120, env=dict(os.environ, NODE_PATH=node_path))
        self.assertEqual(r.returncode, 0, r.stderr)
        got = json.loads(r.stdout)
        self.assertEqual([(g['text'], (g['start'], g['end']), [r['line'] for r in g['rows']]) for g in got['cc608']],
                         [(c.want608, c.t608, c.rows608) for c in CUES])
        self.assertEqual([(g['text'], (g['start'], g['end'])) for g in merge_pieces(got['cc708'])],
                         [(c.want708, c.t708) for c in CUES])
        # The cc_data header bytes (FC for the 608 pair, FF/FE for DTVCC) and the 608-first order
        # let a caption stream demultiplex both the same way.
        key = lambda e: (e['start'], e['end'], e['text'])  # noqa: E731
        self.assertEqual([key(e) for e in got['sei'] if e['stream'] == 'CC1'], [key(e) for e in got['cc608']])
        self.assertEqual([key(e) for e in merge_pieces([e for e in got['sei'] if e['stream'] == 'cc708_1'])],
                         [key(e) for e in merge_pieces(got['cc708'])])

    def test_ffmpeg_eia608_decoder(self):
        scc = harness.write_file(harness.scratch('cc.scc'), scc_document(self.events).encode())
        r = subprocess.run(['ffmpeg', '-hide_banner', '-loglevel', 'error', '-y', '-i', scc, '-f', 'srt', '-'],
                           capture_output=True, text=True, timeout=60, stdin=subprocess.DEVNULL)
        clean = lambda t: plain(re.sub(r'</?font[^>]*>|\{\\[^}]*\}', '', t).replace('\\h', ' '))  # noqa: E731
        got = [(s, e, clean(t), italic_words(t)) for s, e, t in read_srt(r.stdout)]
        self.assertEqual(got, [(scc_label_ms(c.t608[0]), scc_label_ms(c.t608[1]), plain(c.want608),
                                italic_words(c.want608)) for c in CUES], r.stdout + r.stderr)

    def test_no_events_in_mp4_or_without_video(self):
        mp4 = harness.run_pelvane(['--mp4', '--url', self.http.url('captions_av_vtt.mkv')], timeout=60, tag='cc-mp4')
        self.assertEqual(mp4.status, 0, mp4.describe())
        self.assertIn('moov', harness.mp4_top_boxes(mp4.stdout), mp4.describe())
        self.assertNotIn(b'MOLVAR:VTT', mp4.stdout, mp4.describe())
        audio = harness.run_pelvane(['--url', self.http.url('captions_audio_vtt.mkv')], timeout=60, tag='cc-audio')
        self.assertEqual(audio.status, 0, audio.describe())
        self.assertIn('Found VTT stream.', audio.stderr, audio.describe())
        self.assertRelayTs(audio, ['aac'], name='cc-audio')
        self.assertEqual(caption_packets(audio.stdout), [], audio.describe())

    def test_dump_tool_arguments(self):
        for args in (['--json'], ['--srt', '--srt'], ['--srt', '--a53'], ['x']):
            status, out, err = run_cc(b'', *args)
            self.assertEqual((status, out), (1, ''), args)
            self.assertIn("pelvane-cc: unexpected argument '%s'\n" % args[-1], err)
            self.assertIn('usage: pelvane-cc [--srt | --a53] < stream.ts\n', err)
        self.assertEqual(run_cc(b''), (0, '', ''))


if __name__ == '__main__':
    harness.main()
