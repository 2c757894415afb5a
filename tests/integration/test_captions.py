# Captions end to end: WebVTT cues in a Matroska source over HTTP, relayed, then read back by
# pelvane-cc (events as JSON, and CEA-608 decoded to SRT), and from the video pelvane-cc --a53
# writes by decoders nobody here wrote: the ffmpeg tool's caption decoder (subcc of the movie
# source) and mux.js's transport stream demuxer and caption parser (node; installed from npm).

import collections
import json
import os
import re
import signal
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
    Cue('long', 18500, 26500, '', 'Eight seconds on screen', 'Eight seconds on screen', (18485, 26493), [15],
        'Eight seconds on screen', (18485, 26493)),
    Cue('c9', 27000, 28000, '', 'After the long one', 'After the long one', (26994, 27995), [15],
        'After the long one', (26994, 27995)),
]
# The A/53 source has B-frames: its relay starts at the second key frame (2021 ms; the first has
# no dts), so its cues come 2002 ms later (60 frames of the 608 grid). 25 frames a second.
SHIFT, FRAME_MS = 2002, 40
CC_SEI = b'\x04\xb5\x00\x31GA94\x03'  # SEI type 4, T.35 country B5, provider 0031, "GA94", cc_data
MUXJS = os.path.join(os.path.expanduser('~'), '.cache', 'pelvane-npm', 'node_modules')  # make deps installs it

stamp = lambda ms: '00:00:%02d.%03d' % (ms // 1000, ms % 1000)  # noqa: E731
harness.register_media('cues.vtt', lambda out: harness.write_file(out, ('WEBVTT\n\n' + ''.join(
    '%s%s --> %s%s\n%s\n\n' % (c.id and c.id + '\n', stamp(c.start), stamp(c.end), c.settings and ' ' + c.settings,
                               c.text) for c in CUES)).encode()) and None)
AV = ['-f', 'lavfi', '-i', 'testsrc=size=320x180:rate=25', '-f', 'lavfi', '-i', 'sine=frequency=440:sample_rate=48000',
      '-c:v', 'libx264', '-preset', 'ultrafast', '-pix_fmt', 'yuv420p', '-c:a', 'aac', '-ac', '2']
harness.register_media('cues_av.mkv', lambda out: AV + ['-t', '30', '-g', '25', '-bf', '0'])
harness.register_media('cues_a53_av.mkv', lambda out: AV + ['-t', '32', '-g', '50', '-bf', '3', '-b:a', '64k'])
# -c copy keeps the cues' identifiers and settings (re-encoding would drop them).
for name, av, shift in (('cues_av_vtt.mkv', 'cues_av.mkv', 0), ('cues_sync_run_vtt.mkv', 'cues_sync_run.h264', 0),
                        ('cues_a53_av_vtt.mkv', 'cues_a53_av.mkv', SHIFT)):
    harness.register_media(name, lambda out, av=av, shift=shift: ['-framerate', '25'] * av.endswith('h264') + [
        '-i', harness.media_path(av), '-itsoffset', str(shift / 1000), '-i', harness.media_path('cues.vtt'),
        '-map', '0', '-map', '1', '-c', 'copy'])


# Frames padded with runs of 0x47 ('G') to 20,104 bytes: with its 112-byte moof each 25-frame MP4
# fragment then ends in a write of 19 * 188 bytes that looks like whole transport packets.
def sync_run_h264(out):
    frames, au = [], []
    for nal in nal_units(harness.media_path('cues_av.mkv')):
        au.append(b'\0\0\0\1' + nal)
        if nal[0] & 0x1F in (1, 5):  # one slice per frame
            frames, au = frames + [b''.join(au).ljust(20104, b'G')], []
    harness.write_file(out, b''.join(frames))


harness.register_media('cues_sync_run.h264', sync_run_h264)


# NAL units of the first video stream, its packets' Annex B bytes copied as stored.
def nal_units(path):
    es = subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-i', path, '-map', '0:v:0', '-c', 'copy', '-bsf:v',
                         'h264_mp4toannexb', '-f', 'h264', '-'], capture_output=True, timeout=60).stdout
    return [u.rstrip(b'\0') for u in es.split(b'\0\0\1') if u.rstrip(b'\0')]


# Per picture of the first video stream, the bytes of A/53 cc_data FFmpeg's decoder found (0: none).
def cc_data_sizes(path):
    r = subprocess.run(['ffmpeg', '-nostdin', '-i', path, '-map', '0:v:0', '-vf', 'showinfo', '-f', 'null', '-'],
                       capture_output=True, text=True, timeout=120)
    return [int(m.group(1)) if m else 0 for m in (re.search(r'A/53 closed captions \((\d+) bytes', f) for f in
                                                  re.split(r'\] n: *\d+ ', r.stderr)[1:])]


