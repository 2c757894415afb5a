#!/bin/bash
# Installs, with apt-get, the packages of packages.txt that are missing.
# Runs apt-get update only when something has to be installed.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
missing=()
while read -r pkg proof; do
  case "$pkg" in ''|'#'*) continue ;; esac
  if [ -n "$proof" ] && [ -e "$proof" ]; then continue; fi
  if [ -z "$proof" ] && dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'ok installed'; then continue; fi
  missing+=("$pkg")
done < "$here/packages.txt"
if [ ${#missing[@]} -eq 0 ]; then
  echo "deps: everything is installed"
  exit 0
fi
echo "deps: installing ${missing[*]}"
SUDO=
[ "$(id -u)" = 0 ] || SUDO=sudo
$SUDO apt-get update -qq
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
