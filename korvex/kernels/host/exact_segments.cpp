// SPDX-License-Identifier: Apache-2.0
// Sums of the rows of an array by segment, each element of the result exact and rounded once.
//
// Threads take neighbouring rows, and each has sums of its own, which are added up at the end.
// There are fewer threads where that would cost more than it gains.
#include "korvex/kernels/host/exact_segments.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <type_traits>

#include "korvex/kernels/host/converted_block.h"
#include "korvex/kernels/host/exact_calls.h"
#include "korvex/kernels/host/result_format.h"

namespace korvex::host {

// ---- The sums

KORVEX_COLD void SegmentSums::add_to_wide(std::int64_t segment, std::int64_t column, double x) {
  Wide& wide = wide_of(segment * columns_ + column);
  if (!arithmetic::is_finite(x)) {
    wide.counts.note(x);
    return;
  }
  double* const sum = sum_of(segment, column);
  double* const error = sum + columns_;
  const auto total = arithmetic::two_sum(*sum, x);
  const auto errors = arithmetic::two_sum(*error, total.error);
  if (arithmetic::is_finite(errors.error)) {
    *sum = total.value;
    *error = errors.value;
    wide.sum.add(errors.error);
  } else {  // something overflowed
    wide.sum.add(x);
  }
}

SegmentSums::Wide& SegmentSums::wide_of(std::int64_t output) {
  if (slots_.empty()) {
    slots_.resize(pairs_.size() / 2);
  }
  std::uint32_t& slot = slots_[static_cast<std::size_t>(output)];
  if (slot == 0) {
    wide_.emplace_back();
    slot = static_cast<std::uint32_t>(wide_.size());
  }
  return wide_[slot - 1];
}

void SegmentSums::add(const SegmentSums& other) {
  for (std::int64_t segment = 0; segment < segments_; ++segment) {
    const double* const sums = other.sum_of(segment, 0);
    add_row(segment, 0, sums, columns_);
    add_row(segment, 0, sums + columns_, columns_);
  }
  for (std::size_t output = 0; output < other.slots_.size(); ++output) {
    const Wide* const wide = other.find_wide(static_cast<std::int64_t>(output));
    if (wide != nullptr) {
      Wide& own = wide_of(static_cast<std::int64_t>(output));
      own.sum.add(wide->sum);
      own.counts.add(wide->counts, 1);
    }
  }
}

double SegmentSums::rounded(std::int64_t segment, std::int64_t column,
                            const arithmetic::NarrowFormat* narrow) const {
  const double* const sum = sum_of(segment, column);
  const Wide* const found = find_wide(segment * columns_ + column);
  if (found == nullptr) {
    const auto value = arithmetic::two_sum(sum[0], sum[columns_]);  // exact unless it overflows
    const double once = rounded_once(value.value, sign_of(value.error), narrow);
    return arithmetic::add_rn(once, 0.0);  // -0 to +0
  }
  if (!found->counts.is_finite()) {
    return found->counts.special();
  }
  arithmetic::LongAccumulator whole = found->sum;
  whole.add(sum[0]);
  whole.add(sum[columns_]);
  double nearest;
  whole.round(&nearest, 1);
  return rounded_once(nearest, whole.sign(), narrow);
}

// ---- The walk over rows

namespace {

// Where numbers lie side by side and aligned; else null.
template <class Number>
const Number* in_place(const char* at, std::int64_t stride) {
  const bool is_aligned = reinterpret_cast<std::uintptr_t>(at) % sizeof(Number) == 0;
  return stride == sizeof(Number) && is_aligned ? reinterpret_cast<const Number*>(at) : nullptr;
}

// The segments of rows: numbers in an array, or 0, 1, 2 and so on.
class RowSegments {
 public:
  RowSegments(const korvex_exact_array* ids, std::int64_t segments)
      : ids_(ids), segments_(static_cast<std::uint64_t>(segments)) {}

  // Those of `count` rows, where they lie or in `copies`. `valid` becomes how many come before the
  // first that is out of range. Precondition: count <= kBlock.
  const std::int64_t* read(std::int64_t first, std::int64_t count, std::int64_t* copies,
                           std::int64_t& valid) const {
    valid = count;
    if (ids_ == nullptr) {
      std::iota(copies, copies + count, first);
      return copies;
    }
    const char* const at = static_cast<const char*>(ids_->data) + first * ids_->byte_strides[0];
    const std::int64_t* numbers = in_place<std::int64_t>(at, ids_->byte_strides[0]);
    if (ids_->format != KORVEX_FORMAT_INT64 || numbers == nullptr) {
      convert(at, count, copies);
      numbers = copies;
    }
    bool is_valid = true;
    for (std::int64_t i = 0; i < count; ++i) {
      is_valid &= is_segment(numbers[i]);
    }
    if (!is_valid) {
      const auto is_out = [this](std::int64_t id) { return !is_segment(id); };
      valid = std::find_if(numbers, numbers + count, is_out) - numbers;
    }
    return numbers;
  }

