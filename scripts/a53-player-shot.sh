#!/bin/bash
# Makes a Matroska source with one WebVTT cue, serves it on 127.0.0.1, relays
# it with `pelvane | pelvane-cc --a53`, plays the result with VLC on a virtual
# X server and takes a screenshot of the screen while the cue is up.
# Usage: a53-player-shot.sh [OUT.png] [BUILD_DIR]
# Needs the Debian packages vlc-bin, vlc-plugin-base, vlc-plugin-video-output,
# xvfb, x11-apps (xwd) and imagemagick.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=$(realpath -m "${1:-$top/build/demo/a53-player.png}")
build=$top/${2:-build/sys}
for tool in cvlc:vlc-bin Xvfb:xvfb xwd:x11-apps convert:imagemagick; do
  command -v "${tool%%:*}" >/dev/null || { echo "needs ${tool%%:*}: apt-get install ${tool#*:}" >&2; exit 1; }
done
work=$(mktemp -d)
chmod 755 "$work"
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# VLC makes its captions track when the first cc_data arrives and shows what
# comes after: the first cue only opens the track. It shows a caption once it
# has read the caption's erase too, so the cue is short.
printf 'WEBVTT\n\nopen\n00:00:00.500 --> 00:00:01.500\n...\n\nshot\n00:00:03.000 --> 00:00:06.000 line:80%%\n%s\n%s\n' \
  'A relayed WebVTT cue, café ½ ♪' '<i>now inside the video</i>' >"$work/cue.vtt"
# With a sound track: VLC was seen showing no captions for a stream of video alone.
ffmpeg -nostdin -v error -f lavfi -i testsrc=size=640x360:rate=25 -f lavfi -i sine=frequency=440:sample_rate=48000 \
  -t 16 -c:v libx264 -preset veryfast -g 25 -bf 0 -pix_fmt yuv420p -c:a aac -b:a 64k "$work/video.mkv"
ffmpeg -nostdin -v error -i "$work/video.mkv" -i "$work/cue.vtt" -map 0 -map 1 -c copy "$work/source.mkv"

/usr/bin/python3 "$top/tests/integration/peers.py" http --media "$work/source.mkv" >"$work/url" 2>"$work/peer.log" &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/url" ] && break; sleep 0.1; done
url=$(head -n1 "$work/url")

echo "\$ pelvane --url $url | pelvane-cc --a53 > a53.ts"
"$build/v2/pelvane" --url "$url" 2>"$work/pelvane.log" | "$build/v2/pelvane-cc" --a53 >"$work/a53.ts"

# VLC will not run as root: then it runs as nobody, on an X server without
# access control, listening on no socket but its own.
as_player=()
if [ "$(id -u)" = 0 ]; then
  mkdir "$work/home" && chown nobody "$work/home"
  as_player=(runuser -u nobody -- env HOME="$work/home")
fi
display=:$((90 + RANDOM % 100))
Xvfb "$display" -screen 0 640x360x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
pids+=($!)
sleep 1
echo "\$ cvlc --sub-track=0 a53.ts   (screenshot after 7 s)"
DISPLAY=$display "${as_player[@]}" cvlc --demux=ts --no-audio --vout=xcb_x11 --sub-track=0 --play-and-exit "$work/a53.ts" \
  >"$work/vlc.log" 2>&1 &
pids+=($!)
sleep 7
DISPLAY=$display xwd -root -silent | convert xwd:- "$out"
echo "screenshot: $out"
