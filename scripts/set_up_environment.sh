#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: set_up_environment.sh FOLDER [EXTRA...]
# Makes the virtual environment FOLDER hold what building, testing and checking the tree and its site
# needs: the requirements of these extras of the distribution, or, if none is named, of test, dev and
# docs.
#
# The versions are those of constraints.txt, with which continuous integration runs; with
# CONSTRAINTS=none the newest that there are.
#
# A .pth file in it names the folder tools/, where the tree's own tools are found.
#
# Quiet and quick when nothing changed: the list of requirements that pip last installed is kept
# in the environment, and pip runs only if the list differs. An environment whose interpreter is
# gone or too old, or that has no pip, is made anew; one that works is never replaced, whatever PYTHON
# says.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
environment=$1
extras=("${@:2}")
[ ${#extras[@]} -gt 0 ] || extras=(test dev docs)
python=$environment/bin/python
installed_list=$environment/korvex-requirements.txt

runs() { "$python" -c 'import sys, pip; sys.exit(sys.version_info < (3, 12))' 2>/dev/null; }

base_of() { "$1" -I -c 'import sys; print(sys.base_prefix, sys.version)'; }

if ! runs; then
  base=$(VENV=$environment "$here/find_python.sh")
  echo "making $environment with $base"
  "$base" -m venv --clear "$environment"
elif [ -n "${PYTHON:-}" ] && [ "$(base_of "$PYTHON")" != "$(base_of "$python")" ]; then
  echo "$environment was made with another Python than $PYTHON: pass VENV=.venv-other as well, or" \
    "remove it with 'make distclean'." >&2
  exit 1
fi

site_packages=$("$python" -I -c 'import sysconfig; print(sysconfig.get_path("purelib"))')
tools=$(realpath "$here/../tools")
if [ "$tools" != "$(cat "$site_packages/korvex-tools.pth" 2>/dev/null)" ]; then
  echo "$tools" >"$site_packages/korvex-tools.pth"
fi

constraints=()
if [ "${CONSTRAINTS:-}" != none ]; then
  constraints=(--constraint "$here/../constraints.txt")
fi
wanted_list=$("$python" "$here/list_requirements.py" "${extras[@]}")
installed=$wanted_list$'\n'$(cat "${constraints[@]:1}" </dev/null)
if [ "$installed" != "$(cat "$installed_list" 2>/dev/null)" ]; then
  echo "installing the requirements into $environment (the first time takes minutes: torch is big)"
  rm -f "$installed_list"
  if ! "$python" -m pip install -qq --disable-pip-version-check \
    "${constraints[@]}" --requirement /dev/stdin <<<"$wanted_list"; then
    echo "pip could not install the requirements; its reason stands above." >&2
    exit 1
  fi
  echo "$installed" >"$installed_list"
fi
