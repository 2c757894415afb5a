#!/bin/bash
# make bench: builds the micro-benchmarks and start-up probes, then measures the
# ffmpeg tool, pelvane on the system's FFmpeg and pelvane with the static
# FFmpeg 7.1 side by side (bench/bench.py), and writes bench/results.md and
# bench/cpu_per_stream.png. FF7_TOOL_BIN names an ffmpeg tool built from the
# same trimmed sources, added as a fourth contestant when it exists.
# BENCH_QUICK=1 runs a short version into <first build>/bench-quick instead.
# Usage: bench/run.sh BUILD_DIR [BUILD_DIR...] [-- bench.py options]
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
builds=()
while [ $# -gt 0 ] && [ "$1" != -- ]; do builds+=("$1"); shift; done
[ $# -gt 0 ] && shift
[ ${#builds[@]} -gt 0 ] || { echo "usage: bench/run.sh BUILD_DIR [BUILD_DIR...] [-- options]" >&2; exit 2; }
args=()
for b in "${builds[@]}"; do
  [ -f "$b/build.ninja" ] || cmake -S "$here/.." -B "$b" -G Ninja
  ninja -C "$b" -j"${JOBS:-2}" pelvane
  args+=(--build "$b")
done
ninja -C "${builds[0]}" -j"${JOBS:-2}" startup_probe_libc startup_probe_tls startup_probe_curl
if ! ninja -C "${builds[0]}" -j"${JOBS:-2}" pelvane_bench; then
  echo "bench: pelvane_bench did not build (is libbenchmark-dev installed?); micro-benchmarks skipped" >&2
fi
if [ -n "${FF7_TOOL_BIN:-}" ] && [ -x "$FF7_TOOL_BIN" ]; then
  args+=(--ffmpeg7 "$FF7_TOOL_BIN")
fi
exec /usr/bin/python3 -u "$here/bench.py" "${args[@]}" "$@"
