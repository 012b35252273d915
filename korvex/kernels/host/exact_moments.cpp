// SPDX-License-Identifier: Apache-2.0
// Variances, standard deviations and norms of many short lines, each rounded once.
//
// The deviations of a line from its first element, or from 0 for a norm, are added up as two
// doubles with a bound on what is lost (deviations.h). Where that decides the rounding it is the
// result: for nearly all lines but those whose first element is far from all others. Any other
// line, and one with an infinity or a NaN, has its exact moments taken.
#include <algorithm>
#include <cstdint>

#include "korvex/kernels/host/column_reduction.h"
#include "korvex/kernels/host/deviations.h"
#include "korvex/kernels/host/exact_calls.h"

namespace korvex::host {
namespace {

using arithmetic::ScalarLanes;

// ---- Neighbours side by side

// The deviations of each column from its pivot.
template <bool kHasPivot>
struct MomentColumns {
  static constexpr std::int64_t kMost = 256;

  alignas(64) double sum[kMost];
  alignas(64) double sum_rest[kMost];
  alignas(64) double squares[kMost];
  alignas(64) double squares_rest[kMost];
  alignas(64) double seen[kMost];  // bits
  alignas(64) double pivot[kMost];
  alignas(64) double pivot_low[kMost];

  void start(const char* first, int format, std::int64_t stride, std::int64_t count,
             std::int64_t copies) {
    for (double* each : {sum, sum_rest, squares, squares_rest, seen, pivot, pivot_low}) {
      std::fill_n(each, kMost, 0.0);
    }
    if (!kHasPivot) {
      return;
    }
    ConvertedBlock block;
    block.gather(format, first, stride, count);
    for (std::int64_t copy = 0; copy < copies; ++copy) {
      std::copy_n(block.high, count, pivot + copy * count);
      if (block.has_low) {
        std::copy_n(block.low, count, pivot_low + copy * count);
      }
    }
  }

  void add(const double* const* rows, int row_count, std::int64_t count) {
    each_lanes(count, [&](auto lanes, std::int64_t i) {
      using Lanes = decltype(lanes);
      auto held = load<Lanes>(i);
      const auto from = Lanes::load(pivot + i);
      for (int row = 0; row < row_count; ++row) {
        held.add(deviation(Lanes::load(rows[row] + i), from));
      }
      store<Lanes>(i, held);
    });
  }

  void add_halves(const double* high, const double* low, std::int64_t count) {
    if (low == nullptr) {
      return add(&high, 1, count);
    }
    each_lanes(count, [&](auto lanes, std::int64_t i) {
      using Lanes = decltype(lanes);
      auto held = load<Lanes>(i);
      held.add(deviation(Lanes::load(high + i), Lanes::load(low + i), Lanes::load(pivot + i),
                         Lanes::load(pivot_low + i)));
      store<Lanes>(i, held);
    });
  }

  void fold(std::int64_t from, std::int64_t count) { join_from(*this, from, count); }
  void join(const MomentColumns& other, std::int64_t count) { join_from(other, 0, count); }

  bool result(std::int64_t i, const ExactResult& rounding, std::int64_t, double* found) const {
    return rounding.of_deviations(load<ScalarLanes>(i), found);
  }

 private:
  // Calls work(lanes, i) for registers of columns, and then for single ones.
  template <class Work>
  KORVEX_INLINE static void each_lanes(std::int64_t count, const Work& work) {
    std::int64_t i = 0;
    for (; i + arithmetic::kHostLanes <= count; i += arithmetic::kHostLanes) {
      work(HostLanes{}, i);
    }
    for (; i < count; ++i) {
      work(ScalarLanes{}, i);
    }
  }

  void join_from(const MomentColumns& other, std::int64_t from, std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
      auto held = load<ScalarLanes>(i);
      held.join(other.template load<ScalarLanes>(from + i));
      store<ScalarLanes>(i, held);
    }
  }

  template <class Lanes>
  KORVEX_INLINE Deviations<Lanes> load(std::int64_t i) const {
    Deviations<Lanes> held;
    held.sum = Lanes::load(sum + i);
    held.sum_rest = Lanes::load(sum_rest + i);
    held.squares = Lanes::load(squares + i);
    held.squares_rest = Lanes::load(squares_rest + i);
    held.seen = arithmetic::to_bits(Lanes::load(seen + i));
    return held;
  }
  template <class Lanes>
  KORVEX_INLINE void store(std::int64_t i, const Deviations<Lanes>& held) {
    Lanes::store(sum + i, held.sum);
    Lanes::store(sum_rest + i, held.sum_rest);
    Lanes::store(squares + i, held.squares);
    Lanes::store(squares_rest + i, held.squares_rest);
    Lanes::store(seen + i, arithmetic::from_bits(held.seen));
  }
};

// ---- Elements side by side

// The deviations of the elements of a row, several at a time.
class RowDeviations {
 public:
  explicit RowDeviations(bool has_pivot) : needs_pivot_(has_pivot) {}

