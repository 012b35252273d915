// SPDX-License-Identifier: Apache-2.0
// Walks over the elements of one array, or over pairs of two of one shape, in an order that suits
// the first one's memory, and hands out pieces in which they lie side by side.
//
// Arrays whose elements lie side by side are handed out where they are; others are copied, a piece
// at a time, to a block that stays in the first cache. No order shows in an exact sum.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "korvex/kernels/host/exact.h"
#include "korvex/kernels/host/formats.h"
#include "korvex/kernels/host/function_reference.h"

namespace korvex::host {

constexpr std::int64_t kBlock = 2048;    // elements that are copied at a time
constexpr std::int64_t kLongRun = 1024;  // elements side by side that are worth no copy

// Copies elements of so many bytes that lie `stride` bytes apart, to lie side by side.
void copy_elements(char* to, const char* from, std::int64_t bytes, std::int64_t stride,
                   std::int64_t count);

template <int kArrays>
class ArrayWalk {
 public:
  using Visit = FunctionReference<void(const char* const*, std::int64_t)>;

  // Precondition: all have the extents of the first.
  explicit ArrayWalk(const korvex_exact_array* const (&arrays)[kArrays]) {
    for (int a = 0; a < kArrays; ++a) {
      origin_[a] = static_cast<const char*>(arrays[a]->data);
      bytes_[a] = bytes_of(arrays[a]->format);
    }
    for (int d = 0; d < arrays[0]->rank; ++d) {
      take_in(arrays, d);
    }
    if (size_ == 0) {
      return;
    }
    std::sort(dimension_, dimension_ + rank_,
              [](const Dimension& a, const Dimension& b) { return a.reach() > b.reach(); });
    merge();
    if (rank_ == 0) {
      dimension_[rank_++] = {1, {}};
      std::copy(bytes_, bytes_ + kArrays, dimension_[0].stride);
    }
    move_to({});
  }

  // Goes on in arrays of the same layout, so many bytes after those that were given.
  void move_to(const std::int64_t (&bytes)[kArrays]) {
    is_side_by_side_ = rank_ == 1 || last().extent >= kLongRun;
    for (int a = 0; a < kArrays; ++a) {
      base_[a] = origin_[a] + bytes[a];
      is_side_by_side_ = is_side_by_side_ && is_in_place(a);
    }
  }

  std::int64_t size() const { return size_; }

  // Calls visit(pointers, count) for the elements of numbers begin to end - 1 of the walk; the
  // pointers are those to the first element of each array's piece.
  void pieces(std::int64_t begin, std::int64_t end, Visit visit) const {
    if (is_side_by_side_) {
      runs(begin, end, visit);
    } else {
      copied_pieces(begin, end, visit);
    }
  }

 private:
  struct Dimension {
    std::int64_t extent;
    std::int64_t stride[kArrays];
    // Outer dimensions reach further; repeated elements are outermost.
    std::uint64_t reach() const {
      return static_cast<std::uint64_t>(stride[0]) - 1;  // not negative; 0 becomes the largest
    }
  };

  // Runs backwards along a dimension where that is forwards in the first array's memory.
  void take_in(const korvex_exact_array* const (&arrays)[kArrays], int d) {
    const std::int64_t extent = arrays[0]->extents[d];
    size_ *= extent;
    if (extent <= 1) {
      return;
    }
    const bool is_backwards = arrays[0]->byte_strides[d] < 0;
    Dimension& taken = dimension_[rank_++];
    taken.extent = extent;
    for (int a = 0; a < kArrays; ++a) {
      const std::int64_t stride = arrays[a]->byte_strides[d];
      taken.stride[a] = is_backwards ? -stride : stride;
      origin_[a] += is_backwards ? stride * (extent - 1) : 0;
    }
  }

