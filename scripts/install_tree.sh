#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: install_tree.sh PYTHON BUILD_FOLDER [TARGET_FOLDER [CMAKE_NAME=VALUE...]]
# Builds the tree in BUILD_FOLDER (only what changed) and installs it for PYTHON, or, if given and
# not empty, into TARGET_FOLDER for use through PYTHONPATH. Downloads nothing:
# scikit-build-core, CMake and a compiler must be there already. The host kernels are those for all
# processors, and sources are compiled one by one: a build here is tested, and repeated after changes.
set -euo pipefail

cd "$(dirname "$0")/.."
python=$1
build=$2
target=${3:-}
definitions=(KORVEX_INSTRUCTION_SETS=all KORVEX_QUICK_BUILD=OFF "${@:4}")

CXX=$(scripts/find_compiler.sh)
export CXX

# The environment's own tools come first, as CMake and Ninja may have come from pip.
PATH=$(dirname "$(command -v "$python")"):$PATH
cmake_version=$(cmake --version 2>/dev/null | sed -n '1s/[^0-9]*\([0-9.]*\).*/\1/p') || true
if [ "$(printf '%s\n' 3.25 "${cmake_version:-0}" | sort -V | head -n 1)" != 3.25 ]; then
  echo "No CMake 3.25 or newer found: install cmake (pip, Debian, Ubuntu, Fedora: cmake)." >&2
  exit 1
fi

options=(--no-deps --no-build-isolation --no-index --disable-pip-version-check --quiet
  --config-settings "build-dir=$build")
if [ -n "$target" ]; then
  rm -rf "$target"
  options+=(--target "$target")
else
  options+=(--force-reinstall)
fi
for definition in "${definitions[@]}"; do
  options+=(--config-settings "cmake.define.$definition")
done
echo "building in $build and installing"
"$python" -m pip install "${options[@]}" .
