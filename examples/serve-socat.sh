#!/bin/sh
# Quick try without systemd: serve one channel on a TCP port, one pelvane per
# connection, until interrupted. Then play http://<host>:PORT/ with any client.
#     sh serve-socat.sh 8001 rtmp://encoder.example/live/news
# The source address goes to socat in single quotes, which keep its colons and
# commas from being read as socat's own separators; it must hold no quote.
port=${1:?usage: serve-socat.sh PORT SOURCE-URL}
url=${2:?usage: serve-socat.sh PORT SOURCE-URL}
exec socat TCP-LISTEN:"$port",reuseaddr,fork EXEC:"pelvane --mime-type --url '$url'"
