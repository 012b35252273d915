// SPDX-License-Identifier: Apache-2.0
// Shells of the kernels of one operand for the host: one result for each element.
#include "korvex/arithmetic/elementary/unary.h"

#include <cstdint>

#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic.h"
#include "korvex/kernels/host/elements.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/quick_lanes.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"
#include "korvex/kernels/host/unary_ranges.h"

namespace korvex::host {
namespace {

using arithmetic::ElementLanes;
using arithmetic::HostLanes;
using arithmetic::RoundedOf;

// Arguments: x, out, n.
template <double (*Function)(double)>
void run_unary(const Arguments& arguments) {
  for_each_element(arguments.array(0), arguments.array(1), arguments.integer(2),
                   arguments.threads(), [](double x) { return Function(x); });
}

template <double (*Function)(double)>
__attribute__((noinline)) double out_of_line(double x) {
  return Function(x);
}

// Writes the lanes that the first try has not decided.
template <class Lanes, double (*Function)(double), class Real>
__attribute__((noinline)) void finish_undecided(Real x, const RoundedOf<Real>& tried, double* out) {
  for (int lane = 0; lane < Lanes::kCount; ++lane) {
    if (!arithmetic::lane(tried.is_decided, lane)) {
      out[lane] = Function(arithmetic::lane(x, lane));
    }
  }
}

// A function whose first try decides nearly every element, several at a time. All other steps are
// calls, so that the loop holds the first try alone.
template <class Lanes, RoundedOf<typename Lanes::Value> (*Try)(typename Lanes::Value),
          double (*Function)(double)>
void tried_range(const double* x, double* out, std::int64_t count) {
  std::int64_t i = 0;
  for (; i + Lanes::kCount <= count; i += Lanes::kCount) {
    const auto argument = Lanes::load(x + i);
    const auto tried = Try(argument);
    Lanes::store(out + i, tried.value);
    if (!arithmetic::all(tried.is_decided)) [[unlikely]] {
      finish_undecided<Lanes, Function>(argument, tried, out + i);
    }
  }
  for (; i < count; ++i) {
    out[i] = out_of_line<Function>(x[i]);
  }
}

// Arguments: x, out, n.
template <UnaryRange* Range>
void run_range(const Arguments& arguments) {
  const double* x = arguments.array(0);
  double* out = arguments.array(1);
  for_each_range(
      arguments.integer(2), arguments.threads(),
      [=](std::int64_t begin, std::int64_t end) { Range(x + begin, out + begin, end - begin); });
}

}  // namespace

void run_relu(const Arguments& arguments) { run_unary<arithmetic::relu>(arguments); }
void run_neg(const Arguments& arguments) { run_unary<arithmetic::negated>(arguments); }

void exp_range(const double* x, double* out, std::int64_t count) {
  tried_range<HostLanes, arithmetic::quick_exponential, arithmetic::exponential>(x, out, count);
}
void log_range(const double* x, double* out, std::int64_t count) {
  tried_range<HostLanes, arithmetic::quick_logarithm, arithmetic::logarithm>(x, out, count);
}
void sqrt_range(const double* x, double* out, std::int64_t count) {
  for (std::int64_t i = 0; i < count; ++i) {
    out[i] = arithmetic::square_root(x[i]);
  }
}
void sigmoid_range(const double* x, double* out, std::int64_t count) {
  tried_range<HostLanes, arithmetic::quick_sigmoid, arithmetic::sigmoid>(x, out, count);
}
void tanh_range(const double* x, double* out, std::int64_t count) {
  tried_range<ElementLanes, arithmetic::try_tanh, arithmetic::hyperbolic_tangent>(x, out, count);
}

void run_exp(const Arguments& arguments) { run_range<exp_range>(arguments); }
void run_log(const Arguments& arguments) { run_range<log_range>(arguments); }
void run_sqrt(const Arguments& arguments) { run_range<sqrt_range>(arguments); }
void run_sigmoid(const Arguments& arguments) { run_range<sigmoid_range>(arguments); }
void run_tanh(const Arguments& arguments) { run_range<tanh_range>(arguments); }

// Arguments: x, negative_slope, out, n.
void run_leaky_relu(const Arguments& arguments) {
  const double slope = arguments.number(1);
  for_each_element(arguments.array(0), arguments.array(2), arguments.integer(3),
                   arguments.threads(),
                   [slope](double x) { return arithmetic::leaky_relu(x, slope); });
}

}  // namespace korvex::host
