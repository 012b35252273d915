// SPDX-License-Identifier: Apache-2.0
// Shells of the single-block reductions for the host: variance, norm, product, running sums, log of
// a sum of exponentials.
//
// Each thread takes a range of elements, and the partial results are joined in order. All of them
// are exact, or lie on a grid, so no result depends on the number of threads.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "korvex/arithmetic/elementary/log_sum_exp.h"
#include "korvex/arithmetic/exact/element_product.h"
#include "korvex/arithmetic/exact/norm.h"
#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/arithmetic/exact/variance.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/quick_log_sum.h"
#include "korvex/kernels/host/quick_product.h"
#include "korvex/kernels/host/quick_squares.h"
#include "korvex/kernels/host/running_limbs.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {

using arithmetic::ExactProductSum;
using arithmetic::ExactSum;
using arithmetic::FastProduct;
using arithmetic::HostLanes;

namespace {

// Runs work(x, count, part) over ranges of elements and joins the parts into `total`.
template <class Part, class Work>
void reduce_ranges(const double* x, std::int64_t n, int threads, const Work& work, Part& total) {
  for_each_range<Part>(
      n, threads,
      [x, &work](std::int64_t begin, std::int64_t end, Part& part) {
        work(x + begin, end - begin, part);
      },
      [&total](const Part& part) { total.add(part); });
}

ExactProductSum exact_squares(const double* x, std::int64_t n, int threads) {
  ExactProductSum squares;
  reduce_ranges(
      x, n, threads,
      [](const double* from, std::int64_t count, ExactProductSum& part) {
        arithmetic::add_products<HostLanes>(from, from, count, part);
      },
      squares);
  return squares;
}

// The exact sum of some elements, and the quick one of their squares.
struct QuickMoments {
  static constexpr std::int64_t kBlock = 2048;  // elements that the first cache holds for both
  // While a block is squared, the next one comes from memory.
  static constexpr std::int64_t kFurther =
      kBlock - HostLanes::kLookAhead / std::int64_t{sizeof(double)};

  ExactSum sum;
  QuickSquares squares;

  void add(const QuickMoments& other) {
    sum.add(other.sum);
    squares.add(other.squares);
  }

  void add_elements(const double* x, std::int64_t n) {
    arithmetic::ChunkedSum<HostLanes, arithmetic::kSumStreams> chunks(sum);
    for (std::int64_t begin = 0; begin < n; begin += kBlock) {
      const std::int64_t count = std::min(kBlock, n - begin);
      chunks.add({x + begin}, count);
      squares.add(x + begin, count, kFurther);
    }
  }

  // The first two canonical limbs of the sum.
  arithmetic::ValueAndError limbs() const {
    ExactSum copy = sum;
    double limbs[2];
    copy.round<2>(limbs);
    return {limbs[0], limbs[1]};
  }
};

// Where a range begins, and the sum of all elements before it.
struct Start {
  std::int64_t begin = 0;
  ExactSum sum;
};

// Of all ranges in order; none where there is but one range, which begins with nothing before it.
std::vector<Start> starts_of_ranges(const double* x, std::int64_t n, int ranges) {
  std::vector<Start> starts;
  if (ranges == 1) {
    return starts;
  }
  ExactSum total;
  for_each_of_ranges<Start>(
      n, ranges,
      [x](std::int64_t begin, std::int64_t end, Start& own) {
        own.begin = begin;
        arithmetic::add_range<HostLanes>(x + begin, end - begin, own.sum);
      },
      [&](const Start& own) {
        starts.push_back({own.begin, total});
        total.add(own.sum);
      });
  return starts;
}

// Passes over all elements for log_sum_exp: over(work) runs work(x, count, part) on ranges of them
// and returns the joined parts.
class HostRunner {
 public:
  HostRunner(const double* x, std::int64_t n, int threads) : x_(x), n_(n), threads_(threads) {}

  template <class Part, class Work>
  Part over(const Work& work) const {
    Part total;
    reduce_ranges(x_, n_, threads_, work, total);
    return total;
  }

