#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: make_wheels.sh PYTHON [PYTEST_ARGUMENT...]
# A wheel for each CPython of $versions, in dist/, and the test suite on each as installed.
#
# `make wheel` makes the wheel of PYTHON, that of the tree's environment, and the kernels for all
# GPUs, which the other wheels take as they are. Each wheel is tested in an environment made anew,
# which goes when all tests have passed; what failed is left for a look. The tests run from the tree,
# on the wheel. The last lines are one for each CPython; the exit status is 1 if one says FAILED.
set -euo pipefail
shopt -s inherit_errexit

cd "$(dirname "$0")/.."
python=$1
shift
readonly versions=(3.12 3.13)
readonly work=build/wheels
readonly kernels=$PWD/build/wheel/korvex/kernels/device/cubins

unset PYTHON # names one interpreter, and here are several
missing=0
declare -A interpreters
for version in "${versions[@]}"; do
  interpreters[$version]=$(scripts/find_python.sh "$version") || missing=1
done
if [ "$missing" = 1 ]; then
  exit 1
fi

make wheel
CXX=$(scripts/find_compiler.sh)
export CXX

tag_of() { "$1" -c 'import sys; print("cp%d%d" % sys.version_info[:2])'; }

# Prints the wheel's path.
build_wheel() {
  local environment=$1 tag=$2
  rm -rf "$work/$tag"
  if [ "$(tag_of "$python")" = "$tag" ]; then
    mkdir -p "$work/$tag"
    mv dist/korvex_tqx-*-"$tag-$tag"-linux_*.whl "$work/$tag"
  else
    "$environment/bin/python" -m pip wheel --quiet --disable-pip-version-check --no-deps \
      --no-build-isolation --no-index --wheel-dir "$work/$tag" \
      --config-settings "build-dir=$work/build-$tag" \
      --config-settings "cmake.define.KORVEX_KERNELS=$kernels" . >&2
  fi
  # The tag then names the oldest C library that has what the wheel's objects ask for.
  mkdir -p "$work/$tag/tagged"
  local log=$work/$tag/auditwheel.log
  if ! auditwheel repair --wheel-dir "$work/$tag/tagged" "$work/$tag"/*.whl &>"$log"; then
    cat "$log" >&2
    exit 1
  fi
  rm -f dist/korvex_tqx-*-"$tag"-*.whl
  mv "$work/$tag"/tagged/*.whl dist/
  echo dist/korvex_tqx-*-"$tag"-*.whl
}

# A subshell, so that the first failure ends the work on this CPython and not that on the others.
make_and_test() (
  set -e
  version=$1
  environment=$PWD/$work/environment-$version
  rm -rf "$environment"
  VENV=$environment PYTHON=${interpreters[$version]} \
    scripts/set_up_environment.sh "$environment" test dev docs release
  export PATH=$environment/bin:$PATH
  wheel=$(build_wheel "$environment" "cp${version/./}")
  "$environment/bin/python" -P -m korvex_tools.check_wheel "$wheel" --kernels "$kernels"
  "$environment/bin/python" -m pip install --quiet --disable-pip-version-check --no-deps --no-index \
    "$wheel"
  echo "testing $wheel on CPython $version"
  unset VENV
  "$environment/bin/python" -P -m pytest "${@:2}" --junitxml="$work/$version.xml"
  rm -rf "$environment"
)

mkdir -p "$work" dist
failed=0
lines=()
for version in "${versions[@]}"; do
  rm -f "$work/$version.xml"
  # `if` would switch off `set -e` inside.
  set +e
  make_and_test "$version" "$@"
  status=$?
  set -e
  if [ "$status" = 0 ]; then
    line=$("$python" -P -m korvex_tools.report_tests "CPython $version=$work/$version.xml") || failed=1
  else
    line="FAILED: CPython $version, see above; its environment is $work/environment-$version"
    failed=1
  fi
  lines+=("$line")
done
printf '%s\n' "${lines[@]}"
exit "$failed"
