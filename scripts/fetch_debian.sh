#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: fetch_debian.sh ARCHITECTURE FOLDER PACKAGE...
# Unpacks packages of Debian's unstable release, with all that they need, into FOLDER: no root, no
# container, and nothing of this machine changes. ARCHITECTURE is amd64 or arm64.
#
# For interpreters that are newer than the machine's, and for those of another processor. apt checks
# the signature of the release; it is not asked how old the release is, as mirrors lag. Nothing is
# done twice.
set -euo pipefail

architecture=$1
folder=$(realpath -m "$2")
packages=("${@:3}")

if [ "${packages[*]}" = "$(cat "$folder/fetched.txt" 2>/dev/null)" ]; then
  exit
fi
if ! command -v apt-get >/dev/null || ! command -v dpkg-deb >/dev/null; then
  echo "No apt-get and dpkg-deb here, so no packages of Debian." >&2
  exit 1
fi

rm -rf "$folder"
state=$folder/apt
mkdir -p "$state/lists/partial" "$state/archives/partial"
touch "$state/status"
keys=/usr/share/keyrings/debian-archive-keyring.gpg
echo "deb [signed-by=$keys] ${DEBIAN_MIRROR:-http://deb.debian.org/debian} sid main" >"$state/sources.list"
options=(--quiet --quiet
  -o "APT::Architecture=$architecture" -o "APT::Architectures::=$architecture"
  -o "Dir::State=$state" -o "Dir::State::lists=$state/lists" -o "Dir::State::status=$state/status"
  -o "Dir::Cache=$state" -o "Dir::Cache::archives=$state/archives"
  -o "Dir::Etc::sourcelist=$state/sources.list" -o Dir::Etc::sourceparts=/dev/null
  -o Dir::Etc::preferencesparts=/dev/null -o APT::Install-Recommends=false
  -o APT::Sandbox::User=root -o Acquire::Check-Valid-Until=false -o Debug::NoLocking=1)
apt-get "${options[@]}" update
apt-get "${options[@]}" install --yes --download-only "${packages[@]}" >"$state/log"
for package in "$state"/archives/*.deb; do
  dpkg-deb --extract "$package" "$folder"
done
# Debian's installer makes these links, not a package.
for name in bin lib lib64 sbin; do
  [ ! -d "$folder/usr/$name" ] || ln -sfn "usr/$name" "$folder/$name"
done
rm -rf "$state"
echo "${packages[*]}" >"$folder/fetched.txt"
