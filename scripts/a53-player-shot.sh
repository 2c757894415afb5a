#!/bin/bash
# Makes a Matroska source with two WebVTT cues, the second 8 s long, serves it
# on 127.0.0.1, relays it with `pelvane | pelvane-cc --a53`, and plays the
# result on a virtual X server, first in VLC, then in mpv, taking a screenshot
# at the start, the middle and the end of the long cue. mpv also plays a
# reference: the same stream re-encoded by the ffmpeg tool with
# `libx264 -a53cc 1`, so with captions FFmpeg itself wrote; at each shot mpv
# is asked for the caption text it has (its sub-text property) in both.
# mpv 0.35 finds the captions track once the first pictures are decoded and
# does not select it (by hand: press j then); the script selects it through
# mpv's IPC socket, as `no` and then 1, since a track selected with --sid
# before it exists is marked selected but not decoded.
# Not part of `make test`: a check to run by hand and look at.
# Usage: a53-player-shot.sh [OUT_DIR] [BUILD_DIR]
# Needs the Debian packages vlc-bin, vlc-plugin-base, vlc-plugin-video-output,
# mpv, xvfb, x11-apps (xwd), imagemagick and socat.
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
out=$(realpath -m "${1:-$top/build/demo/a53-player}")
build=$top/${2:-build/sys}
for tool in cvlc:vlc-bin mpv:mpv Xvfb:xvfb xwd:x11-apps convert:imagemagick socat:socat; do
  command -v "${tool%%:*}" >/dev/null || { echo "needs ${tool%%:*}: apt-get install ${tool#*:}" >&2; exit 1; }
done
mkdir -p "$out"
work=$(mktemp -d)
chmod 755 "$work"
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# The long cue runs from 4 s to 12 s of the source; the shots are taken this
# long after the player starts (it shows its first picture within about half
# a second; testsrc's counter in each shot tells the second shown).
long_start=4 long_end=12
shots=(start:5 middle:8.5 end:11.5)
printf 'WEBVTT\n\n00:00:01.000 --> 00:00:03.000\n%s\n\n00:00:%02d.000 --> 00:00:%02d.000 line:80%%\n%s\n%s\n' \
  'A short cue first' "$long_start" "$long_end" 'A long cue, eight seconds, café ½ ♪' '<i>shown for its whole time</i>' \
  >"$work/cue.vtt"
ffmpeg -nostdin -v error -f lavfi -i testsrc=size=640x360:rate=25 -f lavfi -i sine=frequency=440:sample_rate=48000 \
  -t 16 -c:v libx264 -preset veryfast -g 25 -bf 0 -pix_fmt yuv420p -c:a aac -b:a 64k "$work/video.mkv"
ffmpeg -nostdin -v error -i "$work/video.mkv" -i "$work/cue.vtt" -map 0 -map 1 -c copy "$work/source.mkv"

/usr/bin/python3 "$top/scripts/serve-media.py" http --media "$work/source.mkv" >"$work/url" 2>"$work/peer.log" &
pids+=($!)
for _ in $(seq 100); do [ -s "$work/url" ] && break; sleep 0.1; done
url=$(head -n1 "$work/url")

echo "\$ pelvane --url $url | pelvane-cc --a53 > a53.ts"
"$build/v2/pelvane" --url "$url" 2>"$work/pelvane.log" | "$build/v2/pelvane-cc" --a53 >"$work/a53.ts"
echo "\$ ffmpeg -i a53.ts -map 0 -c:v libx264 -a53cc 1 -c:a copy reference.ts"
ffmpeg -nostdin -v error -i "$work/a53.ts" -map 0 -c:v libx264 -preset veryfast -a53cc 1 -c:a copy "$work/reference.ts"

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

# Plays with the command in "$@" (started in the background), takes the shots
# as $out/<name>-<moment>.png and, for mpv, prints its sub-text at each.
play_and_shoot() {
  local name=$1 sock=$work/$1.sock
  shift
  echo "\$ ${*/#$work\//}"
  DISPLAY=$display "$@" >"$work/$name.log" 2>&1 &
  local player=$! started=$EPOCHREALTIME
  pids+=("$player")
  if [ "${name#mpv}" != "$name" ]; then
    for _ in $(seq 50); do  # the track appears with the first pictures decoded
      [ -S "$sock" ] && echo '{"command":["get_property","track-list"]}' | socat -t 1 - UNIX-CONNECT:"$sock" |
        grep -q eia_608 && break
      sleep 0.1
    done
    printf '%s\n' '{"command":["set_property","sid","no"]}' '{"command":["set_property","sid",1]}' |
      socat -t 1 - UNIX-CONNECT:"$sock" >/dev/null
  fi
  for shot in "${shots[@]}"; do
    local moment=${shot%%:*} at=${shot#*:}
    sleep "$(awk -v at="$at" -v t0="$started" -v now="$EPOCHREALTIME" 'BEGIN { d = at - (now - t0); print (d > 0 ? d : 0) }')"
    DISPLAY=$display xwd -root -silent | convert xwd:- "$out/$name-$moment.png"
    local said=''
    [ -S "$sock" ] && said=$(printf '%s\n' '{"command":["get_property","time-pos"]}' \
      '{"command":["get_property","sub-text"]}' | socat -t 1 - UNIX-CONNECT:"$sock" | tr '\n' ' ')
    echo "  $moment (${at} s): $out/$name-$moment.png ${said:+mpv: $said}"
  done
  kill -TERM "$player" 2>/dev/null || true
  wait "$player" 2>/dev/null || true
}

chmod 644 "$work/a53.ts" "$work/reference.ts"
play_and_shoot vlc "${as_player[@]}" cvlc --demux=ts --no-audio --vout=xcb_x11 --sub-track=0 --play-and-exit \
  "$work/a53.ts"
for name in a53 reference; do
  play_and_shoot "mpv-$name" mpv --no-config --vo=x11 --ao=null --sub-visibility=yes \
    --input-ipc-server="$work/mpv-$name.sock" "$work/$name.ts"
done
