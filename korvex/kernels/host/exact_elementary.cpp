// SPDX-License-Identifier: Apache-2.0
// exp, log, sqrt, sigmoid and tanh of arrays of any layout and format, each element rounded once to
// float64 or to a narrower format.
//
// Blocks of elements become doubles, go through the loops of the kernels of the same names, and are
// narrowed by their bits. What that does not settle is worked out one by one: 64-bit integers that
// are no doubles, midpoints of the narrower format, and results that are 0, subnormal or infinite
// there. Float64 that lies side by side is read and written in place.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "korvex/arithmetic/elementary/any_format.h"
#include "korvex/kernels/host/axis_grid.h"
#include "korvex/kernels/host/converted_block.h"
#include "korvex/kernels/host/exact_calls.h"
#include "korvex/kernels/host/result_format.h"
#include "korvex/kernels/host/unary_ranges.h"

namespace korvex::host {
namespace {

using arithmetic::AnyArgument;
using arithmetic::Elementary;
using arithmetic::NarrowFormat;

UnaryRange* range_of(Elementary function) {
  switch (function) {
    case Elementary::kExp:
      return exp_range;
    case Elementary::kLog:
      return log_range;
    case Elementary::kSqrt:
      return sqrt_range;
    case Elementary::kSigmoid:
      return sigmoid_range;
    default:
      return tanh_range;
  }
}

// Elements between two looks at what is left to do one by one.
constexpr std::int64_t kGroup = 64;

// The results of a format that has as many of a double's bits as these: rounded by integers where
// they are normal in it and the double is no midpoint.
struct NarrowBits {
  std::uint64_t dropped;  // of a double's last bits
  std::uint64_t least;    // normal number, and the largest of all, as bits of doubles
  std::uint64_t largest;

  explicit NarrowBits(const NarrowFormat& format)
      : dropped(static_cast<std::uint64_t>(53 - format.precision)),
        least(arithmetic::to_bits(
            arithmetic::power_of_two(format.unit_exponent + format.precision - 1))),
        largest(arithmetic::to_bits(arithmetic::power_of_two(format.end_exponent)) -
                (std::uint64_t{1} << dropped)) {}

  // Rounds y in place where that is all; returns how many need more, and marks these.
  std::uint64_t round(double* y, std::int64_t count, std::uint64_t* needs_more) const {
    const std::uint64_t half = std::uint64_t{1} << (dropped - 1);
    const std::uint64_t mask = 2 * half - 1;
    std::uint64_t any = 0;
    for (std::int64_t i = 0; i < count; ++i) {
      const std::uint64_t bits = arithmetic::to_bits(y[i]);
      const std::uint64_t magnitude = bits & ~arithmetic::kSignBit;
      const bool is_usual =
          magnitude - least <= largest - least && (bits & mask) != half;  // above least, unsigned
      const std::uint64_t rounded = (bits + (half - 1) + ((bits >> dropped) & 1)) & ~mask;
      y[i] = arithmetic::from_bits(is_usual ? rounded : bits);
      needs_more[i] = is_usual ? 0 : 1;
      any |= needs_more[i];
    }
    return any;
  }
};

// What is done with each element.
struct Mapping {
  Elementary function;
  UnaryRange* range;
  int x_format;
  int out_format;
  const NarrowFormat* narrow;  // null: float64

  // f of each element of the block, to y; in a narrow format, as doubles that it has.
  void evaluate(const ConvertedBlock& x, double* y, std::int64_t count) const {
    if (x.has_low) {
      evaluate_integers(x, y, count);
    } else {
      range(x.high, y, count);
    }
    if (narrow == nullptr) {
      return;
    }
    const NarrowBits bits(*narrow);
    std::uint64_t needs_more[kGroup];
    for (std::int64_t first = 0; first < count; first += kGroup) {
      const std::int64_t members = std::min(kGroup, count - first);
      if (bits.round(y + first, members, needs_more) != 0) {
        for (std::int64_t i = 0; i < members; ++i) {
          if (needs_more[i] != 0) {
            y[first + i] =
                elementary_rounded(function, argument(x, first + i), y[first + i], *narrow);
          }
        }
      }
    }
  }

  // Of 64-bit integers, of which those beyond 2^53 may be no doubles.
  void evaluate_integers(const ConvertedBlock& x, double* y, std::int64_t count) const {
    double nearest[kGroup];
    for (std::int64_t first = 0; first < count; first += kGroup) {
      const std::int64_t members = std::min(kGroup, count - first);
      for (std::int64_t i = 0; i < members; ++i) {
        nearest[i] = x.high[first + i] + x.low[first + i];  // rounded
      }
      range(nearest, y + first, members);
      for (std::int64_t i = 0; i < members; ++i) {
        if (arithmetic::absolute(nearest[i]) >= 0x1p+53) {
          y[first + i] = elementary_nearest(function, argument(x, first + i));
        }
      }
    }
  }

  static AnyArgument argument(const ConvertedBlock& x, std::int64_t i) {
    return x.has_low ? AnyArgument::of(x.high[i], x.low[i]) : AnyArgument{x.high[i], 0.0};
  }

