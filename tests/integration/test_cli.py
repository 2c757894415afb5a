"""The command line as the parent process meets it: exact standard error, exit status,
nothing on standard output, and the 3-second pause after a source that cannot be opened."""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402

USAGE = ('pelvane [options] --url <url>\n'
         'RTSP/RTMP to MPEG-TS transform\n'
         '\n'
         '   --ignore-ssl-errors  Ignore SSL errors\n'
         '   --mime-type       Emit MIME type on output\n'
         '   --mp4             Allow MP4 output\n'
         '   --hls             Source is HLS\n'
         '   -w <width>\n'
         '   -h <height>\n')

SCHEME = 'URL must be rtsp://, rtmp://, rtmps://, http://, https://, or tcp:// address\n'

# (case, arguments, exact stderr); every one ends at once with status 1. The option loop's
# finer points are unit-tested; these pin each kind of message as the parent process sees it.
IMMEDIATE_FAILURES = [
    ('no arguments', [], '--url required\n'),
    ('help, three dashes, after a url', ['--url', 'http://127.0.0.1/x', '---help'], USAGE),
    ('unknown switch', ['--bogus'], USAGE + 'Unknown switch bogus\n'),
    ('value glued with =', ['--url=http://127.0.0.1/x'], USAGE + 'Unknown switch url=http://127.0.0.1/x\n'),
    ('stray argument after the url', ['--url', 'http://127.0.0.1/x', 'extra'], 'Unhandled argv extra\n'),
    ('url without its value', ['--url'], USAGE + 'Missing value for url\n'),
    ('-h is height, not help', ['-h'], USAGE + 'Missing value for h\n'),
    ('the last url wins, empty', ['--url', 'http://127.0.0.1/x', '--url', ''], '--url required\n'),
    ('udp scheme', ['--url', 'udp://127.0.0.1:1234'], SCHEME),
    ('accepted flags before a bad scheme', ['--ignore-ssl-errors', '--hls', '--mp4', '--mime-type',
                                            '-w', '640', '-h', '480', '--url', 'file:///tmp/x.ts'], SCHEME),
]


class CommandLine(harness.RelayChecks):

    def test_immediate_failures(self):
        for case, args, stderr in IMMEDIATE_FAILURES:
            with self.subTest(case=case):
                run = harness.run_pelvane(args, timeout=10, tag='cli')
                self.assertEqual(run.stderr, stderr, run.describe())
                self.assertEqual(run.status, 1, run.describe())
                self.assertEqual(run.stdout, b'', run.describe())
                # "At once": none of these may take the failure pause.
                self.assertLess(run.elapsed, 2.0, run.describe())

    def test_refused_connection_pauses_then_fails(self):
        port = harness.free_port()  # nothing listens there
        for case, url, args in [('tcp', 'tcp://127.0.0.1:%d' % port, []),
                                ('http, --mime-type writes no head', 'http://127.0.0.1:%d/x' % port, ['--mime-type'])]:
            with self.subTest(case=case):
                run = harness.run_pelvane(args + ['--url', url], timeout=20, tag='refused')
                line = "Failed to open input stream '%s'. Err=0xffffff91 str=Connection refused\n" % url
                self.assertTrue(run.stderr.endswith(line), run.describe())
                self.assertEqual(run.status, 1, run.describe())
                self.assertEqual(run.stdout, b'', run.describe())
                self.assertGreaterEqual(run.elapsed, 3.0, run.describe())
                self.assertLess(run.elapsed, 8.0, run.describe())


if __name__ == '__main__':
    harness.main()
