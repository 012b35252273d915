// SPDX-License-Identifier: Apache-2.0
// Kernels of one operand and one result per element, on host threads.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic.h"
#include "korvex/arithmetic/elementary/unary.h"
#include "korvex/kernels/host/host_doubles.h"
#include "korvex/kernels/host/slices.h"

namespace korvex::host {

// out[i] = operation(x[i]): elements are independent, so the slices do not show.
template <class Operation>
void for_each_element(const double* x, double* out, std::int64_t n, int threads,
                      const Operation& operation) {
  struct Nothing {};
  for_each_slice<Nothing>(
      n, threads,
      [=](std::int64_t begin, std::int64_t end, Nothing&) {
        for (std::int64_t i = begin; i < end; ++i) {
          out[i] = operation(x[i]);
        }
      },
      [](const Nothing&) {});
}

// Arguments: x, out, n.
template <double (*Function)(double), class Arguments>
void run_unary(const Arguments& arguments) {
  for_each_element(arguments.array(0), arguments.array(1), arguments.integer(2),
                   arguments.threads(), [](double x) { return Function(x); });
}

template <double (*Function)(double)>
__attribute__((noinline)) double out_of_line(double x) {
  return Function(x);
}

using arithmetic::HostReal;

template <double (*Function)(double)>
__attribute__((noinline)) void finish_undecided(HostReal x,
                                                const arithmetic::RoundedOf<HostReal>& tried,
                                                double* out) {
  for (int i = 0; i < arithmetic::kHostReals; ++i) {
    if (!arithmetic::lane(tried.is_decided, i)) {
      out[i] = Function(arithmetic::lane(x, i));
    }
  }
}

// The same for a function whose first try decides nearly every element, many at once: what else it
// does would crowd the loop.
template <arithmetic::RoundedOf<HostReal> (*Try)(HostReal), double (*Function)(double),
          class Arguments>
void run_tried_unary(const Arguments& arguments) {
  const double* x = arguments.array(0);
  double* out = arguments.array(1);
  struct Nothing {};
  for_each_slice<Nothing>(
      arguments.integer(2), arguments.threads(),
      [=](std::int64_t begin, std::int64_t end, Nothing&) {
        std::int64_t i = begin;
        for (; i + arithmetic::kHostReals <= end; i += arithmetic::kHostReals) {
          const HostReal argument = arithmetic::load_real(x + i);
          const auto tried = Try(argument);
          arithmetic::store_real(out + i, tried.value);
          if (!arithmetic::all(tried.is_decided)) {
            finish_undecided<Function>(argument, tried, out + i);
          }
        }
        for (; i < end; ++i) {
          out[i] = out_of_line<Function>(x[i]);
        }
      },
      [](const Nothing&) {});
}

// Arguments: x, negative_slope, out, n.
template <class Arguments>
void run_leaky_relu(const Arguments& arguments) {
  const double slope = arguments.number(1);
  for_each_element(arguments.array(0), arguments.array(2), arguments.integer(3),
                   arguments.threads(),
                   [slope](double x) { return arithmetic::leaky_relu(x, slope); });
}

}  // namespace korvex::host
