# Real sources on 127.0.0.1 as context managers: HttpPeer (HTTP, or HTTPS with a throwaway
# certificate), RtmpPeer (nginx's RTMP module fed by the ffmpeg tool; RTMPS through nginx's stream
# module), ListenerPeer (the ffmpeg tool as a live single-client server).

import fcntl
import functools
import http.server
import os
import ssl
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402


class _Handler(http.server.SimpleHTTPRequestHandler):
    extensions_map, log_message = {'.ts': 'video/mp2t'}, lambda *_: None


class _Server(http.server.ThreadingHTTPServer):
    daemon_threads, handle_error = True, lambda *_: None  # a client that hangs up mid-file is ordinary here


# A self-signed certificate for 127.0.0.1, made once: (cert path, key path).
def make_cert():
    cert, key = harness.scratch('../pelvane-cert.pem'), harness.scratch('../pelvane-key.pem')
    with open(cert + '.lock', 'w') as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not os.path.exists(cert):
            subprocess.run(['openssl', 'req', '-x509', '-newkey', 'rsa:2048', '-nodes', '-keyout', key, '-out',
                            cert + '.tmp', '-days', '2', '-subj', '/CN=127.0.0.1', '-addext',
                            'subjectAltName=IP:127.0.0.1'], capture_output=True, check=True, timeout=60)
            os.replace(cert + '.tmp', cert)
    return cert, key


class HttpPeer:
    def __init__(self, directory=None, tls=False, port=None, handler=_Handler):
        self.directory, self.tls, self.port = directory or harness.MEDIA, tls, port or harness.free_port()
        self.handler = handler

    url = lambda self, name: '%s://127.0.0.1:%d/%s' % ('https' if self.tls else 'http', self.port, name)  # noqa

    def __enter__(self):
        self.server = _Server(('127.0.0.1', self.port), functools.partial(self.handler, directory=self.directory))
        if self.tls:
            ctx = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            ctx.load_cert_chain(*make_cert())
            self.server.socket = ctx.wrap_socket(self.server.socket, server_side=True)
        threading.Thread(target=self.server.serve_forever, kwargs={'poll_interval': 0.1}, daemon=True).start()
        return self

    def __exit__(self, *exc):
        self.server.shutdown(), self.server.server_close()


LOOP = ['ffmpeg', '-nostdin', '-v', 'warning', '-re', '-stream_loop', '-1', '-i']
MODULES = '/usr/lib/nginx/modules'
NGINX_CONF = """load_module {m}/ngx_rtmp_module.so; {stream_module} daemon off; master_process off; {user}
pid {prefix}/nginx.pid; error_log {prefix}/error.log info; events {{ worker_connections 128; }} {stream}
rtmp {{ server {{ listen 127.0.0.1:{port}; chunk_size 4096; application live {{ live on; record off;
  allow publish 127.0.0.1; deny publish all; allow play all; }} }} }}
"""
NGINX_TLS = """stream {{ server {{ listen 127.0.0.1:{tls_port} ssl; ssl_certificate {cert};
  ssl_certificate_key {key}; proxy_pass 127.0.0.1:{port}; }} }}"""


# nginx with one stream, live/test, published from `media` in a loop by the ffmpeg tool.
class RtmpPeer:

    def __init__(self, media=None, rtmps=False):
        self.media, self.rtmps = media or harness.media_path('h264_aac.mkv'), rtmps
        self.port, self.tls_port = harness.free_port(), harness.free_port()
        self.url = 'rtmp://127.0.0.1:%d/live/test' % self.port
        self.rtmps_url = 'rtmps://127.0.0.1:%d/live/test' % self.tls_port
        self.prefix, self.procs = harness.scratch('nginx-%d' % self.port), []

    def __enter__(self):
        harness.require('/usr/sbin/nginx', 'nginx-light')
        for m in ['rtmp', 'stream'][:1 + self.rtmps]:
            harness.require('%s/ngx_%s_module.so' % (MODULES, m), 'libnginx-mod-' + m)
        os.makedirs(self.prefix, exist_ok=True)
        at = lambda name: os.path.join(self.prefix, name)  # noqa: E731
        cert, key = make_cert() if self.rtmps else ('', '')
        conf = harness.write_file(at('nginx.conf'), NGINX_CONF.format(
            m=MODULES, prefix=self.prefix, port=self.port, user='user root;' if os.geteuid() == 0 else '',
            stream_module='load_module %s/ngx_stream_module.so;' % MODULES if self.rtmps else '',
            stream=NGINX_TLS.format(tls_port=self.tls_port, port=self.port, cert=cert, key=key) if self.rtmps else '',
        ).encode())
        log = lambda: harness.read_file(at('error.log'), True)  # noqa: E731
        # On a failure here, what was started ends with the test run (harness.stop_all).
        self.procs.append(harness.Proc(['/usr/sbin/nginx', '-p', self.prefix, '-e', at('error.log'), '-c', conf],
                                       log_path=at('nginx.out')))
        for port in [self.port] + ([self.tls_port] if self.rtmps else []):
            assert harness.wait_listen(port, 10, self.procs[0]), 'nginx not listening:\n' + log()[-3000:]
        self.procs.append(harness.Proc(LOOP + [self.media, '-c', 'copy', '-f', 'flv', self.url],
                                       log_path=at('publisher.log')))
        assert harness.wait_for(lambda: "publish: name='test'" in log(), 10), 'no publisher:\n' + log()[-3000:]
        time.sleep(0.5)  # the first key frame and the stream's headers reach nginx
        return self

    def __exit__(self, *exc):
        [p.stop() for p in reversed(self.procs)]


# The ffmpeg tool serving `media` live (-re, looped) as MPEG-TS over TCP to one client.
class ListenerPeer:

    def __init__(self, media):
        self.media, self.port = media, harness.free_port()
        self.url = 'tcp://127.0.0.1:%d' % self.port

    def __enter__(self):
        self.proc = harness.Proc(LOOP + [self.media, '-map', '0', '-c', 'copy', '-f', 'mpegts', self.url + '?listen=1'],
                                 log_path=harness.scratch('listener-%d.log' % self.port))
        assert harness.wait_listen(self.port, 10, self.proc), 'ffmpeg not listening:\n' + self.proc.log_text()
        return self

    def __exit__(self, *exc):
        self.proc.stop()

