// SPDX-License-Identifier: Apache-2.0
// One slice of a sum on fixed grids: where it starts, one addition to it, what it has counted.
//
// A slice starts at a bias of 1.5 * 2^k. While it stays in [2^k, 2^(k+1)), each addition to it
// rounds to the grid 2^(k-52), and what the grid does not take is exact and goes on to the next
// slice, whose k is lower. to_bits(slice) - to_bits(bias) is then the sum in grid units, an
// integer, so it does not depend on the order of the additions. The binned sums of Demmel and Hida,
// Accurate and efficient floating point summation, 2003, and of Demmel and Nguyen, Fast
// reproducible floating-point summation, 2013, rest on the same step. The bounds are proved in
// docs/numerics_sum.md.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

// 1.5 * 2^exponent. Precondition here and below: kMinExponent <= exponent <= kExponentBias.
KORVEX_INLINE double slice_bias(int exponent) { return 1.5 * power_of_two(exponent); }

// Its bits, for slices that start anew every few elements: a compiler then sees which bits are 0.
// Where one thread carries many slices through a loop (tqx_sum_seq_kernel), nvcc makes slower code
// when it sees that.
KORVEX_INLINE std::uint64_t slice_bias_bits(int exponent) {
  return exponent_bits(exponent + kExponentBias) | std::uint64_t{1} << (kFractionBits - 1);
}

// Adds to a slice that began at its bias, and returns what the grid did not take, for the next
// slice: Dekker's FastTwoSum. Exact as long as the slice stays in its binade, which is for the
// caller to know or to test (moved_out). Real: a double, or several in lanes, each with a slice of
// its own.
template <class Real>
KORVEX_INLINE Real add_to_slice(Real& slice, Real addend) {
  const Real before = slice;
  const Real after = add_rn(before, addend);                // rounded to the grid
  const Real rest = sub_rn(addend, sub_rn(after, before));  // exact, both
  slice = after;
  return rest;
}

// Of the bits in which any partial sum of a slice differed from its bias: did one leave the binade?
KORVEX_INLINE bool moved_out(std::uint64_t moved) { return moved >> kFractionBits != 0; }

// Of the bits of all that the last slice did not take: was anything left? A zero may have a sign.
KORVEX_INLINE bool has_rest(std::uint64_t lost) { return lost << 1 != 0; }

}  // namespace korvex::arithmetic
