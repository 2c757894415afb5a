#!/usr/bin/python3
# A local source for the demo and for trying players by hand, on 127.0.0.1:
#   serve-media.py http [--media FILE]   the file's folder over HTTP
#   serve-media.py rtmp [--media FILE]   the file published (looped) over RTMP through nginx
#   serve-media.py rtsp                  the scripted RTSP server on port 554, describing
#                                        MPEG-TS over RTP to 239.255.0.1:5000 (needs root)
# FILE defaults to the generated h264_aac.mkv. Prints the URL, serves until SIGTERM or SIGINT.
import os
import signal
import sys
import threading

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), 'tests', 'integration'))
import harness  # noqa: E402
import peers  # noqa: E402
import rtsp_peer  # noqa: E402


def serve(kind, media):
    if kind == 'rtsp':
        with rtsp_peer.Peer(('127.0.0.1', 554), 'mcast') as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            yield 'rtsp://127.0.0.1/mcast'
    else:
        with peers.HttpPeer(os.path.dirname(media)) if kind == 'http' else peers.RtmpPeer(media) as peer:
            yield peer.url(os.path.basename(media)) if kind == 'http' else peer.url


kind, media = sys.argv[1], os.path.abspath(sys.argv[3]) if len(sys.argv) > 3 else harness.media_path('h264_aac.mkv')
stop = threading.Event()
for sig in (signal.SIGTERM, signal.SIGINT):
    signal.signal(sig, lambda *_: stop.set())
for url in serve(kind, media):
    print(url, flush=True)
    stop.wait()
