#!/bin/bash
# Builds a small shared FFmpeg 7.1 (libavformat 61, libavcodec 61, libavutil 59)
# from Debian 13's source package, so that pelvane can be built and tested
# against the newest FFmpeg it supports beside Debian 12's own 5.1.
#
#   FF7_PREFIX  where it is installed (default $HOME/.cache/ff7/prefix)
#   FF7_WORK    scratch directory     (default ${TMPDIR:-/tmp}/ff7-build)
#   FF7_JOBS    parallel make jobs    (default: number of cores)
#
# The .pc files carry an rpath, so a program built with
#   PKG_CONFIG_PATH=$FF7_PREFIX/lib/pkgconfig
# runs against this FFmpeg without LD_LIBRARY_PATH.
# A second run with the same configuration finds the cached prefix and does nothing.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
FF7_PREFIX=${FF7_PREFIX:-$HOME/.cache/ff7/prefix}
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
protocols=(file pipe tcp udp rtp srtp http https tls httpproxy rtmp rtmps rtmpt rtmpts hls crypto data)
muxers=(mpegts mov mp4)
bsfs=(h264_mp4toannexb hevc_mp4toannexb aac_adtstoasc extract_extradata)
decoders=(h264 hevc mpeg1video mpeg2video aac mp2 mp3 ac3 webvtt)
conf=(--prefix="$FF7_PREFIX" --enable-shared --disable-static --enable-rpath
      --disable-doc --disable-debug --disable-x86asm --disable-autodetect
      --disable-everything --disable-programs --disable-avdevice --disable-avfilter
      --disable-swscale --disable-swresample --disable-postproc
      --enable-zlib --enable-gnutls --enable-demuxers --enable-parsers
      --enable-protocol="$(csv "${protocols[@]}")"
      --enable-muxer="$(csv "${muxers[@]}")"
      --enable-bsf="$(csv "${bsfs[@]}")"
      --enable-decoder="$(csv "${decoders[@]}")")

stamp="$FF7_PREFIX/.pelvane-ff7-configure"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$(printf '%s\n' "${conf[@]}")" ] &&
   [ -f "$FF7_PREFIX/lib/pkgconfig/libavformat.pc" ]; then
  echo "ffmpeg7: cached in $FF7_PREFIX (libavformat $(PKG_CONFIG_PATH=$FF7_PREFIX/lib/pkgconfig pkg-config --modversion libavformat))"
  exit 0
fi

# shellcheck source=ffmpeg7-apt.sh
source "$here/ffmpeg7-apt.sh" "$FF7_WORK/apt"
mkdir -p "$FF7_WORK"
cd "$FF7_WORK"
t0=$SECONDS
ff7_apt -qq update
src=$(ls -d ffmpeg-7.*/ 2>/dev/null | head -n1 || true)
if [ -z "$src" ]; then
  ff7_apt -qq source ffmpeg >"$FF7_WORK/source.log" 2>&1 || { tail -20 "$FF7_WORK/source.log"; exit 1; }
  src=$(ls -d ffmpeg-7.*/ | head -n1)
fi
cd "$src"
t1=$SECONDS
./configure "${conf[@]}" >"$FF7_WORK/configure.log" 2>&1 || { tail -30 "$FF7_WORK/configure.log"; exit 1; }
t2=$SECONDS
make -j"$FF7_JOBS" >"$FF7_WORK/make.log" 2>&1 || { tail -40 "$FF7_WORK/make.log"; exit 1; }
t3=$SECONDS
rm -rf "$FF7_PREFIX"
make install >"$FF7_WORK/install.log" 2>&1
printf '%s\n' "${conf[@]}" >"$stamp"
echo "ffmpeg7: fetch $((t1 - t0))s, configure $((t2 - t1))s, make $((t3 - t2))s; installed in $FF7_PREFIX"
cd /
rm -rf "$FF7_WORK"