def caption_packets(data):
    return [data[o:o + 188] for o in range(0, len(data) - 187, 188) if (data[o + 1] & 0x1F, data[o + 2]) == (31, 254)]


# pelvane-cc over `data` on its standard input: (status, stdout, stderr text).
def run_cc(data, *args):
    r = subprocess.run([harness.CC_BIN] + list(args), input=data, capture_output=True, timeout=60)
    return r.returncode, r.stdout, r.stderr.decode('utf-8', 'replace')


# What the ffmpeg tool's caption decoder (subcc of the movie source) shows from the video at
# `path`: [(start ms, end ms, text)] on the video's clock (the source starts its own at the first
# picture).
def ffmpeg_captions(path):
    first = float(harness.ffprobe_streams(path)[0]['start_time']) * 1000
    r = subprocess.run(['ffmpeg', '-nostdin', '-v', 'error', '-f', 'lavfi', '-i', 'movie=%s[out0+subcc]' % path, '-map',
                        '0:s', '-f', 'srt', '-'], capture_output=True, text=True, timeout=120)
    assert r.returncode == 0, r.stderr
    return [(start + first, end + first, text) for start, end, text in read_srt(r.stdout)]


# [(start ms, end ms, text)] of an SRT document.
def read_srt(text):
    ms = lambda h, m, s, f: ((int(h) * 60 + int(m)) * 60 + int(s)) * 1000 + int(f)  # noqa: E731
    return [(ms(*b[:4]), ms(*b[4:8]), b[8]) for b in re.findall(
        r'\d+\n(\d+):(\d+):(\d+),(\d+) --> (\d+):(\d+):(\d+),(\d+)\n(.*?)\n\n', text.strip() + '\n\n', re.S)]


