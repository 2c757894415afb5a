#!/bin/bash
# Runs every libFuzzer target of a fuzz build directory (fuzz/CMakeLists.txt)
# for FUZZ_SECONDS seconds each (default 180), FUZZ_JOBS at a time (default 2).
#
# Each target starts from its checked-in inputs, fuzz/corpus/<target>/, which it
# only reads; inputs that reach new code are kept in <build>/corpus/<target>/,
# so later runs go on from there. A crash, a sanitizer report, a failed check,
# a hang (an input running over 25 s) or a run of memory fails the run; the
# input is left in <build>/artifacts/ and the log in <build>/logs/.
# Reproduce one with: <build>/fuzz_<target> <artifact>
set -uo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(dirname "$here")
dir=$(cd "${1:-$repo/build/fuzz}" && pwd)
seconds=${FUZZ_SECONDS:-180}
jobs=${FUZZ_JOBS:-2}

# Only targets whose source is still in fuzz/targets/ (a removed one may linger in the build).
mapfile -t targets < <(find "$dir" -maxdepth 1 -type f -name 'fuzz_*' -perm -u+x -printf '%f\n' | sort |
  while read -r t; do [ -f "$repo/fuzz/targets/${t#fuzz_}.cpp" ] && echo "$t"; done)
if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz: no fuzz_* targets in $dir (build it first: make build-fuzz)"
  exit 1
fi
mkdir -p "$dir/logs" "$dir/artifacts"
rm -f "$dir"/logs/*.status

run_target() {
  local exe=$1 name=${1#fuzz_}
  local start="$repo/fuzz/corpus/$name"
  mkdir -p "$dir/corpus/$name"
  [ -d "$start" ] || start=
  "$dir/$exe" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2560 -max_len=8192 \
      -print_final_stats=1 -artifact_prefix="$dir/artifacts/$name-" \
      "$dir/corpus/$name" $start >"$dir/logs/$name.log" 2>&1
  echo $? >"$dir/logs/$name.status"
}

echo "fuzz: ${#targets[@]} targets, ${seconds}s each, $jobs at a time ($dir)"
running=0
for exe in "${targets[@]}"; do
  if [ "$running" -ge "$jobs" ]; then
    wait -n
    running=$((running - 1))
  fi
  run_target "$exe" &
  running=$((running + 1))
done
wait

status=0
for exe in "${targets[@]}"; do
  name=${exe#fuzz_}
  rc=$(cat "$dir/logs/$name.status" 2>/dev/null || echo 1)
  runs=$(awk '/stat::number_of_executed_units/ { print $2 }' "$dir/logs/$name.log")
  kept=$(find "$dir/corpus/$name" -type f | wc -l)
  if [ "$rc" = 0 ]; then
    printf 'fuzz: %-16s ok      %9s runs, %5s inputs in its corpus\n' "$name" "${runs:-?}" "$kept"
  else
    status=1
    printf 'fuzz: %-16s FAILED  (exit %s), log %s\n' "$name" "$rc" "$dir/logs/$name.log"
    grep -E 'ERROR|runtime error|fuzz check failed|SUMMARY|Test unit written|==[0-9]+== ' "$dir/logs/$name.log" | head -20
    tail -n 40 "$dir/logs/$name.log"
  fi
done
exit $status
