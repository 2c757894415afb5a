#!/usr/bin/python3
# pelvane-channels behind both front ends: the list and the tuner's lineup read by curl and a JSON
# reader, channels read by ffprobe, two at once; bad requests answered with their status and no relay.

import json
import os
import socket
import subprocess
import sys
import time
import unittest
import xml.etree.ElementTree

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
import peers  # noqa: E402

LIST = """#EXTM3U
#EXTINF:-1 tvg-id="news.test" tvg-name="News, Weather" tvg-chno="7" group-title="Local",News
{base}/bulk.ts
#EXTINF:-1 tvg-chno="8" pelvane-options="-w 16",Radio
{base}/bulk.ts
#EXTINF:-1,Film
{base}/bulk.ts
udp://239.0.0.1:1234
"""
NAME, UPNP = 'Den&<Co>', 'urn:schemas-upnp-org:device-1-0'  # a tuner name that needs escaping
WANT = {'7': ['mp2', 'mpeg2video'], '8': ['mp2'], '3': ['mp2', 'mpeg2video']}  # channel 8's options ask for no video


def curl(url, *args):
    r = subprocess.run([harness.need('curl', 'curl'), '-sS', '--max-time', '20'] + list(args) + [url],
                       capture_output=True, timeout=30)
    assert r.returncode == 0, r.stderr
    return r.stdout


# The answer to `data` sent on a new connection, as bytes read to the end; `close` ends the sending side.
def exchange(port, data, close=False):
    with socket.create_connection(('127.0.0.1', port), timeout=15) as s:
        s.sendall(data)
        close and s.shutdown(socket.SHUT_WR)
        answer = b''
        while chunk := s.recv(65536):
            answer += chunk
        return answer


class Channels(unittest.TestCase):

    def assertNoSanitizerReport(self, front):
        self.assertNotRegex(front.log_text(), 'AddressSanitizer|LeakSanitizer|runtime error:')

    def test_list_lineup_and_channels_behind_each_front_end(self):
        with peers.HttpPeer(os.path.dirname(harness.media_path('bulk.ts'))) as source:
            listed = harness.write_file(harness.scratch('channels.m3u'), LIST.format(base=source.url('')[:-1]).encode())
            for kind, port in (('socket-activate', harness.free_port()), ('socat', harness.free_port())):
                front = harness.front_end(kind, port, [harness.CHANNELS_BIN, '--name', NAME, listed])
                here = 'http://127.0.0.1:%d' % port
                # The list for an M3U tuner, every address pointing at the Host the client asked.
                m3u = curl(here + '/channels.m3u', '-H', 'Host: tuner.test:8080').decode().splitlines()
                self.assertEqual([line for line in m3u if not line.startswith('#')],
                                 ['http://tuner.test:8080/channel/%s' % n for n in ('7', '8', '3')], kind)
                # The network tuner's description and lineup.
                discover = json.loads(curl(here + '/discover.json'))
                self.assertEqual((discover['BaseURL'], discover['LineupURL']), (here, here + '/lineup.json'))
                device = xml.etree.ElementTree.fromstring(curl(here + '/device.xml'))
                self.assertEqual((discover['FriendlyName'], device.findtext('.//{%s}friendlyName' % UPNP)), (NAME, NAME))
                lineup = json.loads(curl(discover['LineupURL']))
                self.assertEqual([(c['GuideNumber'], c['GuideName'], c['URL']) for c in lineup],
                                 [('7', 'News', here + '/auto/v7'), ('8', 'Radio', here + '/auto/v8'),
                                  ('3', 'Film', here + '/auto/v3')], kind)
                # Two channels at once, each its own relay held by its client (10 MB of source each), each
                # read for 200 kB; then the third (audio alone, too little to hold a relay) by ffprobe.
                self.assertEqual(harness.clients_at_once(front, [here + '/channel/7', here + '/auto/v3'], 200000, kind),
                                 [(harness.MIME_HEAD_TS, WANT['7']), (harness.MIME_HEAD_TS, WANT['3'])], kind)
                self.assertEqual(harness.codecs(here + '/channel/8'), WANT['8'], kind)
                self.assertIn("left out: 'udp://239.0.0.1:1234'", front.log_text())
                self.assertNoSanitizerReport(front)
                front.stop()

    def test_bad_requests_get_their_status_and_start_no_relay(self):
        started = harness.scratch('started')
        recorder = harness.write_file(harness.scratch('record-start'), b'#!/bin/sh\necho "$@" >> %s\n' % started.encode())
        os.chmod(recorder, 0o755)
        listed = harness.write_file(harness.scratch('bad.m3u'), b'#EXTINF:-1 tvg-chno=7,Seven\nhttp://127.0.0.1:9/7\n')
        port = harness.free_port()
        front = harness.front_end('socket-activate', port, [harness.CHANNELS_BIN, '--pelvane', recorder, listed])
        # The bounds on reading a request, which need a real connection (the answers to whole
        # requests are the unit test's). Name, bytes sent, whether the client then ends its side, status.
        cases = [
            ('20 KiB header', b'GET /channel/7 HTTP/1.1\r\nX-Big: ' + b'x' * 20480 + b'\r\n\r\n', False,
             '431 Request Header Fields Too Large'),
            ('10 KiB target', b'GET /channel/7?' + b'x' * 10240 + b' HTTP/1.1\r\n\r\n', False, '414 URI Too Long'),
            ('sends nothing', b'', False, '408 Request Timeout'),
            ('head cut short', b'GET /channel/7 HTTP/1.1\r\n', True, '400 Bad Request'),
        ]
        for name, data, close, status in cases:
            t0 = time.monotonic()
            self.assertEqual(exchange(port, data, close).split(b'\n')[0].strip(), b'HTTP/1.0 ' + status.encode(), name)
            name == 'sends nothing' and self.assertTrue(5 <= time.monotonic() - t0 < 8, time.monotonic() - t0)
        self.assertFalse(os.path.exists(started), 'a relay was started')
        # The recorder does record: a channel request starts it with the list's source alone.
        self.assertEqual(exchange(port, b'GET /channel/7 HTTP/1.1\r\nHost: t\r\n\r\n'), b'')
        self.assertEqual(harness.read_file(started, True), '--mime-type --url http://127.0.0.1:9/7\n')
        self.assertNoSanitizerReport(front)
        front.stop()


if __name__ == '__main__':
    harness.main()
