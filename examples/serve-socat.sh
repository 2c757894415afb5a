#!/bin/sh
# Quick try without systemd: serve one channel on a TCP port, one pelvane per
# connection, until interrupted. Then play http://<host>:PORT/ with any client.
#     sh serve-socat.sh 8001 rtmp://encoder.example/live/news [LISTEN-ADDRESS]
# The source address never becomes part of socat's command line, whose
# quoting a URL could undo: it reaches each connection's pelvane through the
# environment, and socat runs a fixed command, this script again in its relay
# mode, which hands the address to pelvane as one argument.
if [ "${1-}" = --relay ]; then
  exec pelvane --mime-type --url "$SERVE_SOCAT_URL"
fi
usage='usage: serve-socat.sh PORT SOURCE-URL [LISTEN-ADDRESS]'
port=${1:?$usage}
url=${2:?$usage}
address=${3-}
self=$(cd "$(dirname "$0")" && pwd)/$(basename "$0")
# What does go into socat's addresses must be free of its separators.
for part in "$port" "$address" "$self"; do
  case $part in *[!A-Za-z0-9/._-]*)
    echo "serve-socat.sh: '$part' holds characters socat would read as its own" >&2
    exit 1 ;;
  esac
done
export SERVE_SOCAT_URL="$url"
exec socat TCP-LISTEN:"$port",reuseaddr,fork${address:+,bind=$address} EXEC:"/bin/sh $self --relay"
