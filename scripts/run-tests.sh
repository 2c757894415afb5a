#!/bin/bash
# Runs the whole test suite (unit and integration) in each build directory
# given, saying which FFmpeg each run used. Fails if any run failed.
set -uo pipefail
status=0
for dir in "$@"; do
  lib=$(ldd "$dir/v2/pelvane" | awk '/libavformat/ { print $3 }')
  ver=$(grep -E '^FFMPEG_libavformat_VERSION:' "$dir/CMakeCache.txt" | cut -d= -f2)
  echo
  echo "=== Tests in $dir: FFmpeg libavformat $ver ($lib) ==="
  if ! ctest --test-dir "$dir" --output-on-failure -j2 --timeout 900; then
    status=1
    echo "=== FAILED in $dir (libavformat $ver) ==="
  fi
done
exit $status
