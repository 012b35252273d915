#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: verify_arm.sh PYTHON INSTALLED JOBS PYTEST_ARGS...
# Builds the package for 64-bit Arm with a cross compiler, compares the bits of every promised function
# there with tests/golden, and runs Python tests there that need no GPU: emulated by qemu, in the root that
# make_arm_root.sh makes. INSTALLED is the site-packages folder where korvex is installed here: its Python
# files are those of every processor. Of a tree as committed the report goes to docs/verification.
set -euo pipefail

cd "$(dirname "$0")/.."
python=$1
installed=$2
jobs=$3
tests=("${@:4}")
folder=$PWD/build/arm
root=$folder/root

scripts/install_cross_tools.sh
scripts/make_arm_root.sh "$python" "$folder"

# Of the root's headers those of Python alone: the cross compiler brings the others.
mkdir -p "$folder/include/aarch64-linux-gnu"
ln -sfn "$root/usr/include/aarch64-linux-gnu/python3.13" "$folder/include/aarch64-linux-gnu/python3.13"
crossing=(-DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=aarch64
  -DCMAKE_CXX_COMPILER=aarch64-linux-gnu-g++)
quietly() { "$@" >"$folder/log.txt" 2>&1 || { cat "$folder/log.txt"; exit 1; }; }
quietly cmake -S . -B "$folder/package" "${crossing[@]}" -DKORVEX_CUDA_ARCHITECTURES=none \
  "-DCMAKE_CXX_FLAGS=-isystem $folder/include" -DKORVEX_PYTHON_SUFFIX=cpython-313-aarch64-linux-gnu.so \
  "-DKORVEX_PYTHON_INCLUDE=$root/usr/include/python3.13"
quietly cmake --build "$folder/package" --parallel "$jobs"
quietly cmake -S cmake/verify -B "$folder/levels" "${crossing[@]}"
quietly cmake --build "$folder/levels" --parallel "$jobs"

rm -rf "$folder/site-packages"
mkdir -p "$folder/site-packages"
cp -r "$installed"/korvex "$installed"/korvex_tqx-*.dist-info "$folder/site-packages"
find "$folder/site-packages" -name '*.so' -delete
quietly cmake --install "$folder/package" --prefix "$folder/site-packages"

# The tree stands in the root where it stands here.
mkdir -p "$root$PWD"
mounted=()
finish() { for place in "${mounted[@]}"; do umount "$place"; done; }
trap finish EXIT
attach() { mount "${@:1:$#-1}" "$root${*: -1}" && mounted=("$root${*: -1}" "${mounted[@]}"); }
attach --bind "$PWD" "$PWD"
attach -t proc proc /proc
attach --bind /dev /dev

emulator=$("$folder/qemu/usr/bin/qemu-aarch64" --version | sed -n '1s/.*version \([0-9.]*\).*/qemu \1/p')
run_there() {
  chroot "$root" /usr/bin/env -i HOME=/tmp PATH=/usr/bin LANG=C.UTF-8 "KORVEX_EMULATOR=$emulator" \
    "KORVEX_COMMIT=$(git rev-parse HEAD)" "PYTHONPATH=$folder/site-packages:$folder/site:$PWD/tools" \
    /bin/bash -c 'cd "$0" && exec "$@"' "$PWD" "$@"
}

results=build/verify
[ -n "$(git status --porcelain)" ] || results=docs/verification
run_there python3 -P -m korvex_tools.verify --only base-1 base-all --results "$results" \
  --library "$folder"/levels/libkorvex_host_kernels_base_{O0,O2}.so
PYTHONPATH=tools "$python" -P -m korvex_tools.verify.report
run_there python3 -P -m pytest -q -p no:cacheprovider -n "$jobs" "${tests[@]}"
