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

// Adds elements of a format to a sum, array by array; what it learns about their exponents it keeps
// from one array to the next.
template <class Format>
class ElementAdder {
 public:
  using Storage = typename Format::Storage;
  explicit ElementAdder(CountedSum& sum) : chunks_(sum) {}

  // x[0] to x[n - 1].
  void add(const Storage* x, std::int64_t n) { chunks_.add({{x}}, n); }

 private:
  // Doubles are added by the loops that also add the copies of chunks.
  using Source = std::conditional_t<std::is_same_v<Storage, double>, arithmetic::DoublesInMemory,
                                    ConvertedElements<Format>>;
  using Terms = arithmetic::CountedTerms<HostLanes, Source, CountedSum>;
  ChunkedSum<HostLanes, kCountedStreams, Terms> chunks_;
};

template <class Format>
  requires(Format::kIsInteger)
class ElementAdder<Format> {
 public:
  using Storage = typename Format::Storage;
  explicit ElementAdder(CountedSum& sum) : sum_(sum) {}

  // Out of line, as what follows from it in full is long, and the same for sums and moments.
  KORVEX_COLD void add(const Storage* x, std::int64_t n) {
    if constexpr (Format::kIsWide) {
      add_integers([x](std::int64_t i) { return x[i]; }, n, sum_);
    } else if constexpr (sizeof(Storage) <= 2) {
      add_short_integers(
          [x](std::int64_t i) { return static_cast<std::int32_t>(Format::integer(x[i])); }, n,
          sum_);
    } else {
      for (std::int64_t begin = 0; begin < n; begin += kHalvesOfPiece) {
        const std::int64_t end = std::min(n, begin + kHalvesOfPiece);
        std::int64_t total = 0;
        for (std::int64_t i = begin; i < end; ++i) {
          total += x[i];
        }
        sum_.add_scaled(total, 0);
      }
    }
  }

 private:
  CountedSum& sum_;
};

// The same for products of two arrays of one format.
template <class Format>
class ProductAdder {
 public:
  using Storage = typename Format::Storage;
  explicit ProductAdder(CountedProductSum& sum) : chunks_(sum) {}

  // x[i] * y[i] for i = 0 to n - 1.
  KORVEX_COLD void add(const Storage* x, const Storage* y, std::int64_t n) {
    chunks_.add({{x, y}}, n);
  }

 private:
  using Terms = arithmetic::CountedTerms<HostLanes, ConvertedProducts<Format>, CountedProductSum>;
  ChunkedSum<HostLanes, kCountedStreams, Terms> chunks_;
};

template <>
class ProductAdder<Float64Format> {
 public:
  using Storage = double;
  explicit ProductAdder(CountedProductSum& sum) : chunks_(sum) {}

  void add(const double* x, const double* y, std::int64_t n) { chunks_.add({x, y}, n); }

 private:
  ChunkedSum<HostLanes, kCountedStreams, arithmetic::CountedProducts<HostLanes>> chunks_;
};

template <class Format>
  requires(Format::kIsInteger)
class ProductAdder<Format> {
 public:
  using Storage = typename Format::Storage;
  explicit ProductAdder(CountedProductSum& sum) : sum_(sum) {}

  void add(const Storage* x, const Storage* y, std::int64_t n) {
    if constexpr (Format::kIsWide) {
      add_wide_integer_products(x, y, n, sum_);
    } else if constexpr (std::is_same_v<Storage, std::uint32_t>) {
      add_integers([x, y](std::int64_t i) { return std::uint64_t{x[i]} * y[i]; }, n, sum_);
    } else {
      // At most 2^62 in magnitude.
      add_integers([x, y](std::int64_t i) { return Format::integer(x[i]) * Format::integer(y[i]); },
                   n, sum_);
    }
  }

 private:
  CountedProductSum& sum_;
};

}  // namespace korvex::host