 private:
  const double* x_;
  std::int64_t n_;
  int threads_;
};

// As first_log_sum_exp(), for elements of which the largest is known: none is special, and there
// are two or more.
arithmetic::Rounded fast_log_sum_of(const HostRunner& runner, double largest, std::int64_t n) {
  const auto sum = runner.over<arithmetic::ExpSum>(
      [=](const double* x, std::int64_t count, arithmetic::ExpSum& part) {
        for (std::int64_t i = 0; i < count; ++i) {
          part.add_term(x[i], largest);
        }
      });
  return arithmetic::fast_log_sum(largest, sum, n);
}

// Whether the first tries decide the logarithm of the sum of exponentials, which then goes to
// out[0]: those of exp side by side, then the one of log_sum_exp().
bool try_log_sum(const HostRunner& runner, std::int64_t n, double* out) {
  constexpr double kMostLargest = 0x1p+30;
  constexpr std::int64_t kMostTerms = std::int64_t{1} << 40;
  if (n < 2 || n > kMostTerms) {
    return false;
  }
  const auto head = runner.over<QuickLargest>(
      [](const double* x, std::int64_t count, QuickLargest& part) { part.add_range(x, count); });
  const double largest = head.value();
  if (!head.is_of_finite()) {
    return false;
  }
  if (arithmetic::absolute(largest) < kMostLargest) {
    const auto sum =
        runner.over<QuickExpSum>([=](const double* x, std::int64_t count, QuickExpSum& part) {
          part.add_range(x, count, largest);
        });
    if (quick_log_sum(largest, sum, n, out)) {
      return true;
    }
  }
  const arithmetic::Rounded fast = fast_log_sum_of(runner, largest, n);
  out[0] = fast.value;
  return fast.is_decided;
}

}  // namespace

// Arguments: x, out_mean, out_var, n. The exact sum gives the mean, and with the quick squares
// nearly always the variance; where it does not, the exact sum of the squares follows.
void run_var(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const std::int64_t n = arguments.integer(3);
  double& mean = arguments.array(1)[0];
  double& variance = arguments.array(2)[0];
  mean = arithmetic::canonical_nan();
  variance = arithmetic::canonical_nan();
  QuickMoments moments;
  reduce_ranges(
      x, n, arguments.threads(),
      [](const double* from, std::int64_t count, QuickMoments& part) {
        part.add_elements(from, count);
      },
      moments);
  if (n <= 0 || !moments.sum.is_sum_of_finite()) {
    return;
  }
  const bool is_decided = n > 1 && quick_variance(moments.squares, moments.limbs(), n, &variance);
  arithmetic::VarianceWorkspace work;
  const bool is_negative = moments.sum.magnitude(work.sum);
  mean = arithmetic::mean_of(work, is_negative, n);
  if (n > 1 && !is_decided) {
    ExactProductSum squares = exact_squares(x, n, arguments.threads());
    squares.magnitude(work.squares);
    variance = arithmetic::variance_of(work, n);
  }
}

// Arguments: x, out, n.
void run_norm(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const std::int64_t n = arguments.integer(2);
  QuickSquares quick;
  reduce_ranges(
      x, n, arguments.threads(),
      [](const double* from, std::int64_t count, QuickSquares& part) { part.add(from, count); },
      quick);
  if (quick_norm(quick, arguments.array(1))) {
    return;
  }
  ExactProductSum squares = exact_squares(x, n, arguments.threads());
  arithmetic::NormWorkspace work;
  arithmetic::write_norm(squares, work, arguments.array(1));
}

// Arguments: x, out, out_err, n.
void run_prod(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const std::int64_t n = arguments.integer(3);
  QuickProduct quick;
  reduce_ranges(
      x, n, arguments.threads(),
      [](const double* from, std::int64_t count, QuickProduct& part) {
        part.add_range(from, count);
      },
      quick);
  if (quick.write_limbs(arguments.array(1), arguments.array(2))) {
    return;
  }
  FastProduct product;
  reduce_ranges(
      x, n, arguments.threads(),
      [](const double* from, std::int64_t count, FastProduct& part) {
        part.add_range(from, count);
      },
      product);
  arithmetic::AccurateProductWorkspace accurate;
  arithmetic::write_product(product, x, n, accurate, arguments.array(1), arguments.array(2));
}

// Arguments: x, out, out_err, n. Where there are several ranges, their exact sums come first; then
// each range is scanned from the exact sum of the ranges before it.
void run_cumsum(const Arguments& arguments) {
  const double* x = arguments.array(0);
  double* out = arguments.array(1);
  double* out_err = arguments.array(2);
  const std::int64_t n = arguments.integer(3);
  const int ranges = range_count(n, arguments.threads());
  const std::vector<Start> starts = starts_of_ranges(x, n, ranges);
  for_each_of_ranges<RunningSum>(
      n, ranges,
      [&](std::int64_t begin, std::int64_t end, RunningSum& sum) {
        for (const Start& start : starts) {
          if (start.begin == begin) {
            sum.start(start.sum);
          }
        }
        sum.scan(x + begin, end - begin, out + begin, out_err + begin);
      },
      [](const RunningSum&) {});
}

// Arguments: x, out, n.
void run_logsumexp(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const std::int64_t n = arguments.integer(2);
  double* out = arguments.array(1);
  const HostRunner runner(x, n, arguments.threads());
  if (!try_log_sum(runner, n, out)) {
    out[0] = arithmetic::log_sum_exp(runner, n);
  }
}

}  // namespace korvex::host