 private:
  // Numbers from 2^63 on have become negative, and negative ones large.
  bool is_segment(std::int64_t id) const { return static_cast<std::uint64_t>(id) < segments_; }

  void convert(const char* at, std::int64_t count, std::int64_t* to) const {
    alignas(64) char copied[kBlock * sizeof(std::int64_t)];
    copy_elements(copied, at, bytes_of(ids_->format), ids_->byte_strides[0], count);
    with_format(ids_->format, [&](auto each) {
      using Storage = typename decltype(each)::Storage;
      if constexpr (std::is_integral_v<Storage>) {
        const auto* const numbers = reinterpret_cast<const Storage*>(copied);
        std::transform(numbers, numbers + count, to,
                       [](Storage id) { return static_cast<std::int64_t>(id); });
      }
    });
  }

  const korvex_exact_array* ids_;
  std::uint64_t segments_;
};

// Rows of an array whose columns lie at equal distances; they are columns `first_column` and so on
// of the result.
struct Plane {
  const char* data;
  std::int64_t row_stride;  // bytes, as the next
  std::int64_t column_stride;
  std::int64_t columns;
  std::int64_t first_column;
};

// Some rows and columns of a plane as doubles, row by row.
class Tile {
 public:
  // Precondition: rows * columns <= kBlock.
  void read(const Plane& plane, int format, std::int64_t row, std::int64_t rows,
            std::int64_t column, std::int64_t columns) {
    const char* const at = plane.data + row * plane.row_stride + column * plane.column_stride;
    const std::int64_t stride = columns == 1 ? plane.row_stride : plane.column_stride;
    const bool is_one_run = rows == 1 || plane.row_stride == columns * stride;
    in_place_ =
        format == KORVEX_FORMAT_FLOAT64 && is_one_run ? in_place<double>(at, stride) : nullptr;
    if (in_place_ != nullptr) {
      return;
    }
    const std::int64_t bytes = bytes_of(format);
    const std::int64_t runs = is_one_run ? 1 : rows;
    const std::int64_t run = is_one_run ? rows * columns : columns;
    for (std::int64_t r = 0; r < runs; ++r) {
      copy_elements(copied_ + r * run * bytes, at + r * plane.row_stride, bytes, stride, run);
    }
    block_.convert(format, copied_, rows * columns);
  }

  const double* high() const { return in_place_ != nullptr ? in_place_ : block_.high; }
  const double* low() const { return block_.low; }
  bool has_low() const { return in_place_ == nullptr && block_.has_low; }

 private:
  alignas(64) char copied_[kBlock * sizeof(double)];
  const double* in_place_ = nullptr;
  ConvertedBlock block_;
};

void add_tile(const double* x, const std::int64_t* segments, std::int64_t rows, std::int64_t column,
              std::int64_t columns, SegmentSums& sums) {
  if (columns == 1) {
    sums.add_column(segments, column, x, rows);
    return;
  }
  for (std::int64_t row = 0; row < rows; ++row) {
    sums.look_ahead(segments[std::min(row + SegmentSums::kAhead, rows - 1)], column);
    sums.add_row(segments[row], column, x + row * columns, columns);
  }
}

// Adds rows of a plane. Returns the first row whose segment is out of range, or -1.
std::int64_t add_plane(const Plane& plane, int format, const RowSegments& ids, std::int64_t begin,
                       std::int64_t end, SegmentSums& sums) {
  const std::int64_t tile_columns = std::clamp<std::int64_t>(plane.columns, 1, kBlock);
  const std::int64_t tile_rows = kBlock / tile_columns;
  std::int64_t copies[kBlock];
  Tile tile;
  for (std::int64_t row = begin; row < end; row += tile_rows) {
    const std::int64_t asked = std::min(tile_rows, end - row);
    std::int64_t rows;
    const std::int64_t* const segments = ids.read(row, asked, copies, rows);
    if (rows < asked) {
      return row + rows;
    }
    for (std::int64_t column = 0; column < plane.columns; column += tile_columns) {
      const std::int64_t columns = std::min(tile_columns, plane.columns - column);
      const std::int64_t place = plane.first_column + column;
      tile.read(plane, format, row, rows, column, columns);
      add_tile(tile.high(), segments, rows, place, columns, sums);
      if (tile.has_low()) {
        add_tile(tile.low(), segments, rows, place, columns, sums);
      }
    }
  }
  return -1;
}

// The columns of an array whose first dimension are rows, in the order of the result.
class Rows {
 public:
  explicit Rows(const korvex_exact_array& x) : x_(x) {
    for (int d = 1; d < x.rank; ++d) {
      take_in(x.extents[d], x.byte_strides[d]);
    }
    // Where the next row is nearer than the next column, column by column.
    if (rank_ == 0 || std::abs(inner().stride) > std::abs(x.byte_strides[0])) {
      dimension_[rank_++] = {1, 0};
    }
  }

