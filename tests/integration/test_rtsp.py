"""The RTSP probe against a scripted responder and against GStreamer's RTSP server.

A redirect's Location needs the server's address from a URL without a port, so the redirect
cases run against a peer on 127.0.0.1:554 (root only). Sources the probe passes on are relayed
through FFmpeg's own RTSP client: the scripted peer refuses that second connection (404), so
those runs end quickly with status 1 and nothing on standard output."""

import json
import os
import signal
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
from rtsp_peer import url_path  # noqa: E402

RTSP_PORT = 554
FOUND_INTERFACE = 'Found CURL socket. Good.\nOn interface 127.0.0.1\n'
NOT_ALL_METHODS = 'RTSP must provide DESCRIBE, SETUP, PLAY, TEARDOWN\n'


def redirect(location):
    return ('HTTP/1.0 302 RTSP stream is MPEG-TS RTP\r\nLocation: %s\r\n\r\n' % location).encode()


def port_554_problem():
    if os.geteuid() != 0:
        return 'listening on port 554 needs root'
    if harness.is_listening(RTSP_PORT):
        return 'something already listens on port 554'
    return None


# (answer path, Location, Transport that SETUP must send)
REDIRECTS = [
    ('mcast', 'rtp://127.0.0.1@239.255.0.1:5000', 'RTP/AVP;multicast'),
    ('ucast', 'rtp://127.0.0.1@127.0.0.1:5000', 'RTP/AVP;unicast'),
    ('port70000', 'rtp://127.0.0.1@239.255.0.1:4464', 'RTP/AVP;multicast'),
]

# (case, URL, methods the probe sends, text its standard error must hold)
PASSED_ON = [
    ('payload type 96', 'rtsp://127.0.0.1/pt96', ['OPTIONS', 'DESCRIBE'], "   m_fmt:                   96\n"),
    ('TTL suffix', 'rtsp://127.0.0.1/ttl', ['OPTIONS', 'DESCRIBE'], "'239.255.0.1/64'\n"),
    ('no TEARDOWN', 'rtsp://127.0.0.1/no-teardown', ['OPTIONS'], "    'SETUP'\n    'PLAY'\n" + NOT_ALL_METHODS),
    ('content type', 'rtsp://127.0.0.1/wrong-type', ['OPTIONS', 'DESCRIBE'],
     "'Content-Type' = 'application/sdp; charset=utf-8'\n"),
    ('no length', 'rtsp://127.0.0.1/no-length', ['OPTIONS', 'DESCRIBE'],
     "'Content-Base' = 'rtsp://127.0.0.1/no-length/'\nDescription is not SDP\n"),
    ('404', 'rtsp://127.0.0.1/notfound', ['OPTIONS', 'DESCRIBE'], "'RTSP/1.0' 404 'Not Found'\nFAIL\n"),
    ('SETUP refused', 'rtsp://127.0.0.1/setup-fails', ['OPTIONS', 'DESCRIBE', 'SETUP'],
     "'RTSP/1.0' 461 'Unsupported Transport'\nFAIL\n"),
    ('not RTSP', 'rtsp://127.0.0.1/garbage', ['OPTIONS'],
     "---------<OPTIONS>--------\n\n-----------------------------\n'' 0 ''\nFAIL\n"),
    ('port in URL', 'rtsp://127.0.0.1:554/mcast/with-port', ['OPTIONS', 'DESCRIBE', 'SETUP'],
     "'RTP/AVP;multicast'\n'Session' = '12345678;timeout=60'\nFailed to parse web url IP\n"),
    ('host name in URL', 'rtsp://localhost/mcast/by-name', ['OPTIONS', 'DESCRIBE', 'SETUP'],
     "Failed to parse web url IP\n"),
    ('1 MiB description', 'rtsp://127.0.0.1/huge', ['OPTIONS', 'DESCRIBE'], "DESCRIBE answer larger than 65536 bytes\n"),
]


