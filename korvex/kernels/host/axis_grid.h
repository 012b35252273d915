// SPDX-License-Identifier: Apache-2.0
// Positions in arrays of one shape, along some of their dimensions: outputs of a reduction, or the
// elements that one output is made of.
//
// Dimensions are put in an order that suits the first array's memory, and joined where one ends at
// the next step of another. The order of outputs is kept in a step of its own.
#pragma once

#include <algorithm>
#include <cstdint>

#include "korvex/kernels/host/exact.h"

namespace korvex::host {

template <int kArrays>
struct GridDimension {
  std::int64_t extent = 1;
  std::int64_t stride[kArrays] = {};  // in bytes
  std::int64_t out_step = 0;          // from output to output

  std::uint64_t reach() const {
    const std::int64_t bytes = stride[0] < 0 ? -stride[0] : stride[0];
    return static_cast<std::uint64_t>(bytes) - 1;  // 0 becomes the largest: repeated is outermost
  }
  bool continues(const GridDimension& inner) const {
    bool is_one = out_step == inner.out_step * inner.extent;
    for (int a = 0; a < kArrays; ++a) {
      is_one = is_one && stride[a] == inner.stride[a] * inner.extent;
    }
    return is_one;
  }
};

template <int kArrays>
struct GridPosition {
  std::int64_t offset[kArrays] = {};  // in bytes, from the first element
  std::int64_t out = 0;

  void move(const GridDimension<kArrays>& along, std::int64_t steps) {
    for (int a = 0; a < kArrays; ++a) {
      offset[a] += steps * along.stride[a];
    }
    out += steps * along.out_step;
  }
};

template <int kArrays>
class Grid {
 public:
  using Dimension = GridDimension<kArrays>;
  using Position = GridPosition<kArrays>;

  // Dimensions are given from the outermost on, of which arrange() is called once.
  void take_in(const Dimension& dimension) {
    size_ *= dimension.extent;
    if (dimension.extent > 1) {
      dimension_[rank_++] = dimension;
    }
  }

  void arrange() {
    const auto reaches_further = [](const Dimension& a, const Dimension& b) {
      return a.reach() > b.reach();
    };
    for (int d = 1; d < rank_; ++d) {
      Dimension* const place =
          std::upper_bound(dimension_, dimension_ + d, dimension_[d], reaches_further);
      std::rotate(place, dimension_ + d, dimension_ + d + 1);
    }
    int joined = 0;
    for (int d = 1; d < rank_; ++d) {
      const Dimension inner = dimension_[d];
      if (dimension_[joined].continues(inner)) {
        const std::int64_t extent = dimension_[joined].extent * inner.extent;
        dimension_[joined] = inner;
        dimension_[joined].extent = extent;
      } else {
        dimension_[++joined] = inner;
      }
    }
    rank_ = rank_ == 0 ? 0 : joined + 1;
    if (rank_ == 0) {
      dimension_[rank_++] = Dimension{};
    }
  }

  // The longest dimension becomes the innermost.
  void put_longest_last() {
    Dimension* const end = dimension_ + rank_;
    Dimension* const longest =
        std::max_element(dimension_, end, [](const Dimension& a, const Dimension& b) {
          return a.extent <= b.extent;  // the last of several
        });
    std::rotate(longest, longest + 1, end);
  }

  std::int64_t size() const { return size_; }
  const Dimension& last() const { return dimension_[std::max(rank_ - 1, 0)]; }

  // Calls visit(position, count) for the positions of numbers begin to end - 1: `count` of them
  // from that one on, along the last dimension.
  template <class Visit>
  void runs(std::int64_t begin, std::int64_t end, const Visit& visit) const {
    std::int64_t index[KORVEX_EXACT_MAX_RANK + 1];
    index[0] = 0;
    Position at;
    std::int64_t rest = begin;
    for (int d = rank_ - 1; d >= 0; --d) {
      index[d] = rest % dimension_[d].extent;
      rest /= dimension_[d].extent;
      at.move(dimension_[d], index[d]);
    }
    const int inner = std::max(rank_ - 1, 0);
    while (begin < end) {
      const std::int64_t count = std::min(last().extent - index[inner], end - begin);
      visit(at, count);
      begin += count;
      index[inner] += count;
      at.move(last(), count);
      for (int d = inner; d > 0 && index[d] == dimension_[d].extent; --d) {
        at.move(dimension_[d], -index[d]);
        index[d] = 0;
        ++index[d - 1];
        at.move(dimension_[d - 1], 1);
      }
    }
  }

 private:
  std::int64_t size_ = 1;
  int rank_ = 0;  // at least 1 once arranged
  // Extents above 1, unless there is but one position or none; outermost first.
  Dimension dimension_[KORVEX_EXACT_MAX_RANK + 1];
};

}  // namespace korvex::host
