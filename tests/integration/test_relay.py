"""The relay against real sources on 127.0.0.1, its output read by ffprobe and ffmpeg:
MPEG-TS from RTMP(S), HTTP(S) Matroska and TCP MPEG-TS; fragmented MP4; audio-only input;
ending by SIGINT (also while the client has stopped reading), by the client closing its end,
by the 30-second watchdog when the source stalls; bounded memory with a slow client."""

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

H264_START_CODES = (b'\x00\x00\x00\x01', b'\x00\x00\x01')
MIB = 1024 * 1024


def file_size(path):
    try:
        return os.path.getsize(path)
    except OSError:
        return 0


def read_some(fd, n, timeout=5.0):
    """Up to n bytes from fd, b'' at end of file or when nothing came within timeout seconds."""
    ready, _, _ = select.select([fd], [], [], timeout)
    return os.read(fd, n) if ready else b''


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
        cls.http = peers.HttpPeer(harness.MEDIA).__enter__()
        cls.https = peers.HttpPeer(harness.MEDIA, tls=True).__enter__()
        try:
            cls.rtmp = peers.RtmpPeer(harness.media_path('h264_aac.mkv'), rtmps=True).__enter__()
        except BaseException:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        for peer in ('rtmp', 'https', 'http'):
            if hasattr(cls, peer):
                getattr(cls, peer).__exit__()
                delattr(cls, peer)

    # ------------------------------------------------------------ helpers

    def live_relay(self, args, min_bytes=120000, tag='live'):
        """Relay a live source until min_bytes have come out, then SIGINT; returns the Run
        (elapsed = seconds from SIGINT to exit)."""
        p, out_path, err_path = harness.start_pelvane(args, tag=tag)
        self.addCleanup(p.stop)
        got = harness.wait_for(lambda: file_size(out_path) >= min_bytes or not p.running(), 30)
        running = p.running()
        t0 = time.monotonic()
        if running:
            p.send(signal.SIGINT)
        status = p.wait(10)
        elapsed = time.monotonic() - t0
        p.stop()
        run = harness.Run(p.popen.returncode, harness._read(out_path), harness._read(err_path, True),
                          elapsed, args)
        self.assertTrue(got and running, 'output did not reach %d bytes while running\n%s'
                        % (min_bytes, run.describe()))
        self.assertIsNotNone(status, 'still running 10 s after SIGINT\n' + run.describe())
        return run

    def assertAnnexB(self, data, head, ctx):
        path = harness.write_file(harness.scratch('annexb.ts'), data[len(head or b''):])
        start = harness.h264_stream_head(path)
        self.assertTrue(start.startswith(H264_START_CODES),
                        'H.264 in the output does not start with a start code: %r\n%s' % (start, ctx))

    # ------------------------------------------------------------ tests

    def test_sources_to_mpegts(self):
        # (case, url, extra args, codecs out, live (ended by SIGINT) or runs to the end of the source)
        tcp = peers.ListenerPeer(harness.media_path('mpeg2_mp2.ts'), 'tcp', loop=False)
        cases = [
            ('rtmp, nginx', lambda: self.rtmp.url, ['--mime-type'], ['aac', 'h264'], True),
            ('rtmps, nginx TLS front', lambda: self.rtmp.rtmps_url, ['--mime-type'], ['aac', 'h264'], True),
            ('http matroska', lambda: self.http.url('h264_aac.mkv'), ['--mime-type'], ['h264', 'aac'], False),
            ('http matroska, no head', lambda: self.http.url('h264_aac.mkv'), [], ['h264', 'aac'], False),
            ('https matroska, self-signed', lambda: self.https.url('h264_aac.mkv'),
             ['--mime-type', '--ignore-ssl-errors'], ['h264', 'aac'], False),
            ('tcp mpeg-ts, mpeg-2 + mp2', lambda: tcp.url, ['--mime-type'], ['mpeg2video', 'mp2'], False),
        ]
        for case, url, extra, codecs, live in cases:
            with self.subTest(case=case):
                head = harness.MIME_HEAD_TS if '--mime-type' in extra else None
                if live:
                    run = self.live_relay(extra + ['--url', url()], tag='src')
                    self.assertEqual(run.status, 0, run.describe())
                    self.assertLess(run.elapsed, 2.0, 'slow to stop on SIGINT\n' + run.describe())
                else:
                    if case.startswith('tcp'):
                        tcp.__enter__()
                        self.addCleanup(tcp.__exit__)
                    run = harness.run_pelvane(extra + ['--url', url()], timeout=60, tag='src')
                    self.assertEqual(run.status, 0, run.describe())
                    self.assertIn('end of stream. exiting..\n', run.stderr, run.describe())
                self.assertNotIn('Failed to write A/V packet', run.stderr, run.describe())
                # A stop signal may cut the output inside a muxer write.
                self.assertRelayTs(run, codecs, head=head, allow_partial_tail=live, name='src')
                if 'h264' in codecs:
                    self.assertIn("H.264 video may need 'h264_mp4toannexb' filter, creating...\n",
                                  run.stderr, run.describe())
                    self.assertNotIn('Unable to', run.stderr, run.describe())
                    self.assertAnnexB(run.stdout, head, run.describe())

    def test_fragmented_mp4(self):
        run = harness.run_pelvane(['--mp4', '--mime-type', '--url', self.http.url('h264_aac.mkv')],
                                  timeout=60, tag='mp4')
        self.assertEqual(run.status, 0, run.describe())
        self.assertEqual(run.stdout[:len(harness.MIME_HEAD_MP4)], harness.MIME_HEAD_MP4, run.describe())
        body = run.stdout[len(harness.MIME_HEAD_MP4):]
        boxes = harness.mp4_top_boxes(body)
        # The muxer has no "mov_flags" option, so the moov is not empty: it comes with the
        # first fragment's sample tables and its mdat; moof/mdat pairs follow.
        self.assertEqual(boxes[:3], ['ftyp', 'moov', 'mdat'], run.describe())
        rest = boxes[3:]
        if rest and rest[-1] == 'mfra':
            rest = rest[:-1]
        self.assertTrue(rest and len(rest) % 2 == 0 and all(
            rest[i:i + 2] == ['moof', 'mdat'] for i in range(0, len(rest), 2)),
            'top-level boxes %s\n%s' % (boxes, run.describe()))
        path = harness.write_file(harness.scratch('out.mp4'), body)
        self.assertEqual(sorted(s['codec_name'] for s in harness.ffprobe_streams(path)), ['aac', 'h264'])
        self.assertEqual(harness.decode_errors(path), '', run.describe())
        self.assertNotIn('h264_mp4toannexb', run.stderr, 'MP4 keeps length-prefixed H.264')

    def test_audio_only(self):
        run = harness.run_pelvane(['--mime-type', '--url', self.http.url('audio_only.mkv')], timeout=60,
                                  tag='audio')
        self.assertEqual(run.status, 0, run.describe())
        self.assertIn('Did not find video stream\n', run.stderr)
        self.assertIn('A In->out timescale: ', run.stderr)
        for absent in ('V In->out', 'V extradata', 'h264_mp4toannexb'):
            self.assertNotIn(absent, run.stderr, run.describe())
        self.assertRelayTs(run, ['aac'], head=harness.MIME_HEAD_TS, name='audio')

    def test_sigint_while_client_stopped_reading(self):
        # The source is far faster than nobody reading: the pipe and the 2 MiB window fill up
        # and the sink waits for the client. SIGINT must still end the run promptly.
        p, _, err_path = harness.start_pelvane(['--url', self.http.url('bulk.ts')], stdout=subprocess.PIPE,
                                               tag='stuck')
        self.addCleanup(p.stop)
        fd = p.popen.stdout.fileno()
        full = harness.wait_for(lambda: pipe_full(fd), 20)
        self.assertTrue(full and p.running(), 'the pipe never filled:\n' + harness._read(err_path, True))
        time.sleep(1.0)  # long enough for the window behind the pipe to fill too
        self.assertTrue(p.running())
        t0 = time.monotonic()
        p.send(signal.SIGINT)
        status = p.wait(10)
        elapsed = time.monotonic() - t0
        self.assertEqual(status, 0, harness._read(err_path, True))
        self.assertLess(elapsed, 2.5, 'took %.2f s to stop' % elapsed)

    def test_client_closes_its_end(self):
        for case, url in [('live rtmp', self.rtmp.url), ('fast http', self.http.url('bulk.ts'))]:
            with self.subTest(case=case):
                p, _, err_path = harness.start_pelvane(['--url', url], stdout=subprocess.PIPE, tag='closer')
                self.addCleanup(p.stop)
                got = 0
                deadline = time.monotonic() + 20
                while got < 50000 and time.monotonic() < deadline:
                    chunk = read_some(p.popen.stdout.fileno(), 65536)
                    if not chunk:
                        break
                    got += len(chunk)
                self.assertGreaterEqual(got, 50000, harness._read(err_path, True))
                p.popen.stdout.close()
                t0 = time.monotonic()
                status = p.wait(10)
                elapsed = time.monotonic() - t0
                self.assertEqual(status, -signal.SIGPIPE, harness._read(err_path, True))
                self.assertLess(elapsed, 2.0, 'took %.2f s to end after the client left' % elapsed)

    def test_slow_client_keeps_memory_bounded(self):
        p, _, err_path = harness.start_pelvane(['--url', self.http.url('bulk.ts')], stdout=subprocess.PIPE,
                                               tag='slow')
        self.addCleanup(p.stop)
        fd = p.popen.stdout.fileno()
        received = bytearray()
        peak = 0
        # About 400 KB/s for 6 s: far slower than the source, far more than the window holds.
        end = time.monotonic() + 6
        while time.monotonic() < end and p.running():
            received += read_some(fd, 20000)
            peak = max(peak, harness.vm_hwm_kib(p.pid) or 0)
            time.sleep(0.05)
        self.assertTrue(p.running(), 'ended early:\n' + harness._read(err_path, True))
        self.assertTrue(pipe_full(fd), 'the client was not the bottleneck')
        peak = max(peak, harness.vm_hwm_kib(p.pid) or 0)
        p.send(signal.SIGINT)
        status = p.wait(10)
        self.assertEqual(status, 0, harness._read(err_path, True))
        self.assertLess(peak, 64 * 1024, 'peak RSS %d KiB' % peak)
        self.assertIsNone(harness.ts_framing_problem(bytes(received), allow_partial_tail=True))

    def test_stop_signals_while_the_source_stalls(self):
        # Blocked in a read, the relay only counts stop signals; it acts on them when the read
        # returns, except that the tenth one aborts at once.
        cases = [
            ('nine signals, then the source resumes', [signal.SIGINT] * 5 + [signal.SIGQUIT] * 4, 0),
            ('the tenth signal aborts', [signal.SIGQUIT] + [signal.SIGINT] * 9, -signal.SIGABRT),
        ]
        for case, signals, expected in cases:
            with self.subTest(case=case), \
                    peers.ListenerPeer(harness.media_path('mpeg2_mp2.ts'), 'tcp', loop=True) as src:
                p, out_path, err_path = harness.start_pelvane(['--url', src.url], tag='signals')
                self.addCleanup(p.stop)
                flowing = harness.wait_for(lambda: file_size(out_path) >= 50000 or not p.running(), 20)
                self.assertTrue(flowing and p.running(), harness._read(err_path, True))
                src.stall()
                time.sleep(1.0)  # whatever the socket still held has been read
                for sig in signals:
                    p.send(sig)
                    time.sleep(0.02)
                if expected == 0:
                    self.assertIsNone(p.wait(0.5), 'ended before the source resumed')
                    src.resume()
                status = p.wait(5)
                self.assertEqual(status, expected, harness._read(err_path, True))

    def test_stalled_source_ends_by_watchdog(self):
        with peers.ListenerPeer(harness.media_path('mpeg2_mp2.ts'), 'tcp', loop=True) as src:
            p, out_path, err_path = harness.start_pelvane(['--url', src.url], tag='stall')
            self.addCleanup(p.stop)
            flowing = harness.wait_for(lambda: file_size(out_path) >= 50000 or not p.running(), 20)
            self.assertTrue(flowing and p.running(), harness._read(err_path, True))
            src.stall()
            t0 = time.monotonic()
            status = p.wait(45)
            elapsed = time.monotonic() - t0
            stderr = harness._read(err_path, True)
            self.assertEqual(status, -signal.SIGALRM, stderr)
            self.assertGreaterEqual(elapsed, 28.5, stderr)
            self.assertLess(elapsed, 36, stderr)
            self.assertNotIn('end of stream', stderr)


if __name__ == '__main__':
    harness.main()
