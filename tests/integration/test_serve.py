#!/usr/bin/python3
"""pelvane behind the front ends its examples ship, read by HTTP clients; its manual pages."""

import os
import re
import shutil
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402

HERE = os.path.dirname(os.path.abspath(__file__))
HEAD = b'HTTP/1.0 200 OK\nContent-Type: video/mp2t\n\n'


def need(tool, package):
    path = shutil.which(tool)
    if not path:
        raise AssertionError('%s not found: install the Debian package %s' % (tool, package))
    return path


def front_end(kind, port, relay):
    if kind == 'socket-activate':
        return [need('systemd-socket-activate', 'systemd'), '--inetd', '-a', '-l', '127.0.0.1:%d' % port] + relay
    return [need('socat', 'socat'), 'TCP-LISTEN:%d,bind=127.0.0.1,reuseaddr,fork' % port,
            'EXEC:' + ' '.join("'%s'" % a for a in relay)]


def relays_in(session):
    """Live (not zombie) pelvane processes of the front end's session."""
    ps = subprocess.run(['ps', '-o', 'stat=,comm=', '--sid', str(session)], capture_output=True, text=True).stdout
    return [line for line in ps.splitlines() if line.split()[1:] == ['pelvane'] and not line.startswith('Z')]


def codecs(path_or_url):
    return sorted(s.get('codec_name') for s in harness.ffprobe_streams(path_or_url))


def settles(predicate, seconds):
    end = time.monotonic() + seconds
    while not predicate() and time.monotonic() < end:
        time.sleep(0.05)
    return predicate()


class Serve(unittest.TestCase):

    def test_clients_of_each_front_end(self):
        with peers.HttpPeer() as source:
            relay = [harness.BIN, '--mime-type', '--url', source.url(os.path.basename(harness.media_path('bulk.ts')))]
            for kind in ('socket-activate', 'socat'):
                port = harness.free_port()
                front = harness.Proc(front_end(kind, port, relay), log_path=harness.scratch(kind + '.log'))
                self.assertTrue(harness.wait_listen(port, 10, front), front.log_text())
                url = 'http://127.0.0.1:%d/' % port
                # Two clients at once, each with its own relay, each read for 1 MB.
                curls = [subprocess.Popen([need('curl', 'curl'), '-sS', '-N', '-i', '--max-time', '30', url],
                                          stdout=subprocess.PIPE) for _ in range(2)]
                self.assertTrue(settles(lambda: len(relays_in(front.pid)) == 2, 10), kind)
                for n, curl in enumerate(curls):
                    data = b''
                    while len(data) < 1 << 20 and (chunk := curl.stdout.read((1 << 20) - len(data))):
                        data += chunk
                    curl.kill()
                    curl.wait()
                    curl.stdout.close()
                    # The exact head, then transport packets from the first byte on (the last one cut).
                    self.assertEqual(data[:len(HEAD)], HEAD, kind)
                    self.assertEqual(set(data[len(HEAD):-188:188]), {0x47}, kind)
                    path = harness.scratch('%s-%d.ts' % (kind, n))
                    with open(path, 'wb') as f:
                        f.write(data[len(HEAD):])
                    self.assertEqual(codecs(path), ['mp2', 'mpeg2video'], kind)
                # A client that hangs up ends its relay at once (SIGPIPE).
                self.assertTrue(settles(lambda: not relays_in(front.pid), 2.0),
                                '%s: relays left %s' % (kind, relays_in(front.pid)))
                self.assertEqual(codecs(url), ['mp2', 'mpeg2video'], kind)
                front.stop()

    def test_manual_pages_lint_clean_and_list_every_usage_option(self):
        for program, page in ((harness.BIN, 'pelvane.1'), (harness.CC_BIN, 'pelvane-cc.1')):
            path = os.path.join(HERE, '..', '..', 'man', page)
            lint = subprocess.run([need('mandoc', 'mandoc'), '-T', 'lint', '-W', 'warning', path],
                                  capture_output=True, text=True, timeout=30)
            self.assertEqual((lint.returncode, lint.stdout + lint.stderr), (0, ''), page)
            usage = subprocess.run([program, '--help'], capture_output=True, text=True, timeout=30).stderr
            synopsis = open(path).read().split('.Sh SYNOPSIS')[1].split('.Sh ')[0]
            in_page = {'-' + f for f in re.findall(r'\bFl (\S+)', synopsis)}
            in_usage = set(re.findall(r'(?<![\w-])--?[a-z][\w-]*', usage))
            self.assertTrue(in_usage and in_usage <= in_page, '%s: usage %s, synopsis %s' % (page, in_usage, in_page))


if __name__ == '__main__':
    harness.main()
