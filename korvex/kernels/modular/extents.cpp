// SPDX-License-Identifier: Apache-2.0
// Highest and lowest bits of elements, a vector at a time.
#include "korvex/kernels/modular/extents.h"

#include <algorithm>

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/kernels/modular/double_lanes.h"

namespace korvex::modular {

Extent ExtentCollector::extent() const {
  if (largest == 0) {
    return {0, 0};
  }
  const auto bits = static_cast<std::uint64_t>(largest);
  if (bits >= arithmetic::kInfinityBits) {
    return {Extent::kNotFinite, 0};
  }
  const double top = arithmetic::from_bits(bits);
  const int highest = 64 - arithmetic::leading_zeros(arithmetic::significand(top));
  return {static_cast<std::int16_t>(highest + arithmetic::shift(top) + arithmetic::kUnitExponent),
          static_cast<std::int16_t>(lowest)};
}

#ifdef KORVEX_HAS_DOUBLE_CODE

namespace {

// The exponent of the lowest bit is that of the lowest bit of the significand, as a double, and the
// shift of the significand. Lanes of zero keep what they have.
KORVEX_INLINE void collect(Doubles x, Integers& largest, Integers& lowest) {
  const Integers magnitude = reinterpret_cast<Integers>(magnitude_of(x));
  largest = magnitude > largest ? magnitude : largest;
  const Integers field = magnitude >> arithmetic::kFractionBits;
  const Integers fraction = magnitude & static_cast<std::int64_t>(arithmetic::kFractionMask);
  const Integers hidden_bit =
      (field != 0) & static_cast<std::int64_t>(arithmetic::kFractionMask + 1);
  const Integers significand = fraction | hidden_bit;
  const Integers lowest_bit = significand & -significand;
  // Added to the bits of 2^52, an integer up to 2^52 becomes its lowest ones.
  const std::int64_t shifter = static_cast<std::int64_t>(arithmetic::exponent_bits(1023 + 52));
  const Doubles as_double = reinterpret_cast<Doubles>(lowest_bit + shifter) - 0x1p+52;
  const Integers place = reinterpret_cast<Integers>(as_double) >> arithmetic::kFractionBits;
  const Integers shift = field - 1 - (field == 0);  // 0 for subnormal numbers too
  const Integers exponent = place + shift + (arithmetic::kUnitExponent - arithmetic::kExponentBias);
  lowest = ((magnitude != 0) & (exponent < lowest)) ? exponent : lowest;
}

// Doubles that may be less than a vector; those beyond the last are zeros.
KORVEX_INLINE Doubles load_some(const double* x, std::int64_t count) {
  double padded[kDoubleLanes] = {};
  std::copy(x, x + count, padded);
  return load<Doubles>(padded);
}

}  // namespace

void collect_along(const double* x, std::int64_t count, ExtentCollector& line) {
  Integers largest = line.largest + Integers{};
  Integers lowest = line.lowest + Integers{};
  std::int64_t i = 0;
  for (; i + kDoubleLanes <= count; i += kDoubleLanes) {
    collect(load<Doubles>(x + i), largest, lowest);
  }
  if (i < count) {
    collect(load_some(x + i, count - i), largest, lowest);
  }
  for (int lane = 0; lane < kDoubleLanes; ++lane) {
    line.largest = std::max<std::int64_t>(line.largest, largest[lane]);
    line.lowest = std::min<std::int64_t>(line.lowest, lowest[lane]);
  }
}

void collect_across(const double* x, std::int64_t count, std::int64_t* largest,
                    std::int64_t* lowest) {
  std::int64_t i = 0;
  for (; i + kDoubleLanes <= count; i += kDoubleLanes) {
    Integers large = load<Integers>(largest + i);
    Integers low = load<Integers>(lowest + i);
    collect(load<Doubles>(x + i), large, low);
    store(large, largest + i);
    store(low, lowest + i);
  }
  for (; i < count; ++i) {
    Integers large = largest[i] + Integers{};
    Integers low = lowest[i] + Integers{};
    collect(load_some(x + i, 1), large, low);
    largest[i] = large[0];
    lowest[i] = low[0];
  }
}

#else

void collect_along(const double*, std::int64_t, ExtentCollector&) {}
void collect_across(const double*, std::int64_t, std::int64_t*, std::int64_t*) {}

#endif

}  // namespace korvex::modular
