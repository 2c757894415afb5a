#!/bin/bash
# make bench: builds the micro-benchmarks, then measures pelvane next to the
# ffmpeg tool on local sources (bench/bench.py) and writes bench/results.md and
# bench/cpu_per_stream.png. BENCH_QUICK=1 runs a short version into
# <build>/bench-quick instead.
# Usage: bench/run.sh BUILD_DIR [bench.py options]
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=${1:?usage: bench/run.sh BUILD_DIR [options]}
shift
[ -f "$build/build.ninja" ] || cmake -S "$here/.." -B "$build" -G Ninja
ninja -C "$build" -j"${JOBS:-2}" pelvane
if ! ninja -C "$build" -j"${JOBS:-2}" pelvane_bench; then
  echo "bench: pelvane_bench did not build (is libbenchmark-dev installed?); micro-benchmarks skipped" >&2
fi
exec /usr/bin/python3 -u "$here/bench.py" --build "$build" "$@"
