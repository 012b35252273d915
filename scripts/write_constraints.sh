#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: write_constraints.sh PYTHON
# Writes constraints.txt: the versions of everything that the set-up has installed for PYTHON.
#
# To take newer ones: `make distclean; CONSTRAINTS=none make test constraints`.
set -euo pipefail

cd "$(dirname "$0")/.."
versions=$("$1" -m pip --disable-pip-version-check freeze --exclude korvex-tqx)
{
  echo "# Versions with which the tests pass, for pip's --constraint. Written by \`make constraints\`."
  echo "$versions"
} >constraints.txt
