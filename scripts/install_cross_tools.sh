#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs a compiler for 64-bit Arm and an emulator of its programs from Debian's packages, for
# scripts/cross_tests.sh. Never fails: without them that step is skipped, and says so. Leaves a machine
# alone where it may not install (no root, no apt-get) or where both are there.
set -uo pipefail

skip() {
  echo "The compiler for Arm is not installed, and its step will be skipped: $1."
  exit 0
}

[ "$(uname -m)" = x86_64 ] || exit 0
command -v aarch64-linux-gnu-g++ >/dev/null && command -v qemu-aarch64-static >/dev/null && exit 0
[ "$(id -u)" = 0 ] || skip "not root"
command -v apt-get >/dev/null || skip "no apt-get"

export DEBIAN_FRONTEND=noninteractive
install() {
  timeout 300 apt-get install --quiet --quiet --yes --no-install-recommends \
    g++-aarch64-linux-gnu libc6-dev-arm64-cross qemu-user-static >/dev/null 2>&1 </dev/null
}
if ! install; then
  timeout 120 apt-get update --quiet --quiet >/dev/null 2>&1 </dev/null
  install || skip "apt-get could not install it"
fi