  // Writes doubles that the format of results has, side by side.
  void write(const double* y, std::int64_t count, void* out) const {
    if (out_format == KORVEX_FORMAT_FLOAT64) {
      std::memcpy(out, y, static_cast<std::size_t>(count) * sizeof(double));
      return;
    }
    if (out_format == KORVEX_FORMAT_FLOAT32) {
      auto* const narrowed = static_cast<float*>(out);
      for (std::int64_t i = 0; i < count; ++i) {
        narrowed[i] = static_cast<float>(y[i]);  // exact
      }
      return;
    }
    const ResultArray results(out, out_format);
    for (std::int64_t i = 0; i < count; ++i) {
      results.write(i, y[i]);
    }
  }
};

// An array and its results, which lie side by side in the order of its indices.
class MappedArray {
 public:
  MappedArray(const Mapping& mapping, const korvex_exact_array& x, void* out)
      : mapping_(mapping),
        base_(static_cast<const char*>(x.data)),
        bytes_(bytes_of(x.format)),
        out_(static_cast<char*>(out)),
        out_bytes_(bytes_of(mapping.out_format)) {
    std::int64_t out_step = 1;
    for (int d = 0; d < x.rank; ++d) {
      out_step *= x.extents[d];
    }
    for (int d = 0; d < x.rank; ++d) {
      out_step /= std::max<std::int64_t>(x.extents[d], 1);
      GridDimension<1> dimension;
      dimension.extent = x.extents[d];
      dimension.stride[0] = x.byte_strides[d];
      dimension.out_step = out_step;
      grid_.take_in(dimension);
    }
    grid_.arrange();
  }

  void map(int threads) const {
    for_each_range(grid_.size(), threads, [this](std::int64_t begin, std::int64_t end) {
      if (mapping_.x_format == KORVEX_FORMAT_FLOAT64 && mapping_.narrow == nullptr &&
          lies_side_by_side()) {
        map_in_place(begin, end);
        return;
      }
      for (; begin < end; begin += kBlock) {
        map_block(begin, std::min(end, begin + kBlock));
      }
    });
  }

 private:
  // Along the last dimension, which is long enough for the loop of several lanes.
  bool lies_side_by_side() const {
    const auto& last = grid_.last();
    return last.stride[0] == bytes_ && last.out_step == 1 && last.extent >= kGroup &&
           reinterpret_cast<std::uintptr_t>(base_) % sizeof(double) == 0;
  }

  void map_in_place(std::int64_t begin, std::int64_t end) const {
    grid_.runs(begin, end, [this](const GridPosition<1>& at, std::int64_t count) {
      mapping_.range(reinterpret_cast<const double*>(base_ + at.offset[0]),
                     reinterpret_cast<double*>(out_ + at.out * out_bytes_), count);
    });
  }

  void map_block(std::int64_t begin, std::int64_t end) const {
    alignas(64) char copied[kBlock * sizeof(double)];
    copied[0] = 0;  // g++ warns without: it does not see that there is an element
    std::int64_t filled = 0;
    grid_.runs(begin, end, [&](const GridPosition<1>& at, std::int64_t count) {
      copy_elements(copied + filled * bytes_, base_ + at.offset[0], bytes_, grid_.last().stride[0],
                    count);
      filled += count;
    });
    ConvertedBlock x;
    x.convert(mapping_.x_format, copied, filled);
    alignas(64) double y[kBlock];
    mapping_.evaluate(x, y, filled);
    alignas(64) char results[kBlock * sizeof(double)];
    mapping_.write(y, filled, results);
    const char* next = results;
    grid_.runs(begin, end, [&](const GridPosition<1>& at, std::int64_t count) {
      const std::int64_t step = grid_.last().out_step * out_bytes_;
      char* const to = out_ + at.out * out_bytes_;
      if (step == out_bytes_) {
        std::memcpy(to, next, static_cast<std::size_t>(count * out_bytes_));
      } else {
        for (std::int64_t i = 0; i < count; ++i) {
          std::memcpy(to + i * step, next + i * out_bytes_, static_cast<std::size_t>(out_bytes_));
        }
      }
      next += count * out_bytes_;
    });
  }

  const Mapping& mapping_;
  const char* base_;
  std::int64_t bytes_;  // of an element
  char* out_;
  std::int64_t out_bytes_;
  Grid<1> grid_;
};

static_assert(static_cast<int>(Elementary::kExp) == KORVEX_EXACT_EXP);
static_assert(static_cast<int>(Elementary::kLog) == KORVEX_EXACT_LOG);
static_assert(static_cast<int>(Elementary::kSqrt) == KORVEX_EXACT_SQRT);
static_assert(static_cast<int>(Elementary::kSigmoid) == KORVEX_EXACT_SIGMOID);
static_assert(static_cast<int>(Elementary::kTanh) == KORVEX_EXACT_TANH);

}  // namespace

int map(int function, const korvex_exact_array* x, int format, int threads, void* out) {
  return run_guarded([&]() -> int {
    const auto which = static_cast<Elementary>(function);
    const Mapping mapping{which, range_of(which), x->format, format, narrow_format(format)};
    const MappedArray array(mapping, *x, out);
    array.map(usable_threads(threads));
    return KORVEX_EXACT_DONE;
  });
}

}  // namespace korvex::host
