# SPDX-License-Identifier: Apache-2.0
# The instruction sets for which the host kernels are compiled, from the oldest processors on, and
# the options that allow them to the compiler.

set(korvex_instruction_sets base fma avx512)
set(korvex_options_of_base)
set(korvex_options_of_fma -mfma -mavx2)
# Compilers prefer shorter registers, as early processors with AVX-512 slowed down for it. g++ 12 with
# AVX-512 stores {a, a, a, a} for the constant {a, a, a, 0} where it has put straight-line code into a
# vector (tests/cpp/test_sum.cpp fails then); the vectors that count are written as such, or in loops.
set(korvex_options_of_avx512
  -mfma -mavx2 -mavx512f -mavx512dq -mavx512vl -mprefer-vector-width=512
  -fno-tree-slp-vectorize)
