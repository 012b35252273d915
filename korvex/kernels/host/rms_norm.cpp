// SPDX-License-Identifier: Apache-2.0
// Shell of the normalisation by the root of the mean square for the host.
#include "korvex/arithmetic/elementary/rms_norm.h"

#include <cstdint>

#include "korvex/kernels/host/elements.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {
namespace {

// The squares of some elements.
struct SumOfSquares {
  SumOfSquares() { finite.clear(); }

  void add(double x) {
    if (arithmetic::is_finite(x)) {
      finite.add_product(x, x);
    } else {
      any_nan = any_nan || arithmetic::is_nan(x);
      any_special = true;
    }
  }

  void add(const SumOfSquares& other) {
    finite.add(other.finite);
    any_nan = any_nan || other.any_nan;
    any_special = any_special || other.any_special;
  }

  arithmetic::ProductAccumulator finite;  // the sum of the squares of the finite elements
  bool any_nan = false;
  bool any_special = false;  // an infinity or a NaN was among them
};

}  // namespace

// Arguments: x, out, n, eps.
void run_rms_norm(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const std::int64_t n = arguments.integer(2);
  if (n <= 0) {
    return;
  }
  SumOfSquares sum;
  for_each_range<SumOfSquares>(
      n, arguments.threads(),
      [x](std::int64_t begin, std::int64_t end, SumOfSquares& part) {
        for (std::int64_t i = begin; i < end; ++i) {
          part.add(x[i]);
        }
      },
      [&sum](const SumOfSquares& part) { sum.add(part); });
  const arithmetic::InverseRoot root =
      arithmetic::inverse_root(sum.finite, sum.any_nan, sum.any_special, n, arguments.number(3));
  for_each_element(x, arguments.array(1), n, arguments.threads(),
                   [&root](double value) { return arithmetic::normalised(value, root); });
}

}  // namespace korvex::host