class ScriptedPeer(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        problem = port_554_problem()
        if problem:
            raise harness.unittest.SkipTest(problem)
        cls.record = harness.write_file(harness.scratch('rtsp_requests.jsonl'), b'')
        cls.peer = harness.Proc(['/usr/bin/python3', os.path.join(harness.HERE, 'rtsp_peer.py'), '--host', '127.0.0.1',
                                 '--port', str(RTSP_PORT), '--record', cls.record, '--once'],
                                name='rtsp_peer', log_path=harness.scratch('rtsp_peer.log'))
        if not harness.wait_listen(RTSP_PORT, 10, cls.peer):
            cls.peer.stop()
            raise AssertionError('scripted RTSP peer did not listen:\n' + cls.peer.log_text())

    @classmethod
    def tearDownClass(cls):
        cls.peer.stop()

    def connections(self, url):
        """Requests per connection (in order) whose first request asked for url's path."""
        conns = {}
        with open(self.record) as f:
            for r in map(json.loads, f):
                conns.setdefault(r['conn'], []).append(r)
        return [reqs for _, reqs in sorted(conns.items()) if url_path(reqs[0]['url']) == url_path(url)]

    def test_redirect(self):
        for answer, location, transport in REDIRECTS:
            with self.subTest(answer=answer):
                url = 'rtsp://127.0.0.1/' + answer
                run = harness.run_pelvane(['--url', url], timeout=20, tag='rtsp-' + answer)
                self.assertEqual(run.status, 1, run.describe())
                self.assertEqual(run.stdout, redirect(location), run.describe())
                self.assertIn('Looks like M2TS: %s\n' % location.split('@')[1], run.stderr)
                self.assertTrue(run.stderr.endswith(FOUND_INTERFACE), run.describe())
                conns = self.connections(url)
                self.assertEqual(len(conns), 1, conns)
                self.assertEqual([r['method'] for r in conns[0]], ['OPTIONS', 'DESCRIBE', 'SETUP'])
                self.assertEqual([r['url'] for r in conns[0]], [url] * 3)
                self.assertEqual(conns[0][2]['headers'].get('transport'), transport)

    def test_passed_on_to_the_relay(self):
        # Each case costs the relay's 3-second pause after a failed open: run them side by side.
        started = [harness.Started(['--url', url], tag='rtsp-%d' % n) for n, (_, url, _, _) in enumerate(PASSED_ON)]
        for (case, url, methods, stderr_part), s in zip(PASSED_ON, started):
            with self.subTest(case=case):
                s.proc.wait(30)
                run = s.finish(1)
                self.assertEqual((run.status, run.stdout), (1, b''), run.describe())
                self.assertIn(stderr_part, run.stderr, run.describe())
                self.assertLess(len(run.stderr), 100000, 'what the probe echoes is bounded')
                if 'SETUP' not in methods or 'SETUP refused' == case:
                    self.assertNotIn(FOUND_INTERFACE, run.stderr, run.describe())
                conns = self.connections(url)
                self.assertGreaterEqual(len(conns), 2, 'the relay made no connection of its own\n' + run.describe())
                self.assertEqual([r['method'] for r in conns[0]], methods, run.describe())
                self.assertIn('Lavf', conns[1][0]['headers'].get('user-agent', ''), conns[1])


class GStreamerServer(harness.RelayChecks):
    """Debian's GStreamer RTSP server: H.264 as payload type 96 on a free port, and on port 554
    (when it can be had) the mount whose description asks for the unicast redirect."""

    @classmethod
    def setUpClass(cls):
        cls.port = harness.free_port()
        cls.redirect_problem = port_554_problem()
        ports = [str(cls.port)] + ([] if cls.redirect_problem else [str(RTSP_PORT)])
        log = harness.write_file(harness.scratch('rtsp_gst_peer.log'), b'')
        cls.server = harness.Proc(['/usr/bin/python3', os.path.join(harness.HERE, 'rtsp_gst_peer.py')] + ports,
                                  name='rtsp_gst_peer', log_path=log)
        if not harness.wait_for(lambda: 'ready' in cls.server.log_text() or not cls.server.running(), 20):
            cls.server.stop()
            raise AssertionError('GStreamer RTSP server did not start')
        if not cls.server.running():
            text = cls.server.log_text()
            cls.server.stop()
            if 'No module named' in text or 'Namespace' in text:
                raise harness.unittest.SkipTest('GStreamer RTSP server not installed: ' + text.strip()[-200:])
            raise AssertionError('GStreamer RTSP server ended:\n' + text)

    @classmethod
    def tearDownClass(cls):
        cls.server.stop()

    def setups(self, path):
        return [line.split(' ', 2)[2] for line in self.server.log_text().splitlines()
                if line.startswith('SETUP ') and url_path(line.split(' ')[1]).startswith(path)]

    def test_h264_is_relayed(self):
        url = 'rtsp://127.0.0.1:%d/h264' % self.port
        s = harness.Started(['--url', url], tag='rtsp-gst-h264')
        self.addCleanup(s.proc.stop)
        s.output_reaches(150000, 15)
        run = s.finish(10, signal.SIGINT)
        self.assertEqual(run.status, 0, run.describe())
        self.assertIn('Parsing SDP\n', run.stderr)
        self.assertNotIn('Looks like M2TS', run.stderr)
        self.assertRelayTs(run, ['h264'], allow_partial_tail=True, name='rtsp-gst-h264')
        transports = self.setups('/h264')
        self.assertTrue(transports and all(t.startswith('RTP/AVP') for t in transports), transports)
        sys.stderr.write("FFmpeg's RTSP transport on loopback: %s\n" % '; '.join(transports))

    def test_rewritten_description_redirects(self):
        if self.redirect_problem:
            self.skipTest(self.redirect_problem)
        run = harness.run_pelvane(['--url', 'rtsp://127.0.0.1/ts-sessc'], timeout=20, tag='rtsp-gst-sessc')
        self.assertEqual(run.status, 1, run.describe())
        self.assertEqual(run.stdout, redirect('rtp://127.0.0.1@127.0.0.1:5000'), run.describe())
        self.assertIn("   c_connection_address:  '127.0.0.1'\n", run.stderr)
        self.assertTrue(run.stderr.endswith(FOUND_INTERFACE), run.describe())
        self.assertEqual(self.setups('/ts-sessc'), ['RTP/AVP;unicast'])


if __name__ == '__main__':
    harness.main()
