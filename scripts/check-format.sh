#!/bin/bash
# Checks the tracked C++ sources of the program (v2/, tolm_utils/) and its
# benchmarks (bench/) against .clang-format and fails, naming each line, if
# any would change. With --fix it rewrites them in place instead (make
# format). The unit tests and fuzz targets are left as written: their case
# tables keep one case to a line, which the layout rules would break up.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
if ! command -v clang-format >/dev/null; then
  echo "check-format: clang-format is missing: install the Debian package clang-format (make deps)" >&2
  exit 1
fi
mapfile -t files < <(git ls-files -- v2 tolm_utils bench | grep -E '\.(cpp|cc|h|hpp)$')
if [ ${#files[@]} -eq 0 ]; then
  echo "check-format: no C++ sources found (run it in a git checkout)" >&2
  exit 1
fi
if [ "${1:-}" = --fix ]; then
  clang-format -i "${files[@]}"
else
  clang-format --dry-run --Werror "${files[@]}"
fi
