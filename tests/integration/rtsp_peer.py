# Scripted server for what no real RTSP server does, one mode per server (the demo uses mcast):
#   mcast     canned OPTIONS/DESCRIBE/SETUP answers for MPEG-TS over RTP to 239.255.0.1:5000
#   garbage   2 MiB of fixed random bytes as soon as a client connects (any scheme), then close
#   silent    accepts and never says a word
#   megabyte  answers every request with a megabyte-long header line, then the methods
#   huge      as mcast, with a 1 MiB description and SETUP refused
#   trickle   as mcast, with the description's body sent at 4 bytes a second
# and for HTTP (tests only): http-trickle, 64 KiB of MPEG-TS null packets, then a byte every
# 10 s; http-slow, null packets at 2 KB/s for 35 s, then the server's media file.

import random
import socketserver
import time

MCAST_SDP = ('v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=scripted\r\nc=IN IP4 239.255.0.1\r\nt=0 0\r\na=control:*\r\n'
             'm=video 5000 RTP/AVP 33\r\na=rtpmap:33 MP2T/90000\r\na=control:trackID=1\r\n')
PUBLIC = 'Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN\r\n'
NULL_TS = b'\x47\x1f\xff\x10' + b'\xff' * 184


class Handler(socketserver.StreamRequestHandler):
    # (method, CSeq, Transport) of each request until the client closes.
    def requests(self):
        while line := self.rfile.readline(65536):
            if not line.strip():
                continue
            headers = {}
            while (h := self.rfile.readline(65536).decode('latin-1')).strip():
                name, _, value = h.partition(':')
                headers[name.strip().lower()] = value.strip()
            self.rfile.read(int(headers.get('content-length') or 0))
            yield line.split()[0].decode('latin-1'), headers.get('cseq', '0'), headers.get('transport', '')

    def answer(self, cseq, status='200 OK', headers='', body=''):
        self.wfile.write(('RTSP/1.0 %s\r\nCSeq: %s\r\n%s\r\n%s' % (status, cseq, headers, body)).encode())

    def handle(self):
        mode = self.server.mode
        if mode.startswith('http'):  # after the request, the head, then MPEG-TS null packets
            next(self.requests(), None)
            media = open(self.server.media, 'rb').read() if mode == 'http-slow' else b''
            burst, piece, pause, count = (0, NULL_TS * 11, 0.5, 70) if media else (350, b'\xff', 10, 20)
            self.wfile.write(b'HTTP/1.0 200 OK\r\nContent-Length: %d\r\n\r\n' % (len(NULL_TS) * 770 + len(media)))
            self.wfile.write(NULL_TS * burst), [(self.wfile.write(piece), time.sleep(pause)) for _ in range(count)]
            return self.wfile.write(media)
        if mode in ('garbage', 'silent'):
            return self.wfile.write(random.Random(7).randbytes(2 << 20)) if mode == 'garbage' else time.sleep(120)
        for method, cseq, transport in self.requests():
            if mode == 'megabyte':
                self.answer(cseq, headers='X-Padding: %s\r\n%s' % ('A' * (1 << 20), PUBLIC))
            elif method == 'OPTIONS':
                self.answer(cseq, headers=PUBLIC)
            elif method == 'DESCRIBE':
                sdp = MCAST_SDP + ('a=x-pad:%s\r\n' % ('A' * 1014)) * (1024 * (mode == 'huge') + (mode == 'trickle'))
                head = 'Content-Type: application/sdp\r\nContent-Length: %d\r\n' % len(sdp)
                self.answer(cseq, headers=head, body='' if mode == 'trickle' else sdp)
                for n in range(0, len(sdp) * (mode == 'trickle'), 4):  # 4 bytes a second
                    self.wfile.write(sdp[n:n + 4].encode()), time.sleep(1)
            elif method == 'SETUP' and mode == 'huge':
                self.answer(cseq, '461 Unsupported Transport')
            elif method == 'SETUP':
                self.answer(cseq, headers='Transport: %s\r\nSession: 12345678\r\n' % transport)
            else:
                self.answer(cseq, headers='Session: 12345678\r\n')


class Peer(socketserver.ThreadingMixIn, socketserver.TCPServer):
    allow_reuse_address, daemon_threads = True, True
    handle_error = lambda *_: None  # a client that hangs up on garbage is ordinary here  # noqa: E731

    def __init__(self, address, mode, media=None):
        super().__init__(address, Handler)
        self.mode, self.media = mode, media