  std::int64_t count() const { return x_.extents[0]; }
  std::int64_t columns() const { return columns_; }
  int format() const { return x_.format; }

  // Calls visit(plane) for planes that make up all columns, and once where there are none.
  template <class Visit>
  void planes(const Visit& visit) const {
    std::int64_t index[KORVEX_EXACT_MAX_RANK] = {};
    if (columns_ == 0) {
      visit(Plane{nullptr, 0, 0, 0, 0});
      return;
    }
    Plane plane = {static_cast<const char*>(x_.data), x_.byte_strides[0], inner().stride,
                   inner().extent, 0};
    for (;;) {
      visit(plane);
      plane.first_column += plane.columns;
      int d = rank_ - 2;
      for (; d >= 0 && index[d] + 1 == dimension_[d].extent; --d) {
        plane.data -= index[d] * dimension_[d].stride;
        index[d] = 0;
      }
      if (d < 0) {
        return;
      }
      ++index[d];
      plane.data += dimension_[d].stride;
    }
  }

 private:
  struct Dimension {
    std::int64_t extent;
    std::int64_t stride;  // bytes
  };

  // Two dimensions are one where the inner one ends at the next step of the outer one.
  void take_in(std::int64_t extent, std::int64_t stride) {
    columns_ *= extent;
    if (extent == 1) {
      return;
    }
    if (rank_ > 0 && inner().stride == stride * extent) {
      dimension_[rank_ - 1] = {inner().extent * extent, stride};
    } else {
      dimension_[rank_++] = {extent, stride};
    }
  }
  const Dimension& inner() const { return dimension_[rank_ - 1]; }

  const korvex_exact_array& x_;
  std::int64_t columns_ = 1;
  int rank_ = 0;
  Dimension dimension_[KORVEX_EXACT_MAX_RANK];
};

// What one thread finds.
struct Part {
  std::unique_ptr<SegmentSums> sums;  // none of the first thread, which adds to those of the caller
  std::int64_t out_of_range = -1;     // its first row whose segment is
};

// As many as are worth adding up sums of their own.
int range_count_of(const Rows& rows, std::int64_t segments, int threads) {
  const std::int64_t elements = rows.count() * rows.columns();
  if (range_count(elements, 2) == 1) {
    return 1;
  }
  const std::int64_t worth = 1 + rows.count() / (4 * std::max<std::int64_t>(1, segments));
  const int ranges = range_count(elements, usable_threads(threads));
  return static_cast<int>(std::min({worth, rows.count(), std::int64_t{ranges}}));
}

// Adds the rows of an array, each to its segment. Returns the first whose segment is out of range,
// or -1.
std::int64_t add_rows(const Rows& rows, const RowSegments& ids, std::int64_t segments, int threads,
                      SegmentSums& sums) {
  std::int64_t out_of_range = -1;
  const auto add_range = [&](std::int64_t begin, std::int64_t end, Part& part) {
    if (begin > 0) {
      part.sums = std::make_unique<SegmentSums>(segments, rows.columns());
    }
    SegmentSums& own = begin > 0 ? *part.sums : sums;
    rows.planes([&](const Plane& plane) {
      if (part.out_of_range < 0) {
        part.out_of_range = add_plane(plane, rows.format(), ids, begin, end, own);
      }
    });
  };
  const auto join = [&](const Part& part) {
    if (out_of_range < 0) {
      out_of_range = part.out_of_range;
    }
    if (out_of_range < 0 && part.sums != nullptr) {
      sums.add(*part.sums);
    }
  };
  for_each_of_ranges<Part>(rows.count(), range_count_of(rows, segments, threads), add_range, join);
  return out_of_range;
}

}  // namespace

int segment_sums(const korvex_exact_array* x, const korvex_exact_array* ids, int64_t segments,
                 const korvex_exact_array* initial, int format, int threads, void* out,
                 int64_t* out_of_range) {
  return run_guarded([&]() -> int {
    const Rows rows(*x);
    SegmentSums sums(segments, rows.columns());
    if (initial != nullptr) {
      add_rows(Rows(*initial), RowSegments(nullptr, segments), segments, 1, sums);
    }
    *out_of_range = add_rows(rows, RowSegments(ids, segments), segments, threads, sums);
    if (*out_of_range >= 0) {
      return KORVEX_EXACT_DONE;
    }
    const ResultArray result(out, format);
    const arithmetic::NarrowFormat* narrow = narrow_format(format);
    std::int64_t place = 0;
    for (std::int64_t segment = 0; segment < segments; ++segment) {
      for (std::int64_t column = 0; column < rows.columns(); ++column) {
        result.write(place++, sums.rounded(segment, column, narrow));
      }
    }
    return KORVEX_EXACT_DONE;
  });
}

}  // namespace korvex::host
