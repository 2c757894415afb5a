"""Faults from every side, each against the real binary on 127.0.0.1 with bounded waits:

- sources that send garbage (from the start, or in the middle of a good stream), that close
  in the middle of a transport packet or of a file, or that accept and never answer;
- RTSP servers that answer garbage, nothing, a megabyte-long header line or NUL bytes, or hang
  up after OPTIONS (after the probe, FFmpeg's own RTSP client meets the same server);
- clients that read slowly for a while, or through a non-blocking descriptor 1: memory stays
  bounded and they get byte for byte what a fast client gets from the same source;
- one SIGINT (a clean end) and bursts of ten stop signals (SIGABRT).

Every case checks the exit status, the messages and that standard output holds only whole
transport packets. A stall mid-relay, a client closing its end and SIGINT on a live source are
in test_relay.py."""

import fcntl
import os
import random
import re
import resource
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

MIB = 1024 * 1024
TS = harness.TS_PACKET
ALL_METHODS = 'Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN'
NOT_ALL_METHODS = 'RTSP must provide DESCRIBE, SETUP, PLAY, TEARDOWN\n'
# The open-stage failures a source that is not media can end in (which one depends on what
# FFmpeg's probing makes of the bytes), each followed by the 3-second pause and status 1.
OPEN_FAILURE = re.compile(r"(Failed to open input stream '[^']*'\. Err=0x[0-9a-f]+ str=[^\n]*\n"
                          r"|Failed to get input stream info for '[^']*'\. Err=0x[0-9a-f]+ str=[^\n]*\n"
                          r"|Did not find any streams\n)\Z")

# A source of over 12 MB (MPEG-2 noise + MP2) with WebVTT cues: far more than the 2 MiB window
# and a pipe hold, so a slow client really holds the relay back, and caption events are spliced
# into the output while it does.
harness.register_media('bulk_vtt.mkv', lambda out: ['-i', harness.media_path('bulk.ts'),
                                                     '-i', harness.media_path('subs.vtt'),
                                                     '-map', '0', '-map', '1', '-c', 'copy'])


def fixed_random_bytes(n, key):
    return random.Random(key).randbytes(n)


# ---------------------------------------------------------------- scripted peers

class ScriptedServer:
    """A TCP server on 127.0.0.1 that runs handler(conn, server) for each connection in a thread
    of its own. For what no real server does; every connection is closed on exit."""

    def __init__(self, handler):
        self.handler = handler
        self.closing = threading.Event()
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.sock.bind(('127.0.0.1', 0))
        self.sock.listen(16)
        self.sock.settimeout(0.2)
        self.port = self.sock.getsockname()[1]
        self.conns = []
        self.thread = threading.Thread(target=self._serve, daemon=True)

    def url(self, scheme, path='x'):
        return '%s://127.0.0.1:%d%s' % (scheme, self.port, '' if scheme == 'tcp' else '/' + path)

    def _serve(self):
        while not self.closing.is_set():
            try:
                conn, _ = self.sock.accept()
            except OSError:
                continue
            self.conns.append(conn)
            threading.Thread(target=self._run, args=(conn,), daemon=True).start()

    def _run(self, conn):
        try:
            self.handler(conn, self)
        except OSError:
            pass  # the client went away: ordinary here
        finally:
            try:
                conn.close()
            except OSError:
                pass

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *exc):
        self.closing.set()
        self.thread.join(5)
        self.sock.close()
        for c in self.conns:
            try:
                c.shutdown(socket.SHUT_RDWR)
                c.close()
            except OSError:
                pass
        return False


def rtsp_requests(conn):
    """(method, CSeq) of each request on an RTSP connection, until the client closes it."""
    f = conn.makefile('rb')
    while True:
        line = f.readline(65536)
        if not line:
            return
        if not line.strip():
            continue
        method = line.split()[0].decode('latin-1')
        cseq = '0'
        length = 0
        while True:
            h = f.readline(65536)
            if not h.strip():
                break
            name, _, value = h.decode('latin-1').partition(':')
            if name.strip().lower() == 'cseq':
                cseq = value.strip()
            elif name.strip().lower() == 'content-length':
                length = int(value.strip() or 0)
        if length:
            f.read(length)
        yield method, cseq


def rtsp_answer(cseq, status='200 OK', headers=(), body=b''):
    head = 'RTSP/1.0 %s\r\nCSeq: %s\r\n' % (status, cseq) + ''.join(h + '\r\n' for h in headers)
    return head.encode() + b'\r\n' + body


