// SPDX-License-Identifier: Apache-2.0
// Normalisation by the root of the mean square, on host threads.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/elementary/rms_norm.h"
#include "korvex/kernels/host/host_unary.h"
#include "korvex/kernels/host/slices.h"

namespace korvex::host {

// The sum of the squares that are finite numbers, and what else there was.
struct FiniteSquares {
  FiniteSquares() { sum.clear(); }

  void add(double x) {
    if (arithmetic::is_finite(x)) {
      sum.add_product(x, x);
    } else {
      any_nan = any_nan || arithmetic::is_nan(x);
      any_infinite = true;
    }
  }

  void add(const FiniteSquares& other) {
    sum.add(other.sum);
    any_nan = any_nan || other.any_nan;
    any_infinite = any_infinite || other.any_infinite;
  }

  arithmetic::ProductAccumulator sum;
  bool any_nan = false;
  bool any_infinite = false;  // or NaN, which goes first
};

// Arguments: x, out, n, eps.
template <class Arguments>
void run_rms_norm(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const std::int64_t n = arguments.integer(2);
  if (n <= 0) {
    return;
  }
  FiniteSquares squares;
  for_each_slice<FiniteSquares>(
      n, arguments.threads(),
      [x](std::int64_t begin, std::int64_t end, FiniteSquares& part) {
        for (std::int64_t i = begin; i < end; ++i) {
          part.add(x[i]);
        }
      },
      [&squares](const FiniteSquares& part) { squares.add(part); });
  const arithmetic::InverseRoot root = arithmetic::inverse_root(
      squares.sum, squares.any_nan, squares.any_infinite, n, arguments.number(3));
  for_each_element(x, arguments.array(1), n, arguments.threads(),
                   [&root](double value) { return arithmetic::normalised(value, root); });
}

}  // namespace korvex::host
