// SPDX-License-Identifier: Apache-2.0
// Shells of the kernels of two operands for the host: a value and an error for each element.
#include "korvex/arithmetic/exact/pairs.h"

#include <cstdint>

#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {
namespace {

using arithmetic::ValueAndError;

// Arguments: x, y, out, out_err, n.
template <ValueAndError (*Operation)(double, double)>
void run_pairs(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const double* y = arguments.array(1);
  double* out = arguments.array(2);
  double* out_err = arguments.array(3);
  for_each_range(arguments.integer(4), arguments.threads(),
                 [=](std::int64_t begin, std::int64_t end) {
                   for (std::int64_t i = begin; i < end; ++i) {
                     const ValueAndError pair = Operation(x[i], y[i]);
                     out[i] = pair.value;
                     out_err[i] = pair.error;
                   }
                 });
}

}  // namespace

void run_add(const Arguments& arguments) { run_pairs<arithmetic::add_pair>(arguments); }
void run_sub(const Arguments& arguments) { run_pairs<arithmetic::subtract_pair>(arguments); }
void run_mul(const Arguments& arguments) { run_pairs<arithmetic::multiply_pair>(arguments); }
void run_div(const Arguments& arguments) { run_pairs<arithmetic::divide_pair>(arguments); }

}  // namespace korvex::host
