// SPDX-License-Identifier: Apache-2.0
// Shells of the single-block reductions for the host: slices of the elements on threads, partial
// results joined in order. All partial results are exact, or lie on a grid, so slices do not show.
#pragma once

#include <cstdint>
#include <vector>

#include "korvex/arithmetic/elementary/log_sum_exp.h"
#include "korvex/arithmetic/exact/element_product.h"
#include "korvex/arithmetic/exact/norm.h"
#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/arithmetic/exact/variance.h"
#include "korvex/kernels/host/host_lanes.h"
#include "korvex/kernels/host/slices.h"

namespace korvex::host {

// Runs work(x, count, part) over slices and joins the parts into `total`.
template <class Part, class Work>
void reduce_slices(const double* x, std::int64_t n, int threads, const Work& work, Part& total) {
  for_each_slice<Part>(
      n, threads,
      [x, &work](std::int64_t begin, std::int64_t end, Part& part) {
        work(x + begin, end - begin, part);
      },
      [&total](const Part& part) { total.add(part); });
}

// Arguments: x, out_mean, out_var, n.
template <class Arguments>
void run_var(const Arguments& arguments) {
  using arithmetic::Moments;
  Moments moments;
  reduce_slices(
      arguments.array(0), arguments.integer(3), arguments.threads(),
      [](const double* x, std::int64_t count, Moments& part) {
        part.add_elements<arithmetic::HostLanes>(x, count);
      },
      moments);
  arithmetic::VarianceWorkspace work;
  arithmetic::write_variance(moments, arguments.integer(3), work, arguments.array(1),
                             arguments.array(2));
}

// Arguments: x, out, n.
template <class Arguments>
void run_norm(const Arguments& arguments) {
  using arithmetic::ExactProductSum;
  ExactProductSum squares;
  reduce_slices(
      arguments.array(0), arguments.integer(2), arguments.threads(),
      [](const double* x, std::int64_t count, ExactProductSum& part) {
        arithmetic::add_products<arithmetic::HostLanes>(x, x, count, part);
      },
      squares);
  arithmetic::NormWorkspace work;
  arithmetic::write_norm(squares, work, arguments.array(1));
}

// Arguments: x, out, out_err, n.
template <class Arguments>
void run_prod(const Arguments& arguments) {
  using arithmetic::FastProduct;
  const double* x = arguments.array(0);
  const std::int64_t n = arguments.integer(3);
  FastProduct product;
  reduce_slices(
      x, n, arguments.threads(),
      [](const double* from, std::int64_t count, FastProduct& part) {
        part.add_range(from, count);
      },
      product);
  arithmetic::AccurateProductWorkspace accurate;
  arithmetic::write_product(product, x, n, accurate, arguments.array(1), arguments.array(2));
}

// Arguments: x, out, out_err, n. Exact sums of the slices first, where there are several; then each
// slice is scanned from the exact sum of those before it.
template <class Arguments>
void run_cumsum(const Arguments& arguments) {
  using arithmetic::ExactSum;
  struct Slice {
    std::int64_t begin = 0;
    ExactSum sum;
  };
  const double* x = arguments.array(0);
  double* out = arguments.array(1);
  double* out_err = arguments.array(2);
  const std::int64_t n = arguments.integer(3);
  const int slices = slice_count(n, arguments.threads());
  std::vector<Slice> before;  // where each slice begins, and the sum of all elements before it
  ExactSum total;
  if (slices > 1) {
    for_each_of_slices<Slice>(
        n, slices,
        [x](std::int64_t begin, std::int64_t end, Slice& slice) {
          slice.begin = begin;
          arithmetic::add_range<arithmetic::HostLanes>(x + begin, end - begin, slice.sum);
        },
        [&](const Slice& slice) {
          before.push_back({slice.begin, total});
          total.add(slice.sum);
        });
  }
  for_each_of_slices<arithmetic::PrefixSum>(
      n, slices,
      [&](std::int64_t begin, std::int64_t end, arithmetic::PrefixSum& prefix) {
        for (const Slice& slice : before) {
          if (slice.begin == begin) {
            prefix.start(slice.sum);
          }
        }
        prefix.scan(x + begin, end - begin, out + begin, out_err + begin);
      },
      [](const arithmetic::PrefixSum&) {});
}

class HostRunner {
 public:
  HostRunner(const double* x, std::int64_t n, int threads) : x_(x), n_(n), threads_(threads) {}

  template <class Part, class Work>
  Part over(const Work& work) const {
    Part total;
    reduce_slices(x_, n_, threads_, work, total);
    return total;
  }

 private:
  const double* x_;
  std::int64_t n_;
  int threads_;
};

// Arguments: x, out, n.
template <class Arguments>
void run_logsumexp(const Arguments& arguments) {
  const std::int64_t n = arguments.integer(2);
  const HostRunner runner(arguments.array(0), n, arguments.threads());
  arguments.array(1)[0] = arithmetic::log_sum_exp(runner, n);
}

}  // namespace korvex::host
