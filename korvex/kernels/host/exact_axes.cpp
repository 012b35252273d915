// SPDX-License-Identifier: Apache-2.0
// Reductions along some dimensions of arrays: one correctly rounded output for each index of the
// others.
//
// The layout decides the way: rows, whose elements lie side by side, one after the other by the
// adders of whole arrays; columns of sums and means many at a time; variances and norms of short
// lines by sums of deviations; all others in tiles of a few outputs. Threads share the outputs, or
// the elements of each where outputs are few. Which way it was does not show in the results.
#include "korvex/kernels/host/exact_axes.h"

#include <algorithm>
#include <cstdint>

#include "korvex/kernels/host/exact_calls.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {
namespace {

// ---- Rows

template <int kArrays>
class Rows {
 public:
  Rows(const AxisReduction<kArrays>& reduction, const ExactResult& result, const ResultArray& out)
      : reduction_(reduction), result_(result), out_(out) {}

  void reduce(int threads) const {
    if (reduction_.shares_outputs(threads)) {
      each(0, reduction_.outputs.size(), [&](const ArrayWalk<kArrays>& walk, Part& part) {
        for_each_range<Part>(
            walk.size(), threads,
            [&](std::int64_t begin, std::int64_t end, Part& own) { add(walk, begin, end, own); },
            [&part](const Part& own) { part.add(own); });
      });
      return;
    }
    struct Nothing {};
    for_each_of_ranges<Nothing>(
        reduction_.outputs.size(), reduction_.output_ranges(threads),
        [&](std::int64_t begin, std::int64_t end, Nothing&) {
          if constexpr (kArrays == 1) {
            if (result_.kind() == StateKind::kSum && reduction_.elements.size() > 0) {
              sum_range(begin, end);
              return;
            }
          }
          each(begin, end, [&](const ArrayWalk<kArrays>& walk, Part& part) {
            add(walk, 0, walk.size(), part);
          });
        },
        [](const Nothing&) {});
  }

 private:
  void sum_range(std::int64_t begin, std::int64_t end) const {
    ArrayWalk<1> walk({&reduction_.of_one_output[0]});
    reduction_.outputs.runs(begin, end, [&](GridPosition<1> at, std::int64_t count) {
      sum_each(
          reduction_.formats[0], walk,
          [&] {
            walk.move_to(at.offset);
            return count-- > 0;
          },
          [&](CountedSum& sum) {
            out_.write(at.out, result_.of_sum(sum));
            at.move(reduction_.outputs.last(), 1);
          });
    });
  }

  void add(const ArrayWalk<kArrays>& walk, std::int64_t begin, std::int64_t end, Part& part) const {
    add_terms(result_.kind(), reduction_.formats, walk, begin, end, part);
  }

  // Calls add(walk, part) for outputs, and writes what is in the part then.
  template <class Add>
  void each(std::int64_t begin, std::int64_t end, const Add& add) const {
    const korvex_exact_array* operands[kArrays];
    for (int a = 0; a < kArrays; ++a) {
      operands[a] = &reduction_.of_one_output[a];
    }
    ArrayWalk<kArrays> walk(operands);
    reduction_.outputs.runs(begin, end, [&](GridPosition<kArrays> at, std::int64_t count) {
      for (; count > 0; --count, at.move(reduction_.outputs.last(), 1)) {
        Part part;
        if (walk.size() > 0) {
          walk.move_to(at.offset);
          add(walk, part);
        }
        out_.write(at.out, result_.of(part));
      }
    });
  }

  const AxisReduction<kArrays>& reduction_;
  const ExactResult& result_;
  const ResultArray& out_;
};

// ---- Tiles

template <int kArrays>
class Tiles {
 public:
  Tiles(const AxisReduction<kArrays>& reduction, const ExactResult& result, const ResultArray& out)
      : reduction_(reduction), result_(result), out_(out) {}

  void reduce(int threads) const {
    const std::int64_t elements = reduction_.elements.size();
    if (reduction_.shares_outputs(threads)) {
      each(0, reduction_.outputs.size(), [&](const Tile<kArrays>& tile, TileParts& parts) {
        for_each_range<TileParts>(
            elements, threads,
            [&](std::int64_t begin, std::int64_t end, TileParts& own) {
              add_tile(reduction_, tile, result_.kind(), begin, end, own);
            },
            [&](const TileParts& own) {
              for (int g = 0; g < tile.count; ++g) {
                parts.part[g].add(own.part[g]);
              }
            });
      });
      return;
    }
    struct Nothing {};
    for_each_of_ranges<Nothing>(
        reduction_.outputs.size(), reduction_.output_ranges(threads),
        [&](std::int64_t begin, std::int64_t end, Nothing&) {
          each(begin, end, [&](const Tile<kArrays>& tile, TileParts& parts) {
            add_tile(reduction_, tile, result_.kind(), 0, elements, parts);
          });
        },
        [](const Nothing&) {});
  }

