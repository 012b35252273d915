#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: make_arm_root.sh PYTHON FOLDER
# Makes FOLDER/root a Debian 13 for 64-bit Arm with CPython 3.13, FOLDER/site the packages of
# constraints.txt for it that the tests import, and FOLDER/qemu an emulator that this system then runs
# programs for Arm with. Root's rights and some gigabytes; from Debian's packages and PyPI. What is there
# already is left.
#
# Packages are unpacked and their scripts not run, so nothing is emulated here: Python needs no more.
set -euo pipefail

python=$1
mkdir -p "$2"
folder=$(realpath "$2")
constraints=$(realpath "$(dirname "$0")/../constraints.txt")

[ "$(id -u)" = 0 ] || { echo "make_arm_root.sh needs root's rights, for chroot and binfmt_misc." >&2; exit 1; }

# packages_of ARCHITECTURE PACKAGE...: fetches these and what they depend on for an empty Debian 13,
# and prints where they lie.
packages_of() {
  local state=$folder/apt-$1
  mkdir -p "$state"/{lists/partial,cache/archives/partial}
  touch "$state/status"
  echo "deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian" \
    "trixie main" >"$state/sources.list"
  cat >"$state/apt.conf" <<END
APT::Architecture "$1";
APT::Architectures { "$1"; };
APT::Install-Recommends "false";
APT::Sandbox::User "root";
Dir::State "$state";
Dir::State::status "$state/status";
Dir::Cache "$state/cache";
Dir::Etc::SourceList "$state/sources.list";
Dir::Etc::SourceParts "/dev/null";
Dir::Etc::Preferences "/dev/null";
Dir::Etc::PreferencesParts "/dev/null";
END
  APT_CONFIG=$state/apt.conf apt-get update -qq >&2
  APT_CONFIG=$state/apt.conf apt-get install -qq --yes --download-only "${@:2}" >&2
  printf '%s\n' "$state"/cache/archives/*.deb
}

unpack() {
  local package
  while read -r package; do
    dpkg-deb --fsys-tarfile "$package" | tar --extract --keep-directory-symlink --directory "$1"
  done
}

if [ ! -e "$folder/qemu/usr/bin/qemu-aarch64" ]; then
  mkdir -p "$folder/qemu"
  packages_of amd64 qemu-user | grep /qemu-user_ | unpack "$folder/qemu"
fi

if [ ! -e "$folder/root/made" ]; then
  mkdir -p "$folder/root"
  packages_of arm64 base-files base-passwd bash coreutils dash grep libgomp1 libpython3-dev libstdc++6 \
    procps python3 sed |
    unpack "$folder/root"
  cp "$folder/root/usr/share/base-passwd/passwd.master" "$folder/root/etc/passwd"
  cp "$folder/root/usr/share/base-passwd/group.master" "$folder/root/etc/group"
  touch "$folder/root/made"
fi

# F: the kernel opens the emulator now, so it is found from inside the root too.
binfmt=/proc/sys/fs/binfmt_misc
[ -e "$binfmt/register" ] || mount -t binfmt_misc binfmt_misc "$binfmt"
if ! grep -qs "$folder/qemu" "$binfmt"/*aarch64*; then
  magic='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
  mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
  [ ! -e "$binfmt/korvex-aarch64" ] || echo -1 >"$binfmt/korvex-aarch64"
  echo ":korvex-aarch64:M::$magic:$mask:$folder/qemu/usr/bin/qemu-aarch64:F" >"$binfmt/register"
fi

# torch's wheel for Arm looks for NVIDIA's libraries when it is imported, a GPU or not.
names='torch|nvidia-(cublas|cuda-cupti|cuda-nvrtc|cuda-runtime|cudnn-cu13|cufft|cufile|curand|cusolver'
names+='|cusparse|cusparselt-cu13|nccl-cu13|nvjitlink|nvshmem-cu13|nvtx)|numpy|pytest|pytest-xdist|execnet'
names+='|pluggy|iniconfig|packaging|Pygments|hypothesis|sortedcontainers|gmpy2|ml_dtypes|pyarrow|pandas'
names+='|python-dateutil|polars|polars-runtime-32|rich|markdown-it-py|mdurl|tqdm|array_api_strict'
names+='|fastjsonschema|typing_extensions|sympy|mpmath|networkx|Jinja2|MarkupSafe|fsspec|filelock|setuptools'
names+='|dask|cloudpickle|partd|toolz|locket|click|PyYAML'
if [ ! -e "$folder/site/made" ]; then
  mapfile -t wanted < <(grep -E "^($names)==" "$constraints")
  platforms=(--platform manylinux2014_aarch64)
  for release in {41..17}; do
    platforms+=(--platform "manylinux_2_${release}_aarch64")
  done
  rm -rf "$folder/site"
  "$python" -m pip install --quiet --disable-pip-version-check --no-deps --target "$folder/site" \
    "${platforms[@]}" --implementation cp --python-version 3.13 --abi cp313 --abi abi3 --abi none \
    --only-binary=:all: "${wanted[@]}"
  touch "$folder/site/made"
fi
