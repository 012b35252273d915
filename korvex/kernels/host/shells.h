// SPDX-License-Identifier: Apache-2.0
// The kernels of the host: what each gets, and one shell for each row of the kernel table.
//
// A shell fetches its arguments by their places in the row's list of parameters, runs the shared
// body on host threads and returns when all is written. The kernel of the same name in
// korvex/kernels/device stands in the file of the same name.
#pragma once

#include <cstdint>

namespace korvex::host {

class Arguments {
 public:
  Arguments(void* const* values, int threads) : values_(values), threads_(threads) {}
  double* array(int index) const { return *static_cast<double* const*>(values_[index]); }
  std::int64_t integer(int index) const {
    return *static_cast<const std::int64_t*>(values_[index]);
  }
  double number(int index) const { return *static_cast<const double*>(values_[index]); }
  int threads() const { return threads_; }  // host threads that may work, at most

 private:
  void* const* values_;  // pointers to the value of each argument
  int threads_;
};

using Shell = void(const Arguments&);

// sum.cpp
Shell run_sum_seq;
Shell run_sum;

// dot.cpp
Shell run_dot_seq;
Shell run_dot;

// matrix_product.cpp
Shell run_matmul;

// reductions.cpp
Shell run_var;
Shell run_norm;
Shell run_prod;
Shell run_cumsum;
Shell run_logsumexp;

// pairs.cpp
Shell run_add;
Shell run_sub;
Shell run_mul;
Shell run_div;

// unary.cpp
Shell run_relu;
Shell run_neg;
Shell run_exp;
Shell run_log;
Shell run_sqrt;
Shell run_sigmoid;
Shell run_tanh;
Shell run_leaky_relu;

// rms_norm.cpp
Shell run_rms_norm;

}  // namespace korvex::host
