// SPDX-License-Identifier: Apache-2.0
// The single-block reductions by any number of threads, joined as a block joins them.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "check.h"
#include "korvex/arithmetic/base/lanes.h"
#include "korvex/arithmetic/elementary/log_sum_exp.h"
#include "korvex/arithmetic/exact/element_product.h"
#include "korvex/arithmetic/exact/norm.h"
#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/arithmetic/exact/variance.h"
#include "korvex/kernels/host/lanes.h"

namespace korvex::test {

// Runs of neighbouring elements, one a thread, joined two by two.
class BlockOfThreads {
 public:
  BlockOfThreads(const std::vector<double>& x, int threads)
      : x_(x.data()), n_(static_cast<std::int64_t>(x.size())), threads_(threads) {}

  std::int64_t begin(int thread) const {
    return n_ / threads_ * thread + std::min<std::int64_t>(thread, n_ % threads_);
  }

  template <class Part, class Work>
  std::vector<Part> parts(const Work& work) const {
    std::vector<Part> result(static_cast<std::size_t>(threads_));
    for (int i = 0; i < threads_; ++i) {
      work(x_ + begin(i), begin(i + 1) - begin(i), result[static_cast<std::size_t>(i)]);
    }
    return result;
  }

  template <class Part, class Work>
  Part over(const Work& work) const {
    std::vector<Part> all = parts<Part>(work);
    for (std::size_t distance = 1; distance < all.size(); distance *= 2) {
      for (std::size_t i = 0; i + distance < all.size(); i += 2 * distance) {
        all[i].add(all[i + distance]);
      }
    }
    return all[0];
  }

  const double* x() const { return x_; }
  std::int64_t n() const { return n_; }
  bool is_first() const { return true; }
  void sync() const {}

 private:
  const double* x_;
  std::int64_t n_;
  int threads_;
};

// Mean and variance.
template <class Lanes>
std::array<double, 2> variance(const std::vector<double>& x, int threads) {
  const BlockOfThreads block(x, threads);
  auto moments = block.over<arithmetic::Moments>(
      [](const double* run, std::int64_t count, arithmetic::Moments& part) {
        part.add_elements<Lanes>(run, count);
      });
  const auto work = std::make_unique<arithmetic::VarianceWorkspace>();
  std::array<double, 2> out = {7.0, 7.0};
  arithmetic::write_variance(moments, block.n(), *work, &out[0], &out[1]);
  return out;
}

template <class Lanes>
double norm(const std::vector<double>& x, int threads) {
  using arithmetic::ExactProductSum;
  auto squares =
      BlockOfThreads(x, threads)
          .over<ExactProductSum>([](const double* run, std::int64_t count, ExactProductSum& part) {
            arithmetic::add_products<Lanes>(run, run, count, part);
          });
  arithmetic::NormWorkspace work;
  double out = 7.0;
  arithmetic::write_norm(squares, work, &out);
  return out;
}

inline std::array<double, 2> product(const std::vector<double>& x, int threads) {
  const BlockOfThreads block(x, threads);
  const auto part = block.over<arithmetic::FastProduct>(
      [](const double* run, std::int64_t count, arithmetic::FastProduct& each) {
        each.add_range(run, count);
      });
  const auto accurate = std::make_unique<arithmetic::AccurateProductWorkspace>();
  std::array<double, 2> out = {7.0, 7.0};
  arithmetic::write_product(part, block.x(), block.n(), *accurate, &out[0], &out[1]);
  return out;
}

struct Scan {
  std::vector<double> out;
  std::vector<double> out_err;
};

template <class Lanes>
Scan running_sums(const std::vector<double>& x, int threads) {
  using arithmetic::ExactSum;
  const BlockOfThreads block(x, threads);
  const auto sums =
      block.parts<ExactSum>([](const double* run, std::int64_t count, ExactSum& part) {
        arithmetic::add_range<Lanes>(run, count, part);
      });
  Scan scan = {std::vector<double>(x.size(), 7.0), std::vector<double>(x.size(), 7.0)};
  ExactSum before;
  for (int i = 0; i < threads; ++i) {
    arithmetic::PrefixSum prefix;
    prefix.start(before);
    prefix.scan(x.data() + block.begin(i), block.begin(i + 1) - block.begin(i),
                scan.out.data() + block.begin(i), scan.out_err.data() + block.begin(i));
    before.add(sums[static_cast<std::size_t>(i)]);
  }
  return scan;
}

inline double log_sum_exp(const std::vector<double>& x, int threads) {
  const BlockOfThreads block(x, threads);
  return arithmetic::log_sum_exp(block, block.n());
}

}  // namespace korvex::test
