#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: gpu_run.sh [--dry-run] [--site FOLDER] [--results FOLDER] [--seconds NUMBER] [--only STAGE]
# Everything that needs a GPU, in one call of less than ten minutes, and downloads nothing.
#
# Takes $PYTHON, else the first of the environment's and the system's Python with a torch that sees a
# GPU, else the first with a torch. --site names an installed korvex, and nothing is built then.
# $KORVEX_COMMIT names the commit for the report where the tree was copied without its history.
# --only names stages, or patterns of names, which join the report of an earlier run.
# --dry-run prints the stages and tries on the emulated device what can be tried there, with longer
# limits.
set -euo pipefail
cd "$(dirname "$0")/.."

has_torch() { "$1" -c 'import torch' 2>/dev/null; }
sees_gpu() { "$1" -c 'import sys, torch; sys.exit(not torch.cuda.is_available())' 2>/dev/null; }

choose_python() {
  local candidates=("${VENV:-.venv}/bin/python" python3) test candidate
  for test in sees_gpu has_torch; do
    for candidate in "${candidates[@]}"; do
      if command -v "$candidate" >/dev/null && "$test" "$candidate"; then
        echo "$candidate"
        return
      fi
    done
  done
  echo "No Python with torch found: install torch, or pass PYTHON=path." >&2
  return 1
}

python=${PYTHON:-$(choose_python)}
export PYTHONPATH=$PWD/tools${PYTHONPATH:+:$PYTHONPATH}
exec "$python" -P -m korvex_tools.gpu.report "$@"
