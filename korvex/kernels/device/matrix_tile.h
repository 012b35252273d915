// SPDX-License-Identifier: Apache-2.0
// A tile of a matrix product: a block takes it, a thread one element.
//
// Phases of a tile: the block's threads share the exponents of its rows and columns among them,
// once for all elements; each thread takes its element through slices; the few elements that slices
// do not settle take turns with long sums in the memory of the block, kLongSums at a time. A thread
// would else keep a long sum of its own on its stack, which the driver reserves for every thread
// that the device can hold.
//
// Results says what becomes of an element's limbs: store() writes them, or says that they do not
// decide what has to be written; finish() writes an element by way of a long sum, LongSum.
#pragma once

#include <new>

#include "korvex/arithmetic/exact/matrix_product.h"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

constexpr int kLongSums = 8;

// One place for each thread: a row's elements are seen by the threads of that row of the block, a
// column's by those of that column.
template <class LongSum>
struct MatrixMemory {
  arithmetic::FactorRangeOf rows[kMostThreadsOfFunction];
  arithmetic::FactorRangeOf columns[kMostThreadsOfFunction];
  unsigned any_waits;  // not 0: an element of the tile is not written yet
  alignas(LongSum) unsigned char sums[kLongSums][sizeof(LongSum)];
};

// Row by row, without gaps.
struct Factors {
  const double* a;
  const double* b;
  std::int64_t rows;     // of a and of the product
  std::int64_t columns;  // of b and of the product
  std::int64_t depth;    // columns of a, rows of b
};

// A block as a rectangle, and a thread's place in it.
struct TilePlace {
  int x;  // along a row
  int y;
  int width;
  int height;

  KORVEX_INLINE int index() const { return y * width + x; }
};

// All limbs, in three arrays.
struct LimbResults {
  using LongSum = arithmetic::ExactProductSum;

  double* limbs[arithmetic::kElementLimbs];

  KORVEX_INLINE bool store(const double* found, std::int64_t element) const {
    for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
      limbs[limb][element] = found[limb];
    }
    return true;
  }
  KORVEX_INLINE void finish(const arithmetic::ElementOfSlices& slices,
                            const arithmetic::ElementTerms& terms, LongSum& sum,
                            std::int64_t element) const {
    double found[arithmetic::kElementLimbs];
    slices.finish(terms, sum, found);
    store(found, element);
  }
};

template <class Thread, class Results>
class MatrixTile {
 public:
  using Memory = MatrixMemory<typename Results::LongSum>;

  // The element of this thread; beyond the product's ends it has none.
  KORVEX_INLINE MatrixTile(const Thread& thread, const TilePlace& place, const Factors& factors,
                           const Results& results, std::int64_t first_row,
                           std::int64_t first_column, Memory& block)
      : thread_(thread),
        place_(place),
        factors_(factors),
        results_(results),
        block_(block),
        row_(first_row + place.y),
        column_(first_column + place.x) {}

  // All threads of the block together.
  KORVEX_INLINE void write() {
    note_ranges();
    thread_.sync_block();
    bool waits = false;
    if (has_element()) {
      double limbs[arithmetic::kElementLimbs];
      waits = !(element_.try_slices(terms(), plan(), limbs) && results_.store(limbs, element()));
      if (waits) {
        thread_.set_bits_of_block(block_.any_waits, 1U);
      }
    }
    thread_.sync_block();
    if (block_.any_waits != 0) {
      take_turns(waits);
    }
  }

 private:
  KORVEX_INLINE bool has_element() const {
    return row_ < factors_.rows && column_ < factors_.columns;
  }
  KORVEX_INLINE std::int64_t element() const { return row_ * factors_.columns + column_; }
  KORVEX_INLINE arithmetic::ElementTerms terms() const {
    return {factors_.a + row_ * factors_.depth, factors_.b + column_, factors_.columns,
            factors_.depth};
  }

  // Each thread every width-th element of its row, and every height-th of its column.
  KORVEX_INLINE void note_ranges() {
    arithmetic::FactorRangeOf row;
    if (row_ < factors_.rows) {
#pragma unroll 1
      for (std::int64_t k = place_.x; k < factors_.depth; k += place_.width) {
        row.note(factors_.a[row_ * factors_.depth + k]);
      }
    }
    block_.rows[place_.index()] = row;
    arithmetic::FactorRangeOf column;
    if (column_ < factors_.columns) {
#pragma unroll 1
      for (std::int64_t k = place_.y; k < factors_.depth; k += place_.height) {
        column.note(factors_.b[k * factors_.columns + column_]);
      }
    }
    block_.columns[place_.index()] = column;
    if (place_.index() == 0) {
      block_.any_waits = 0;
    }
  }

  KORVEX_INLINE arithmetic::ElementPlan plan() const {
    arithmetic::FactorRangeOf row;
#pragma unroll 1
    for (int x = 0; x < place_.width; ++x) {
      row.add(block_.rows[place_.y * place_.width + x]);
    }
    arithmetic::FactorRangeOf column;
#pragma unroll 1
    for (int y = 0; y < place_.height; ++y) {
      column.add(block_.columns[y * place_.width + place_.x]);
    }
    return arithmetic::ElementPlan::of(row.range(), column.range());
  }

  KORVEX_COLD void take_turns(bool waits) {
    const int threads = place_.width * place_.height;
    for (int turn = 0; turn * kLongSums < threads; ++turn) {
      if (waits && place_.index() / kLongSums == turn) {
        using LongSum = typename Results::LongSum;
        auto& sum = *new (block_.sums[place_.index() % kLongSums]) LongSum;
        results_.finish(element_, terms(), sum, element());
      }
      thread_.sync_block();
    }
  }

  const Thread& thread_;
  const TilePlace& place_;
  const Factors& factors_;
  const Results& results_;
  Memory& block_;
  std::int64_t row_;
  std::int64_t column_;
  arithmetic::ElementOfSlices element_;
};

}  // namespace korvex::kernels
