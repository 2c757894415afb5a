#!/usr/bin/python3
# pelvane behind the front ends its examples ship, read by HTTP clients; its manual pages.

import os
import re
import shutil
import subprocess
import sys
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402

def need(tool, package):
    harness.require(shutil.which(tool) or '/usr/bin/' + tool, package)
    return shutil.which(tool)


# Live (not zombie) pelvane processes of the front end's session.
def relays_in(session):
    ps = subprocess.run(['ps', '-o', 'stat=,comm=', '--sid', str(session)], capture_output=True, text=True).stdout
    return [line for line in ps.splitlines() if line.split()[1:] == ['pelvane'] and not line.startswith('Z')]


codecs = lambda path_or_url: sorted(s['codec_name'] for s in harness.ffprobe_streams(path_or_url))  # noqa: E731


class Serve(unittest.TestCase):

    def test_clients_of_each_front_end(self):
        with peers.HttpPeer() as source:
            relay = [harness.BIN, '--mime-type', '--url', source.url(os.path.basename(harness.media_path('bulk.ts')))]
            for kind, port in (('socket-activate', harness.free_port()), ('socat', harness.free_port())):
                front = harness.Proc([need('systemd-socket-activate', 'systemd'), '--inetd', '-a', '-l',
                                      '127.0.0.1:%d' % port] + relay if kind == 'socket-activate' else [
                    need('socat', 'socat'), 'TCP-LISTEN:%d,bind=127.0.0.1,reuseaddr,fork' % port,
                    'EXEC:' + ' '.join("'%s'" % a for a in relay)], log_path=harness.scratch(kind + '.log'))
                self.assertTrue(harness.wait_listen(port, 10, front), front.log_text())
                url = 'http://127.0.0.1:%d/' % port
                # Two clients at once, each with its own relay, each read for 1 MB.
                curls = [subprocess.Popen([need('curl', 'curl'), '-sS', '-N', '-i', '--max-time', '30', url],
                                          stdout=subprocess.PIPE) for _ in range(2)]
                self.assertTrue(harness.wait_for(lambda: len(relays_in(front.pid)) == 2, 10), kind)
                for n, curl in enumerate(curls):
                    data, head = curl.stdout.read(1 << 20), harness.MIME_HEAD_TS
                    curl.kill(), curl.wait(), curl.stdout.close()
                    # The exact head, then transport packets of both streams.
                    path = harness.write_file(harness.scratch('%s-%d.ts' % (kind, n)), data[len(head):])
                    self.assertEqual((data[:len(head)], codecs(path)), (head, ['mp2', 'mpeg2video']), kind)
                # A client that hangs up ends its relay at once (SIGPIPE); ffprobe is a client too.
                self.assertTrue(harness.wait_for(lambda: not relays_in(front.pid), 2.0), kind)
                self.assertEqual(codecs(url), ['mp2', 'mpeg2video'], kind)
                # One that reads to the end gets a clean close, not a reset for the request it sent.
                whole = subprocess.run([need('curl', 'curl'), '-sS', '--max-time', '30', url], capture_output=True)
                self.assertEqual((whole.returncode, whole.stderr), (0, b''), kind)
                front.stop()

    def test_manual_pages_lint_clean_and_list_every_usage_option(self):
        for program, page in ((harness.BIN, 'pelvane.1'), (harness.CC_BIN, 'pelvane-cc.1')):
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
