#!/usr/bin/env bash
# Mutation testing (`make mutants`): applies the single-point faults listed in
# scripts/mutants.txt one at a time and runs the suite against each, to show
# which faults the tests catch and which test catches them.
#
# The developer's tree is never touched: it is copied to build/mutants/src
# (only files whose content differs are copied again, so the build in
# build/mutants/build stays incremental), and each mutation is written into
# the copy, built, tested and undone. Per mutant the suite runs cheapest
# first and stops at the first failure: the unit tests, then the integration
# tests labelled quick, then the other integration tests. A mutant that does
# not build is reported and not counted; one marked `equivalent:` is listed
# with its reason and not run. A snippet that is not found exactly once stops
# the run before anything is built.
#
#   MUTANTS=id1,id2         run only these
#   MUTANTS_LIST=file       another list
#   MUTANTS_STAGES="unit"   only these stages (of unit, quick, rest)
#   MUTANTS_ALL=1           run every stage in full and name every test that
#                           fails, then count per test the mutants it caught
#                           and those it alone caught (which tests carry weight)
#   MUTANTS_BASELINE=0      skip the check that the unmutated copy passes
#   JOBS=n                  build jobs (default 2)
set -uo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
list=${MUTANTS_LIST:-$root/scripts/mutants.txt}
work=$root/build/mutants
src=$work/src
bld=$work/build
logs=$work/logs
jobs=${JOBS:-2}
mkdir -p "$src" "$logs"

# `tool check` parses the list, checks every selected snippet against the
# developer's tree and writes the plan (id, file, equivalent reason, fault);
# `tool apply ID` applies that mutation to the copy.
tool() {
  python3 - "$@" <<'PY'
import os, sys
root, src, listing, work = os.environ['M_ROOT'], os.environ['M_SRC'], os.environ['M_LIST'], os.environ['M_WORK']
blocks, cur = [], {}
for n, raw in enumerate(open(listing, encoding='utf-8'), 1):
    line = raw.rstrip('\n')
    if line.startswith('#'):
        continue
    if not line.strip():
        cur and blocks.append(cur)
        cur = {}
        continue
    key, sep, value = line.partition(': ')
    if not sep or key not in ('id', 'file', 'find', 'replace', 'fault', 'equivalent'):
        sys.exit('%s:%d: not "key: value": %s' % (listing, n, line))
    cur[key] = value
cur and blocks.append(cur)
by_id = {}
for b in blocks:
    missing = [k for k in ('id', 'file', 'find', 'replace', 'fault') if k not in b]
    if missing or b['id'] in by_id or b['find'] == b['replace']:
        sys.exit('bad mutation %s: missing %s, repeated id or no change' % (b.get('id'), missing))
    by_id[b['id']] = b
if sys.argv[1] == 'check':
    wanted = [w for w in os.environ.get('MUTANTS', '').split(',') if w]
    unknown = [w for w in wanted if w not in by_id]
    if unknown:
        sys.exit('unknown mutants: ' + ', '.join(unknown))
    stale = []
    with open(os.path.join(work, 'plan'), 'w') as plan:
        for b in blocks:
            if wanted and b['id'] not in wanted:
                continue
            path = os.path.join(root, b['file'])
            count = open(path, encoding='utf-8').read().count(b['find']) if os.path.exists(path) else -1
            if count != 1:
                stale.append('  %s: %s found %d times in %s' % (b['id'], repr(b['find']), max(count, 0), b['file']))
            plan.write('\x1f'.join((b['id'], b['file'], b.get('equivalent', ''), b['fault'])) + '\n')
    if stale:
        sys.exit('stale mutations (fix scripts/mutants.txt):\n' + '\n'.join(stale))
else:
    b = by_id[sys.argv[2]]
    path = os.path.join(src, b['file'])
    text = open(path, encoding='utf-8').read()
    open(path, 'w', encoding='utf-8').write(text.replace(b['find'], b['replace'], 1))
PY
}
export M_ROOT=$root M_SRC=$src M_LIST=$list M_WORK=$work
tool check || exit 2
exec </dev/null  # nothing below reads the terminal

# The copy: the tracked and untracked (not ignored) files of the tree.
sync_copy() {
  (cd "$root" && git ls-files -co --exclude-standard) | sort -u >"$work/files"
  while IFS= read -r f; do
    [ -f "$root/$f" ] || continue
    if ! cmp -s "$root/$f" "$src/$f"; then
      mkdir -p "$(dirname "$src/$f")"
      cp "$root/$f" "$src/$f"
    fi
  done <"$work/files"
  (cd "$src" && find . -path ./build -prune -o -type f -print | sed 's|^\./||' | sort) |
    comm -23 - "$work/files" | while IFS= read -r f; do rm -f "$src/$f"; done
  # Generated media are shared with the developer's tree.
  mkdir -p "$root/build/media" "$src/build"
  [ -e "$src/build/media" ] || ln -s "$root/build/media" "$src/build/media"
}

