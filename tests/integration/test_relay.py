"""The relay against real sources on 127.0.0.1, its output read by ffprobe and ffmpeg:
MPEG-TS from RTMP(S), HTTP(S) Matroska and TCP MPEG-TS; fragmented MP4; audio-only input;
ending by SIGINT (also while the client has stopped reading), by the client closing its end,
by stop signals and the 30-second watchdog when the source stalls; bounded memory with a slow
client."""

import fcntl
import os
import select
import signal
import subprocess
import sys
import termios
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402


def read_some(fd, n, timeout=5.0):
    """Up to n bytes from fd, b'' at end of file or when nothing came within timeout seconds."""
    return os.read(fd, n) if select.select([fd], [], [], timeout)[0] else b''


def pipe_full(fd):
    """True when the pipe behind read end fd is (within two pages) full."""
    buf = bytearray(4)
    fcntl.ioctl(fd, termios.FIONREAD, buf)
    return int.from_bytes(buf, sys.byteorder) >= fcntl.fcntl(fd, fcntl.F_GETPIPE_SZ) - 8192


class Relay(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        for name in ('h264_aac.mkv', 'audio_only.mkv', 'mpeg2_mp2.ts', 'bulk.ts'):
            harness.media_path(name)
        cls.peers = [peers.HttpPeer(harness.MEDIA).__enter__(), peers.HttpPeer(harness.MEDIA, tls=True).__enter__()]
        try:
            cls.peers.append(peers.RtmpPeer(harness.media_path('h264_aac.mkv'), rtmps=True).__enter__())
        except BaseException:
            cls.tearDownClass()
            raise
        cls.http, cls.https, cls.rtmp = cls.peers

    @classmethod
    def tearDownClass(cls):
        while cls.peers:
            cls.peers.pop().__exit__()

    def start(self, args, stdout=None, tag='live'):
        s = harness.Started(args, stdout, tag)
        self.addCleanup(s.proc.stop)
        return s

    def test_sources_to_mpegts(self):
        tcp = peers.ListenerPeer(harness.media_path('mpeg2_mp2.ts'), 'tcp', loop=False)
        # (case, url, extra args, codecs out, live: ended by SIGINT, else runs to the source's end)
        cases = [
            ('rtmp, nginx', lambda: self.rtmp.url, ['--mime-type'], ['aac', 'h264'], True),
            ('rtmps, nginx TLS front', lambda: self.rtmp.rtmps_url, ['--mime-type'], ['aac', 'h264'], True),
            ('http matroska', lambda: self.http.url('h264_aac.mkv'), ['--mime-type'], ['h264', 'aac'], False),
            ('https matroska, self-signed', lambda: self.https.url('h264_aac.mkv'),
             ['--mime-type', '--ignore-ssl-errors'], ['h264', 'aac'], False),
            ('tcp mpeg-ts, mpeg-2 + mp2', lambda: tcp.__enter__().url, ['--mime-type'], ['mpeg2video', 'mp2'], False),
        ]
        self.addCleanup(tcp.__exit__)
        for case, url, extra, codecs, live in cases:
            with self.subTest(case=case):
                head = harness.MIME_HEAD_TS if '--mime-type' in extra else None
                if live:
                    s = self.start(extra + ['--url', url()], tag='src')
                    reached = s.output_reaches(120000, 30)
                    run = s.finish(10, signal.SIGINT)
                    self.assertTrue(reached, 'output did not reach 120000 bytes while running\n' + run.describe())
                    self.assertLess(run.elapsed, 2.0, 'slow to stop on SIGINT\n' + run.describe())
                else:
                    run = harness.run_pelvane(extra + ['--url', url()], timeout=60, tag='src')
                    self.assertIn('end of stream. exiting..\n', run.stderr, run.describe())
                self.assertEqual(run.status, 0, run.describe())
                self.assertNotIn('Failed to write A/V packet', run.stderr, run.describe())
                # A stop signal may cut the output inside a muxer write.
                self.assertRelayTs(run, codecs, head=head, allow_partial_tail=live, name='src')
                if 'h264' in codecs:
                    self.assertIn("H.264 video may need 'h264_mp4toannexb' filter, creating...\n", run.stderr)
                    self.assertNotIn('Unable to', run.stderr, run.describe())
                    path = harness.write_file(harness.scratch('annexb.ts'), run.stdout[len(head or b''):])
                    start = harness.h264_stream_head(path)
                    self.assertTrue(start.startswith((b'\0\0\0\1', b'\0\0\1')), 'H.264 begins %r' % start)

    def test_fragmented_mp4(self):
        run = harness.run_pelvane(['--mp4', '--mime-type', '--url', self.http.url('h264_aac.mkv')], tag='mp4')
        self.assertEqual(run.status, 0, run.describe())
        self.assertEqual(run.stdout[:len(harness.MIME_HEAD_MP4)], harness.MIME_HEAD_MP4, run.describe())
        body = run.stdout[len(harness.MIME_HEAD_MP4):]
        # The muxer has no "mov_flags" option, so the moov is not empty: it comes with the first
        # fragment's sample tables and its mdat; moof/mdat pairs follow (and maybe an mfra).
        boxes = harness.mp4_top_boxes(body)
        rest = boxes[3:-1] if boxes[-1] == 'mfra' else boxes[3:]
        self.assertEqual(boxes[:3], ['ftyp', 'moov', 'mdat'], run.describe())
        self.assertTrue(rest and rest == ['moof', 'mdat'] * (len(rest) // 2), boxes)
        path = harness.write_file(harness.scratch('out.mp4'), body)
        self.assertEqual(sorted(s['codec_name'] for s in harness.ffprobe_streams(path)), ['aac', 'h264'])
        self.assertEqual(harness.decode_errors(path), '', run.describe())
        self.assertNotIn('h264_mp4toannexb', run.stderr, 'MP4 keeps length-prefixed H.264')

    def test_audio_only(self):
        run = harness.run_pelvane(['--mime-type', '--url', self.http.url('audio_only.mkv')], tag='audio')
        self.assertEqual(run.status, 0, run.describe())
        self.assertIn('Did not find video stream\n', run.stderr)
        self.assertIn('A In->out timescale: ', run.stderr)
        for absent in ('V In->out', 'V extradata', 'h264_mp4toannexb'):
            self.assertNotIn(absent, run.stderr, run.describe())
        self.assertRelayTs(run, ['aac'], head=harness.MIME_HEAD_TS, name='audio')

    def test_slow_client_then_stopped_client(self):
        # The source is far faster than the client. Read slowly first (memory stays bounded), then
        # not at all: the pipe and the 2 MiB window fill up and SIGINT must still end the run promptly.
        s = self.start(['--url', self.http.url('bulk.ts')], stdout=subprocess.PIPE, tag='slow')
        fd, received, peak = s.proc.popen.stdout.fileno(), bytearray(), 0
        end = time.monotonic() + 6
        while time.monotonic() < end and s.proc.running():  # about 400 KB/s, far more than the window holds
            received += read_some(fd, 20000)
            peak = max(peak, harness.vm_hwm_kib(s.proc.pid) or 0)
            time.sleep(0.05)
        self.assertTrue(s.proc.running(), 'ended early:\n' + s.stderr())
        self.assertTrue(pipe_full(fd), 'the client was not the bottleneck')
        self.assertLess(max(peak, harness.vm_hwm_kib(s.proc.pid) or 0), 64 * 1024, 'peak RSS in KiB')
        self.assertIsNone(harness.ts_framing_problem(bytes(received), allow_partial_tail=True))
        time.sleep(1.0)  # long enough for the window behind the pipe to fill too
        run = s.finish(10, signal.SIGINT)
        self.assertEqual(run.status, 0, run.describe())
        self.assertLess(run.elapsed, 2.5, run.describe())

    def test_client_closes_its_end(self):
        # An ignored signal stays ignored across exec: a parent that ignores SIGPIPE must not
        # leave a relay writing into a closed pipe.
        ignoring = ['bash', '-c', "trap '' PIPE; exec \"$@\"", 'parent', harness.BIN]
        for case, url, ignore in [('live rtmp', self.rtmp.url, False), ('fast http', self.http.url('bulk.ts'), False),
                                  ('parent ignores SIGPIPE', self.rtmp.url, True)]:
            with self.subTest(case=case):
                p = harness.Proc(ignoring + ['--url', url], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) \
                    if ignore else self.start(['--url', url], stdout=subprocess.PIPE, tag='closer').proc
                self.addCleanup(p.stop)
                got, deadline = 0, time.monotonic() + 20
                while got < 50000 and time.monotonic() < deadline and (chunk := read_some(p.popen.stdout.fileno(),
                                                                                          65536)):
                    got += len(chunk)
                self.assertGreaterEqual(got, 50000, case)
                p.popen.stdout.close()
                t0 = time.monotonic()
                self.assertEqual(p.wait(10), -signal.SIGPIPE, case)
                self.assertLess(time.monotonic() - t0, 2.0, 'took too long to end after the client left')

    def test_stalled_source(self):
        # Blocked in a read, the relay only counts stop signals and acts on them when the read
        # returns, except that the tenth one aborts at once. With no signal the watchdog ends the
        # run about 30 s after the source stalled, also under a parent that ignores SIGALRM (this
        # test process, for pelvane inherits that).
        self.addCleanup(signal.signal, signal.SIGALRM, signal.signal(signal.SIGALRM, signal.SIG_IGN))
        cases = [('nine signals, then the source resumes', [signal.SIGINT] * 5 + [signal.SIGQUIT] * 4, 0, 0, 6),
                 ('the tenth signal aborts', [signal.SIGQUIT] + [signal.SIGINT] * 9, -signal.SIGABRT, 0, 6),
                 ('the watchdog', [], -signal.SIGALRM, 28.5, 36)]
        for case, signals, expected, least, most in cases:
            with self.subTest(case=case), peers.ListenerPeer(harness.media_path('mpeg2_mp2.ts'), 'tcp') as src:
                s = self.start(['--url', src.url], tag='stall')
                self.assertTrue(s.output_reaches(50000, 20), s.stderr())
                src.stall()
                t0 = time.monotonic()
                time.sleep(1.0)  # whatever the socket still held has been read
                for sig in signals:
                    s.proc.send(sig)
                    time.sleep(0.02)
                if expected == 0:
                    self.assertIsNone(s.proc.wait(0.5), 'ended before the source resumed')
                    src.resume()
                self.assertEqual(s.proc.wait(most), expected, s.stderr())
                self.assertGreaterEqual(time.monotonic() - t0, least)
                self.assertNotIn('end of stream', s.stderr())


if __name__ == '__main__':
    harness.main()
