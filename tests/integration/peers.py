#!/usr/bin/python3
"""Real sources on 127.0.0.1 for pelvane's tests and demo, as context managers.

- HttpPeer: threaded HTTP (or, with tls=True, HTTPS with a throwaway self-signed certificate)
  file server over a directory, serving as fast as the client reads.
- RtmpPeer: nginx with Debian's RTMP module, config in the scratch dir, fed by the ffmpeg tool
  (-re -stream_loop -1); with rtmps=True also a TLS front through nginx's stream module.
- ListenerPeer: the ffmpeg tool as a single-client live server (`tcp://...?listen=1` MPEG-TS, or
  `-listen 1` HTTP), paced with -re; restarted after each client when restart=True.

Standalone, for the demo:
    /usr/bin/python3 tests/integration/peers.py <http|https|rtmp|rtmps|tcp|http-live> [--media FILE]
starts the peer, prints its URL on one line and serves until SIGTERM or SIGINT.
"""

import argparse
import fcntl
import functools
import http.server
import os
import shutil
import signal
import ssl
import subprocess
import sys
import threading
import time
import urllib.parse

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402


# ---------------------------------------------------------------- HTTP / HTTPS

class _QuietHandler(http.server.SimpleHTTPRequestHandler):
    def log_message(self, fmt, *args):
        pass

    def guess_type(self, path):
        if path.endswith('.ts'):
            return 'video/mp2t'
        if path.endswith('.mkv'):
            return 'video/x-matroska'
        return super().guess_type(path)


