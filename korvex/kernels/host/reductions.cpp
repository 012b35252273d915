// SPDX-License-Identifier: Apache-2.0
// Shells of the single-block reductions for the host: variance, norm, product, running sums, log of
// a sum of exponentials.
//
// Each thread takes a range of elements, and the partial results are joined in order. All of them
// are exact, or lie on a grid, so no result depends on the number of threads.
#include <cstdint>
#include <vector>

#include "korvex/arithmetic/elementary/log_sum_exp.h"
#include "korvex/arithmetic/exact/element_product.h"
#include "korvex/arithmetic/exact/norm.h"
#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/arithmetic/exact/variance.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {

using arithmetic::ExactProductSum;
using arithmetic::ExactSum;
using arithmetic::FastProduct;
using arithmetic::HostLanes;
using arithmetic::Moments;
using arithmetic::PrefixSum;

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

}  // namespace

// Arguments: x, out_mean, out_var, n.
void run_var(const Arguments& arguments) {
  Moments moments;
  reduce_ranges(
      arguments.array(0), arguments.integer(3), arguments.threads(),
      [](const double* x, std::int64_t count, Moments& part) {
        part.add_elements<HostLanes>(x, count);
      },
      moments);
  arithmetic::VarianceWorkspace work;
  arithmetic::write_variance(moments, arguments.integer(3), work, arguments.array(1),
                             arguments.array(2));
}

// Arguments: x, out, n.
void run_norm(const Arguments& arguments) {
  ExactProductSum squares;
  reduce_ranges(
      arguments.array(0), arguments.integer(2), arguments.threads(),
      [](const double* x, std::int64_t count, ExactProductSum& part) {
        arithmetic::add_products<HostLanes>(x, x, count, part);
      },
      squares);
  arithmetic::NormWorkspace work;
  arithmetic::write_norm(squares, work, arguments.array(1));
}

// Arguments: x, out, out_err, n.
void run_prod(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const std::int64_t n = arguments.integer(3);
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
  for_each_of_ranges<PrefixSum>(
      n, ranges,
      [&](std::int64_t begin, std::int64_t end, PrefixSum& prefix) {
        for (const Start& start : starts) {
          if (start.begin == begin) {
            prefix.start(start.sum);
          }
        }
        prefix.scan(x + begin, end - begin, out + begin, out_err + begin);
      },
      [](const PrefixSum&) {});
}

// Arguments: x, out, n.
void run_logsumexp(const Arguments& arguments) {
  const std::int64_t n = arguments.integer(2);
  const HostRunner runner(arguments.array(0), n, arguments.threads());
  arguments.array(1)[0] = arithmetic::log_sum_exp(runner, n);
}

}  // namespace korvex::host
