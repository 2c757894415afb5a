#!/bin/bash
# Sourced by build-ffmpeg7.sh. Sets up an apt configuration of its own that
# reads Debian 13 (trixie) package and source indexes, taken from the mirror
# this machine already uses, without touching the system's apt lists.
# Defines the array FF7_APT and the function ff7_apt.
ff7_apt_root=$1
mkdir -p "$ff7_apt_root/lists/partial" "$ff7_apt_root/archives/partial"
ff7_sources="$ff7_apt_root/trixie.sources"
# deb822 style first: the first stanza that is not the security archive.
awk 'BEGIN { RS = ""; ORS = "\n\n" } /URIs:/ && !/security/ { print; exit }' \
    /etc/apt/sources.list.d/*.sources 2>/dev/null |
  sed -E 's/^Types:.*/Types: deb deb-src/; s/^Suites:.*/Suites: trixie/' > "$ff7_sources"
if ! grep -q '^URIs:' "$ff7_sources"; then
  # one-line sources.list style
  mirror=$(awk '$1 == "deb" && $0 !~ /security/ {
                  for (i = 2; i <= NF; i++) if ($i ~ /^[a-z]+:\/\//) { print $i; exit } }' \
              /etc/apt/sources.list 2>/dev/null)
  cat > "$ff7_sources" <<SRC
Types: deb deb-src
URIs: $mirror
Suites: trixie
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
SRC
fi
FF7_APT=(-o "Dir::Etc::sourcelist=$ff7_sources" -o "Dir::Etc::sourceparts=-"
         -o "Dir::State::Lists=$ff7_apt_root/lists"
         -o "Dir::Cache::Archives=$ff7_apt_root/archives"
         -o "Dir::Cache::pkgcache=" -o "Dir::Cache::srcpkgcache="
         -o "APT::Get::List-Cleanup=0" -o "APT::Sandbox::User=root")
ff7_apt() { apt-get "${FF7_APT[@]}" "$@"; }
