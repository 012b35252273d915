#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: run_sanitized.sh PYTHON [PYTEST_ARGUMENT...]
# Builds everything under AddressSanitizer and UndefinedBehaviorSanitizer and runs all tests on it.
#
# The interpreter itself is not sanitized, so the sanitizer's library is loaded ahead of it, and
# with it the C++ library, whose exceptions it intercepts. Python allocates through malloc, so that
# each object is watched. Leaks are not reported here: the interpreter keeps objects until it ends.
set -euo pipefail

cd "$(dirname "$0")/.."
python=$1
shift
build=build/sanitize
site=$PWD/build/sanitize-tree/site-packages

compiler=$(scripts/find_compiler.sh)
runtime=$($compiler -print-file-name=libasan.so)
if [ ! -e "$runtime" ]; then
  echo "$compiler has no libasan.so: the sanitized build wants g++ with its sanitizers." >&2
  exit 1
fi

scripts/install_tree.sh "$python" "$build" "$site" KORVEX_SANITIZE=ON KORVEX_BUILD_TESTS=ON

export UBSAN_OPTIONS=print_stacktrace=1
ctest --test-dir "$build" --no-tests=error --output-on-failure --parallel 2

# The sanitizer's own library is one more that the objects need.
LD_PRELOAD="$runtime $($compiler -print-file-name=libstdc++.so)" \
  ASAN_OPTIONS=detect_leaks=0 PYTHONMALLOC=malloc PYTHONPATH=$site:$PWD/tools \
  "$python" -P -m pytest "$@" \
  --deselect tests/test_00_installed_package.py::test_shared_object_links_to_the_system_alone