build_copy() {
  [ -f "$bld/build.ninja" ] || cmake -S "$src" -B "$bld" -G Ninja >"$logs/configure.log" 2>&1 || return 1
  ninja -C "$bld" -j"$jobs" >"$1" 2>&1 </dev/null
}

# The failing tests a ctest log names, one a line; an integration test with
# each of its failing cases.
failures_in() {
  awk '/Test +#[0-9]+: / && !/ Passed/ { t = $0; sub(/.*Test +#[0-9]+: /, "", t); sub(/ .*/, "", t)
                                          if (t ~ /^integration\./) open[t] = 1; else print t; cur = t }
       /^(FAIL|ERROR): test_/ { print cur " (" $2 ")"; named[cur] = 1 }
       END { for (t in open) if (!named[t]) print t }' "$1"
}

# The suite, cheapest stage first, up to the first failure (with MUTANTS_ALL,
# all of it). Sets `stage` (where it first failed) and `failed` (the tests
# that failed, one a line).
read -r -a stages <<<"${MUTANTS_STAGES:-unit quick rest}"
all=${MUTANTS_ALL:-0}
stop=--stop-on-failure
[ "$all" = 1 ] && stop=
run_suite() {
  local tag=$1 log at=
  failed=
  for stage in "${stages[@]}"; do
    log=$logs/$tag.$stage.log
    case $stage in
      unit) ctest --test-dir "$bld" -L unit $stop --timeout 60 -j2 --output-on-failure >"$log" 2>&1 ;;
      quick) ctest --test-dir "$bld" -L quick $stop --timeout 400 -j3 --output-on-failure >"$log" 2>&1 ;;
      rest) ctest --test-dir "$bld" -L integration -LE quick $stop --timeout 400 -j2 --output-on-failure >"$log" 2>&1 ;;
      *) echo "unknown stage $stage" >&2; exit 2 ;;
    esac
    [ $? = 0 ] && continue
    failed+=$(failures_in "$log")$'\n'
    [ -n "$at" ] || at=$stage
    [ "$all" = 1 ] || break
  done
  stage=$at
  failed=$(printf '%s' "$failed" | sed '/^$/d')
  [ -z "$at" ]
}

sync_copy
start=$(date +%s)
if [ "${MUTANTS_BASELINE:-1}" != 0 ]; then
  echo "baseline: building and testing the unmutated copy in $bld"
  build_copy "$logs/baseline.build.log" || { echo "the unmutated copy does not build: $logs/baseline.build.log"; exit 1; }
  if ! run_suite baseline; then
    echo "the suite fails without any mutation: ${failed:-?} ($stage stage; $logs/baseline.$stage.log)"
    exit 1
  fi
fi

caught=0 survived=0 broken=0 equivalent=0
: >"$work/survivors" && : >"$work/equivalents" && : >"$work/catches"
while IFS=$'\x1f' read -r -u 3 id file why fault; do
  if [ -n "$why" ]; then
    printf '%-30s equivalent: %s\n' "$id" "$why"
    printf '  %-28s %s\n' "$id" "$why" >>"$work/equivalents"
    equivalent=$((equivalent + 1))
    continue
  fi
  t0=$(date +%s)
  cp "$src/$file" "$work/original"
  tool apply "$id"
  if ! build_copy "$logs/$id.build.log"; then
    printf '%-30s does not build (%s), not counted\n' "$id" "$logs/$id.build.log"
    broken=$((broken + 1))
  elif run_suite "$id"; then
    printf '%-30s SURVIVED (%ds): %s\n' "$id" $(($(date +%s) - t0)) "$fault"
    printf '  %-28s %s: %s\n' "$id" "$file" "$fault" >>"$work/survivors"
    survived=$((survived + 1))
  else
    printf '%-30s caught by %s, %s stage (%ds)\n' "$id" "$(printf '%s' "${failed:-?}" | paste -sd ' ')" "$stage" \
      $(($(date +%s) - t0))
    printf '%s\n' "${failed:-?}" | sed "s/^/$id\t/" >>"$work/catches"
    caught=$((caught + 1))
  fi
  cp "$work/original" "$src/$file"
done 3<"$work/plan"

total=$((caught + survived))
echo
echo "caught $caught of $total mutants ($((total ? 100 * caught / total : 0)) %); $equivalent equivalent and" \
  "$broken not building left out; $(($(date +%s) - start)) s"
[ -s "$work/survivors" ] && echo "survived:" && cat "$work/survivors"
[ -s "$work/equivalents" ] && echo "equivalent:" && cat "$work/equivalents"
if [ "$all" = 1 ] && [ -s "$work/catches" ]; then
  echo "mutants caught per test (alone: caught by no other test):"
  awk -F '\t' '{ n[$2]++; by[$1] = by[$1] ? "-" : $2 } END { for (m in by) if (by[m] != "-") a[by[m]]++
                                                          for (t in n) printf "  %3d  alone %3d  %s\n", n[t], a[t], t }' \
    "$work/catches" | sort -k1,1nr -k4
fi
exit 0