class _Server(http.server.ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        # A client that hangs up mid-file is ordinary here (the relay's tests do it on purpose).
        pass


def make_cert():
    """Self-signed certificate for 127.0.0.1 in the scratch dir: (cert path, key path)."""
    d = os.path.join(harness.work_dir(), 'tls')
    os.makedirs(d, exist_ok=True)
    cert, key = os.path.join(d, 'cert.pem'), os.path.join(d, 'key.pem')
    with open(os.path.join(d, '.lock'), 'w') as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not (os.path.exists(cert) and os.path.exists(key)):
            r = subprocess.run(['openssl', 'req', '-x509', '-newkey', 'rsa:2048', '-nodes',
                                '-keyout', key + '.tmp', '-out', cert + '.tmp', '-days', '2',
                                '-subj', '/CN=127.0.0.1', '-addext', 'subjectAltName=IP:127.0.0.1'],
                               capture_output=True, text=True, timeout=60)
            if r.returncode != 0:
                raise RuntimeError('openssl failed: ' + r.stderr)
            os.replace(key + '.tmp', key)
            os.replace(cert + '.tmp', cert)
    return cert, key


class HttpPeer:
    """Static files of `directory` over HTTP or HTTPS on a free port."""

    def __init__(self, directory=None, tls=False, port=None):
        self.directory = directory or harness.MEDIA
        self.tls = tls
        self.port = port or harness.free_port()
        self.server = None
        self.thread = None

    def url(self, name):
        scheme = 'https' if self.tls else 'http'
        return '%s://127.0.0.1:%d/%s' % (scheme, self.port, urllib.parse.quote(name))

    def __enter__(self):
        handler = functools.partial(_QuietHandler, directory=self.directory)
        self.server = _Server(('127.0.0.1', self.port), handler)
        if self.tls:
            cert, key = make_cert()
            ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            ctx.load_cert_chain(cert, key)
            self.server.socket = ctx.wrap_socket(self.server.socket, server_side=True)
        self.thread = threading.Thread(target=self.server.serve_forever, kwargs={'poll_interval': 0.1},
                                       daemon=True)
        self.thread.start()
        return self

    def __exit__(self, *exc):
        if self.server:
            self.server.shutdown()
            self.server.server_close()
            self.thread.join(5)
            self.server = None
        return False


# ---------------------------------------------------------------- RTMP (nginx)

NGINX = '/usr/sbin/nginx'
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
    """nginx + RTMP module on a free port, with one stream `live/test` published by the
    ffmpeg tool from `media` in a loop. nginx lists the stream's audio before its video."""

    def __init__(self, media=None, rtmps=False, stream='test'):
        self.media = media or harness.media_path('h264_aac.mkv')
        self.rtmps = rtmps
        self.stream = stream
        self.port = harness.free_port()
        self.tls_port = harness.free_port() if rtmps else None
        self.prefix = harness.scratch('nginx-%d' % self.port)
        self.nginx = None
        self.publisher = None

    @property
    def url(self):
        return 'rtmp://127.0.0.1:%d/live/%s' % (self.port, self.stream)

    @property
    def rtmps_url(self):
        return 'rtmps://127.0.0.1:%d/live/%s' % (self.tls_port, self.stream)

    def _write_conf(self):
        os.makedirs(self.prefix, exist_ok=True)
        stream = ''
        if self.rtmps:
            cert, key = make_cert()
            stream = NGINX_TLS.format(tls_port=self.tls_port, cert=cert, key=key, port=self.port)
        conf = NGINX_CONF.format(
            modules=NGINX_MODULES, prefix=self.prefix, port=self.port, stream=stream,
            stream_module=('load_module %s/ngx_stream_module.so;' % NGINX_MODULES) if self.rtmps else '',
            user='user root;' if os.geteuid() == 0 else '')
        path = os.path.join(self.prefix, 'nginx.conf')
        with open(path, 'w') as f:
            f.write(conf)
        return path

    def _published(self):
        try:
            with open(os.path.join(self.prefix, 'error.log'), errors='replace') as f:
                return "publish: name='%s'" % self.stream in f.read()
        except OSError:
            return False

    def __enter__(self):
        try:
            conf = self._write_conf()
            self.nginx = harness.Proc([NGINX, '-p', self.prefix, '-e', os.path.join(self.prefix, 'error.log'),
                                       '-c', conf], name='nginx',
                                      log_path=os.path.join(self.prefix, 'nginx.out'))
            ports = [self.port] + ([self.tls_port] if self.rtmps else [])
            for port in ports:
                if not harness.wait_listen(port, 10, self.nginx):
                    raise RuntimeError('nginx is not listening on %d:\n%s' % (port, self._errors()))
            self.publisher = harness.Proc(
                ['ffmpeg', '-hide_banner', '-nostdin', '-loglevel', 'warning', '-re', '-stream_loop', '-1',
                 '-i', self.media, '-c', 'copy', '-f', 'flv', self.url],
                name='rtmp-publisher', log_path=os.path.join(self.prefix, 'publisher.log'))
            if not harness.wait_for(self._published, 10):
                raise RuntimeError('no publisher on %s:\n%s\n%s' % (self.url, self.publisher.log_text(),
                                                                   self._errors()))
            # Let the first key frame and the stream's headers reach nginx.
            time.sleep(0.5)
        except BaseException:
            self.__exit__()
            raise
        return self

    def _errors(self):
        try:
            with open(os.path.join(self.prefix, 'error.log'), errors='replace') as f:
                return f.read()[-3000:]
        except OSError:
            return ''

    def __exit__(self, *exc):
        for p in (self.publisher, self.nginx):
            if p:
                p.stop()
        self.publisher = self.nginx = None
        return False


# ---------------------------------------------------------------- ffmpeg single-client listeners

class ListenerPeer:
    """The ffmpeg tool serving `media` live (-re) to one client at a time.

    kind 'tcp': MPEG-TS on tcp://127.0.0.1:P (listen=1); kind 'http': `-listen 1` HTTP
    server at http://127.0.0.1:P/live.ts. loop=True repeats the file for ever, else the
    source ends after one pass (the client then sees end of stream). restart=True starts a
    new listener after each client has gone."""

    def __init__(self, media=None, kind='tcp', loop=True, restart=False, fmt='mpegts'):
        self.media = media or harness.media_path('mpeg2_mp2.ts')
        self.kind = kind
        self.loop = loop
        self.restart = restart
        self.fmt = fmt
        self.port = harness.free_port()
        self.proc = None
        self._closing = threading.Event()
        self._lock = threading.Lock()
        self._thread = None
        self.log_path = harness.scratch('listener-%d.log' % self.port)

    @property
    def url(self):
        if self.kind == 'tcp':
            return 'tcp://127.0.0.1:%d' % self.port
        return 'http://127.0.0.1:%d/live.%s' % (self.port, 'ts' if self.fmt == 'mpegts' else 'mkv')

    def _argv(self):
        out = ('tcp://127.0.0.1:%d?listen=1' % self.port) if self.kind == 'tcp' else self.url
        argv = ['ffmpeg', '-hide_banner', '-nostdin', '-loglevel', 'warning', '-re']
        if self.loop:
            argv += ['-stream_loop', '-1']
        argv += ['-i', self.media, '-map', '0', '-c', 'copy', '-f', self.fmt]
        if self.kind == 'http':
            argv += ['-listen', '1']
        return argv + [out]

    def _spawn(self):
        self.proc = harness.Proc(self._argv(), name='listener', log_path=self.log_path)
        return self.proc

    def _supervise(self):
        # Started from this thread, so each listener lives exactly as long as the supervisor.
        p = self._spawn()
        while not self._closing.is_set():
            if p.wait(0.2) is not None:
                time.sleep(0.2)
                with self._lock:
                    if self._closing.is_set():
                        break
                    p = self._spawn()
        p.stop()

    def wait_ready(self, timeout=10):
        """Wait until a listener is accepting (checked with ss, never by connecting)."""
        return harness.wait_listen(self.port, timeout, None if self.restart else self.proc)

    def __enter__(self):
        if self.restart:
            self._thread = threading.Thread(target=self._supervise, daemon=True)
            self._thread.start()
        else:
            self._spawn()
        if not self.wait_ready(10):
            log = self.proc.log_text() if self.proc else ''
            self.__exit__()
            raise RuntimeError('ffmpeg listener not listening on %d:\n%s' % (self.port, log))
        return self

    def stall(self):
        """Freeze the source mid-stream: the connection stays open and no more bytes come."""
        self.proc.send_group(signal.SIGSTOP)

    def resume(self):
        self.proc.send_group(signal.SIGCONT)

    def __exit__(self, *exc):
        self._closing.set()
        if self._thread:
            self._thread.join(10)
            self._thread = None
        if self.proc:
            self.proc.stop()
        return False


# ---------------------------------------------------------------- standalone

def _serve(kind, media):
    if kind in ('http', 'https'):
        path = media or harness.media_path('h264_aac.mkv')
        peer = HttpPeer(os.path.dirname(os.path.abspath(path)), tls=(kind == 'https'))
        return peer, lambda: peer.url(os.path.basename(path))
    if kind in ('rtmp', 'rtmps'):
        peer = RtmpPeer(media, rtmps=(kind == 'rtmps'))
        return peer, lambda: peer.rtmps_url if kind == 'rtmps' else peer.url
    if kind == 'tcp':
        peer = ListenerPeer(media, 'tcp', loop=True, restart=True)
        return peer, lambda: peer.url
    if kind == 'http-live':
        peer = ListenerPeer(media, 'http', loop=True, restart=True)
        return peer, lambda: peer.url
    raise SystemExit('unknown peer kind ' + kind)


def main():
    ap = argparse.ArgumentParser(description='Start one local source for pelvane and print its URL.')
    ap.add_argument('kind', choices=['http', 'https', 'rtmp', 'rtmps', 'tcp', 'http-live'])
    ap.add_argument('--media', help='file to serve (default: generated test media)')
    a = ap.parse_args()

    stop = threading.Event()

    def on_signal(signum, frame):
        stop.set()

    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)
    if shutil.which('setpriv') is None:
        raise SystemExit('setpriv (util-linux) is needed')
    peer, url = _serve(a.kind, a.media and os.path.abspath(a.media))
    with peer:
        print(url(), flush=True)
        while not stop.wait(0.5):
            pass
    harness.stop_all()


if __name__ == '__main__':
    main()