  // Two dimensions are one where the inner one ends at the next step of the outer one.
  void merge() {
    int merged = 0;
    for (int d = 1; d < rank_; ++d) {
      Dimension& outer = dimension_[merged];
      const Dimension& inner = dimension_[d];
      bool is_one = true;
      for (int a = 0; a < kArrays; ++a) {
        is_one = is_one && outer.stride[a] == inner.stride[a] * inner.extent;
      }
      if (is_one) {
        const std::int64_t extent = outer.extent * inner.extent;
        outer = inner;
        outer.extent = extent;
      } else {
        dimension_[++merged] = inner;
      }
    }
    rank_ = rank_ == 0 ? 0 : merged + 1;
  }

  const Dimension& last() const { return dimension_[std::max(rank_ - 1, 0)]; }

  // Side by side and aligned.
  bool is_in_place(int a) const {
    bool is_aligned = reinterpret_cast<std::uintptr_t>(base_[a]) % unsigned_bytes(a) == 0;
    for (int d = 0; d < rank_; ++d) {
      is_aligned = is_aligned && dimension_[d].stride[a] % bytes_[a] == 0;
    }
    return is_aligned && last().stride[a] == bytes_[a];
  }
  std::uintptr_t unsigned_bytes(int a) const { return static_cast<std::uintptr_t>(bytes_[a]); }

  // Calls visit(pointers, count) for runs along the last dimension.
  void runs(std::int64_t begin, std::int64_t end, Visit visit) const {
    std::int64_t index[KORVEX_EXACT_MAX_RANK];
    index[0] = 0;
    const char* at[kArrays];
    std::copy(base_, base_ + kArrays, at);
    std::int64_t rest = begin;
    for (int d = rank_ - 1; d >= 0; --d) {
      index[d] = rest % dimension_[d].extent;
      rest /= dimension_[d].extent;
      move(at, d, index[d]);
    }
    while (begin < end) {
      const int inner = std::max(rank_ - 1, 0);
      const std::int64_t count = std::min(last().extent - index[inner], end - begin);
      visit(at, count);
      begin += count;
      index[inner] += count;
      move(at, inner, count);
      for (int d = inner; d > 0 && index[d] == dimension_[d].extent; --d) {
        move(at, d, -index[d]);
        index[d] = 0;
        ++index[d - 1];
        move(at, d - 1, 1);
      }
    }
  }

  void move(const char** at, int d, std::int64_t steps) const {
    for (int a = 0; a < kArrays; ++a) {
      at[a] += steps * dimension_[d].stride[a];
    }
  }

  void copied_pieces(std::int64_t begin, std::int64_t end, Visit visit) const {
    alignas(64) char block[kArrays][kBlock * sizeof(double)];
    const char* pieces[kArrays];
    for (int a = 0; a < kArrays; ++a) {
      pieces[a] = block[a];
    }
    std::int64_t filled = 0;
    runs(begin, end, [&](const char* const* at, std::int64_t count) {
      for (std::int64_t first = 0; first < count;) {
        const std::int64_t copied = std::min(count - first, kBlock - filled);
        for (int a = 0; a < kArrays; ++a) {
          const std::int64_t stride = last().stride[a];
          copy_elements(block[a] + filled * bytes_[a], at[a] + first * stride, bytes_[a], stride,
                        copied);
        }
        first += copied;
        filled += copied;
        if (filled == kBlock) {
          visit(pieces, filled);
          filled = 0;
        }
      }
    });
    if (filled > 0) {
      visit(pieces, filled);
    }
  }

  const char* origin_[kArrays];  // where the walk begins in the arrays that were given
  const char* base_[kArrays];    // where it begins now
  std::int64_t bytes_[kArrays];  // of an element
  std::int64_t size_ = 1;        // elements of each array
  int rank_ = 0;
  // Extents above 1 where there is more than one; strides of the first array are not negative.
  Dimension dimension_[KORVEX_EXACT_MAX_RANK];
  bool is_side_by_side_ = false;  // every array, at least along the last dimension
};

extern template class ArrayWalk<1>;
extern template class ArrayWalk<2>;

}  // namespace korvex::host
