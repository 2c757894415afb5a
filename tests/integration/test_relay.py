# The relay against real sources and scripted faults on 127.0.0.1: what comes out, how each run
# ends (status, messages, timing), and what slow, stopped and vanished clients get.

import os
import re
import select
import signal
import socket
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402
import rtsp_peer  # noqa: E402

END = 'end of stream. exiting..\n'
USAGE_HEAD = 'pelvane [options] --url <url>\nRTSP/RTMP to MPEG-TS transform\n'
# What a source that is not media ends in (which one depends on FFmpeg's probing).
OPEN_FAILURE = re.compile(r"(Failed to open input stream '[^']*'\. Err=0x[0-9a-f]+ str=[^\n]*"
                          r"|Failed to get input stream info for '[^']*'\. Err=0x[0-9a-f]+ str=[^\n]*"
                          r"|Did not find any streams)\n\Z")
harness.register_media('bulk_vtt.mkv', lambda out: ['-i', harness.media_path('bulk.ts'), '-i',
                                                    harness.media_path('subs.vtt'), '-map', '0', '-map', '1',
                                                    '-c', 'copy'])


# Up to n bytes; b'' when nothing came in time, None at end of file.
def read_some(fd, n, timeout=0.05):
    return (os.read(fd, n) or None) if select.select([fd], [], [], timeout)[0] else b''


def rss_kib(pid):
    return int(re.search(r'VmRSS:\s*(\d+)', harness.read_file('/proc/%d/status' % pid, True)).group(1))


