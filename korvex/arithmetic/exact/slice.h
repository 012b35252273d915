// SPDX-License-Identifier: Apache-2.0
// One slice of a sum on fixed grids: where it starts, one addition to it, what it has counted.
//
// A slice starts at a bias of 1.5 * 2^k. While it stays in [2^k, 2^(k+1)), each addition to it
// rounds to the grid 2^(k-52), and what the grid does not take is exact and goes on to the next
// slice, whose k is lower. to_bits(slice) - to_bits(bias) is then the sum in grid units, an
// integer, so it does not depend on the order of the additions. The binned sums of Demmel and Hida,
// Accurate and efficient floating point summation, 2003, and of Demmel and Nguyen, Fast
// reproducible floating-point summation, 2013, rest on the same step. The bounds are proved in
// docs/numerics.md.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

// 1.5 * 2^exponent; precondition: kMinExponent <= exponent <= kExponentBias.
KORVEX_INLINE double slice_bias(int exponent) {
  constexpr std::uint64_t kHalf = std::uint64_t{1} << (kFractionBits - 1);
  return from_bits(exponent_bits(exponent + kExponentBias) | kHalf);
}

// Real: a double, or several in lanes, each with a slice of its own.
template <class Real>
struct SliceAndRest {
  Real slice;
  Real rest;  // what the grid did not take, for the next slice
};

// Adds to a slice that began at its bias: Dekker's FastTwoSum. Exact as long as the slice stays in
// its binade, which is for the caller to know or to test (moved_out).
template <class Real>
KORVEX_INLINE SliceAndRest<Real> add_to_slice(Real slice, Real addend) {
  const ValueAndErrorOf<Real> sum = fast_two_sum(slice, addend);
  return {sum.value, sum.error};
}

// Of the bits in which any partial sum of a slice differed from its bias: did one leave the binade?
KORVEX_INLINE bool moved_out(std::uint64_t moved) { return moved >> kFractionBits != 0; }

// Of the bits of all that the last slice did not take: was anything left? A zero may have a sign.
KORVEX_INLINE bool has_rest(std::uint64_t lost) { return lost << 1 != 0; }

}  // namespace korvex::arithmetic