def silent(conn, server):
    """Accepts and then says nothing until the test ends."""
    server.closing.wait(90)


def garbage_source(conn, server):
    conn.sendall(fixed_random_bytes(2 * MIB, 7))


def rtsp_garbage(conn, server):
    conn.sendall(fixed_random_bytes(64 * 1024, 11))


def rtsp_hang_up_after_options(conn, server):
    for method, cseq in rtsp_requests(conn):
        if method != 'OPTIONS':
            return
        conn.sendall(rtsp_answer(cseq, headers=[ALL_METHODS]))


def rtsp_megabyte_header(conn, server):
    for method, cseq in rtsp_requests(conn):
        conn.sendall(rtsp_answer(cseq, headers=['X-Padding: ' + 'A' * MIB, ALL_METHODS]))


# A description whose lines carry NUL bytes: read as NUL-terminated text, each line ends at its
# first NUL, which leaves a usable MPEG-TS description behind.
NUL_SDP = (b'v=0\x00trailing\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=\x00\x00\x00\r\n'
           b'c=IN IP4 239.255.0.1\x00/64\r\nt=0 0\r\n\x00m=audio 1 RTP/AVP 33\r\n'
           b'm=video 5000 RTP/AVP 33\x00 96\r\na=rtpmap:33 MP2T/90000\r\n')


def rtsp_nul_bytes(conn, server):
    for method, cseq in rtsp_requests(conn):
        if method == 'OPTIONS':
            conn.sendall(rtsp_answer(cseq, headers=[ALL_METHODS]) [:-2] + b'X-Note: nul\x00inside\r\n\r\n')
        elif method == 'DESCRIBE':
            conn.sendall(rtsp_answer(cseq, headers=['Content-Type: application/sdp',
                                                    'Content-Length: %d' % len(NUL_SDP)], body=NUL_SDP))
        else:
            conn.sendall(rtsp_answer(cseq, '461 Unsupported Transport'))


def send_then_close(data):
    def handler(conn, server):
        conn.sendall(data)
    return handler


def http_cut_short(data, announced):
    """An HTTP/1.1 answer that announces `announced` bytes and sends `data`, then closes."""
    def handler(conn, server):
        f = conn.makefile('rb')
        while f.readline(65536).strip():
            pass
        conn.sendall(b'HTTP/1.1 200 OK\r\nContent-Type: video/x-matroska\r\nContent-Length: %d\r\n'
                     b'Connection: close\r\n\r\n' % announced + data)
    return handler


# ---------------------------------------------------------------- clients

def read_available(fd, limit):
    """What fd has now (up to limit bytes); b'' when nothing is there, None at end of file."""
    ready, _, _ = select.select([fd], [], [], 0.05)
    if not ready:
        return b''
    try:
        chunk = os.read(fd, limit)
    except BlockingIOError:
        return b''
    return chunk if chunk else None


def rss_kib(pid):
    try:
        with open('/proc/%d/status' % pid) as f:
            for line in f:
                if line.startswith('VmRSS:'):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


