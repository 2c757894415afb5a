#!/usr/bin/python3
"""Real sources on 127.0.0.1 as context managers: HttpPeer (HTTP, or HTTPS with a throwaway
certificate), RtmpPeer (nginx's RTMP module fed by the ffmpeg tool; RTMPS through nginx's stream
module), ListenerPeer (the ffmpeg tool as a live single-client server). Standalone (the demo):
peers.py <http|https|rtmp|rtmps> [--media FILE] prints its URL and serves until SIGTERM."""

import argparse
import fcntl
import functools
import http.server
import os
import signal
import ssl
import subprocess
import sys
import threading
import time
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402


class _QuietHandler(http.server.SimpleHTTPRequestHandler):
    extensions_map = dict(http.server.SimpleHTTPRequestHandler.extensions_map,
                          **{'.ts': 'video/mp2t', '.mkv': 'video/x-matroska'})

    def log_message(self, fmt, *args):
        pass


class _Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        pass  # a client that hangs up mid-file is ordinary here


def make_cert():
    d = os.path.join(harness.WORK, 'pelvane-tls')
    os.makedirs(d, exist_ok=True)
    cert, key = os.path.join(d, 'cert.pem'), os.path.join(d, 'key.pem')
    with open(os.path.join(d, '.lock'), 'w') as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not (os.path.exists(cert) and os.path.exists(key)):
            r = subprocess.run(['openssl', 'req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-keyout', key + '.tmp',
                                '-out', cert + '.tmp', '-days', '2', '-subj', '/CN=127.0.0.1',
                                '-addext', 'subjectAltName=IP:127.0.0.1'], capture_output=True, text=True, timeout=60)
            if r.returncode != 0:
                raise RuntimeError('openssl failed: ' + r.stderr)
            os.replace(key + '.tmp', key)
            os.replace(cert + '.tmp', cert)
    return cert, key


class HttpPeer:
    def __init__(self, directory=None, tls=False, port=None):
        self.directory, self.tls, self.port = directory or harness.MEDIA, tls, port or harness.free_port()
        self.server = None

    def url(self, name):
        return '%s://127.0.0.1:%d/%s' % ('https' if self.tls else 'http', self.port, urllib.parse.quote(name))

    def __enter__(self):
        self.server = _Server(('127.0.0.1', self.port), functools.partial(_QuietHandler, directory=self.directory))
        if self.tls:
            ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            ctx.load_cert_chain(*make_cert())
            self.server.socket = ctx.wrap_socket(self.server.socket, server_side=True)
        threading.Thread(target=self.server.serve_forever, kwargs={'poll_interval': 0.1}, daemon=True).start()
        return self

    def __exit__(self, *exc):
        if self.server:
            self.server.shutdown()
            self.server.server_close()
            self.server = None
        return False


NGINX_MODULES = '/usr/lib/nginx/modules'
NGINX_CONF = """load_module {modules}/ngx_rtmp_module.so;
{stream_module}
daemon off;
master_process off;
{user}
pid {prefix}/nginx.pid;
error_log {prefix}/error.log info;
events {{ worker_connections 128; }}
{stream}
rtmp {{
  server {{
    listen 127.0.0.1:{port};
    chunk_size 4096;
    application live {{
      live on;
      record off;
      allow publish 127.0.0.1;
      deny publish all;
      allow play all;
    }}
  }}
}}
"""
NGINX_TLS = """stream {{
  server {{
    listen 127.0.0.1:{tls_port} ssl;
    ssl_certificate {cert};
    ssl_certificate_key {key};
    proxy_pass 127.0.0.1:{port};
  }}
}}
"""


