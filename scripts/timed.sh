#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: timed.sh PART COMMAND...
# Runs the command, and keeps how many milliseconds it took in build/times/PART if it succeeded.
set -euo pipefail

part=$1
shift
begin=${EPOCHREALTIME/[.,]/}
"$@"
end=${EPOCHREALTIME/[.,]/}
mkdir -p build/times
echo $(((end - begin) / 1000)) >"build/times/$part"
