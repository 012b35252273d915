// SPDX-License-Identifier: Apache-2.0
// The kernels of one element, on the host: each as the tries that its threads make.
#pragma once

#include <cstdint>
#include <string_view>

#include "korvex/arithmetic/elementary/exponential.h"
#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic_wide.h"
#include "korvex/arithmetic/elementary/unary.h"
#include "korvex/kernels/table.h"

namespace korvex::kernels {

template <arithmetic::Rounded (*First)(double), double (*Last)(double, arithmetic::LastLogistic&)>
double in_tries(double x) {
  const arithmetic::Rounded tried = First(x);
  if (tried.is_decided) {
    return tried.value;
  }
  static arithmetic::LastLogistic memory;
  return Last(x, memory);
}

// By the kernel's name, with its arguments; false where the grid has no thread for each element.
inline bool run_map_kernel(std::string_view name, unsigned blocks, const std::uint64_t* values) {
  using namespace arithmetic;
  const auto* const x = reinterpret_cast<const double*>(values[0]);
  auto* const out = reinterpret_cast<double*>(values[1]);
  const auto n = static_cast<std::int64_t>(values[2]);
  const auto map = [&](double (*function)(double)) {
    for (std::int64_t i = 0; i < n; ++i) {
      out[i] = function(x[i]);
    }
    return std::int64_t{blocks} * kElementBlock >= n;
  };
  if (name == "tqx_exp_kernel") {
    return map(exponential);
  }
  if (name == "tqx_log_kernel") {
    return map(logarithm);
  }
  if (name == "tqx_sqrt_kernel") {
    return map(square_root);
  }
  if (name == "tqx_sigmoid_kernel") {
    return map(in_tries<first_sigmoid, last_sigmoid>);
  }
  return name == "tqx_tanh_kernel" && map(in_tries<first_tanh, last_tanh>);
}

}  // namespace korvex::kernels
