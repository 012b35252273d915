#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: timed.sh PART COMMAND...
# Runs the command, and keeps how many milliseconds it took in build/times/PART if it succeeded. A run of
# under a second found nothing left to do, and leaves the time of the one that did it.
set -euo pipefail

part=$1
shift
begin=${EPOCHREALTIME/[.,]/}
"$@"
end=${EPOCHREALTIME/[.,]/}
taken=$(((end - begin) / 1000))
mkdir -p build/times
if [ "$taken" -ge 1000 ] || [ ! -e "build/times/$part" ]; then
  echo "$taken" >"build/times/$part"
fi
