// SPDX-License-Identifier: Apache-2.0
// Reductions of many neighbours at a time: of the columns of a matrix, of rows too short for adders
// of their own, of what as many processes have sent.
//
// Columns hold something of each neighbour, to which rows are added. Where that does not decide the
// result of a neighbour, it is worked out again from copies (exact_tiles.cpp).
//
// Where a row is short and the next one begins where it ends, several are one row of as many more
// columns, which are added up at the end. A thread holds its columns and 48 KiB for a row that is
// converted; nothing grows with the array.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "korvex/kernels/host/converted_block.h"
#include "korvex/kernels/host/exact_axes.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {

constexpr int kRows = 8;  // that are added while a column is in registers
// Columns whose elements do not lie side by side are fewer: what a row of them is read from should
// stay in the first cache for the rows beside it.
constexpr std::int64_t kPanelBytes = 16384;
constexpr std::int64_t kLeastColumns = 64;

// Rows on their way into columns: those that are doubles in place wait for each other, others are
// converted one by one.
template <class Columns>
class RowAdder {
 public:
  RowAdder(const AxisReduction<1>& reduction, Columns& columns)
      : columns_(columns),
        format_(reduction.formats[0]),
        stride_(reduction.outputs.last().stride[0]) {}

  void add(const char* row, std::int64_t count) {
    const bool is_in_place = format_ == KORVEX_FORMAT_FLOAT64 && stride_ == sizeof(double) &&
                             reinterpret_cast<std::uintptr_t>(row) % sizeof(double) == 0;
    if (!is_in_place) {
      add_converted(row, count);
      return;
    }
    if (count != width_ || waiting_ == kRows) {
      flush();
    }
    width_ = count;
    rows_[waiting_++] = reinterpret_cast<const double*>(row);
  }

  void flush() {
    columns_.add(rows_, waiting_, width_);
    waiting_ = 0;
  }

 private:
  void add_converted(const char* row, std::int64_t count) {
    if (format_ == KORVEX_FORMAT_FLOAT64) {
      copy_elements(reinterpret_cast<char*>(block_.high), row, sizeof(double), stride_, count);
      columns_.add_halves(block_.high, nullptr, count);
      return;
    }
    block_.gather(format_, row, stride_, count);
    columns_.add_halves(block_.high, block_.has_low ? block_.low : nullptr, count);
  }

  Columns& columns_;
  int format_;
  std::int64_t stride_;
  ConvertedBlock block_;
  const double* rows_[kRows];
  int waiting_ = 0;
  std::int64_t width_ = 0;
};

// Columns has the members of SumColumns (exact_column_sums.cpp).
template <class Columns>
class ColumnReduction {
 public:
  ColumnReduction(const AxisReduction<1>& reduction, const ExactResult& result,
                  const ResultArray& out)
      : reduction_(reduction), result_(result), out_(out) {}

  void reduce(int threads) const {
    const std::int64_t outputs = reduction_.outputs.size();
    const std::int64_t elements = reduction_.elements.size();
    // Rows are shared where columns are few: a thread has columns of its own then.
    const bool shares_rows = outputs < 64 * std::int64_t{threads} && elements >= kLeastRange / 64;
    if (shares_rows) {
      panels(0, outputs, [&](const GridPosition<1>& at, std::int64_t count, Columns& columns) {
        for_each_of_ranges<Columns>(
            elements, range_count(elements * count, threads),
            [&](std::int64_t begin, std::int64_t end, Columns& own) {
              start(at, count, own);
              add_rows(at, count, begin, end, own);
            },
            [&](const Columns& own) { columns.join(own, count); });
      });
      return;
    }
    for_each_of_ranges<Nothing>(
        outputs, reduction_.output_ranges(threads),
        [&](std::int64_t begin, std::int64_t end, Nothing&) {
          panels(begin, end, [&](const GridPosition<1>& at, std::int64_t count, Columns& columns) {
            add_rows(at, count, 0, elements, columns);
          });
        },
        [](const Nothing&) {});
  }

 private:
  struct Nothing {};

