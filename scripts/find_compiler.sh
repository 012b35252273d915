#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Prints the C++ compiler to build with: $CXX if set, else g++, else clang++; it must know C++20, and
# how to rearrange vectors as clang++ has it, which g++ 12 is the first to do.
set -euo pipefail

readonly program='
#include <bit>
#include <concepts>
#include <cstdint>
#include <span>
template <std::floating_point T>
constexpr std::uint64_t bits(T value) { return std::bit_cast<std::uint64_t>(value); }
static_assert(bits(1.0) == 0x3ff0000000000000);
using Pair __attribute__((vector_size(16))) = double;
Pair swapped(Pair x) { return __builtin_shufflevector(x, x, 1, 0); }
'

compiles() {
  command -v "${1%% *}" >/dev/null &&
    $1 -std=c++20 -fsyntax-only -x c++ - <<<"$program" >/dev/null 2>&1
}

if [ -n "${CXX:-}" ]; then
  if compiles "$CXX"; then
    echo "$CXX"
    exit
  fi
  echo "CXX=$CXX does not compile C++20 as it is here: pass g++ 12, clang++ 14 or newer, or nothing." >&2
  exit 1
fi
for name in g++ clang++ g++-14 g++-13 g++-12; do
  if compiles "$name"; then
    echo "$name"
    exit
  fi
done
echo "No C++20 compiler found: install g++ 12 or newer (Debian, Ubuntu: g++; Fedora: gcc-c++)." >&2
exit 1
