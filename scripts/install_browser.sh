#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs Chromium and its driver from Debian's packages, for the tests that look at the site.
# Never fails: without them these tests are skipped, and say so. Leaves a machine alone where it
# may not install (no root, no apt-get) or where both are there.
set -uo pipefail

skip() {
  echo "Chromium is not installed, and its tests will be skipped: $1."
  exit 0
}

command -v chromium >/dev/null && command -v chromedriver >/dev/null && exit 0
[ "$(id -u)" = 0 ] || skip "not root"
command -v apt-get >/dev/null || skip "no apt-get"

export DEBIAN_FRONTEND=noninteractive
install() {
  timeout 300 apt-get install --quiet --quiet --yes --no-install-recommends \
    chromium chromium-driver fonts-dejavu-core >/dev/null 2>&1 </dev/null
}
if ! install; then
  timeout 120 apt-get update --quiet --quiet >/dev/null 2>&1 </dev/null
  install || skip "apt-get could not install it"
fi
