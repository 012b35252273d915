// SPDX-License-Identifier: Apache-2.0
// Running sums of any number format: each the exact sum so far, rounded once.
//
// As in the kernel of the same purpose, where there are several ranges, their exact sums come
// first; then each range is scanned from the exact sum of the ranges before it.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/arithmetic/exact/sum.h"
#include "korvex/kernels/host/converted_block.h"
#include "korvex/kernels/host/exact_calls.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/result_format.h"

namespace korvex::host {
namespace {

using arithmetic::ExactSum;
using arithmetic::PrefixSum;
using arithmetic::ValueAndError;

// An array of one dimension, block by block.
class Elements {
 public:
  explicit Elements(const korvex_exact_array& x) : x_(x) {}

  std::int64_t size() const { return x_.extents[0]; }

  // Calls visit(block, first, count) for the elements from begin to end - 1, in order.
  template <class Visit>
  void blocks(std::int64_t begin, std::int64_t end, const Visit& visit) const {
    ConvertedBlock block;
    const std::int64_t stride = x_.byte_strides[0];
    for (std::int64_t first = begin; first < end; first += kBlock) {
      const std::int64_t count = std::min(kBlock, end - first);
      block.gather(x_.format, static_cast<const char*>(x_.data) + first * stride, stride, count);
      visit(block, first, count);
    }
  }

 private:
  const korvex_exact_array& x_;
};

// Where a range begins, and the sum of all elements before it.
struct Start {
  std::int64_t begin = 0;
  ExactSum sum;
};

std::vector<Start> starts_of_ranges(const Elements& x, int ranges) {
  std::vector<Start> starts;
  ExactSum total;
  for_each_of_ranges<Start>(
      x.size(), ranges,
      [&x](std::int64_t begin, std::int64_t end, Start& own) {
        own.begin = begin;
        x.blocks(begin, end, [&](const ConvertedBlock& block, std::int64_t, std::int64_t count) {
          arithmetic::add_range<arithmetic::HostLanes>(block.high, count, own.sum);
          if (block.has_low) {
            arithmetic::add_range<arithmetic::HostLanes>(block.low, count, own.sum);
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

void scan(const Elements& x, std::int64_t begin, std::int64_t end, int format, PrefixSum& prefix,
          const ResultArray& out) {
  const arithmetic::NarrowFormat* narrow = narrow_format(format);
  x.blocks(begin, end, [&](const ConvertedBlock& block, std::int64_t first, std::int64_t count) {
    for (std::int64_t i = 0; i < count; ++i) {
      ValueAndError limbs = prefix.next(block.high[i]);
      if (block.has_low) {
        limbs = prefix.next(block.low[i]);
      }
      out.write(first + i, result_of(prefix, limbs, narrow));
    }
  });
}

}  // namespace

int cumulative_sum(const korvex_exact_array* x, int format, int threads, void* out) {
  return run_guarded([&]() -> int {
    const Elements elements(*x);
    const ResultArray result(out, format);
    const int ranges = range_count(elements.size(), usable_threads(threads));
    const std::vector<Start> starts =
        ranges == 1 ? std::vector<Start>() : starts_of_ranges(elements, ranges);
    for_each_of_ranges<PrefixSum>(
        elements.size(), ranges,
        [&](std::int64_t begin, std::int64_t end, PrefixSum& prefix) {
          for (const Start& start : starts) {
            if (start.begin == begin) {
              prefix.start(start.sum);
            }
          }
          scan(elements, begin, end, format, prefix, result);
        },
        [](const PrefixSum&) {});
    return KORVEX_EXACT_DONE;
  });
}

}  // namespace korvex::host
