#!/bin/bash
# Starts local sources on 127.0.0.1, relays them with pelvane and shows what
# came out. Usage: demo.sh BUILD_DIR
set -euo pipefail
top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$top/${1:-build/sys}
bin=$build/v2/pelvane
cc_bin=$build/v2/pelvane-cc
demo=$top/build/demo
py=/usr/bin/python3
serve=$top/scripts/serve-media.py
export PELVANE_MEDIA=$top/build/media PELVANE_WORK=$demo/work
mkdir -p "$demo" "$PELVANE_WORK"

peer_pids=()
cleanup() {
  for p in "${peer_pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT

# start_peer NAME ARGS...: runs a peer in the background; its URL ends up in $demo/NAME.url
start_peer() {
  local name=$1
  shift
  rm -f "$demo/$name.url"
  "$py" "$@" >"$demo/$name.url" 2>"$demo/$name.log" &
  peer_pids+=($!)
  for _ in $(seq 150); do
    [ -s "$demo/$name.url" ] && return 0
    sleep 0.2
  done
  echo "the $name source did not start:"
  cat "$demo/$name.log"
  exit 1
}

section() { printf '\n\033[1m== %s ==\033[0m\n' "$*"; }

show_output() {  # FILE HEAD_BYTES
  local f=$1 head=$2
  echo "-- $(stat -c %s "$f") bytes on standard output"
  if [ "$head" -gt 0 ]; then
    echo "-- response head:"
    head -c "$head" "$f" | sed 's/^/   | /'
    tail -c +"$((head + 1))" "$f" >"$f.body"
    f=$f.body
  fi
  echo "-- ffprobe's view:"
  ffprobe -v error -show_entries stream=index,codec_name,codec_type,width,height,sample_rate \
    -of compact=p=0 "$f" | awk 'NF && !seen[$0]++ { print "   " $0 }'
  local errs
  # Frames kept in the stream's own time base; the null muxer's note about two
  # frames on one tick is about its own output, not decoding, and is left out.
  errs=$(ffmpeg -nostdin -v error -i "$f" -enc_time_base -1 -f null - 2>&1 |
    grep -v -e 'non monotonically increasing dts to muxer' -e 'Last message repeated' | head -5 || true)
  echo "-- decoding it with ffmpeg: ${errs:-no errors}"
}

section "HTTP source: Matroska with H.264 and AAC, relayed with --mime-type"
start_peer http "$serve" http
url=$(head -n1 "$demo/http.url")
echo "\$ pelvane --mime-type --url $url"
"$bin" --mime-type --url "$url" >"$demo/http.ts" 2>"$demo/http.err" || true
echo "-- standard error:"
grep -v '^    ' "$demo/http.err" | sed 's/^/   | /'
show_output "$demo/http.ts" 42

section "RTMP source: nginx with its RTMP module, fed in real time by the ffmpeg tool"
start_peer rtmp "$serve" rtmp
url=$(head -n1 "$demo/rtmp.url")
echo "\$ pelvane --url $url   (stopped with SIGINT after 6 seconds)"
timeout -s INT 6 "$bin" --url "$url" >"$demo/rtmp.ts" 2>"$demo/rtmp.err" || true
echo "-- standard error (last lines):"
grep -v '^    ' "$demo/rtmp.err" | tail -n 8 | sed 's/^/   | /'
show_output "$demo/rtmp.ts" 0

section "Fragmented MP4 from the same RTMP source (--mp4 --mime-type)"
timeout -s INT 5 "$bin" --mp4 --mime-type --url "$url" >"$demo/rtmp.mp4" 2>"$demo/rtmp-mp4.err" || true
show_output "$demo/rtmp.mp4" 41
echo "-- top-level boxes: $("$py" -c '
import sys
d = open(sys.argv[1], "rb").read()
i, out = 0, []
while i + 8 <= len(d):
    n = int.from_bytes(d[i:i+4], "big"); out.append(d[i+4:i+8].decode("latin-1"))
    if n < 8: break
    i += n
print(" ".join(out[:12]) + (" ..." if len(out) > 12 else ""))' "$demo/rtmp.mp4.body")"

section "Captions: Matroska with H.264, AAC and a WebVTT track (cue identifiers and settings)"
vtt_mkv=$(cd "$top/tests/integration" && "$py" -c 'import harness; print(harness.media_path("h264_aac_vtt.mkv"))')
start_peer captions "$serve" http --media "$vtt_mkv"
url=$(head -n1 "$demo/captions.url")
echo "-- the cues in the source:"
ffmpeg -nostdin -v error -i "$vtt_mkv" -map 0:s:0 -c:s copy -f webvtt - | sed 's/^/   | /'
echo "\$ pelvane --url $url | pelvane-cc --srt"
"$bin" --url "$url" 2>"$demo/captions.err" | tee "$demo/captions.ts" | "$cc_bin" --srt | sed 's/^/   | /'
echo "-- the first caption event as pelvane-cc prints it (CEA-608/708 data shortened):"
"$cc_bin" <"$demo/captions.ts" >"$demo/captions.json"
head -n1 "$demo/captions.json" | cut -c1-400 | sed 's/^/   | /'
show_output "$demo/captions.ts" 0

section "Captions from an HLS channel's WebVTT subtitle rendition, which FFmpeg's HLS reader skips"
channel=$(cd "$top/tests/integration" && "$py" -c 'import harness, test_hls_captions; print(harness.media_path("hls_test_channel"))')
start_peer hls "$serve" http --media "$channel/master.m3u8"
url=$(head -n1 "$demo/hls.url")
echo "-- the master playlist (video and audio segmented by the ffmpeg tool, stamps from 1000 s):"
sed 's/^/   | /' "$channel/master.m3u8"
echo "-- a segment of its English rendition:"
sed 's/^/   | /' "$channel/en/04.vtt"
echo "\$ pelvane --url $url | pelvane-cc --a53 > hls-a53.ts"
"$bin" --url "$url" 2>"$demo/hls.err" | "$cc_bin" --a53 >"$demo/hls-a53.ts" 2>>"$demo/hls.err"
echo "-- the stream report on standard error:"
grep -E '^(Found|Did not)' "$demo/hls.err" | sed 's/^/   | /'
echo "-- the video's A/53 captions, decoded by the ffmpeg tool (times from the first picture):"
ffmpeg -nostdin -v error -f lavfi -i "movie=$demo/hls-a53.ts[out0+subcc]" -map 0:s -f srt - |
  sed -e 's/<[^>]*>//g' -e 's/{\\[^}]*}//g' -e 's/\\h/ /g' -e 's/^/   | /'
show_output "$demo/hls-a53.ts" 0

section "RTSP server whose video is MPEG-TS over RTP: pelvane answers with a redirect"
if [ "$(id -u)" = 0 ] && ! ss -Hltn 'sport = :554' | grep -q .; then
  # The answer needs the server address without a port, so the scripted
  # server listens on the standard RTSP port.
  start_peer rtsp "$serve" rtsp
  url=$(head -n1 "$demo/rtsp.url")
  echo "\$ pelvane --url $url"
  status=0
  "$bin" --url "$url" >"$demo/rtsp.out" 2>"$demo/rtsp.err" || status=$?
  echo "-- standard error (from 'Looks like'):"
  sed -n '/^Looks like/,$p' "$demo/rtsp.err" | grep -v -- '^---' | sed 's/^/   | /' | head -n 20
  echo "-- standard output, exit status $status (CR shown as ^M):"
  cat -A "$demo/rtsp.out" | sed 's/^/   | /'
else
  echo "(skipped: needs root and a free 127.0.0.1:554)"
fi

section "Captions inside the video: pelvane | pelvane-cc --a53, read back by the ffmpeg tool"
url=$(head -n1 "$demo/captions.url")
echo "\$ pelvane --url $url | pelvane-cc --a53 > captions-a53.ts"
"$bin" --url "$url" 2>"$demo/captions-a53.err" | "$cc_bin" --a53 >"$demo/captions-a53.ts" 2>>"$demo/captions-a53.err"
echo "-- the video's own A/53 captions, decoded by the ffmpeg tool (times from the first picture):"
echo "\$ ffmpeg -f lavfi -i 'movie=captions-a53.ts[out0+subcc]' -map 0:s -f srt -"
ffmpeg -nostdin -v error -f lavfi -i "movie=$demo/captions-a53.ts[out0+subcc]" -map 0:s -f srt - |
  sed -e 's/<[^>]*>//g' -e 's/{\\[^}]*}//g' -e 's/\\h/ /g' -e 's/^/   | /'
show_output "$demo/captions-a53.ts" 0

echo
echo "Outputs are in $demo"
