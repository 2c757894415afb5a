#!/bin/bash
# Installs, with apt-get, the packages of packages.txt that are missing.
# Runs apt-get update only when something has to be installed. Then mux.js,
# the browsers' transport stream and caption reader that the caption tests
# read back with, from npm into a folder of its own when it is missing.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
missing=()
while read -r pkg proof; do
  case "$pkg" in ''|'#'*) continue ;; esac
  if [ -n "$proof" ] && [ -e "$proof" ]; then continue; fi
  if [ -z "$proof" ] && dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'ok installed'; then continue; fi
  missing+=("$pkg")
done < "$here/packages.txt"
if [ ${#missing[@]} -gt 0 ]; then
  echo "deps: installing ${missing[*]}"
  SUDO=
  [ "$(id -u)" = 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
# The tests find it here (tests/integration/test_captions.py).
npm_dir=$HOME/.cache/pelvane-npm muxjs=7.1.0
if ! grep -qs "\"version\": \"$muxjs\"" "$npm_dir/node_modules/mux.js/package.json"; then
  echo "deps: installing mux.js $muxjs from npm into $npm_dir"
  npm install --prefix "$npm_dir" --no-audit --no-fund --loglevel error "mux.js@$muxjs"
  missing+=("mux.js")
fi
[ ${#missing[@]} -gt 0 ] || echo "deps: everything is installed"
