#!/usr/bin/python3
"""Scripted RTSP responder for pelvane's RTSP probe: canned answers to OPTIONS, DESCRIBE and SETUP
(200 to anything else), CSeq echoed as libcurl expects, no media. The first path segment of the
request URL names the answer in ANSWERS (rtsp://127.0.0.1/ucast); an unknown one gets --answer.

--record FILE appends every request to FILE as a JSON line (connection number, method, URL,
headers). --once answers 404 to everything on a connection whose first request names a path an
earlier connection asked for: the probe owns the first connection, and the relay's own RTSP
client that may come after it gives up at once instead of waiting for media that never comes.
Standalone (for the demo) it prints its URL once it listens, without the port when it is 554.
"""

import argparse
import itertools
import json
import socketserver
import sys
import threading

HEAD = 'v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=scripted\r\n'
TS_TRACK = 'a=rtpmap:33 MP2T/90000\r\na=control:trackID=1\r\n'
PUBLIC = 'OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN, GET_PARAMETER'


def sdp(address, port=5000, fmt=33, track=TS_TRACK):
    return HEAD + 'c=IN IP4 %s\r\nt=0 0\r\na=control:*\r\nm=video %d RTP/AVP %d\r\n%s' % (
        address, port, fmt, track)


MCAST = sdp('239.255.0.1')

# name -> what differs from a plain redirect-worthy answer (session-level c=IN IP4 239.255.0.1,
# m=video 5000 RTP/AVP 33)
ANSWERS = {
    'mcast': {},
    'ucast': {'sdp': sdp('127.0.0.1')},                    # a unicast redirect
    'port70000': {'sdp': sdp('239.255.0.1', port=70000)},  # port beyond 16 bits
    'pt96': {'sdp': sdp('239.255.0.1', fmt=96, track='a=rtpmap:96 H264/90000\r\na=control:trackID=1\r\n')},
    'ttl': {'sdp': sdp('239.255.0.1/64')},                 # the address does not convert: no redirect
    'no-teardown': {'public': 'OPTIONS, DESCRIBE, SETUP, PLAY'},
    'wrong-type': {'content_type': 'application/sdp; charset=utf-8'},
    'no-length': {'length': False},                        # and the connection closes after the body
    'notfound': {'describe_status': '404 Not Found'},
    'setup-fails': {'setup_status': '461 Unsupported Transport'},
    'garbage': {'garbage': True},                          # a line that is not RTSP, then close
    'huge': {'sdp': MCAST + ('a=x-pad:' + 'A' * 1014 + '\r\n') * 1024},  # a 1 MiB description
}


class Peer(socketserver.ThreadingMixIn, socketserver.TCPServer):
    allow_reuse_address = True
    daemon_threads = True

    def __init__(self, address, default_answer, record_path=None, once=False):
        super().__init__(address, Handler)
        self.default_answer, self.record_path, self.once = default_answer, record_path, once
        self.lock, self.connections, self.paths_seen = threading.Lock(), itertools.count(1), set()

    def record(self, entry):
        if not self.record_path:
            return
        with self.lock, open(self.record_path, 'a') as f:
            f.write(json.dumps(entry) + '\n')

    def first_visit(self, path):
        with self.lock:
            seen = path in self.paths_seen
            self.paths_seen.add(path)
        return not seen


def url_path(url):
    """rtsp://host:port/a/b -> /a/b"""
    if '://' in url:
        url = url.split('://', 1)[1]
        url = '/' + url.split('/', 1)[1] if '/' in url else '/'
    return url


class Handler(socketserver.StreamRequestHandler):
    def read_request(self):
        """(method, url, headers with lower-case names) or None at the end of the connection."""
        while not (line := self.rfile.readline(8192)).strip():
            if not line:
                return None
        method, url = (line.decode('latin-1').split() + ['', ''])[:2]
        headers = {}
        while (h := self.rfile.readline(8192).decode('latin-1')).strip():
            name, _, value = h.partition(':')
            headers[name.strip().lower()] = value.strip()
        self.rfile.read(int(headers.get('content-length') or 0))
        return method, url, headers

    def send(self, cseq, status='200 OK', headers=(), body='', length=True):
        out = 'RTSP/1.0 %s\r\nCSeq: %s\r\nServer: scripted\r\n' % (status, cseq)
        out += ''.join(h + '\r\n' for h in headers)
        if body and length:
            out += 'Content-Length: %d\r\n' % len(body.encode())
        self.wfile.write((out + '\r\n' + body).encode())
        self.wfile.flush()

    def handle(self):
        conn, answer, refused = next(self.server.connections), None, False
        while (request := self.read_request()) is not None:
            method, url, headers = request
            path = url_path(url)
            self.server.record({'conn': conn, 'method': method, 'url': url, 'headers': headers})
            if answer is None:
                refused = self.server.once and not self.server.first_visit(path)
                name = path.strip('/').split('/')[0]
                answer = ANSWERS.get(name, ANSWERS[self.server.default_answer])
            cseq = headers.get('cseq', '0')
            if refused:
                self.send(cseq, '404 Not Found')
            elif answer.get('garbage'):
                self.wfile.write(b'SPAM SPAM SPAM\r\n\r\n')
                return
            elif method == 'OPTIONS':
                self.send(cseq, headers=['Public: ' + answer.get('public', PUBLIC)])
            elif method == 'DESCRIBE':
                status = answer.get('describe_status', '200 OK')
                body = answer.get('sdp', MCAST) if status.startswith('200') else ''
                extra = ['Content-Type: ' + answer.get('content_type', 'application/sdp')] if body else []
                self.send(cseq, status, extra + ['Content-Base: %s/' % url.rstrip('/')], body,
                          answer.get('length', True))
                if not answer.get('length', True):
                    return
            elif method == 'SETUP':
                status = answer.get('setup_status', '200 OK')
                transport = headers.get('transport', 'RTP/AVP;unicast')
                self.send(cseq, status, ['Transport: ' + transport, 'Session: 12345678;timeout=60'])
            else:
                self.send(cseq, headers=['Session: 12345678'])


def main():
    ap = argparse.ArgumentParser(description='Scripted RTSP responder (no media).')
    ap.add_argument('--host', default='127.0.0.1')
    ap.add_argument('--port', type=int, default=554)
    ap.add_argument('--answer', default='mcast', choices=sorted(ANSWERS))
    ap.add_argument('--record', help='append every request to this file as JSON lines')
    ap.add_argument('--once', action='store_true', help='404 for paths an earlier connection asked for')
    args = ap.parse_args()
    try:
        with Peer((args.host, args.port), args.answer, args.record, args.once) as peer:
            port = peer.server_address[1]
            # 554 is RTSP's own port: the URL leaves it out, as a redirect needs.
            host = args.host if port == 554 else '%s:%d' % (args.host, port)
            print('rtsp://%s/%s' % (host, args.answer), flush=True)
            peer.serve_forever()
    except KeyboardInterrupt:
        pass


if __name__ == '__main__':
    main()