class Relay(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        cls.http = peers.HttpPeer(harness.MEDIA, tls=True).__enter__()
        cls.servers = {m: rtsp_peer.Peer(('127.0.0.1', 0), m, harness.media_path('mpeg2_mp2.ts')) for m in (
            'garbage', 'silent', 'megabyte', 'huge', 'trickle', 'http-trickle', 'http-slow')}
        [threading.Thread(target=peer.serve_forever, daemon=True).start() for peer in cls.servers.values()]
        cls.stalled = peers.ListenerPeer(harness.media_path('mpeg2_mp2.ts')).__enter__()
        at = lambda scheme, mode: '%s://127.0.0.1:%d/x' % (scheme, cls.servers[mode].server_address[1])  # noqa: E731
        # Started under an ignored SIGALRM (an exec keeps it): the relay's watchdog must work anyway.
        alrm = signal.signal(signal.SIGALRM, signal.SIG_IGN)
        cls.stalled_runs = {case: harness.Started(['--url', url], tag='watchdog%d' % n) for n, (case, url) in enumerate([
            ('source stalls mid-relay', cls.stalled.url), ('RTSP description trickles', at('rtsp', 'trickle')),
            ('source trickles', at('http', 'http-trickle')),
            ('source slow but answering', at('http', 'http-slow'))])}
        signal.signal(signal.SIGALRM, alrm)
        cls.ended = {}  # case -> seconds from its start to its end
        for case, s in cls.stalled_runs.items():
            threading.Thread(target=lambda c=case, p=s.proc: p.wait(90) is not None and cls.ended.setdefault(
                c, time.monotonic() - p.started), daemon=True).start()
        assert cls.stalled_runs['source stalls mid-relay'].output_reaches(50000, 20)
        cls.stalled.proc.send(signal.SIGSTOP, True)

    @classmethod
    def tearDownClass(cls):
        [peer.shutdown() for peer in [cls.http.server] + list(cls.servers.values())]

    url = lambda self, name: self.http.url(os.path.basename(harness.media_path(name)))  # noqa: E731

    def test_sources_to_mpegts(self):
        with peers.RtmpPeer(rtmps=True) as rtmp:
            s = harness.Started(['--mime-type', '--url', rtmp.rtmps_url], tag='rtmps')
            reached = s.output_reaches(120000, 30)
            run = s.finish(10, signal.SIGINT)  # one SIGINT: a clean end, the last packet maybe cut
            self.assertEqual((reached, run.status, run.elapsed < 2.0), (True, 0, True), run.describe())
            self.assertRelayTs(run, ['aac', 'h264'], head=harness.MIME_HEAD_TS, allow_partial_tail=True)

    def test_fragmented_mp4(self):
        run = harness.run_pelvane(['--mp4', '--mime-type', '--url', self.url('h264_aac_vtt.mkv')])
        head, data = run.stdout.split(b'\n\n', 1)
        path = harness.write_file(harness.scratch('out.mp4'), data)
        self.assertEqual((run.status, head, data[4:8], sorted(s['codec_name'] for s in harness.ffprobe_streams(path)),
                          harness.decode_errors(path)), (0, b'HTTP/1.0 200 OK\nContent-Type: video/mp4', b'ftyp',
                                                         ['aac', 'h264'], ''), run.describe())

    def test_slow_non_blocking_client_loses_nothing(self):
        args = ['--mime-type', '--ignore-ssl-errors', '--url', self.url('bulk_vtt.mkv')]
        fast = harness.run_pelvane(args, timeout=120, tag='fast')
        self.assertEqual(fast.status, 0, fast.describe())
        r, w = os.pipe()
        os.set_blocking(w, False)
        s = harness.Started(args, stdout=w, tag='slow')
        os.close(w)
        got, rss, t0 = bytearray(), [], time.monotonic()
        while time.monotonic() < t0 + 6:  # about 300 KB/s, a hundredth of what the source could give
            got += read_some(r, 15000) or b''
            time.sleep(0.05)
            time.monotonic() > t0 + 1 and rss.append(rss_kib(s.proc.pid))
        self.assertTrue(s.proc.running(), 'ended while throttled:\n' + s.stderr())
        while (chunk := read_some(r, 1 << 20, 30)) is not None:
            got += chunk
        os.close(r)
        run = s.finish(30)
        self.assertEqual((run.status, run.stderr[-len(END):], bytes(got) == fast.stdout), (0, END, True),
                         'differs from what a fast client got?\n' + run.describe())
        self.assertLess(max(rss) - rss[0], 32 << 10, 'RSS grew while held back: %s KiB' % rss[::20])

    # A client that closes its end ends the run by SIGPIPE, under a parent that ignores it (an exec
    # keeps that): during the relay, and while a silent server holds the set-up and nothing has been
    # written: the RTSP probe with a pipe's reader, FFmpeg's open with a TCP client (inetd-style).
    def test_client_closes_its_end(self):
        listener, runs = socket.create_server(('127.0.0.1', 0)), []
        silent = '://127.0.0.1:%d/x' % self.servers['silent'].server_address[1]
        for url, kind in ((self.url('bulk.ts'), 'pipe'), ('rtsp' + silent, 'pipe'), ('tcp' + silent, 'socket')):
            ours, out = os.pipe() if kind == 'pipe' else (socket.create_connection(listener.getsockname()).detach(),
                                                          listener.accept()[0].detach())
            runs.append((url, ours, harness.Proc(['bash', '-c', "trap '' PIPE; exec \"$@\"", 'sh', harness.BIN, '--url',
                                                  url], stdin=out, stdout=out, stderr=subprocess.DEVNULL)))
            os.close(out)
        self.assertTrue(os.read(runs[0][1], 50000))
        [os.close(ours) for _, ours, _ in runs]
        self.assertEqual([(url, p.wait(2.0)) for url, _, p in runs], [(url, -signal.SIGPIPE) for url, _, _ in runs])
        listener.close()

    def test_stalled_source_nine_signals_wait_the_tenth_aborts(self):
        with peers.ListenerPeer(harness.media_path('mpeg2_mp2.ts')) as src:
            s = harness.Started(['--url', src.url], tag='stall')
            self.assertTrue(s.output_reaches(50000, 20), s.stderr())
            src.proc.send(signal.SIGSTOP, True)
            time.sleep(1.0)  # what the socket still held has been read
            for sig in [signal.SIGINT] * 5 + [signal.SIGQUIT] * 4:
                s.proc.send(sig)
                time.sleep(0.02)
            self.assertIsNone(s.proc.wait(0.5), 'blocked in a read, nine signals are only counted')
            self.assertEqual(s.finish(2, signal.SIGINT).status, -signal.SIGABRT)

    # Every failing way to end, side by side: the 30-s watchdog, during set-up and during the
    # relay, runs once.
    def check_end(self, case, s, status, least, most, tail, elapsed=None):
        s.proc.wait(max(0, most - (time.monotonic() - s.proc.started)))
        run = s.finish(0)._replace(elapsed=elapsed or time.monotonic() - s.proc.started)
        self.assertEqual((run.status, run.status != 1 or run.stdout == b'', least <= run.elapsed < most),
                         (status, True, True), case + '\n' + run.describe())
        self.assertRegex(run.stderr, tail, case + '\n' + run.describe())

    def test_how_runs_end(self):
        port = lambda mode: self.servers[mode].server_address[1]  # noqa: E731
        refused = 'tcp://127.0.0.1:%d' % harness.free_port()
        # (case, arguments, status, least and most seconds, the end of stderr)
        cases = [
            ('unknown switch', ['--bogus'], 1, 0, 2, re.escape(USAGE_HEAD) + r'(.|\n)*Unknown switch bogus\n\Z'),
            ('refused connection', ['--url', refused], 1, 3, 8, re.escape(
                "Failed to open input stream '%s'. Err=0xffffff91 str=Connection refused\n" % refused) + r'\Z'),
            ('RTSP server answers garbage', ['--url', 'rtsp://127.0.0.1:%d/x' % port('garbage')], 1, 3, 30,
             OPEN_FAILURE),
            ('RTSP answer with a megabyte-long line', ['--url', 'rtsp://127.0.0.1:%d/x' % port('megabyte')], 1, 3, 30,
             'RTSP must provide DESCRIBE, SETUP, PLAY, TEARDOWN\n(.|\n)*' + OPEN_FAILURE.pattern),
            ('RTSP description of 1 MiB', ['--url', 'rtsp://127.0.0.1:%d/x' % port('huge')], 1, 3, 30,
             "DESCRIBE answer larger than 65536 bytes\n(.|\n)*\nFailed to open input stream '"),
            ('standard output full', ['--ignore-ssl-errors', '--url', self.url('bulk.ts')], 0, 0, 30,
             r'\nStandard output failed \(No space left on device\)\. exiting\.\n\Z'),
        ]
        with open('/dev/full', 'wb') as full:
            started = [harness.Started(args, tag='end%d' % n, stdout=full if 'full' in case else None)
                       for n, (case, args, *_) in enumerate(cases)]
        for (case, _, status, least, most, tail), s in zip(cases, started):
            with self.subTest(case=case):
                self.check_end(case, s, status, least, most, tail)
                self.assertLess(len(s.stderr()), 100000, 'what the probe echoes is bounded')

    # Runs last (by name), so that its 30-s waits, started with the class, overlap the other tests.
    # A trickling RTSP server (a silent one meets the same limits): the probe's request gives up
    # after 30 s, then FFmpeg's open does. A trickle holds no set-up; a source that sends 2 KB/s for
    # 35 s before its media is not cut.
    def test_watchdog_ends_runs_that_make_no_progress(self):
        for case, status, least, most, tail in [
                ('source stalls mid-relay', -signal.SIGALRM, 28.5, 40, '(?s).*'),
                ('RTSP description trickles', 1, 62, 80, "DESCRIBE answer not complete within 30 seconds\n(.|\n)*"
                 "Source '[^']*' was not set up within 30 seconds\n" + OPEN_FAILURE.pattern),
                ('source trickles', 1, 31, 40, 'stopped answering: less than 1 KiB read in 30 seconds\n' +
                 OPEN_FAILURE.pattern),
                ('source slow but answering', 0, 35, 60, END + r'\Z')]:
            with self.subTest(case=case):
                self.stalled_runs[case].proc.wait(most + 5)
                self.check_end(case, self.stalled_runs[case], status, least, most, tail, self.ended.get(case))
        self.assertNotIn('end of stream', self.stalled_runs['source stalls mid-relay'].stderr())


if __name__ == '__main__':
    harness.main()
