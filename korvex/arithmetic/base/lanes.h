// SPDX-License-Identifier: Apache-2.0
// Lanes of one double: how a device thread, or a host without vectors, runs the loops that are
// written once for any number of parallel lanes.
//
// A lane type has the members of ScalarLanes, and its Value and Bits have the functions of a double
// and of its bits, by the same names: add_rn, to_bits, lane and so on. No result depends on
// which lane type runs.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/portability.h"

namespace korvex::arithmetic {

// The one lane of each.
KORVEX_INLINE double lane(double x, int) { return x; }
KORVEX_INLINE std::uint64_t lane(std::uint64_t bits, int) { return bits; }
KORVEX_INLINE bool lane(bool flag, int) { return flag; }
KORVEX_INLINE bool all(bool flag) { return flag; }

struct ScalarLanes {
  using Value = double;
  using Bits = std::uint64_t;
  static constexpr int kCount = 1;  // doubles in a Value
  // Of a biased cascade; with more of them the long accumulator is faster.
  static constexpr int kMaxSlices = 4;
  // Whether a cascade for a window of exponents is tried first.
  static constexpr bool kTriesWindow = false;

  KORVEX_INLINE static Value load(const double* x) { return *x; }
  KORVEX_INLINE static void store(double* out, Value x) { *out = x; }
  // A hint that what lies some way behind x will be read soon. A device needs none: its other
  // threads run while one waits.
  KORVEX_INLINE static void look_ahead(const double*) {}
  // Some bit of each lane where |x| < limit, no bits of the others.
  KORVEX_INLINE static Bits is_below(Value x, double limit) {
    return x < limit && x > -limit ? ~Bits{0} : 0;
  }
  // All bits that any lane has set.
  KORVEX_INLINE static std::uint64_t any(Bits bits) { return bits; }
  // The sum over the lanes, as 64-bit integers.
  KORVEX_INLINE static std::int64_t total(Bits bits) { return static_cast<std::int64_t>(bits); }
};

}  // namespace korvex::arithmetic
