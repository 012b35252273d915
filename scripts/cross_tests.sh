#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: cross_tests.sh JOBS
# The C++ tests for 64-bit Arm, run by qemu, and by clang++ for this processor where it is there: the
# arithmetic at -O2, the host kernels, the flags, and the fuzzers for some seconds. The checksums of
# result bits must be those that the tests hold, so they are the same as on x86 with g++.
#
# Without a compiler for Arm or an emulator, or without clang++, it says so in a line and is no failure.
set -euo pipefail

cd "$(dirname "$0")/.."
jobs=$1
launcher=()
if [ -n "${CMAKE_CXX_COMPILER_LAUNCHER:-}" ]; then
  launcher=("-DCMAKE_CXX_COMPILER_LAUNCHER=$CMAKE_CXX_COMPILER_LAUNCHER")
fi

first_of() {
  local name
  for name in "$@"; do
    if command -v "$name"; then
      return
    fi
  done
}

# build_and_test FOLDER OPTION...: quiet unless it fails.
build_and_test() {
  local folder=$1
  mkdir -p "$folder"
  if ! {
    cmake -S cmake/cross -B "$folder" "${launcher[@]}" "${@:2}" &&
      cmake --build "$folder" --parallel "$jobs" &&
      ctest --test-dir "$folder" --no-tests=error --output-on-failure --parallel "$jobs"
  } >"$folder/log.txt" 2>&1; then
    cat "$folder/log.txt"
    exit 1
  fi
  sed -n 's/^\([0-9]*% tests passed.*\)/'"${folder##*/}"': \1/p' "$folder/log.txt"
}

emulator=$(first_of qemu-aarch64-static qemu-aarch64)
if [ "$(uname -m)" != x86_64 ] || [ -z "$emulator" ] || ! command -v aarch64-linux-gnu-g++ >/dev/null; then
  echo "cross-arm: skipped, as there is no aarch64-linux-gnu-g++ or no qemu-aarch64 (Debian:" \
    "g++-aarch64-linux-gnu, qemu-user-static)"
else
  build_and_test build/cross-arm -DCMAKE_SYSTEM_NAME=Linux -DCMAKE_SYSTEM_PROCESSOR=aarch64 \
    -DCMAKE_CXX_COMPILER=aarch64-linux-gnu-g++ \
    "-DCMAKE_CROSSCOMPILING_EMULATOR=$emulator;-L;/usr/aarch64-linux-gnu"
fi

clang=$(first_of clang++ clang++-{30..14})
if [ -z "$clang" ]; then
  echo "cross-clang: skipped, as there is no clang++ 14 or newer"
else
  build_and_test build/cross-clang "-DCMAKE_CXX_COMPILER=$clang"
fi
