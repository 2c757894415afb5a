#!/usr/bin/python3
# pelvane behind the front ends its examples ship, read by HTTP clients; its manual pages.

import os
import re
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402

need, relays_in, codecs = harness.need, harness.relays_in, harness.codecs

# Runs its arguments, and their children, with W+X memory refused (PR_SET_MDWE: REFUSE_EXEC_GAIN).
NO_WX_EXEC = ('import ctypes, os, sys; ctypes.CDLL(None).prctl(65, 1, 0, 0, 0) and sys.exit("PR_SET_MDWE refused '
              '(Linux 6.3 or later needed)"); os.execv(sys.argv[1], sys.argv[1:])')


class Serve(unittest.TestCase):

    # The examples' front ends: systemd's socket activation, with pelvane kept from W+X memory as
    # the unit's MemoryDenyWriteExecute= does (the kernel's PR_SET_MDWE; the unit's system-call
    # filter and namespaces need systemd itself), and the socat script, whose source address holds
    # a quote and socat's syntax after it: nothing may run (the marker stays absent).
    def test_clients_of_each_front_end(self):
        os.environ['PATH'] = os.path.dirname(harness.BIN) + os.pathsep + os.environ['PATH']  # the script's pelvane
        marker, _ = harness.scratch('pwned'), need('socat', 'socat')
        with peers.HttpPeer() as source:
            url = source.url(os.path.basename(harness.media_path('bulk.ts'))) + "?x'!!SYSTEM:id>%s;echo" % marker
            for kind, port in (('socket-activate', harness.free_port()), ('socat', harness.free_port())):
                front = harness.Proc([sys.executable, '-c', NO_WX_EXEC, need('systemd-socket-activate', 'systemd'),
                                      '--inetd', '-a', '-l', '127.0.0.1:%d' % port, harness.BIN, '--mime-type',
                                      '--url', url] if kind == 'socket-activate' else [
                    'sh', os.path.join(harness.REPO, 'examples', 'serve-socat.sh'), str(port), url, '127.0.0.1'],
                    log_path=harness.scratch(kind + '.log'))
                self.assertTrue(harness.wait_listen(port, 10, front), front.log_text())
                client = 'http://127.0.0.1:%d/' % port
                # Two clients at once, each read for 1 MB: the exact head, then transport packets of both streams.
                self.assertEqual(harness.clients_at_once(front, [client] * 2, 1 << 20, kind),
                                 [(harness.MIME_HEAD_TS, ['mp2', 'mpeg2video'])] * 2, kind)
                # A client that hangs up ends its relay at once (SIGPIPE); ffprobe is a client too.
                self.assertTrue(harness.wait_for(lambda: not relays_in(front.pid), 2.0), kind)
                self.assertEqual(codecs(client), ['mp2', 'mpeg2video'], kind)
                # One that reads to the end gets a clean close, not a reset for the request it sent.
                whole = subprocess.run([need('curl', 'curl'), '-sS', '--max-time', '30', client], capture_output=True)
                self.assertEqual((whole.returncode, whole.stderr), (0, b''), kind)
                front.stop()
        self.assertFalse(os.path.exists(marker))
        # The units' exposure as systemd rates it: 7.2 before their confinement block.
        for unit in ('pelvane-news@.service', 'pelvane-channels@.service'):
            r = subprocess.run([need('systemd-analyze', 'systemd'), 'security', '--offline=true', os.path.join(
                harness.REPO, 'examples', unit)], capture_output=True, text=True, timeout=60)
            self.assertLessEqual(float(re.search(r'Overall exposure level for \S+: ([\d.]+)', r.stdout).group(1)), 2.0)

    def test_manual_pages_lint_clean_and_list_every_usage_option(self):
        for program, page in ((harness.BIN, 'pelvane.1'), (harness.CC_BIN, 'pelvane-cc.1'),
                              (harness.CHANNELS_BIN, 'pelvane-channels.1')):
            path = os.path.join(harness.REPO, 'man', page)
            lint = subprocess.run([need('mandoc', 'mandoc'), '-T', 'lint', '-W', 'warning', path],
                                  capture_output=True, text=True, timeout=30)
            self.assertEqual((lint.returncode, lint.stdout + lint.stderr), (0, ''), page)
            usage = subprocess.run([program, '--help'], capture_output=True, text=True, timeout=30).stderr
            in_page = set(re.findall(r'\bFl (\S+)', open(path).read().split('.Sh SYNOPSIS')[1].split('.Sh ')[0]))
            in_usage = {o[1:] for o in re.findall(r'(?<![\w-])--?[a-z][\w-]*', usage)}
            self.assertTrue(in_usage and in_usage <= in_page, '%s: usage %s, synopsis %s' % (page, in_usage, in_page))


if __name__ == '__main__':
    harness.main()