  // Calls add(position, count, columns) for neighbours, and writes what the columns hold then.
  template <class Add>
  void panels(std::int64_t begin, std::int64_t end, const Add& add) const {
    const auto columns = std::make_unique<Columns>();
    const std::int64_t most = columns_at_once();
    Tile<1> lost;
    reduction_.outputs.runs(begin, end, [&](GridPosition<1> at, std::int64_t count) {
      while (count > 0) {
        const std::int64_t width = std::min(count, most);
        start(at, width, *columns);
        add(at, width, *columns);
        write(*columns, at, width, lost);
        at.move(reduction_.outputs.last(), width);
        count -= width;
      }
    });
    write_lost(lost);
  }

  // The columns hold nothing then, of these outputs, each as often as rows are taken as one.
  void start(const GridPosition<1>& panel, std::int64_t count, Columns& columns) const {
    columns.start(reduction_.base[0] + panel.offset[0], reduction_.formats[0],
                  reduction_.outputs.last().stride[0], count, rows_in_one(count));
  }

  std::int64_t columns_at_once() const {
    const std::int64_t step = std::abs(reduction_.outputs.last().stride[0]) + 1;
    return std::clamp(kPanelBytes / step, kLeastColumns, Columns::kMost);
  }

  // How many rows lie one after the other without a gap and are taken as one.
  std::int64_t rows_in_one(std::int64_t count) const {
    const GridDimension<1>& across = reduction_.outputs.last();
    const GridDimension<1>& down = reduction_.elements.last();
    const bool is_whole = count == across.extent && down.stride[0] == across.stride[0] * count;
    return is_whole ? std::min(down.extent, Columns::kMost / count) : 1;
  }

  // Precondition: the columns hold nothing; so many outputs were what they started with.
  void add_rows(const GridPosition<1>& panel, std::int64_t count, std::int64_t begin,
                std::int64_t end, Columns& columns) const {
    const std::int64_t in_one = rows_in_one(count);
    RowAdder<Columns> rows(reduction_, columns);
    const std::int64_t stride = reduction_.elements.last().stride[0];
    reduction_.elements.runs(begin, end, [&](const GridPosition<1>& at, std::int64_t row_count) {
      const char* row = reduction_.base[0] + panel.offset[0] + at.offset[0];
      std::int64_t i = 0;
      for (; i + in_one <= row_count; i += in_one) {
        rows.add(row + i * stride, in_one * count);
      }
      for (; i < row_count; ++i) {
        rows.add(row + i * stride, count);
      }
    });
    rows.flush();
    for (std::int64_t i = 1; i < in_one; ++i) {
      columns.fold(i * count, count);
    }
  }

  void write(const Columns& columns, GridPosition<1> at, std::int64_t count, Tile<1>& lost) const {
    for (std::int64_t i = 0; i < count; ++i, at.move(reduction_.outputs.last(), 1)) {
      double result;
      if (columns.result(i, result_, reduction_.elements.size(), &result)) {
        out_.write(at.out, result);
        continue;
      }
      lost.at[lost.count++] = at;
      if (lost.count == kTile) {
        write_lost(lost);
        lost.count = 0;
      }
    }
  }

  void write_lost(const Tile<1>& lost) const {
    if (lost.count == 0) {
      return;
    }
    TileParts parts;
    add_tile(reduction_, lost, result_.kind(), 0, reduction_.elements.size(), parts);
    for (int g = 0; g < lost.count; ++g) {
      out_.write(lost.at[g].out, result_.of(parts.part[g]));
    }
  }

  const AxisReduction<1>& reduction_;
  const ExactResult& result_;
  const ResultArray& out_;
};

// Outputs are taken side by side along their longest dimension where the last is short.
template <class Columns>
void reduce_by_columns(AxisReduction<1>& reduction, const ExactResult& result, int threads,
                       const ResultArray& out) {
  constexpr std::int64_t kFewNeighbours = 32;
  const GridDimension<1>& across = reduction.outputs.last();
  const GridDimension<1>& down = reduction.elements.last();
  const bool is_folded = down.stride[0] == across.stride[0] * across.extent;
  if (across.extent * (is_folded ? down.extent : 1) < kFewNeighbours) {
    reduction.outputs.put_longest_last();
  }
  ColumnReduction<Columns>(reduction, result, out).reduce(threads);
}

}  // namespace korvex::host
