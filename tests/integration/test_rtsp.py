# RTSP against GStreamer's RTSP server on port 554 of a random 127.x.y.z (a redirect's Location
# needs a URL without a port): H.264 over RTP is relayed, MPEG-TS over RTP gets the 302 answer.

import os
import random
import signal
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402


class GStreamerServer(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        harness.require('/usr/lib/python3/dist-packages/gi/__init__.py', 'python3-gi')
        harness.require('/usr/lib/x86_64-linux-gnu/girepository-1.0/GstRtspServer-1.0.typelib',
                        'gir1.2-gst-rtsp-server-1.0')
        assert os.geteuid() == 0, 'port 554 needs root'
        # Another run may hold 554 on the address drawn: draw again, for at most a minute.
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            cls.address = '127.%d.%d.%d' % tuple(random.randint(2, 254) for _ in range(3))
            cls.server = harness.Proc(['/usr/bin/python3', os.path.join(harness.HERE, 'rtsp_gst_peer.py'), cls.address,
                                       '554'], log_path=harness.write_file(harness.scratch('gst.log'), b''))
            if harness.wait_for(lambda: 'ready' in cls.server.log_text() or not cls.server.running(), 20) and \
                    'ready' in cls.server.log_text():
                return
            cls.server.stop()
            assert 'cannot listen' in cls.server.log_text(), 'GStreamer RTSP server failed:\n' + cls.server.log_text()
        raise AssertionError('port 554 stayed busy for a minute')

    def test_h264_is_relayed(self):
        s = harness.Started(['--url', 'rtsp://%s/h264' % self.address], tag='rtsp-h264')
        self.addCleanup(s.proc.stop)
        s.output_reaches(150000, 20)
        run = s.finish(10, signal.SIGINT)
        self.assertEqual((run.status, 'Looks like M2TS' in run.stderr), (0, False), run.describe())
        self.assertRelayTs(run, ['h264'], allow_partial_tail=True)

    def test_mpegts_over_rtp_is_redirected(self):
        run = harness.run_pelvane(['--url', 'rtsp://%s/ts-sessc' % self.address], timeout=20)
        self.assertEqual((run.status, run.elapsed < 3.0), (1, True), 'a redirect: no pause\n' + run.describe())
        # The interface is the local end of the probe's connection: 127.0.0.1 for all of 127/8.
        self.assertEqual(run.stdout, b'HTTP/1.0 302 RTSP stream is MPEG-TS RTP\r\nLocation: rtp://127.0.0.1@%s:5000'
                         b'\r\n\r\n' % self.address.encode(), run.describe())
        setups = [x for x in self.server.log_text().splitlines() if x.startswith('SETUP ') and 'ts-sessc' in x]
        self.assertEqual([x.split(' ', 2)[2] for x in setups], ['RTP/AVP;unicast'])


if __name__ == '__main__':
    harness.main()