class ClientRun:
    """pelvane writing into a pipe that this test reads according to a plan."""

    def __init__(self, args, nonblocking=False, tag='client'):
        r, w = os.pipe()
        if nonblocking:
            fcntl.fcntl(w, fcntl.F_SETFL, fcntl.fcntl(w, fcntl.F_GETFL) | os.O_NONBLOCK)
        self.err_path = harness.scratch(tag + '.err')
        harness.watch_stderr(self.err_path, ' '.join(args))
        with open(self.err_path, 'wb') as err:
            self.proc = harness.Proc([harness.BIN] + list(args), name='pelvane', stdout=w, stderr=err)
        os.close(w)
        self.fd = r
        self.data = bytearray()
        self.args = args

    def read_for(self, seconds, rate=None, step=0.05):
        """Reads for `seconds` (at most `rate` bytes a second when given); False at end of file."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            chunk = read_available(self.fd, int(rate * step) if rate else 1 << 20)
            if chunk is None:
                return False
            self.data += chunk
            if rate:
                time.sleep(step)
        return True

    def read_to_end(self, timeout):
        end = time.monotonic() + timeout
        while time.monotonic() < end:
            if self.read_for(0.5) is False:
                return True
        return False

    def finish(self, timeout=30):
        status = self.proc.wait(timeout)
        self.proc.stop()
        os.close(self.fd)
        return harness.Run(self.proc.popen.returncode, bytes(self.data), harness._read(self.err_path, True),
                           time.monotonic() - self.proc.started, self.args)


def run_all(cases, timeout):
    """Runs pelvane once per (case, args) at the same time; {case: Run}."""
    runs = {}

    def one(case, args, tag):
        try:
            runs[case] = harness.run_pelvane(args, timeout=timeout, tag=tag)
        except TimeoutError as e:
            runs[case] = e

    threads = [threading.Thread(target=one, args=(case, args, 'fault%d' % n))
               for n, (case, args) in enumerate(cases)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(timeout + 30)
    return runs


# ---------------------------------------------------------------- tests

class Faults(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # SIGABRT is expected here: no core files
        cls.sanitized = harness.sanitized_build()
        cls.media = {name: harness.media_path(name) for name in ('bulk_vtt.mkv', 'mpeg2_mp2.ts', 'h264_aac.mkv')}
        cls.http = peers.HttpPeer(harness.MEDIA).__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.http.__exit__()

    def reference(self):
        """What a fast client gets from the deterministic source (once per test process)."""
        if not hasattr(Faults, '_reference'):
            run = harness.run_pelvane(['--mime-type', '--url', self.http.url('bulk_vtt.mkv')], timeout=120,
                                      tag='reference')
            self.assertEqual(run.status, 0, run.describe())
            self.assertTrue(run.stderr.endswith('end of stream. exiting..\n'), run.describe())
            self.assertIn('Found VTT stream. Index 2\n', run.stderr, run.describe())
            self.assertIsNone(harness.ts_framing_problem(run.stdout[len(harness.MIME_HEAD_TS):]), run.describe())
            Faults._reference = run.stdout
        return Faults._reference

    def assertWholePackets(self, run, head=b'', allow_partial_tail=False):
        self.assertEqual(run.stdout[:len(head)], head, run.describe())
        problem = harness.ts_framing_problem(run.stdout[len(head):], allow_partial_tail)
        self.assertIsNone(problem, run.describe())

    def assertSetUpFailure(self, run, url):
        """Status 1 after the 3-second pause, nothing on standard output."""
        self.assertIsInstance(run, harness.Run, str(run))
        self.assertEqual(run.status, 1, run.describe())
        self.assertEqual(run.stdout, b'', run.describe())
        self.assertGreaterEqual(run.elapsed, 3.0, run.describe())
        self.assertRegex(run.stderr, OPEN_FAILURE, run.describe())
        self.assertIn("'%s'" % url, run.stderr, run.describe())

    def test_servers_that_misbehave_during_set_up(self):
        """Sources and RTSP servers that fail before the relay starts, all run at once, each
        with its message, the pause and status 1; those that never answer after 30 s more (the
        RTSP probe's request, then FFmpeg's own client, each give up after 30 s)."""
        servers = {name: ScriptedServer(handler).__enter__() for name, handler in [
            ('garbage', garbage_source), ('silent', silent), ('rtsp garbage', rtsp_garbage),
            ('rtsp hang-up', rtsp_hang_up_after_options), ('rtsp megabyte', rtsp_megabyte_header),
            ('rtsp nul', rtsp_nul_bytes)]}
        for s in servers.values():
            self.addCleanup(s.__exit__)
        urls = {
            'source sends garbage': servers['garbage'].url('tcp'),
            'tcp source never answers': servers['silent'].url('tcp'),
            'rtsp server never answers': servers['silent'].url('rtsp'),
            'rtsp server answers garbage': servers['rtsp garbage'].url('rtsp'),
            'rtsp server hangs up after OPTIONS': servers['rtsp hang-up'].url('rtsp'),
            'rtsp answer with a megabyte-long header line': servers['rtsp megabyte'].url('rtsp'),
            'rtsp answers with NUL bytes': servers['rtsp nul'].url('rtsp'),
        }
        runs = run_all([(case, ['--mime-type', '--url', url]) for case, url in urls.items()], timeout=100)

        for case in urls:
            with self.subTest(case=case):
                self.assertSetUpFailure(runs[case], urls[case])
        for case, least, most in [('tcp source never answers', 32, 45), ('rtsp server never answers', 62, 80)]:
            with self.subTest(case=case, check='gave up after 30 s of silence'):
                run = runs[case]
                self.assertIn("Source '%s' stopped answering: nothing read for 30 seconds\n" % urls[case],
                              run.stderr, run.describe())
                self.assertTrue(least <= run.elapsed < most, run.describe())

        # What the probe made of each answer before FFmpeg's own RTSP client met the same server.
        empty_answer = "\n-----------------------------\n'' 0 ''\nFAIL\n"
        expect = {
            'rtsp server never answers': ['---------<OPTIONS>--------\n' + empty_answer],
            'rtsp server answers garbage': ['---------<OPTIONS>--------\n' + empty_answer],
            'rtsp server hangs up after OPTIONS': ["    'TEARDOWN'\n---------<DESCRIBE>--------\n" + empty_answer],
            # The long line is more than the transfer takes; the Public header after it is lost.
            'rtsp answer with a megabyte-long header line': ["'RTSP/1.0' 200 'OK'\n'CSeq' = '1'\n" + NOT_ALL_METHODS],
            # Each description line ends at its first NUL: what is left is MPEG-TS over RTP.
            'rtsp answers with NUL bytes': ["'Public' = 'OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN'\n",
                                            "   c_connection_address:  '239.255.0.1'\n",
                                            "   m_media:                 'video'\n",
                                            "Looks like M2TS: 239.255.0.1:5000\n",
                                            "'RTSP/1.0' 461 'Unsupported Transport'\nFAIL\n"],
        }
        for case, pieces in expect.items():
            with self.subTest(case=case, check='probe transcript'):
                self.assertIsInstance(runs[case], harness.Run, str(runs[case]))
                for piece in pieces:
                    self.assertIn(piece, runs[case].stderr, runs[case].describe())
                if 'NUL' in case:
                    # A line that starts with a NUL is an empty line: no audio section.
                    self.assertNotIn("'audio'", runs[case].stderr, runs[case].describe())

    def test_source_ends_in_the_middle(self):
        ts = open(self.media['mpeg2_mp2.ts'], 'rb').read()
        mkv = open(self.media['h264_aac.mkv'], 'rb').read()
        cut_ts = TS * (len(ts) // TS * 3 // 5) + 77      # 77 bytes into a transport packet
        cut_mkv = len(mkv) // 2 + 1234                   # inside a Matroska cluster
        cases = [
            ('tcp MPEG-TS closes mid-packet', 'tcp', send_then_close(ts[:cut_ts]), ['mpeg2video', 'mp2'],
             ['end of stream. exiting..\n']),
            ('http Matroska closes before its Content-Length', 'http',
             http_cut_short(mkv[:cut_mkv], len(mkv)), ['h264', 'aac'],
             ['end of stream. exiting..\n', 'av_read_frame() failed. exiting.\n']),
        ]
        for case, scheme, handler, codecs, endings in cases:
            with self.subTest(case=case), ScriptedServer(handler) as server:
                run = harness.run_pelvane(['--mime-type', '--url', server.url(scheme, 'cut.mkv')], timeout=60,
                                          tag='cut')
                self.assertEqual(run.status, 0, run.describe())
                self.assertTrue(any(run.stderr.endswith(e) for e in endings), run.describe())
                self.assertWholePackets(run, harness.MIME_HEAD_TS)
                path = harness.write_file(harness.scratch('cut.ts'), run.stdout[len(harness.MIME_HEAD_TS):])
                self.assertEqual(sorted(s['codec_name'] for s in harness.ffprobe_streams(path)), sorted(codecs))
                packets = harness.ffprobe_packets(path)
                self.assertGreater(len(packets), 20, run.describe())
                self.assertEqual(harness.dts_problems(packets)[:5], [], run.describe())

    def test_garbage_in_the_middle_of_a_source(self):
        ts = open(self.media['mpeg2_mp2.ts'], 'rb').read()
        at = TS * (len(ts) // TS // 2)
        files = harness.scratch('garbled')
        os.makedirs(files, exist_ok=True)
        server = peers.HttpPeer(files).__enter__()
        self.addCleanup(server.__exit__)
        for n, (case, data) in enumerate([
                ('random bytes between two packets', ts[:at] + fixed_random_bytes(300 * 1024, 3) + ts[at:]),
                ('random bytes inside a packet', ts[:at + 100] + fixed_random_bytes(64 * 1024, 5) + ts[at + 100:]),
                ('sync bytes with nothing behind them', ts[:at] + b'\x47' * 50000 + ts[at:])]):
            with self.subTest(case=case):
                harness.write_file(os.path.join(files, '%d.ts' % n), data)
                run = harness.run_pelvane(['--url', server.url('%d.ts' % n)], timeout=60, tag='garbled')
                self.assertEqual(run.status, 0, run.describe())
                self.assertTrue(run.stderr.endswith('end of stream. exiting..\n'), run.describe())
                self.assertWholePackets(run)
                path = harness.write_file(harness.scratch('garbled.ts'), run.stdout)
                packets = harness.ffprobe_packets(path)
                # Both halves of the source got through, time stamps still in order.
                self.assertGreater(len(packets), 0.8 * len(harness.ffprobe_packets(self.media['mpeg2_mp2.ts'])))
                self.assertEqual(harness.dts_problems(packets)[:5], [], run.describe())

    def test_slow_and_non_blocking_clients_lose_nothing(self):
        reference = self.reference()
        url = self.http.url('bulk_vtt.mkv')
        for case, nonblocking in [('slow reader', False), ('slow reader, non-blocking descriptor 1', True)]:
            with self.subTest(case=case):
                client = ClientRun(['--mime-type', '--url', url], nonblocking=nonblocking, tag='slow')
                self.addCleanup(client.proc.stop)
                self.assertTrue(client.read_for(1.0, rate=300 * 1024), 'ended early')
                base = rss_kib(client.proc.pid) or 0
                peak = base
                # About 300 KB/s for 6 s, while the source could go a hundred times faster: the
                # pipe and the window stay full and the relay waits for the client.
                for _ in range(12):
                    self.assertTrue(client.read_for(0.5, rate=300 * 1024), 'ended while throttled')
                    peak = max(peak, rss_kib(client.proc.pid) or 0)
                self.assertTrue(client.proc.running())
                self.assertTrue(client.read_to_end(60), 'no end of file after reading fast')
                run = client.finish()
                self.assertEqual(run.status, 0, run.describe())
                self.assertTrue(run.stderr.endswith('end of stream. exiting..\n'), run.describe())
                self.assertWholePackets(run, harness.MIME_HEAD_TS)
                self.assertTrue(run.stdout == reference,
                                'differs from what a fast client got: %d vs %d bytes, first difference at %d'
                                % (len(run.stdout), len(reference),
                                   next((i for i, (a, b) in enumerate(zip(run.stdout, reference)) if a != b),
                                        min(len(run.stdout), len(reference)))))
                # Held back by the client, the relay's memory does not grow with what waits.
                allowed = 32 * 1024 if self.sanitized else 8 * 1024
                self.assertLess(peak - base, allowed, 'RSS grew from %d to %d KiB while throttled' % (base, peak))

    def test_one_sigint_ends_cleanly(self):
        reference = self.reference()
        client = ClientRun(['--mime-type', '--url', self.http.url('bulk_vtt.mkv')], tag='sigint')
        self.addCleanup(client.proc.stop)
        self.assertTrue(client.read_for(1.5, rate=1024 * 1024), 'ended early')
        self.assertTrue(client.proc.running())
        client.proc.send(signal.SIGINT)
        t0 = time.monotonic()
        self.assertTrue(client.read_to_end(10), 'still writing 10 s after SIGINT')
        run = client.finish(10)
        self.assertLess(time.monotonic() - t0, 5.0, run.describe())
        self.assertEqual(run.status, 0, run.describe())
        self.assertNotIn('end of stream', run.stderr, run.describe())
        self.assertNotIn('failed', run.stderr, run.describe())
        # The sink takes nothing more once the signal is counted, so the stream may end inside
        # a muxer write; up to there it is exactly what a fast client got.
        self.assertWholePackets(run, harness.MIME_HEAD_TS, allow_partial_tail=True)
        self.assertGreater(len(run.stdout), MIB)
        self.assertLess(len(run.stdout), len(reference))
        self.assertTrue(reference.startswith(run.stdout), 'not a prefix of what a fast client got')

    def test_ten_stop_signals_abort(self):
        for case, signals in [('ten SIGINTs', [signal.SIGINT] * 10),
                              ('SIGINT and SIGQUIT, ten in all', [signal.SIGINT, signal.SIGQUIT] * 5)]:
            with self.subTest(case=case):
                # A client that has stopped reading keeps the run busy (sink waiting, then the
                # window's last write-out) while the signals arrive one by one.
                client = ClientRun(['--url', self.http.url('bulk_vtt.mkv')], tag='abort')
                self.addCleanup(client.proc.stop)
                self.assertTrue(client.read_for(1.0, rate=256 * 1024), 'ended early')
                for sig in signals:
                    client.proc.send(sig)
                    time.sleep(0.04)
                status = client.proc.wait(10)
                client.read_to_end(5)
                run = client.finish(5)
                self.assertEqual(status, -signal.SIGABRT, run.describe())
                self.assertNotIn('end of stream', run.stderr, run.describe())
                self.assertWholePackets(run, allow_partial_tail=True)


if __name__ == '__main__':
    harness.main()
