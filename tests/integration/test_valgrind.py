"""valgrind memcheck over the real binary: short relays of an HTTP source (MPEG-TS with caption
events, and fragmented MP4) to their end, and the RTSP probe against the scripted responder.

No invalid read or write, no use of an uninitialised value, no bad free: valgrind's error exit
(99) fails the case. On the clean end of a relay no block may be definitely lost either. The
probe runs end on the documented failure exits (a redirect, or a source FFmpeg cannot open),
which leave what the run had opened to the process's end, so their leaks are not checked.

An AddressSanitizer build cannot run under valgrind: there the tests are skipped."""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402

VALGRIND = '/usr/bin/valgrind'
HERE = os.path.dirname(os.path.abspath(__file__))
ERROR_EXIT = 99


def memcheck(args, tag, check_leaks, timeout=240):
    """Runs pelvane under memcheck to its end; (Run, valgrind's log text)."""
    log = harness.scratch(tag + '.memcheck')
    out_path, err_path = harness.scratch(tag + '.out'), harness.scratch(tag + '.err')
    argv = [VALGRIND, '--tool=memcheck', '--error-exitcode=%d' % ERROR_EXIT, '--log-file=' + log,
            '--num-callers=30', '--leak-check=' + ('full' if check_leaks else 'no'),
            '--show-leak-kinds=definite', '--errors-for-leak-kinds=definite', harness.BIN] + list(args)
    with open(out_path, 'wb') as out, open(err_path, 'wb') as err:
        p = harness.Proc(argv, name='valgrind', stdout=out, stderr=err)
        status = p.wait(timeout)
        p.stop()
    run = harness.Run(p.popen.returncode, harness._read(out_path), harness._read(err_path, True),
                      0.0, ['(memcheck)'] + list(args))
    text = harness._read(log, True)
    if status is None:
        raise AssertionError('still running under valgrind after %d s\n%s\n%s' % (timeout, run.describe(), text))
    return run, text


class Memcheck(harness.RelayChecks):

    @classmethod
    def setUpClass(cls):
        if harness.sanitized_build():
            raise harness.unittest.SkipTest('an AddressSanitizer build does not run under valgrind')
        harness.media_path('h264_aac_vtt.mkv')
        cls.http = peers.HttpPeer(harness.MEDIA).__enter__()

    @classmethod
    def tearDownClass(cls):
        cls.http.__exit__()

    def assertClean(self, run, log, status):
        self.assertNotEqual(run.status, ERROR_EXIT, 'memcheck found errors:\n%s\n%s' % (log[-8000:], run.describe()))
        self.assertIn('ERROR SUMMARY: 0 errors', log, log[-8000:])
        self.assertEqual(run.status, status, run.describe() + '\n' + log[-3000:])

    def test_relays(self):
        url = self.http.url('h264_aac_vtt.mkv')
        for n, (case, extra, head) in enumerate([('MPEG-TS with caption events', [], harness.MIME_HEAD_TS),
                                                 ('fragmented MP4', ['--mp4'], harness.MIME_HEAD_MP4)]):
            with self.subTest(case=case):
                run, log = memcheck(['--mime-type'] + extra + ['--url', url], 'relay%d' % n, check_leaks=True)
                self.assertClean(run, log, 0)
                self.assertTrue(run.stderr.endswith('end of stream. exiting..\n'), run.describe())
                self.assertEqual(run.stdout[:len(head)], head, run.describe())
                if head == harness.MIME_HEAD_TS:
                    self.assertIsNone(harness.ts_framing_problem(run.stdout[len(head):]), run.describe())
                    self.assertIn(b'MOLVAR:VTT', run.stdout, 'no caption event in the output')
                else:
                    self.assertEqual(harness.mp4_top_boxes(run.stdout[len(head):])[:2], ['ftyp', 'moov'])

    def test_rtsp_probe(self):
        # The probe's whole exchange, the description parsed, then a URL with a port cannot
        # give the redirect; FFmpeg's own client is refused (--once) and the run fails.
        port = harness.free_port()
        peer = harness.Proc(['/usr/bin/python3', os.path.join(HERE, 'rtsp_peer.py'), '--host', '127.0.0.1',
                             '--port', str(port), '--once'], name='rtsp_peer',
                            log_path=harness.scratch('vg_rtsp_peer.log'))
        self.addCleanup(peer.stop)
        self.assertTrue(harness.wait_listen(port, 10, peer), peer.log_text())
        cases = [('whole exchange, port in the URL', 'rtsp://127.0.0.1:%d/mcast' % port, 1,
                  'Failed to parse web url IP\n')]
        if os.geteuid() == 0 and not harness.is_listening(554):
            cases.append(('302 redirect', 'rtsp://127.0.0.1/ucast', 1, 'On interface 127.0.0.1\n'))
        for n, (case, url, status, text) in enumerate(cases):
            with self.subTest(case=case):
                if url.startswith('rtsp://127.0.0.1/'):
                    redirect = harness.Proc(['/usr/bin/python3', os.path.join(HERE, 'rtsp_peer.py'), '--host',
                                             '127.0.0.1', '--port', '554'], name='rtsp_peer_554',
                                            log_path=harness.scratch('vg_rtsp_peer_554.log'))
                    self.addCleanup(redirect.stop)
                    self.assertTrue(harness.wait_listen(554, 10, redirect), redirect.log_text())
                run, log = memcheck(['--url', url], 'probe%d' % n, check_leaks=False)
                self.assertClean(run, log, status)
                self.assertIn("'RTSP/1.0' 200 'OK'\n", run.stderr, run.describe())
                self.assertIn(text, run.stderr, run.describe())
                if case == '302 redirect':
                    self.assertEqual(run.stdout, b'HTTP/1.0 302 RTSP stream is MPEG-TS RTP\r\n'
                                                 b'Location: rtp://127.0.0.1@127.0.0.1:5000\r\n\r\n')
                else:
                    self.assertEqual(run.stdout, b'', run.describe())
                    self.assertIn("Failed to open input stream '%s'" % url, run.stderr, run.describe())


if __name__ == '__main__':
    harness.main()