class Captions(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        for name in ('cues_av_vtt.mkv', 'cues_sync_run_vtt.mkv', 'cues_a53_av_vtt.mkv'):
            harness.media_path(name)
        cls.http = peers.HttpPeer(harness.MEDIA).__enter__()
        cls.relay = harness.run_pelvane(['--url', cls.http.url('cues_av_vtt.mkv')], tag='cc-file')
        cls.cc = run_cc(cls.relay.stdout)  # (status, JSON events, messages)
        cls.a53_relay = harness.run_pelvane(['--url', cls.http.url('cues_a53_av_vtt.mkv')], tag='a53-relay')
        cls.a53 = run_cc(cls.a53_relay.stdout, '--a53')
        cls.a53_path = harness.write_file(harness.scratch('a53.ts'), cls.a53[1])

    tearDownClass = classmethod(lambda cls: cls.http.__exit__())

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
        status, out, err = run_cc(run.stdout, '--srt')
        self.assertEqual((status, err, read_srt(out.decode())), (0, '', [(c.t608[0], c.t608[1], c.want608)
                                                                         for c in CUES]))

    def test_no_events_in_mp4_or_without_video(self):
        mp4 = harness.run_pelvane(['--mp4', '--url', self.http.url('cues_sync_run_vtt.mkv')], tag='cc-mp4')
        self.assertEqual((mp4.status, mp4.stdout.count(b'MOLVAR:VTT')), (0, 0), mp4.describe())
        # A width limit of 16 pixels asks for no video, and so for no captions; the last -w counts.
        audio = harness.run_pelvane(['-w', '640', '-w', '16', '--url', self.http.url('cues_av_vtt.mkv')],
                                    tag='cc-audio')
        self.assertEqual((audio.status, 'Found VTT stream.' in audio.stderr, caption_packets(audio.stdout)),
                         (0, True, []), audio.describe())
        self.assertRelayTs(audio, ['aac'], name='cc-audio')

    def test_a53_stream_copied_with_captions_in_the_video(self):
        self.assertEqual((self.a53_relay.status, self.a53[0], self.a53[2]), (0, 0, ''), self.a53_relay.describe())
        self.assertRelayTs(self.a53[1], ['h264', 'aac'], name='a53-out')  # includes: decodes without an error
        self.assertEqual(caption_packets(self.a53[1]), [], 'PID 0x1FFE is not written out')
        before = nal_units(harness.write_file(harness.scratch('a53-in.ts'), self.a53_relay.stdout))
        is_cc = lambda nal: nal[0] & 0x1F == 6 and nal[1:2] + nal[3:3 + 8] == CC_SEI  # noqa: E731
        after = nal_units(self.a53_path)
        self.assertEqual([n for n in after if not is_cc(n)], before, 'only the caption SEI was added')

    def test_a53_cc_data_in_every_picture(self):
        mpeg2 = run_cc(harness.read_file(harness.media_path('mpeg2_mp2.ts')), '--a53')
        for name, data in (('h264', self.a53[1]), ('mpeg2', mpeg2[1])):
            sizes = cc_data_sizes(harness.write_file(harness.scratch('every-%s.ts' % name), data))
            self.assertEqual((len(sizes) >= 125, set(sizes)), (True, {24 * 3}), name)  # 25 fps: cc_count 24

    def test_a53_video_with_captions_of_its_own_keeps_them(self):
        status, out, err = run_cc(b''.join(caption_packets(self.a53_relay.stdout)) + self.a53[1], '--a53')
        self.assertEqual((status, err), (0, 'pelvane-cc: the video already carries captions; caption events are '
                                            'dropped\n'))
        self.assertEqual(nal_units(harness.write_file(harness.scratch('a53-again.ts'), out)), nal_units(self.a53_path))

    def test_ends_when_its_reader_goes_under_ignored_sigpipe_or_output_fails(self):
        with open('/dev/full', 'wb') as full:
            r = subprocess.run([harness.CC_BIN], input=self.relay.stdout, stdout=full, stderr=subprocess.PIPE,
                               timeout=60)
        self.assertEqual((r.returncode, r.stderr), (1, b'pelvane-cc: failed to write standard output: No space left on '
                                                       b'device\n'))
        # The relayed stream over and over, until pelvane-cc has gone; the shell reports its end by signal.
        ts = harness.write_file(harness.scratch('cc-sigpipe.ts'), self.relay.stdout)
        p = harness.Proc(['bash', '-c', "trap '' PIPE; while cat \"$1\"; do :; done | \"$2\" 2>/dev/null", 'sh', ts,
                          harness.CC_BIN], stdout=subprocess.PIPE)
        self.assertTrue(p.popen.stdout.readline())
        p.popen.stdout.close()
        self.assertEqual(p.wait(5.0), 128 + signal.SIGPIPE)

    def test_a53_read_by_the_ffmpeg_caption_decoder(self):
        got = ffmpeg_captions(self.a53_path)
        self.assertEqual(len(got), len(CUES), got)
        # Words and which of them are in italics; the decoder's own line breaks and styling aside.
        words = lambda t: (re.sub(r'<[^>]*>|\{\\[^}]*\}', '', t).replace('\\h', ' ').split(),  # noqa: E731
                           ' '.join(re.findall(r'<i>(.*?)</i>', t, re.S)).split())
        for (start, end, text), c in zip(got, CUES):
            self.assertEqual(words(text), words(c.want608))
            for shown, due in ((start, c.t608[0] + SHIFT), (end, c.t608[1] + SHIFT)):
                self.assertTrue(0 <= shown - due < FRAME_MS + 1, (c.id, shown, due))

    def test_a53_read_by_muxjs_608_and_708(self):
        assert os.path.isdir(os.path.join(MUXJS, 'mux.js')), 'mux.js is missing from %s: make deps installs it' % MUXJS
        decode = [harness.need('node', 'nodejs'), os.path.join(harness.HERE, 'a53_muxjs_decode.js'), self.a53_path]
        r = subprocess.run(decode, capture_output=True, text=True, timeout=120, env=dict(os.environ, NODE_PATH=MUXJS))
        self.assertEqual(r.returncode, 0, r.stderr)
        got = json.loads(r.stdout)
        # A picture shows what is due at or before its time, never earlier: mux.js gives the
        # picture's pts, which is the cue's caption-clock time in ms times 90.
        on_time = lambda g, due: all(0 <= s - d - SHIFT < FRAME_MS for s, d in zip((g['start'], g['end']), due))  # noqa
        cc1 = [g for g in got if g['stream'] == 'CC1']
        self.assertEqual([(g['text'], g['rows']) for g in cc1], [(c.want608, c.rows608) for c in CUES])
        self.assertEqual([c.id for g, c in zip(cc1, CUES) if not on_time(g, c.t608)], [], cc1)
        # mux.js's 708 decoder ends its cue at every window command: contiguous pieces of one text
        # are joined. It parses a DTVCC packet when the next one starts: the last cue never ends.
        svc1 = []
        for g in (g for g in got if g['stream'] == 'cc708_1'):
            joins = svc1 and (svc1[-1]['text'], svc1[-1]['end']) == (g['text'], g['start'])
            svc1[-1:] = [dict(svc1[-1], end=g['end'])] if joins else svc1[-1:] + [g]
        self.assertEqual([g['text'] for g in svc1], [c.want708 for c in CUES[:-1]])
        self.assertEqual([c.id for g, c in zip(svc1, CUES) if not on_time(g, c.t708)], [], svc1)


if __name__ == '__main__':
    harness.main()
