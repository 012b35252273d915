// SPDX-License-Identifier: Apache-2.0
// The sum of each column of a matrix, exact and rounded once: of the few rows that as many
// processes have sent, say.
//
// A column is added up row by row with TwoSum (Knuth, TAOCP 2, 4.2.2), and so are the errors of
// these additions. Where the additions of errors have none of their own, the sum and the sum of
// errors are the exact value as two doubles, so one addition rounds it. Any other column, and one
// with an infinity or a NaN, is summed again in a long accumulator.
#include <algorithm>
#include <cstdint>

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/exact/exact_state.h"
#include "korvex/kernels/host/converted_block.h"
#include "korvex/kernels/host/exact_calls.h"
#include "korvex/kernels/host/result_format.h"
#include "korvex/kernels/host/terms.h"

namespace korvex::host {
namespace {

using arithmetic::ExactState;
using arithmetic::StateKind;

// Columns side by side; while lost[i] is 0, sum[i] + error[i] is what was added to column i.
struct Columns {
  double sum[kBlock];
  double error[kBlock];
  double lost[kBlock];

  void clear(std::int64_t count) {
    std::fill_n(sum, count, 0.0);
    std::fill_n(error, count, 0.0);
    std::fill_n(lost, count, 0.0);
  }

  void add(const double* x, std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
      const auto total = arithmetic::two_sum(sum[i], x[i]);            // exact
      const auto errors = arithmetic::two_sum(error[i], total.error);  // exact
      sum[i] = total.value;
      error[i] = errors.value;
      lost[i] += arithmetic::absolute(errors.error);  // 0 only where every term is; NaN stays
    }
  }
};

double rounded_in_full(const korvex_exact_array& x, std::int64_t column,
                       const arithmetic::NarrowFormat* narrow) {
  CountedSum sum;
  ConvertedBlock element;
  const char* at = static_cast<const char*>(x.data) + column * x.byte_strides[1];
  for (std::int64_t row = 0; row < x.extents[0]; ++row, at += x.byte_strides[0]) {
    element.gather(x.format, at, 0, 1);
    sum.add(element.high[0]);
    if (element.has_low) {
      sum.add(element.low[0]);
    }
  }
  ExactState state(StateKind::kSum);
  state.add(sum);
  state.add(sum.counts);
  if (narrow != nullptr) {
    return state.round_to(*narrow, false);
  }
  double limb;
  state.round(false, 1, &limb);
  return limb;
}

void write_block(const Columns& columns, const korvex_exact_array& x, std::int64_t first,
                 std::int64_t count, int format, const ResultArray& out) {
  const arithmetic::NarrowFormat* narrow = narrow_format(format);
  for (std::int64_t i = 0; i < count; ++i) {
    const auto value = arithmetic::two_sum(columns.sum[i], columns.error[i]);  // exact
    if (columns.lost[i] == 0 && arithmetic::is_finite(value.value)) {
      const double once = rounded_once(value.value, sign_of(value.error), narrow);
      out.write(first + i, arithmetic::add_rn(once, 0.0));  // -0 to +0
    } else {
      out.write(first + i, rounded_in_full(x, first + i, narrow));
    }
  }
}

void sum_range(const korvex_exact_array& x, std::int64_t begin, std::int64_t end, int format,
               const ResultArray& out) {
  Columns columns;
  ConvertedBlock block;
  for (std::int64_t first = begin; first < end; first += kBlock) {
    const std::int64_t count = std::min(kBlock, end - first);
    columns.clear(count);
    const char* at = static_cast<const char*>(x.data) + first * x.byte_strides[1];
    for (std::int64_t row = 0; row < x.extents[0]; ++row, at += x.byte_strides[0]) {
      block.gather(x.format, at, x.byte_strides[1], count);
      columns.add(block.high, count);
      if (block.has_low) {
        columns.add(block.low, count);
      }
    }
    write_block(columns, x, first, count, format, out);
  }
}

}  // namespace

int column_sums(const korvex_exact_array* x, int format, int threads, void* out) {
  return run_guarded([&]() -> int {
    const ResultArray result(out, format);
    const std::int64_t columns = x->extents[1];
    const int ranges = range_count(columns, 2) == 1 ? 1 : usable_threads(threads);
    for_each_range(columns, ranges, [&](std::int64_t begin, std::int64_t end) {
      sum_range(*x, begin, end, format, result);
    });
    return KORVEX_EXACT_DONE;
  });
}

}  // namespace korvex::host