 private:
  template <class Add>
  void each(std::int64_t begin, std::int64_t end, const Add& add) const {
    reduction_.outputs.runs(begin, end, [&](GridPosition<kArrays> at, std::int64_t count) {
      while (count > 0) {
        Tile<kArrays> tile;
        for (; tile.count < kTile && count > 0; ++tile.count, --count) {
          tile.at[tile.count] = at;
          at.move(reduction_.outputs.last(), 1);
        }
        TileParts parts;
        add(tile, parts);
        for (int g = 0; g < tile.count; ++g) {
          out_.write(tile.at[g].out, result_.of(parts.part[g]));
        }
      }
    });
  }

  const AxisReduction<kArrays>& reduction_;
  const ExactResult& result_;
  const ResultArray& out_;
};

// ---- The way

constexpr std::int64_t kLeastRow = 64;  // side by side, that are worth adders of their own

bool has_rows(const AxisReduction<1>& reduction) {
  return reduction.is_along_rows() &&
         (reduction.elements.last().extent >= kLeastRow || reduction.outputs.size() < kTile);
}

void reduce_sums(AxisReduction<1>& reduction, const ExactResult& result, int threads,
                 const ResultArray& out) {
  if (has_rows(reduction) || reduction.elements.size() == 0) {
    Rows<1>(reduction, result, out).reduce(threads);
  } else {
    reduce_columns(reduction, result, threads, out);
  }
}

template <int kArrays>
void reduce_others(const AxisReduction<kArrays>& reduction, const ExactResult& result, int threads,
                   const ResultArray& out) {
  if (reduction.is_along_rows() && !reduction.is_negative) {
    Rows<kArrays>(reduction, result, out).reduce(threads);
  } else {
    Tiles<kArrays>(reduction, result, out).reduce(threads);
  }
}

// False, with nothing done, where the lines are too long, or few enough for threads to share each.
bool reduce_moments(AxisReduction<1>& reduction, const ExactResult& result, int threads,
                    const ResultArray& out) {
  const std::int64_t count = reduction.elements.size();
  if (count == 0 || count > kMostDeviations) {
    return false;
  }
  if (!has_rows(reduction)) {
    reduce_moment_columns(reduction, result, threads, out);
    return true;
  }
  if (threads > 1 && reduction.shares_outputs(threads)) {
    return false;
  }
  reduce_moment_rows(reduction, result, threads, out);
  return true;
}

// Of some dimensions together.
std::int64_t extent_of(const korvex_exact_array& array, int begin, int end) {
  std::int64_t extent = 1;
  for (int d = begin; d < end; ++d) {
    extent *= array.extents[d];
  }
  return extent;
}

}  // namespace

int reduce_axes(const korvex_exact_reduction* task, int format, int threads, void* out) {
  return run_guarded([&]() -> int {
    const korvex_exact_array* const* operands = task->operands;
    if (extent_of(*operands[0], 0, task->kept) == 0) {
      return KORVEX_EXACT_DONE;
    }
    const std::int64_t count = extent_of(*operands[0], task->kept, operands[0]->rank);
    const ExactResult result(task->function, count, task->divisor, task->scale, format);
    const ResultArray results(out, format);
    const int usable = usable_threads(threads);
    if (result.kind() != StateKind::kSum && task->operand_count == 1) {
      AxisReduction<1> one({operands[0]}, task->kept);
      if (reduce_moments(one, result, usable, results)) {
        return KORVEX_EXACT_DONE;
      }
    }
    if (task->operand_count == 4) {
      AxisReduction<4> pairs({operands[0], operands[1], operands[2], operands[3]}, task->kept);
      pairs.is_negative = task->is_negative != 0;
      Tiles<4>(pairs, result, results).reduce(usable);
    } else if (result.kind() == StateKind::kDot) {
      AxisReduction<2> pair({operands[0], operands[task->operand_count - 1]}, task->kept);
      pair.is_negative = task->is_negative != 0;
      reduce_others(pair, result, usable, results);
    } else {
      AxisReduction<1> one({operands[0]}, task->kept);
      if (result.kind() == StateKind::kSum) {
        reduce_sums(one, result, usable, results);
      } else {
        reduce_others(one, result, usable, results);
      }
    }
    return KORVEX_EXACT_DONE;
  });
}

}  // namespace korvex::host
