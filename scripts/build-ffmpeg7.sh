#!/bin/bash
# Builds FFmpeg 7.1 (libavformat 61, libavcodec 61, libavutil 59) from Debian
# 13's source package as static libraries holding only what pelvane relays:
# the protocols of the accepted source schemes, the demuxers that can appear
# behind them, the MPEG-TS and MP4 muxers with their bitstream filters, and
# the parsers and decoders that stream probing needs for the accepted codecs.
# pelvane links them in (cmake -DPELVANE_STATIC_FFMPEG=ON); TLS, zlib, libc
# and libcurl stay shared system libraries.
#
#   FF7_PREFIX  where it is installed (default $HOME/.cache/ff7/static)
#   FF7_SRC     unpacked sources, kept for the next build (default $HOME/.cache/ff7/src)
#   FF7_WORK    scratch directory     (default ${TMPDIR:-/tmp}/ff7-build)
#   FF7_JOBS    parallel make jobs    (default: number of cores)
#
# A second run with the same configuration finds the cached prefix and does nothing.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
FF7_PREFIX=${FF7_PREFIX:-$HOME/.cache/ff7/static}
FF7_SRC=${FF7_SRC:-$HOME/.cache/ff7/src}
FF7_WORK=${FF7_WORK:-${TMPDIR:-/tmp}/ff7-build}
FF7_JOBS=${FF7_JOBS:-$(nproc)}

missing=()
command -v dpkg-source >/dev/null || missing+=(dpkg-dev)
command -v cc >/dev/null || missing+=(gcc)
command -v make >/dev/null || missing+=(make)
command -v pkg-config >/dev/null || missing+=(pkg-config)
[ -f /usr/include/zlib.h ] || missing+=(zlib1g-dev)
[ -f /usr/include/gnutls/gnutls.h ] || missing+=(libgnutls28-dev)
if [ ${#missing[@]} -gt 0 ]; then
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

csv() { local IFS=,; echo "$*"; }
# Schemes: file, pipe (standard input), tcp, udp, rtp, rtsp,
# rtmp/rtmps (and their HTTP tunnels), http/https over TLS, hls (with crypto
# for AES-128 segments and data for inline playlists).
protocols=(file pipe tcp udp rtp srtp http https tls httpproxy
           rtmp rtmps rtmpt rtmpts hls crypto data)
# Containers behind those schemes, then the raw elementary streams.
demuxers=(flv live_flv matroska mpegts mov hls rtsp sdp rtp
          h264 mpegvideo mpegps aac mp3 ac3 webvtt)
muxers=(mpegts mov mp4)
bsfs=(h264_mp4toannexb aac_adtstoasc)
parsers=(h264 mpegvideo aac mpegaudio ac3)
decoders=(h264 mpeg1video mpeg2video aac mp2 mp3 ac3 webvtt)
conf=(--enable-static --disable-shared
      --disable-doc --disable-debug --disable-x86asm --disable-autodetect
      --disable-everything --disable-programs --disable-avdevice --disable-avfilter --disable-swscale
      --disable-swresample --disable-postproc
      --enable-zlib --enable-gnutls
      --enable-protocol="$(csv "${protocols[@]}")"
      --enable-demuxer="$(csv "${demuxers[@]}")"
      --enable-muxer="$(csv "${muxers[@]}")"
      --enable-bsf="$(csv "${bsfs[@]}")"
      --enable-parser="$(csv "${parsers[@]}")"
      --enable-decoder="$(csv "${decoders[@]}")")
conf=(--prefix="$FF7_PREFIX" "${conf[@]}")

stamp="$FF7_PREFIX/.pelvane-ff7-configure"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$(printf '%s\n' "${conf[@]}")" ] &&
   [ -f "$FF7_PREFIX/lib/pkgconfig/libavformat.pc" ]; then
  echo "ffmpeg7: cached in $FF7_PREFIX (libavformat $(PKG_CONFIG_PATH=$FF7_PREFIX/lib/pkgconfig pkg-config --modversion libavformat))"
  exit 0
fi

t0=$SECONDS
src=$(ls -d "$FF7_SRC"/ffmpeg-7.*/ 2>/dev/null | head -n1 || true)
if [ -z "$src" ]; then
  # shellcheck source=ffmpeg7-apt.sh
  source "$here/ffmpeg7-apt.sh" "$FF7_WORK/apt"
  mkdir -p "$FF7_SRC"
  ff7_apt -qq update
  (cd "$FF7_SRC" && ff7_apt -qq source ffmpeg) >"$FF7_WORK/source.log" 2>&1 ||
    { tail -20 "$FF7_WORK/source.log"; exit 1; }
  rm -f "$FF7_SRC"/*.tar.* "$FF7_SRC"/*.dsc
  src=$(ls -d "$FF7_SRC"/ffmpeg-7.*/ | head -n1)
fi
build="$FF7_WORK/$(basename "$FF7_PREFIX")"
rm -rf "$build"
mkdir -p "$build"
cd "$build"
t1=$SECONDS
"$src/configure" "${conf[@]}" >"$FF7_WORK/configure.log" 2>&1 || { tail -30 "$FF7_WORK/configure.log"; exit 1; }
t2=$SECONDS
make -j"$FF7_JOBS" >"$FF7_WORK/make.log" 2>&1 || { tail -40 "$FF7_WORK/make.log"; exit 1; }
t3=$SECONDS
rm -rf "$FF7_PREFIX"
make install >"$FF7_WORK/install.log" 2>&1
printf '%s\n' "${conf[@]}" >"$stamp"
echo "ffmpeg7: fetch $((t1 - t0))s, configure $((t2 - t1))s, make $((t3 - t2))s; installed in $FF7_PREFIX"
cd /
rm -rf "$build"
