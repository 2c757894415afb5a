# Captions from an HLS channel's WebVTT subtitle rendition, which FFmpeg's HLS reader skips: a
# channel the ffmpeg tool segments (video and audio far from time 0) with .vtt segments and an
# X-TIMESTAMP-MAP written here, served finished (over HTTPS, through a redirect) and live (a
# sliding window growing in real time), relayed, moved into the video by pelvane-cc --a53 and read
# back by the ffmpeg tool's caption decoder.

import collections
import json
import os
import re
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402
import test_captions as tc  # noqa: E402

SEGMENTS, OFFSET_S, FRAME_MS = 12, 1000, 40  # one-second segments; the video's stamps start near 1000 s
Cue = collections.namedtuple('Cue', 'id start end settings text')  # times in ms from the first picture
CUES = [
    Cue('', 200, 800, '', 'Before the live start'),
    Cue('across', 4200, 5600, 'align:start line:0', 'Across a boundary'),
    Cue('', 6300, 7100, '', '<i>Slanted</i> words'),
    Cue('', 8200, 9900, 'align:end', 'Two rows\nof text'),
    Cue('', 10400, 11500, '', 'Last words'),
]
LOCAL_S = 60  # segment k maps MPEGTS (first picture + k s) to cue time 60 + k s


def vtt_time(ms):
    return '%02d:%02d:%02d.%03d' % (ms // 3600000, ms // 60000 % 60, ms // 1000 % 60, ms % 1000)


def playlist(uris, first=0, ended=True):
    return '\n'.join(['#EXTM3U\n#EXT-X-TARGETDURATION:1\n#EXT-X-MEDIA-SEQUENCE:%d' % first] + [
        '#EXTINF:1.0,\n' + u for u in uris] + ['#EXT-X-ENDLIST'] * ended) + '\n'


# The .vtt segment k of a rendition: every cue it overlaps, on cue times LOCAL_S s ahead of the
# first picture, with its own X-TIMESTAMP-MAP. Texts get `tag` so that renditions differ.
def vtt_segment(k, first_90k, tag):
    head = 'WEBVTT\nX-TIMESTAMP-MAP=LOCAL:%s,MPEGTS:%d\n\n' % (vtt_time((LOCAL_S + k) * 1000), first_90k + k * 90000)
    return head + ''.join('%s%s --> %s%s\n%s%s\n\n' % (
        c.id and c.id + '\n', vtt_time(LOCAL_S * 1000 + c.start), vtt_time(LOCAL_S * 1000 + c.end),
        c.settings and ' ' + c.settings, tag, c.text) for c in CUES if c.start < (k + 1) * 1000 and c.end > k * 1000)


MASTER = '''#EXTM3U
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="Deutsch",LANGUAGE="de",AUTOSELECT=YES,URI="%s"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="English",LANGUAGE="en",DEFAULT=YES,AUTOSELECT=YES,URI="en/subs.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=400000,RESOLUTION=320x180,CODECS="avc1.640015,mp4a.40.2",SUBTITLES="subs"
video.m3u8
'''
MASTER_VARIANTS = '''#EXTM3U
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="subs",NAME="Deutsch",LANGUAGE="de",DEFAULT=YES,URI="subs_de.m3u8"
#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID="hi",NAME="English",LANGUAGE="en",DEFAULT=YES,URI="hop/en/subs.m3u8"
#EXT-X-STREAM-INF:BANDWIDTH=300000,RESOLUTION=320x180,SUBTITLES="hi"
video.m3u8
#EXT-X-STREAM-INF:BANDWIDTH=200000,RESOLUTION=320x180,SUBTITLES="subs"
video_copy.m3u8
'''


def make_channel(out):
    os.makedirs(os.path.join(out, 'en'))
    at = lambda *p: os.path.join(out, *p)  # noqa: E731
    r = subprocess.run(['ffmpeg', '-nostdin', '-v', 'error'] + tc.AV + [
        '-t', str(SEGMENTS), '-g', '25', '-bf', '0', '-output_ts_offset', str(OFFSET_S), '-f', 'hls', '-hls_time', '1',
        '-hls_playlist_type', 'vod', '-hls_segment_filename', at('v%02d.ts'), at('video.m3u8')],
        capture_output=True, text=True, timeout=300)
    assert r.returncode == 0, r.stderr
    first_90k = int(harness.ffprobe_streams(at('v00.ts'))[0]['start_pts'])
    for k in range(SEGMENTS):
        harness.write_file(at('de_%02d.vtt' % k), vtt_segment(k, first_90k, 'DE ').encode())
        harness.write_file(at('en', '%02d.vtt' % k), vtt_segment(k, first_90k, '').encode())
    harness.write_file(at('subs_de.m3u8'), playlist(['de_%02d.vtt' % k for k in range(SEGMENTS)]).encode())
    harness.write_file(at('en', 'subs.m3u8'), playlist(['%02d.vtt' % k for k in range(SEGMENTS)]).encode())
    harness.write_file(at('master.m3u8'), (MASTER % 'subs_de.m3u8').encode())
    # Two variants of one video with groups of their own: the relayed one (the first) has English.
    harness.write_file(at('video_copy.m3u8'), harness.read_file(at('video.m3u8')))
    harness.write_file(at('master_variants.m3u8'), MASTER_VARIANTS.encode())
    # Renditions that cannot be read: no playlist; segments of garbage, of 2 MiB, and missing.
    harness.write_file(at('master_missing.m3u8'), (MASTER % 'gone.m3u8').replace('DEFAULT=YES,', '').encode())
    harness.write_file(at('master_broken.m3u8'), (MASTER % 'broken.m3u8').replace('DEFAULT=YES,', '').encode())
    harness.write_file(at('broken.m3u8'), playlist(['junk.vtt', 'big.vtt', 'junk.vtt', 'gone.vtt']).encode())
    harness.write_file(at('junk.vtt'), b'\x00\xffnot WebVTT\n')
    harness.write_file(at('big.vtt'), b'WEBVTT\n\n' + b'x' * (2 << 20))
    harness.write_file(at('first_pts'), str(first_90k).encode())


harness.register_media('hls_test_channel', make_channel)


# The channel's files over HTTP(S); /hop/<playlist> redirects to /<playlist> (nothing else is under
# /hop/). Live, a media playlist is the window of its last 4 published segments: 4 published at the
# start, one more every second.
def channel_peer(directory, live=False, tls=False):
    started = time.monotonic()

    class Handler(peers._Handler):
        def do_GET(self):
            path = self.path.lstrip('/')
            if path.startswith('hop/'):
                self.send_response(302 if path.endswith('.m3u8') else 404)
                self.send_header('Location', '/' + path[4:]), self.end_headers()
            elif live and path.endswith('.m3u8') and 'master' not in path:
                uris = re.findall(r'^[^#\n].*$', harness.read_file(os.path.join(directory, path), True), re.M)
                published = min(len(uris), 4 + int(time.monotonic() - started))
                first = max(0, published - 4)
                body = playlist(uris[first:published], first, published == len(uris)).encode()
                self.send_response(200), self.send_header('Content-Length', str(len(body))), self.end_headers()
                self.wfile.write(body)
            else:
                super().do_GET()

    return peers.HttpPeer(directory, tls, handler=Handler)


# The nearest time on the 29.97 fps caption grid, where a cue's captions are shown and erased.
def on_grid(ms):
    frame = (2 * ms * 30 + 1001) // (2 * 1001)
    return (2 * frame * 1001 + 30) // 60


words = lambda t: re.sub(r'<[^>]*>|\{\\[^}]*\}', '', t).replace('\\h', ' ').split()  # noqa: E731


class HlsCaptions(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        cls.channel = harness.media_path('hls_test_channel')
        cls.first_ms = int(harness.read_file(os.path.join(cls.channel, 'first_pts'))) / 90

    # Relays `url`, checks the relay and moves the captions into the video: (run, events, a53 path).
    def relay(self, args, tag):
        run = harness.run_pelvane(args, tag=tag, timeout=60)
        self.assertEqual(run.status, 0, run.describe())
        self.assertRelayTs(run, ['h264', 'aac'], name=tag)
        (status, events, err), (a53_status, a53, a53_err) = tc.run_cc(run.stdout), tc.run_cc(run.stdout, '--a53')
        self.assertEqual((status, err, a53_status, a53_err), (0, '', 0, ''), run.describe())
        return run, [json.loads(e) for e in events.splitlines()], harness.write_file(harness.scratch(tag + '.ts'), a53)

    # Every expected cue as one event with its identifier, settings and text at its time, and
    # shown once by the ffmpeg tool's caption decoder, on and off within a frame of its place on
    # the caption grid (mux.js reads the same A/53 output in test_captions). Writes the counts and
    # the worst distance from the cues' times.
    def assertCaptionsShown(self, events, a53_path, cues, ctx, label):
        at = lambda ms: self.first_ms + ms  # noqa: E731
        self.assertEqual([(e['identifier'], e['settings'], e['text'], e['start'], e['end']) for e in events],
                         [(c.id, c.settings, c.text, int(at(c.start)), int(at(c.end))) for c in cues], ctx)
        shown = [(s, e, words(t)) for s, e, t in tc.ffmpeg_captions(a53_path)]
        self.assertEqual([w for _, _, w in shown], [words(c.text) for c in cues], '%s\n%s' % (shown, ctx))
        worst = 0
        for (on, off, _), c in zip(shown, cues):
            for seen, due in ((on, on_grid(at(c.start))), (off, on_grid(at(c.end)))):
                self.assertTrue(0 <= seen - due < FRAME_MS + 1, (c.text, seen, due))
            worst = max(worst, abs(on - at(c.start)), abs(off - at(c.end)))
        sys.stderr.write('%s: %d cues, %d events, %d shown, worst timing error %d ms\n' % (
            label, len(cues), len(events), len(shown), worst))

    def test_finished_channel_over_https_through_a_redirect(self):
        with channel_peer(self.channel, tls=True) as server:
            run, events, a53 = self.relay(['--url', server.url('hop/master_variants.m3u8')], 'hls-finished')
        self.assertIn('Found VTT rendition. Name "English", language "en": %s\n' % server.url('hop/en/subs.m3u8'),
                      run.stderr, run.describe())
        self.assertNotIn('Did not find VTT stream', run.stderr)
        self.assertNotIn('Subtitle rendition', run.stderr)
        self.assertCaptionsShown(events, a53, CUES, run.describe(), 'finished channel')

    def test_live_channel(self):
        with channel_peer(self.channel, live=True) as server:
            run, events, a53 = self.relay(['--hls', '--url', server.url('master.m3u8')], 'hls-live')
        self.assertIn('Found VTT rendition. Name "English"', run.stderr, run.describe())
        # The relay starts three segments from the live end: cues that ended before it are not shown.
        start = float(harness.ffprobe_streams(a53)[0]['start_time']) * 1000 - self.first_ms
        self.assertGreater(start, CUES[0].end, 'the live relay started at the first segment')
        live_cues = [c for c in CUES if c.end > start]
        self.assertGreaterEqual(len(live_cues), 4)
        self.assertCaptionsShown(events, a53, live_cues, run.describe(), 'live channel')

    def test_unreadable_renditions_leave_the_relay_whole(self):
        with channel_peer(self.channel) as server:
            for master, problem in (('master_missing.m3u8', "'%s': playlist: HTTP status 404" % server.url('gone.m3u8')),
                                    ('master_broken.m3u8', "segment '%s' is not WebVTT" % server.url('junk.vtt'))):
                run = harness.run_pelvane(['--url', server.url(master)], tag='hls-bad')
                self.assertEqual(run.status, 0, run.describe())
                self.assertRelayTs(run, ['h264', 'aac'], name='hls-bad')
                self.assertEqual(tc.caption_packets(run.stdout), [])
                reports = [line for line in run.stderr.splitlines() if line.startswith('Subtitle rendition')]
                self.assertEqual(len([r for r in reports if problem in r]), 1, run.describe())
        # The broken one: garbage, 2 MiB, garbage, missing: one line for each kind, the repeats counted.
        self.assertEqual(len(reports), 3, reports)
        self.assertIn("segment '%s': larger than 1048576 bytes" % server.url('big.vtt'), reports[1])
        self.assertIn('2 further problems', reports[2])


if __name__ == '__main__':
    harness.main()
