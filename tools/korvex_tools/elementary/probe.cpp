// SPDX-License-Identifier: Apache-2.0
// The phases of the elementary functions one by one, for the scripts that measure them.
#include <cstddef>

#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic.h"
#include "korvex/arithmetic/elementary/quick_tries.h"

namespace {

using namespace korvex::arithmetic;

// Results of the fast phase: value, error limb and exponent, the number being
// (value + error) * 2^exponent.
using Phase = void (*)(double x, double* out);

void exp_phase(double x, double* out) {
  const ScaledPair pair = exp_pair(x);
  out[0] = pair.high;
  out[1] = pair.low;
  out[2] = pair.exponent;
}

void write(const ValueAndError& pair, double* out) {
  out[0] = pair.value;
  out[1] = pair.error;
  out[2] = 0;
}

void reduced_exp_phase(double x, double* out) {
  const ReducedExp reduced = reduced_exp(x);
  out[0] = reduced.high;
  out[1] = reduced.low;
  out[2] = 64 * reduced.exponent + reduced.table_index;  // the multiple of log(2)/64 taken off
}

void log_phase(double x, double* out) { write(log_pair(x), out); }
void expm1_phase(double x, double* out) { write(expm1_pair(x), out); }

void sigmoid_phase(double x, double* out) {
  const ScaledPair pair = sigmoid_pair(x);
  out[0] = pair.high;
  out[1] = pair.low;
  out[2] = pair.exponent;
}

void tanh_phase(double x, double* out) {
  const ValueAndError e = expm1_pair(2 * x);
  const ValueAndError sum = two_sum(e.value, 2.0);
  write(pair_quotient(e, fast_two_sum(sum.value, sum.error + e.error)), out);
}

void quick_exp_phase(double x, double* out) {
  const auto e = quick_exp(x);
  out[0] = e.high;
  out[1] = e.low;
  out[2] = static_cast<double>(static_cast<std::int64_t>(e.exponent) >> kFractionBits);
}

void quick_log_phase(double x, double* out) { write(quick_log(quick_log_argument(x)), out); }

void quick_sigmoid_phase(double x, double* out) {
  write(quick_sigmoid_pair(quick_sigmoid_power(x)), out);
}
void quick_tanh_phase(double x, double* out) { write(quick_tanh_pair(quick_tanh_power(x)), out); }

constexpr Phase kPhases[] = {
    exp_phase,  reduced_exp_phase, log_phase,       expm1_phase,         sigmoid_phase,
    tanh_phase, quick_exp_phase,   quick_log_phase, quick_sigmoid_phase, quick_tanh_phase};

bool is_decided(int function, double x) {
  if (function == 0) {
    return round_pair(exp_pair(x), kExpError).is_decided;
  }
  if (function == 2) {
    return round_log(log_pair(x)).is_decided;
  }
  if (function == 4) {
    return round_pair(sigmoid_pair(x), kSigmoidError).is_decided;
  }
  if (function == 6) {
    return quick_exponential(x).is_decided;
  }
  if (function == 7) {
    return quick_logarithm(x).is_decided;
  }
  if (function == 8) {
    return quick_sigmoid(x).is_decided;
  }
  if (function == 9) {
    return quick_tanh(x).is_decided;
  }
  return function == 5 && fast_tanh(x).is_decided;
}

}  // namespace

extern "C" {

// out: three numbers for each argument. function: 0 exp, 1 the reduced exp, 2 log, 3 expm1,
// 4 sigmoid, 5 tanh, 6 to 9 the first tries of exp, log, sigmoid and tanh; arguments in the range
// of the phase.
void probe_pairs(int function, const double* x, double* out, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    kPhases[function](x[i], out + 3 * i);
  }
}

// How many of the arguments need the next phase.
std::size_t probe_undecided(int function, const double* x, std::size_t n) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < n; ++i) {
    count += is_decided(function, x[i]) ? 0 : 1;
  }
  return count;
}

// The accurate phase alone: 0 exp, 2 log, 4 sigmoid, 5 tanh of positive arguments.
void probe_accurate(int function, const double* x, double* out, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    if (function == 0) {
      out[i] = accurate_exp(x[i]);
    }
    if (function == 2) {
      out[i] = accurate_log(x[i], log_pair(x[i]).value);
    }
    if (function == 4) {
      out[i] = widened_sigmoid(x[i]);
    }
    if (function == 5) {
      out[i] = widened_tanh(x[i]);
    }
  }
}

}  // extern "C"
