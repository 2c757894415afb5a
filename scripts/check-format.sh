#!/bin/bash
# Checks the tracked C++ sources of v2/, tolm_utils/, tests/, fuzz/ and bench/
# against .clang-format and fails, naming each line, if any would change.
# With --fix it rewrites them in place instead (make format).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
if ! command -v clang-format >/dev/null; then
  echo "check-format: clang-format is missing: install the Debian package clang-format (make deps)" >&2
  exit 1
fi
mapfile -t files < <(git ls-files -- v2 tolm_utils tests fuzz bench | grep -E '\.(cpp|cc|h|hpp)$')
if [ ${#files[@]} -eq 0 ]; then
  echo "check-format: no C++ sources found (run it in a git checkout)" >&2
  exit 1
fi
if [ "${1:-}" = --fix ]; then
  clang-format -i "${files[@]}"
else
  clang-format --dry-run --Werror "${files[@]}"
fi
