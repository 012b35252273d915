// SPDX-License-Identifier: Apache-2.0
// Running sums along a dimension, of any number format: each the exact sum so far, rounded once.
//
// Lines that are neighbours are scanned together, a block of each in turn, so that lines of a cache
// are read and written once. Threads share the lines. Where these are few, threads share each: as
// in the kernel of the same purpose, the exact sums of ranges come first; then each range is
// scanned from the exact sum of the ranges before it.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/arithmetic/exact/sum.h"
#include "korvex/kernels/host/converted_block.h"
#include "korvex/kernels/host/exact_axes.h"
#include "korvex/kernels/host/exact_calls.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/result_format.h"
#include "korvex/kernels/host/running_limbs.h"

namespace korvex::host {
namespace {

using arithmetic::ExactSum;
using arithmetic::PrefixSum;
using arithmetic::ValueAndError;

constexpr std::int64_t kLineBlock =
    256;  // elements of a line, before its neighbours have their turn

// Elements as doubles: high[i], or where there is a low half high[i] + low[i].
struct Elements {
  const double* high;
  const double* low;
  std::int64_t count;
};

// Elements whose running sums belong together, and where these go.
struct Line {
  const char* data;
  int format;
  std::int64_t stride;  // in bytes
  std::int64_t size;
  std::int64_t first_out;
  std::int64_t out_step;

  // Calls visit(elements, first) for the elements from begin to end - 1, in order.
  template <class Visit>
  void blocks(std::int64_t begin, std::int64_t end, const Visit& visit) const {
    if (is_in_place()) {
      visit(Elements{reinterpret_cast<const double*>(data) + begin, nullptr, end - begin}, begin);
      return;
    }
    ConvertedBlock block;
    for (std::int64_t first = begin; first < end; first += kBlock) {
      const std::int64_t count = std::min(kBlock, end - first);
      block.gather(format, data + first * stride, stride, count);
      visit(Elements{block.high, block.has_low ? block.low : nullptr, count}, first);
    }
  }

 private:
  bool is_in_place() const {
    return format == KORVEX_FORMAT_FLOAT64 && stride == sizeof(double) &&
           reinterpret_cast<std::uintptr_t>(data) % sizeof(double) == 0;
  }
};

// Where a range begins, and the sum of all elements before it.
struct Start {
  std::int64_t begin = 0;
  ExactSum sum;
};

std::vector<Start> starts_of_ranges(const Line& line, int ranges) {
  std::vector<Start> starts;
  ExactSum total;
  for_each_of_ranges<Start>(
      line.size, ranges,
      [&line](std::int64_t begin, std::int64_t end, Start& own) {
        own.begin = begin;
        line.blocks(begin, end, [&](const Elements& x, std::int64_t) {
          arithmetic::add_range<arithmetic::HostLanes>(x.high, x.count, own.sum);
          if (x.low != nullptr) {
            arithmetic::add_range<arithmetic::HostLanes>(x.low, x.count, own.sum);
          }
        });
      },
      [&](const Start& own) {
        starts.push_back({own.begin, total});
        total.add(own.sum);
      });
  return starts;
}

// The sum so far in a format, given its first two limbs. Sums are multiples of 2^-1074, so the
// second limb is 0 only where nothing is left. Where the first limb is the largest double, it may
// stand for a sum that rounds to an infinity.
double result_of(const PrefixSum& prefix, const ValueAndError& limbs,
                 const arithmetic::NarrowFormat* narrow) {
  if (arithmetic::absolute(limbs.value) == arithmetic::kLargest) {
    ExactSum sum;
    sum.add(prefix);
    double nearest;
    sum.round<1>(&nearest);
    return rounded_once(nearest, sign_of(limbs.error), narrow);
  }
  return rounded_once(limbs.value, sign_of(limbs.error), narrow);
}

// Elements of two arrays of doubles, for a RunningSum.
struct Halves {
  const double* high;
  const double* low;

