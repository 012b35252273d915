// SPDX-License-Identifier: Apache-2.0
// Adds elements that lie side by side, or products of pairs of them, to an exact sum: one loop for
// each kind of number format.
#pragma once

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include "korvex/arithmetic/exact/counted_sum.h"
#include "korvex/kernels/host/array_walk.h"
#include "korvex/kernels/host/formats.h"
#include "korvex/kernels/host/lanes.h"

namespace korvex::host {

using arithmetic::ChunkedSum;
using arithmetic::ExactProductSum;
using arithmetic::ExactSum;
using arithmetic::HostLanes;
using arithmetic::kCountedStreams;
using CountedSum = arithmetic::Counted<ExactSum>;
using CountedProductSum = arithmetic::Counted<ExactProductSum>;

// So many halves of 32 bits, and so many integers that are 16 bits long, stay far below the ends of
// the integers that they are added up in.
constexpr std::int64_t kHalvesOfPiece = std::int64_t{1} << 28;
constexpr std::int64_t kShortsOfPiece = std::int64_t{1} << 14;

__extension__ using Int128 = __int128;
__extension__ using Uint128 = unsigned __int128;

// Adds value * 2^exponent.
template <class Sum>
void add_integer(Int128 value, int exponent, Sum& sum) {
  for (int digit = 0; digit < 3; ++digit, exponent += 32) {
    sum.add_scaled(static_cast<std::int64_t>(value & 0xffffffff), exponent);
    value >>= 32;
  }
  sum.add_scaled(static_cast<std::int64_t>(value), exponent);
}

// Adds integer(0) to integer(n - 1), of 64 bits, signed or not.
template <class Integer, class Sum>
void add_integers(const Integer& integer, std::int64_t n, Sum& sum) {
  for (std::int64_t begin = 0; begin < n; begin += kHalvesOfPiece) {
    const std::int64_t end = std::min(n, begin + kHalvesOfPiece);
    std::int64_t high = 0;
    std::int64_t low = 0;
    for (std::int64_t i = begin; i < end; ++i) {
      high += static_cast<std::int64_t>(integer(i) >> 32);
      low += static_cast<std::int64_t>(integer(i) & 0xffffffff);
    }
    sum.add_scaled(high, 32);
    sum.add_scaled(low, 0);
  }
}

// The same for integers of up to 16 bits, or 17 with a sign.
template <class Integer, class Sum>
void add_short_integers(const Integer& integer, std::int64_t n, Sum& sum) {
  std::int64_t total = 0;  // at most 2^16 * 2^46: no more elements fit an address space
  for (std::int64_t begin = 0; begin < n; begin += kShortsOfPiece) {
    const std::int64_t end = std::min(n, begin + kShortsOfPiece);
    std::int32_t part = 0;
    for (std::int64_t i = begin; i < end; ++i) {
      part += integer(i);
    }
    total += part;
  }
  sum.add_scaled(total, 0);
}

// Adds products of 64-bit integers, both signed or both not.
template <class Storage, class Sum>
void add_wide_integer_products(const Storage* x, const Storage* y, std::int64_t n, Sum& sum) {
  using Product = std::conditional_t<std::is_signed_v<Storage>, Int128, Uint128>;
  for (std::int64_t begin = 0; begin < n; begin += kHalvesOfPiece) {
    const std::int64_t end = std::min(n, begin + kHalvesOfPiece);
    Int128 high = 0;
    Int128 low = 0;
    for (std::int64_t i = begin; i < end; ++i) {
      const Product product = static_cast<Product>(x[i]) * static_cast<Product>(y[i]);
      high += static_cast<Int128>(product >> 64);
      low += static_cast<std::uint64_t>(product);
    }
    add_integer(high, 64, sum);
    add_integer(low, 0, sum);
  }
}

// Adds x[0] to x[n - 1].
template <class Format>
void add_elements(const typename Format::Storage* x, std::int64_t n, CountedSum& sum) {
  if constexpr (!Format::kIsInteger) {
    using Terms = arithmetic::CountedTerms<HostLanes, ConvertedElements<Format>, CountedSum>;
    ChunkedSum<HostLanes, kCountedStreams, Terms>(sum).add({{x}}, n);
  } else if constexpr (Format::kIsWide) {
    add_integers([x](std::int64_t i) { return x[i]; }, n, sum);
  } else if constexpr (sizeof(typename Format::Storage) <= 2) {
    add_short_integers(
        [x](std::int64_t i) { return static_cast<std::int32_t>(Format::integer(x[i])); }, n, sum);
  } else {
    for (std::int64_t begin = 0; begin < n; begin += kHalvesOfPiece) {
      const std::int64_t end = std::min(n, begin + kHalvesOfPiece);
      std::int64_t total = 0;
      for (std::int64_t i = begin; i < end; ++i) {
        total += x[i];
      }
      sum.add_scaled(total, 0);
    }
  }
}

// Adds x[i] * y[i] for i = 0 to n - 1.
template <class Format>
void add_products(const typename Format::Storage* x, const typename Format::Storage* y,
                  std::int64_t n, CountedProductSum& sum) {
  if constexpr (std::is_same_v<Format, Float64Format>) {
    using Terms = arithmetic::CountedProducts<HostLanes>;
    ChunkedSum<HostLanes, kCountedStreams, Terms>(sum).add({x, y}, n);
  } else if constexpr (!Format::kIsInteger) {
    using Terms = arithmetic::CountedTerms<HostLanes, ConvertedProducts<Format>, CountedProductSum>;
    ChunkedSum<HostLanes, kCountedStreams, Terms>(sum).add({{x, y}}, n);
  } else if constexpr (Format::kIsWide) {
    add_wide_integer_products(x, y, n, sum);
  } else {
    add_integers(
        [x, y](std::int64_t i) {
          const std::int64_t factor = Format::integer(y[i]);
          if constexpr (std::is_same_v<typename Format::Storage, std::uint32_t>) {
            return static_cast<std::uint64_t>(x[i]) * static_cast<std::uint64_t>(factor);
          } else {
            return Format::integer(x[i]) * factor;  // at most 2^62 in magnitude
          }
        },
        n, sum);
  }
}

}  // namespace korvex::host
