// SPDX-License-Identifier: Apache-2.0
// Exact sums of many segments at once: two doubles for each, and a long accumulator for the few
// that two doubles do not hold.
//
// A term goes into the sum by TwoSum (Knuth, TAOCP 2, 4.2.2), and the error of that into the sum of
// errors, by TwoSum again. The second addition has an error of its own only where the two doubles
// cannot hold the value: that error, or a term that overflows or is not finite, goes to the wide
// part of its segment. So nothing is ever rounded away, and no order of the terms shows.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/bignum/long_accumulator.h"
#include "korvex/arithmetic/exact/counted_sum.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/result_format.h"

namespace korvex::host {

// The sums of segments with so many columns each.
class SegmentSums {
 public:
  static constexpr std::int64_t kAhead = 16;  // terms whose segments' memory is worth asking for

  SegmentSums(std::int64_t segments, std::int64_t columns)
      : segments_(segments),
        columns_(columns),
        pairs_(static_cast<std::size_t>(2 * segments * columns)) {}

  // Adds x[i] to a column of segment[i], for i = 0 to count - 1. The sums of a segment stay in
  // registers while it is that of the next x too: in memory each addition would wait for the store
  // of the one before.
  void add_column(const std::int64_t* segment, std::int64_t column, const double* x,
                  std::int64_t count) {
    for (std::int64_t i = 0; i < count;) {
      look_ahead(segment[std::min(i + kAhead, count - 1)], column);
      const std::int64_t own = segment[i];
      double* const pair = sum_of(own, column);
      double sum = pair[0];
      double error = pair[columns_];
      bool is_held = true;
      do {
        const auto total = arithmetic::two_sum(sum, x[i]);            // exact unless it overflows
        const auto errors = arithmetic::two_sum(error, total.error);  // exact likewise
        is_held = errors.error == 0;                                  // not after an overflow: NaN
        if (!is_held) [[unlikely]] {
          break;
        }
        sum = total.value;
        error = errors.value;
        ++i;
      } while (i < count && segment[i] == own);
      pair[0] = sum;
      pair[columns_] = error;
      if (!is_held) [[unlikely]] {
        add_to_wide(own, column, x[i++]);
      }
    }
  }

  // Adds `count` numbers side by side to the columns from `column` on.
  KORVEX_INLINE void add_row(std::int64_t segment, std::int64_t column, const double* x,
                             std::int64_t count) {
    std::int64_t i = 0;
    for (; i + arithmetic::kHostLanes <= count; i += arithmetic::kHostLanes) {
      add_lanes(segment, column + i, x + i);
    }
    for (; i < count; ++i) {
      add(segment, column + i, x[i]);
    }
  }

  // Asks for the memory of a segment that will be added to soon.
  KORVEX_INLINE void look_ahead(std::int64_t segment, std::int64_t column) const {
    __builtin_prefetch(sum_of(segment, column), 1);
  }

  // Adds all that other sums of as many outputs hold.
  void add(const SegmentSums& other);

  // One sum, rounded once; null: to float64.
  double rounded(std::int64_t segment, std::int64_t column,
                 const arithmetic::NarrowFormat* narrow) const;

 private:
  struct Wide {
    Wide() { sum.clear(); }
    arithmetic::LongAccumulator sum;
    arithmetic::TermCounts counts;
  };

  double* sum_of(std::int64_t segment, std::int64_t column) {
    return pairs_.data() + 2 * segment * columns_ + column;
  }
  const double* sum_of(std::int64_t segment, std::int64_t column) const {
    return pairs_.data() + 2 * segment * columns_ + column;
  }

  KORVEX_INLINE void add(std::int64_t segment, std::int64_t column, double x) {
    double* const sum = sum_of(segment, column);
    double* const error = sum + columns_;
    const auto total = arithmetic::two_sum(*sum, x);
    const auto errors = arithmetic::two_sum(*error, total.error);
    if (errors.error == 0) [[likely]] {
      *sum = total.value;
      *error = errors.value;
    } else {
      add_to_wide(segment, column, x);
    }
  }

  KORVEX_INLINE void add_lanes(std::int64_t segment, std::int64_t column, const double* x) {
    using arithmetic::HostLanes;
    double* const sum = sum_of(segment, column);
    double* const error = sum + columns_;
    const auto total = arithmetic::two_sum(HostLanes::load(sum), HostLanes::load(x));
    const auto errors = arithmetic::two_sum(HostLanes::load(error), total.error);
    if (all(errors.error == arithmetic::HostDoubles(0.0))) [[likely]] {
      HostLanes::store(sum, total.value);
      HostLanes::store(error, errors.value);
      return;
    }
    for (int i = 0; i < arithmetic::kHostLanes; ++i) {
      add(segment, column + i, x[i]);
    }
  }

  KORVEX_COLD void add_to_wide(std::int64_t segment, std::int64_t column, double x);
  Wide& wide_of(std::int64_t output);
  // Null where it has none.
  const Wide* find_wide(std::int64_t output) const {
    const std::uint32_t slot = slots_.empty() ? 0 : slots_[static_cast<std::size_t>(output)];
    return slot == 0 ? nullptr : &wide_[slot - 1];
  }

  std::int64_t segments_;
  std::int64_t columns_;
  // By segment: the sums of its columns, then the sums of their errors. An output's value is the
  // exact sum of its two doubles, both finite, and of its wide part.
  std::vector<double> pairs_;
  std::vector<std::uint32_t> slots_;  // empty while wide_ is; else by output: 0, or 1 + its place
  std::deque<Wide> wide_;
};

}  // namespace korvex::host
