// SPDX-License-Identifier: Apache-2.0
// Lanes of one double: how a device thread, or a host without vectors, runs the loops that are
// written once for any number of parallel lanes. A lane type has these members; which one runs
// never shows in a result.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

struct ScalarLanes {
  using Value = double;
  using Bits = std::uint64_t;
  static constexpr int kCount = 1;  // doubles in a Value
  static constexpr int kMaxSlices =
      4;  // of a biased cascade, before the long accumulator is faster

  KORVEX_INLINE static Value load(const double* x) { return *x; }
  // A hint that what lies some way behind x will be read soon; a device has other threads to run.
  KORVEX_INLINE static void look_ahead(const double*) {}
  KORVEX_INLINE static Value broadcast(double x) { return x; }
  KORVEX_INLINE static Bits bits(Value x) { return to_bits(x); }
  // x * y - product, where product is RN(x * y); see korvex/arithmetic/base/eft.h for when it is
  // exact.
  KORVEX_INLINE static Value error_of_product(Value x, Value y, Value product) {
    return product_error(x, y, product);
  }
  // All bits of the lanes where |x| < limit, no bits of the others.
  KORVEX_INLINE static Bits is_below(Value x, double limit) {
    return x < limit && x > -limit ? ~Bits{0} : 0;
  }
  // One lane of it, as a 64-bit integer.
  KORVEX_INLINE static std::int64_t units(Bits bits, int) {
    return static_cast<std::int64_t>(bits);
  }
  // All bits that any lane has set.
  KORVEX_INLINE static std::uint64_t any(Bits bits) { return bits; }
  // The sum over the lanes, as 64-bit integers.
  KORVEX_INLINE static std::int64_t total(Bits bits) { return static_cast<std::int64_t>(bits); }
};

}  // namespace korvex::arithmetic
