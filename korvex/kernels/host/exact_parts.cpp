// SPDX-License-Identifier: Apache-2.0
// The loops over pieces of a walk: elements, both sums of moments, and products of any two formats.
#include "korvex/kernels/host/exact_parts.h"

#include <algorithm>
#include <cstdint>
#include <memory>

#include "korvex/kernels/host/mixed_products.h"

namespace korvex::host {
namespace {

// Elements of which both sums of the moments are taken while they are in the first cache.
constexpr std::int64_t kMomentsBlock = 2048;

template <class Format>
void add_sum(const ArrayWalk<1>& walk, std::int64_t begin, std::int64_t end, Part& part) {
  ElementAdder<Format> elements(part.sum);
  walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
    elements.add(reinterpret_cast<const typename Format::Storage*>(at[0]), count);
  });
}

template <class Format>
void add_moments(const ArrayWalk<1>& walk, std::int64_t begin, std::int64_t end, Part& part) {
  ElementAdder<Format> elements(part.sum);
  ProductAdder<Format> squares(part.products);
  walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
    const auto* x = reinterpret_cast<const typename Format::Storage*>(at[0]);
    for (std::int64_t first = 0; first < count; first += kMomentsBlock) {
      const std::int64_t block = std::min(kMomentsBlock, count - first);
      // The slower sum first: memory is read while it works.
      squares.add(x + first, x + first, block);
      elements.add(x + first, block);
    }
  });
}

template <class Format>
void add_dot(const ArrayWalk<2>& walk, std::int64_t begin, std::int64_t end, Part& part) {
  using Storage = typename Format::Storage;
  ProductAdder<Format> products(part.products);
  walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
    products.add(reinterpret_cast<const Storage*>(at[0]), reinterpret_cast<const Storage*>(at[1]),
                 count);
  });
}

void add_mixed_dot(const ArrayWalk<2>& walk, const int (&formats)[2], std::int64_t begin,
                   std::int64_t end, Part& part) {
  ConvertedBlock x;
  ConvertedBlock y;
  MixedProductAdder products(part.products);
  walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
    for (std::int64_t first = 0; first < count; first += kBlock) {
      const std::int64_t converted = std::min(kBlock, count - first);
      x.convert(formats[0], at[0] + first * bytes_of(formats[0]), converted);
      y.convert(formats[1], at[1] + first * bytes_of(formats[1]), converted);
      products.add(x, y, converted);
    }
  });
}

}  // namespace

void add_terms(StateKind kind, const int (&formats)[1], const ArrayWalk<1>& walk,
               std::int64_t begin, std::int64_t end, Part& part) {
  with_format(formats[0], [&](auto each) {
    if (kind == StateKind::kSum) {
      add_sum<decltype(each)>(walk, begin, end, part);
    } else {
      add_moments<decltype(each)>(walk, begin, end, part);
    }
  });
}

void add_terms(StateKind, const int (&formats)[2], const ArrayWalk<2>& walk, std::int64_t begin,
               std::int64_t end, Part& part) {
  if (formats[0] != formats[1]) {
    add_mixed_dot(walk, formats, begin, end, part);
    return;
  }
  with_format(formats[0], [&](auto each) { add_dot<decltype(each)>(walk, begin, end, part); });
}

void sum_each(int format, const ArrayWalk<1>& walk, const std::function<bool()>& next,
              const std::function<void(CountedSum&)>& done) {
  with_format(format, [&](auto each) {
    using Format = decltype(each);
    CountedSum sum;
    ElementAdder<Format> elements(sum);
    while (next()) {
      std::construct_at(&sum);  // it leaves the long accumulator alone, as an assignment would not
      walk.pieces(0, walk.size(), [&](const char* const* at, std::int64_t count) {
        elements.add(reinterpret_cast<const typename Format::Storage*>(at[0]), count);
      });
      done(sum);
    }
  });
}

}  // namespace korvex::host
