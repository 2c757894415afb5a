#!/bin/bash
# Runs the whole test suite (unit and integration) in each build directory
# given, saying which FFmpeg each run used. Fails if any run failed.
#
# A directory configured with -DPELVANE_SANITIZE=ON runs its tests under
# AddressSanitizer and UndefinedBehaviorSanitizer: the first report stops the
# process and fails the test (the integration harness also fails a test whose
# pelvane left a report on standard error). Leak checking is on for the unit
# tests and off for the integration runs: the program's documented failure
# exits end the process without releasing what the run had opened.
set -uo pipefail
status=0
sanitizer_common=halt_on_error=1:abort_on_error=0:print_stacktrace=1:symbolize=1
for dir in "$@"; do
  lib=$(ldd "$dir/v2/pelvane" | awk '/libavformat/ { print $3 }')
  [ -n "$lib" ] || lib="static, linked into pelvane"
  ver=$(grep -E '^FFMPEG_libavformat_VERSION:' "$dir/CMakeCache.txt" | cut -d= -f2)
  echo
  if grep -q '^PELVANE_SANITIZE:BOOL=ON' "$dir/CMakeCache.txt"; then
    echo "=== Tests in $dir under ASan+UBSan: FFmpeg libavformat $ver ($lib) ==="
    export UBSAN_OPTIONS=$sanitizer_common
    ok=1
    ASAN_OPTIONS=$sanitizer_common:detect_leaks=1 \
      ctest --test-dir "$dir" -L unit --output-on-failure -j2 --timeout 900 || ok=0
    ASAN_OPTIONS=$sanitizer_common:detect_leaks=0 \
      ctest --test-dir "$dir" -L integration --output-on-failure -j2 --timeout 900 || ok=0
    unset UBSAN_OPTIONS
  else
    echo "=== Tests in $dir: FFmpeg libavformat $ver ($lib) ==="
    ok=1
    ctest --test-dir "$dir" --output-on-failure -j2 --timeout 900 || ok=0
  fi
  if [ $ok = 0 ]; then
    status=1
    echo "=== FAILED in $dir (libavformat $ver) ==="
  fi
done
exit $status
