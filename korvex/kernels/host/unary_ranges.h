// SPDX-License-Identifier: Apache-2.0
// Functions of one element over elements that lie side by side, on one thread: out[i] = f(x[i]).
#pragma once

#include <cstdint>

namespace korvex::host {

// unary.cpp
using UnaryRange = void(const double* x, double* out, std::int64_t count);
UnaryRange exp_range;
UnaryRange log_range;
UnaryRange sqrt_range;
UnaryRange sigmoid_range;
UnaryRange tanh_range;

}  // namespace korvex::host