  KORVEX_COLD void add(const double* high, const double* low, std::int64_t count) {
    if (needs_pivot_) {
      needs_pivot_ = false;
      pivot_ = high[0];
      pivot_low_ = low == nullptr ? 0.0 : low[0];
    }
    constexpr std::int64_t kLanes = arithmetic::kHostLanes;
    std::int64_t i = 0;
    for (; i + kStreams * kLanes <= count; i += kStreams * kLanes) {
      for (int stream = 0; stream < kStreams; ++stream) {
        add_to<HostLanes>(streams_[stream], high, low, i + stream * kLanes);
      }
    }
    for (; i < count; ++i) {
      add_to<ScalarLanes>(last_, high, low, i);
    }
  }

  Deviations<ScalarLanes> joined() const {
    Deviations<ScalarLanes> all = last_;
    for (const Deviations<HostLanes>& stream : streams_) {
      for (int lane = 0; lane < arithmetic::kHostLanes; ++lane) {
        Deviations<ScalarLanes> one;
        one.sum = arithmetic::lane(stream.sum, lane);
        one.sum_rest = arithmetic::lane(stream.sum_rest, lane);
        one.squares = arithmetic::lane(stream.squares, lane);
        one.squares_rest = arithmetic::lane(stream.squares_rest, lane);
        one.seen = arithmetic::lane(stream.seen, lane);
        all.join(one);
      }
    }
    return all;
  }

 private:
  static constexpr int kStreams = 2;  // of dependent additions, side by side

  template <class Lanes>
  KORVEX_INLINE void add_to(Deviations<Lanes>& held, const double* high, const double* low,
                            std::int64_t i) const {
    using Value = typename Lanes::Value;
    if (low == nullptr) {
      held.add(deviation(Lanes::load(high + i), Value(pivot_)));
    } else {
      held.add(
          deviation(Lanes::load(high + i), Lanes::load(low + i), Value(pivot_), Value(pivot_low_)));
    }
  }

  bool needs_pivot_;
  double pivot_ = 0.0;
  double pivot_low_ = 0.0;
  Deviations<HostLanes> streams_[kStreams];
  Deviations<ScalarLanes> last_;
};

class MomentRows {
 public:
  MomentRows(const AxisReduction<1>& reduction, const ExactResult& result, const ResultArray& out)
      : reduction_(reduction), result_(result), out_(out) {}

  void reduce(int threads) const {
    struct Nothing {};
    for_each_of_ranges<Nothing>(
        reduction_.outputs.size(), reduction_.output_ranges(threads),
        [&](std::int64_t begin, std::int64_t end, Nothing&) { reduce_range(begin, end); },
        [](const Nothing&) {});
  }

 private:
  void reduce_range(std::int64_t begin, std::int64_t end) const {
    ArrayWalk<1> walk({&reduction_.of_one_output[0]});
    ConvertedBlock block;
    reduction_.outputs.runs(begin, end, [&](GridPosition<1> at, std::int64_t count) {
      for (; count > 0; --count, at.move(reduction_.outputs.last(), 1)) {
        walk.move_to(at.offset);
        out_.write(at.out, of_row(walk, block));
      }
    });
  }

  double of_row(const ArrayWalk<1>& walk, ConvertedBlock& block) const {
    RowDeviations deviations(result_.kind() == StateKind::kMoments);
    walk.pieces(0, walk.size(), [&](const char* const* at, std::int64_t count) {
      add_piece(at[0], count, block, deviations);
    });
    double result;
    if (result_.of_deviations(deviations.joined(), &result)) {
      return result;
    }
    Part part;
    add_terms(StateKind::kMoments, reduction_.formats, walk, 0, walk.size(), part);
    return result_.of(part);
  }

  void add_piece(const char* piece, std::int64_t count, ConvertedBlock& block,
                 RowDeviations& deviations) const {
    if (reduction_.formats[0] == KORVEX_FORMAT_FLOAT64) {
      deviations.add(reinterpret_cast<const double*>(piece), nullptr, count);
      return;
    }
    for (std::int64_t first = 0; first < count; first += kBlock) {
      const std::int64_t converted = std::min(kBlock, count - first);
      block.convert(reduction_.formats[0], piece + first * reduction_.bytes[0], converted);
      deviations.add(block.high, block.has_low ? block.low : nullptr, converted);
    }
  }

  const AxisReduction<1>& reduction_;
  const ExactResult& result_;
  const ResultArray& out_;
};

}  // namespace

void reduce_moment_rows(const AxisReduction<1>& reduction, const ExactResult& result, int threads,
                        const ResultArray& out) {
  MomentRows(reduction, result, out).reduce(threads);
}

void reduce_moment_columns(AxisReduction<1>& reduction, const ExactResult& result, int threads,
                           const ResultArray& out) {
  if (result.kind() == StateKind::kMoments) {
    reduce_by_columns<MomentColumns<true>>(reduction, result, threads, out);
  } else {
    reduce_by_columns<MomentColumns<false>>(reduction, result, threads, out);
  }
}

}  // namespace korvex::host