class RtmpPeer:
    def __init__(self, media=None, rtmps=False):
        self.media, self.rtmps, self.stream = media or harness.media_path('h264_aac.mkv'), rtmps, 'test'
        self.port = harness.free_port()
        self.tls_port = harness.free_port() if rtmps else None
        self.prefix = harness.scratch('nginx-%d' % self.port)
        self.procs = []

    @property
    def url(self):
        return 'rtmp://127.0.0.1:%d/live/%s' % (self.port, self.stream)

    @property
    def rtmps_url(self):
        return 'rtmps://127.0.0.1:%d/live/%s' % (self.tls_port, self.stream)

    def _log(self):
        path = os.path.join(self.prefix, 'error.log')
        return open(path, errors='replace').read() if os.path.exists(path) else ''

    def __enter__(self):
        harness.require('/usr/sbin/nginx', 'nginx-light')
        for m in ['rtmp'] + (['stream'] if self.rtmps else []):
            harness.require('%s/ngx_%s_module.so' % (NGINX_MODULES, m), 'libnginx-mod-' + m)
        os.makedirs(self.prefix, exist_ok=True)
        conf = os.path.join(self.prefix, 'nginx.conf')
        stream = NGINX_TLS.format(tls_port=self.tls_port, port=self.port, **dict(zip(('cert', 'key'), make_cert()))) \
            if self.rtmps else ''
        harness.write_file(conf, NGINX_CONF.format(
            modules=NGINX_MODULES, prefix=self.prefix, port=self.port, stream=stream,
            stream_module=('load_module %s/ngx_stream_module.so;' % NGINX_MODULES) if self.rtmps else '',
            user='user root;' if os.geteuid() == 0 else '').encode())
        try:
            nginx = harness.Proc(['/usr/sbin/nginx', '-p', self.prefix, '-e', os.path.join(self.prefix, 'error.log'),
                                  '-c', conf], name='nginx', log_path=os.path.join(self.prefix, 'nginx.out'))
            self.procs.append(nginx)
            for port in [self.port] + ([self.tls_port] if self.rtmps else []):
                if not harness.wait_listen(port, 10, nginx):
                    raise RuntimeError('nginx is not listening on %d:\n%s' % (port, self._log()[-3000:]))
            publisher = harness.Proc(['ffmpeg', '-hide_banner', '-nostdin', '-loglevel', 'warning', '-re',
                                      '-stream_loop', '-1', '-i', self.media, '-c', 'copy', '-f', 'flv', self.url],
                                     name='rtmp-publisher', log_path=os.path.join(self.prefix, 'publisher.log'))
            self.procs.append(publisher)
            if not harness.wait_for(lambda: "publish: name='%s'" % self.stream in self._log(), 10):
                raise RuntimeError('no publisher on %s:\n%s\n%s' % (self.url, publisher.log_text(),
                                                                   self._log()[-3000:]))
            time.sleep(0.5)  # let the first key frame and the stream's headers reach nginx
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *exc):
        while self.procs:
            self.procs.pop().stop()
        return False


class ListenerPeer:
    """The ffmpeg tool serving `media` live (-re) to one client: 'tcp' (MPEG-TS, listen=1) or 'http'."""

    def __init__(self, media, kind='tcp', loop=True, fmt='mpegts'):
        self.media, self.kind, self.loop, self.fmt, self.port = media, kind, loop, fmt, harness.free_port()
        self.proc = None

    @property
    def url(self):
        if self.kind == 'tcp':
            return 'tcp://127.0.0.1:%d' % self.port
        return 'http://127.0.0.1:%d/live.%s' % (self.port, 'ts' if self.fmt == 'mpegts' else 'mkv')

    def __enter__(self):
        out = ('tcp://127.0.0.1:%d?listen=1' % self.port) if self.kind == 'tcp' else self.url
        self.proc = harness.Proc(['ffmpeg', '-hide_banner', '-nostdin', '-loglevel', 'warning', '-re']
                                 + (['-stream_loop', '-1'] if self.loop else [])
                                 + ['-i', self.media, '-map', '0', '-c', 'copy', '-f', self.fmt]
                                 + (['-listen', '1'] if self.kind == 'http' else []) + [out],
                                 name='listener', log_path=harness.scratch('listener-%d.log' % self.port))
        if not harness.wait_listen(self.port, 10, self.proc):  # asks ss: a connect would be its one client
            self.proc.stop()
            raise RuntimeError('ffmpeg listener not listening on %d:\n%s' % (self.port, self.proc.log_text()))
        return self

    def stall(self):
        self.proc.send_group(signal.SIGSTOP)

    def resume(self):
        self.proc.send_group(signal.SIGCONT)

    def __exit__(self, *exc):
        if self.proc:
            self.proc.stop()
        return False


def main():
    ap = argparse.ArgumentParser(description='Start one local source for pelvane and print its URL.')
    ap.add_argument('kind', choices=['http', 'https', 'rtmp', 'rtmps'])
    ap.add_argument('--media', help='file to serve (default: generated test media)')
    a = ap.parse_args()
    stop = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: stop.set())
    signal.signal(signal.SIGINT, lambda *_: stop.set())
    path = os.path.abspath(a.media) if a.media else harness.media_path('h264_aac.mkv')
    if a.kind.startswith('http'):
        peer = HttpPeer(os.path.dirname(path), tls=(a.kind == 'https'))
        url = lambda: peer.url(os.path.basename(path))  # noqa: E731
    else:
        peer = RtmpPeer(path, rtmps=(a.kind == 'rtmps'))
        url = lambda: peer.rtmps_url if a.kind == 'rtmps' else peer.url  # noqa: E731
    with peer:
        print(url(), flush=True)
        while not stop.wait(0.5):
            pass
    harness.stop_all()


if __name__ == '__main__':
    main()
