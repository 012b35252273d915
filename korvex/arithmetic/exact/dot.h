// SPDX-License-Identifier: Apache-2.0
// The bodies of the two dot product kernels, for the device and for the host.
//
// Both outputs are canonical limbs of the exact sum S of the products: four of them from one thread
// in index order, the first three from the parallel kernel, whose partial sums are exact and so may
// be joined in any order. Below overflow the three are the leading three of the four, bit for bit.
#pragma once

#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/chunked_sum.h"
#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/arithmetic/exact/products.h"

namespace korvex::arithmetic {

// Chains of dependent additions run side by side, to hide the latency of one.
constexpr int kDotStreams = 2;

// Adds x[i] * y[i] for i = 0 to n - 1. Precondition: x and y hold n elements; n <= 0 adds nothing.
template <class Lanes>
KORVEX_HD void add_products(const double* x, const double* y, std::int64_t n,
                            ExactProductSum& sum) {
  ChunkedSum<Lanes, kDotStreams, Products>(sum).add({x, y}, n);
}

// out[0] to out[3]: the sum of all products, whatever out held before.
template <class Lanes>
KORVEX_HD void dot_sequential(const double* x, const double* y, double* out, std::int64_t n) {
  ExactProductSum sum;
  add_products<Lanes>(x, y, n, sum);
  sum.round<4>(out);
}

// The last step of the parallel dot product: out[0] is the sum correctly rounded, out_err[0] what
// is left of it, out_err2[0] what is left then.
KORVEX_HD inline void write_parallel_dot(ExactProductSum& sum, double* out, double* out_err,
                                         double* out_err2) {
  double limbs[3];
  sum.round<3>(limbs);
  out[0] = limbs[0];
  out_err[0] = limbs[1];
  out_err2[0] = limbs[2];
}

}  // namespace korvex::arithmetic
