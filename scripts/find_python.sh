#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: find_python.sh [3.MINOR]
# Prints the CPython to build with: 3.12 if there is one, else 3.13, else a newer one. With an
# argument: one of that version, and PYTHON counts for nothing.
#
# A candidate counts only if it runs (a pyenv shim may not), is a CPython of 3.12 or newer with the
# GIL, and has its headers and the venv module. PYTHON=path overrides the search, not the demands.
# Failure is one line that says what is missing and which package brings it.
set -euo pipefail

version_wanted=${1:-}
environment=$(realpath -m "${VENV:-.venv}")

# A build straight into an interpreter (VENV=none) makes no environment.
[ "${VENV:-}" = none ] && use=direct || use=venv

readonly probe='
import importlib.util, os, sys, sysconfig
version = "%d.%d" % sys.version_info[:2]
if sys.implementation.name != "cpython" or sys.version_info < (3, 12):
    print("unfit", version)
elif sysconfig.get_config_var("Py_GIL_DISABLED"):
    print("threaded", version)
elif not os.path.exists(os.path.join(sysconfig.get_path("include"), "Python.h")):
    print("headers", version)
elif sys.argv[1] == "venv" and importlib.util.find_spec("ensurepip") is None:
    print("venv", version)
else:
    print("fit", version)
'

# The first interpreter that lacks nothing but a package: "STATE VERSION PATH".
incomplete=
# The last one that is fit but for its threads.
free_threaded=

# Prints the path and ends the script if the interpreter is fit.
try() {
  local path=$1 state version
  [ -x "$path" ] && [[ $(realpath -s "$path") != "$environment"/* ]] || return 0
  read -r state version < <("$path" -I -c "$probe" "$use" 2>/dev/null </dev/null) || return 0
  case $state in
    fit)
      echo "$path"
      exit
      ;;
    threaded) free_threaded=$path ;;
    headers | venv) incomplete=${incomplete:-"$state $version $path"} ;;
  esac
}

# Every place where python3.MINOR may lie, one path a line.
candidates() {
  local name=python3.$1 folder
  local IFS=:
  for folder in $PATH; do
    echo "$folder/$name"
  done
  for folder in "${PYENV_ROOT:-$HOME/.pyenv}" "$HOME/.pyenv"; do
    printf '%s\n' "$folder"/versions/3."$1"*/bin/"$name"
  done
  printf '%s\n' "$HOME"/.local/share/uv/python/cpython-3."$1"*/bin/"$name"
}

if [ -n "$version_wanted" ]; then
  while read -r path; do
    try "$path"
  done < <(candidates "${version_wanted#3.}")
elif [ -n "${PYTHON:-}" ]; then
  try "$(command -v "$PYTHON" || true)"
  if [ -n "$free_threaded" ]; then
    echo "PYTHON=$PYTHON: korvex needs CPython with its global interpreter lock, and this is a" \
      "free-threaded build: use the interpreter whose name does not end in t." >&2
    exit 1
  elif [ -z "$incomplete" ]; then
    echo "PYTHON=$PYTHON is no CPython 3.12 or newer that runs: pass another, or none." >&2
    exit 1
  fi
else
  for minor in 12 13 14 15 16 17 18 19; do
    while read -r path; do
      try "$path"
    done < <(candidates "$minor")
  done
  # Last, an interpreter whose name carries no minor version.
  try "$(command -v python3 || true)"
  try "$(command -v python || true)"
fi

read -r state version path <<<"$incomplete"
case $state in
  headers)
    echo "$path has no C headers: install python$version-dev (Debian, Ubuntu) or" \
      "python$version-devel (Fedora)." >&2
    ;;
  venv)
    echo "$path cannot make environments: install python$version-venv (Debian, Ubuntu)." >&2
    ;;
  *)
    if [ -n "$version_wanted" ]; then
      name=python$version_wanted
      echo "No CPython $version_wanted found: install $name, $name-venv and $name-dev, or run" \
        "'pyenv install $version_wanted'." >&2
      exit 1
    fi
    echo "No CPython 3.12 or newer found: install python3.12, python3.12-venv and python3.12-dev," \
      "or run 'pyenv install 3.12', or pass PYTHON=path." >&2
    ;;
esac
exit 1
