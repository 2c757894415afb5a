#!/usr/bin/python3
# GStreamer's RTSP server: rtsp_gst_peer.py ADDRESS PORT. A live test picture per client:
#   /h264      H.264 as RTP payload type 96
#   /ts-sessc  H.264 in MPEG-TS as payload type 33, the description rewritten to a session-level
#              c=IN IP4 ADDRESS, no media-level c= and port 5000: a server that asks for the redirect
# Prints "ready" once it listens, then "SETUP <url> <Transport>" per SETUP request.

import sys

import gi
gi.require_version('Gst', '1.0')
gi.require_version('GstRtsp', '1.0')
gi.require_version('GstRtspServer', '1.0')
from gi.repository import GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402

# Before any subclass of a GStreamer type is made: the media class's signals
# name GStreamer types that must be registered first.
Gst.init(None)

VIDEO = ('videotestsrc is-live=true pattern=ball ! video/x-raw,width=320,height=240,framerate=25/1 '
         '! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=25 bitrate=400 '
         '! h264parse config-interval=-1')
LAUNCH = {
    '/h264': '( %s ! rtph264pay name=pay0 pt=96 )' % VIDEO,
    '/ts-sessc': '( %s ! mpegtsmux alignment=7 ! rtpmp2tpay name=pay0 pt=33 )' % VIDEO,
}


class SessionConnectionMedia(GstRtspServer.RTSPMedia):
    def do_setup_sdp(self, sdp, info):
        ok = GstRtspServer.RTSPMedia.do_setup_sdp(self, sdp, info)
        ok and sdp.set_connection('IN', 'IP4', sys.argv[1], 1, 1)
        for i, m in ((i, sdp.get_media(i)) for i in range(sdp.medias_len() if ok else 0)):
            [m.remove_connection(0) for _ in range(m.connections_len())]
            m.set_port_info(5000 + 2 * i, 1)
        return ok


def on_setup(client, ctx):
    found, transport = ctx.request.get_header(GstRtsp.RTSPHeaderField.TRANSPORT, 0)
    print('SETUP %s %s' % (ctx.uri.get_request_uri(), transport if found == GstRtsp.RTSPResult.OK else '-'),
          flush=True)
    return GstRtsp.RTSPStatusCode.OK


if __name__ == '__main__':
    server = GstRtspServer.RTSPServer(address=sys.argv[1], service=sys.argv[2])
    for path, launch in LAUNCH.items():
        f = GstRtspServer.RTSPMediaFactory(launch=launch, shared=False)
        if path == '/ts-sessc':
            f.set_media_gtype(SessionConnectionMedia.__gtype__)
        server.get_mount_points().add_factory(path, f)
    server.connect('client-connected', lambda _, client: client.connect('pre-setup-request', on_setup))
    if server.attach(None) == 0:
        sys.exit('cannot listen on %s:%s' % (sys.argv[1], sys.argv[2]))
    print('ready', flush=True)
    GLib.MainLoop().run()