  template <class Sum>
  KORVEX_INLINE bool try_add(Sum& sum, std::int64_t i) const {
    return sum.try_add(high[i]) && sum.try_add(low[i]);
  }
  ValueAndError add_to(PrefixSum& prefix, std::int64_t i) const {
    prefix.next(high[i]);
    return prefix.next(low[i]);
  }
};

void scan(const Line& line, std::int64_t begin, std::int64_t end, int format, RunningSum& prefix,
          const ResultArray& out) {
  const arithmetic::NarrowFormat* narrow = narrow_format(format);
  line.blocks(begin, end, [&](const Elements& x, std::int64_t first) {
    const std::int64_t step = line.out_step;
    const std::int64_t first_out = line.first_out + first * step;
    const auto write_any = [&](std::int64_t i, const ValueAndError& limbs) {
      out.write(first_out + i * step, result_of(prefix, limbs, narrow));
    };
    const auto write_narrow = [&](std::int64_t i, const ValueAndError& limbs) {
      out.write(first_out + i * step, rounded_once(limbs.value, sign_of(limbs.error), narrow));
    };
    double* const doubles = narrow == nullptr ? out.doubles_from(first_out) : nullptr;
    const auto write_double = [doubles, step](std::int64_t i, const ValueAndError& limbs) {
      doubles[i * step] = arithmetic::add_rn(limbs.value, 0.0);  // -0 to +0
    };
    if (x.low != nullptr) {
      prefix.scan(Halves{x.high, x.low}, x.count, write_narrow, write_any);
    } else if (narrow == nullptr) {
      prefix.scan(SingleDoubles{x.high}, x.count, write_double, write_any);
    } else {
      prefix.scan(SingleDoubles{x.high}, x.count, write_narrow, write_any);
    }
  });
}

void scan_by_threads(const Line& line, int ranges, int format, const ResultArray& out) {
  const std::vector<Start> starts =
      ranges == 1 ? std::vector<Start>() : starts_of_ranges(line, ranges);
  for_each_of_ranges<RunningSum>(
      line.size, ranges,
      [&](std::int64_t begin, std::int64_t end, RunningSum& prefix) {
        for (const Start& start : starts) {
          if (start.begin == begin) {
            prefix.start(start.sum);
          }
        }
        scan(line, begin, end, format, prefix, out);
      },
      [](const RunningSum&) {});
}

// A line for each index of the dimensions of an array but the last.
class Lines {
 public:
  Lines(const korvex_exact_array& x, const korvex_exact_running& running, void* out)
      : reduction_({&x}, x.rank - 1),
        running_(running),
        out_(out, running.format),
        size_(x.extents[x.rank - 1]),
        stride_(x.byte_strides[x.rank - 1]) {}

  void scan_all(int threads) const {
    const std::int64_t lines = reduction_.outputs.size();
    if (reduction_.shares_outputs(threads)) {
      each(
          0, lines,
          [&](const Line* group, int) {
            scan_by_threads(*group, range_count(size_, threads), running_.format, out_);
          },
          1);
    } else if (lines > 0) {
      struct Nothing {};
      for_each_of_ranges<Nothing>(
          lines, reduction_.output_ranges(threads),
          [&](std::int64_t begin, std::int64_t end, Nothing&) {
            each(
                begin, end, [&](const Line* group, int count) { scan_group(group, count); }, kTile);
          },
          [](const Nothing&) {});
    }
  }

 private:
  // Calls scan(lines, count) for up to `most` neighbours.
  template <class Scan>
  void each(std::int64_t begin, std::int64_t end, const Scan& scan, int most) const {
    reduction_.outputs.runs(begin, end, [&](GridPosition<1> at, std::int64_t count) {
      while (count > 0) {
        Line group[kTile];
        int taken = 0;
        for (; taken < most && count > 0; ++taken, --count) {
          group[taken] = line_at(at);
          at.move(reduction_.outputs.last(), 1);
        }
        scan(group, taken);
      }
    });
  }

  // The result has dimensions inside of that of the sums: `inner` elements of each of its steps.
  Line line_at(const GridPosition<1>& at) const {
    const std::int64_t initial = running_.has_initial != 0 ? 1 : 0;
    const std::int64_t outer = at.out / running_.inner;
    const std::int64_t begin = outer * (size_ + initial) * running_.inner + at.out % running_.inner;
    if (initial != 0) {
      out_.write(begin, 0.0);
    }
    return {reduction_.base[0] + at.offset[0], reduction_.formats[0], stride_, size_,
            begin + initial * running_.inner,  running_.inner};
  }

  void scan_group(const Line* group, int count) const {
    const auto prefixes = std::make_unique<RunningSum[]>(static_cast<std::size_t>(count));
    for (std::int64_t first = 0; first < size_; first += kLineBlock) {
      const std::int64_t end = std::min(size_, first + kLineBlock);
      for (int g = 0; g < count; ++g) {
        scan(group[g], first, end, running_.format, prefixes[static_cast<std::size_t>(g)], out_);
      }
    }
  }

  AxisReduction<1> reduction_;
  const korvex_exact_running& running_;
  ResultArray out_;
  std::int64_t size_;    // of a line
  std::int64_t stride_;  // in bytes, along it
};

}  // namespace

int cumulative_sum(const korvex_exact_array* x, const korvex_exact_running* running, int threads,
                   void* out) {
  return run_guarded([&]() -> int {
    Lines(*x, *running, out).scan_all(usable_threads(threads));
    return KORVEX_EXACT_DONE;
  });
}

}  // namespace korvex::host
