// SPDX-License-Identifier: Apache-2.0
// Sums and means of many neighbours at a time, exact and rounded once.
//
// A column is added up row by row with TwoSum (Knuth, TAOCP 2, 4.2.2), and so are the errors of
// these additions. Where the additions of errors have none of their own, the sum and the sum of
// errors are the exact value as two doubles, which decide the rounding. Any other column, and one
// with an infinity or a NaN, is summed again from copies.
#include <algorithm>
#include <cstdint>

#include "korvex/arithmetic/base/eft.h"
#include "korvex/kernels/host/column_reduction.h"
#include "korvex/kernels/host/exact_calls.h"

namespace korvex::host {
namespace {

// While lost[i] is 0, sum[i] + error[i] is what was added to column i.
struct SumColumns {
  static constexpr std::int64_t kMost = 512;  // side by side

  alignas(64) double sum[kMost];
  alignas(64) double error[kMost];
  alignas(64) double lost[kMost];

  // The columns hold nothing then. What is given are the first elements of the outputs, and how
  // often these are there.
  void start(const char*, int, std::int64_t, std::int64_t, std::int64_t) {
    std::fill_n(sum, kMost, 0.0);
    std::fill_n(error, kMost, 0.0);
    std::fill_n(lost, kMost, 0.0);
  }

  void add(const double* const* rows, int row_count, std::int64_t count) {
    std::int64_t i = 0;
    for (; i + arithmetic::kHostLanes <= count; i += arithmetic::kHostLanes) {
      add_lanes<HostLanes>(rows, row_count, i);
    }
    for (; i < count; ++i) {
      add_lanes<arithmetic::ScalarLanes>(rows, row_count, i);
    }
  }

  // Elements that are high[i] + low[i], or high[i] alone.
  void add_halves(const double* high, const double* low, std::int64_t count) {
    const double* const halves[2] = {high, low};
    add(halves, low != nullptr ? 2 : 1, count);
  }

  // Columns `from` on are added to the first ones.
  void fold(std::int64_t from, std::int64_t count) {
    const double* const rows[2] = {sum + from, error + from};
    add(rows, 2, count);
    for (std::int64_t i = 0; i < count; ++i) {
      lost[i] += lost[from + i];
    }
  }

  void join(const SumColumns& other, std::int64_t count) {
    const double* const rows[2] = {other.sum, other.error};
    add(rows, 2, count);
    for (std::int64_t i = 0; i < count; ++i) {
      lost[i] += other.lost[i];
    }
  }

  // False where they do not tell it.
  bool result(std::int64_t i, const ExactResult& rounding, std::int64_t, double* found) const {
    const auto value = arithmetic::two_sum(sum[i], error[i]);  // exact
    return lost[i] == 0 && arithmetic::is_finite(value.value) &&
           rounding.of_pair(value.value, value.error, true, found);
  }

 private:
  template <class Lanes>
  KORVEX_INLINE void add_lanes(const double* const* rows, int row_count, std::int64_t i) {
    using Value = typename Lanes::Value;
    Value total = Lanes::load(sum + i);
    Value errors = Lanes::load(error + i);
    Value losses = Lanes::load(lost + i);
    for (int row = 0; row < row_count; ++row) {
      const auto next = arithmetic::two_sum(total, Lanes::load(rows[row] + i));  // exact
      const auto rest = arithmetic::two_sum(errors, next.error);                 // exact
      total = next.value;
      errors = rest.value;
      losses = arithmetic::add_rn(
          losses, arithmetic::absolute(rest.error));  // 0 only where every term is; NaN stays
    }
    Lanes::store(sum + i, total);
    Lanes::store(error + i, errors);
    Lanes::store(lost + i, losses);
  }
};

}  // namespace

void reduce_columns(AxisReduction<1>& reduction, const ExactResult& result, int threads,
                    const ResultArray& out) {
  reduce_by_columns<SumColumns>(reduction, result, threads, out);
}

int column_sums(const korvex_exact_array* x, int format, int threads, void* out) {
  const std::int64_t extents[2] = {x->extents[1], x->extents[0]};
  const std::int64_t strides[2] = {x->byte_strides[1], x->byte_strides[0]};
  const korvex_exact_array columns = {x->data, x->format, 2, extents, strides};
  const korvex_exact_reduction task = {KORVEX_EXACT_TOTAL, {&columns}, 1, false, 1, 0, 0};
  return reduce_axes(&task, format, threads, out);
}

}  // namespace korvex::host
