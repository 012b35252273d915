// SPDX-License-Identifier: Apache-2.0
// The kernels that exist and how each is called: the one list that every checker of arguments
// reads.
//
// A parameter is name:kind. Kind i64 and f64 are scalars; f64[count] is an array of at least so
// many doubles, count being a number, the name of an i64 parameter, or a product of such, as in
// M*K.
#pragma once

namespace korvex::kernels {

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): a row reads best in this order.
struct KernelRow {
  const char* name;
  const char* form;        // "function": the caller gives the block; "launch": the kernel knows it
  unsigned block;          // threads in a block of form "launch"; 0 for form "function"
  const char* parameters;  // in the order of the arguments, separated by one space
  // Blocks that fill a multiprocessor, for kernels that stride over their grid: more of them than
  // that do no work and may be left out of a launch. 0: every block of the grid is needed.
  unsigned blocks_per_multiprocessor = 0;
};

inline constexpr KernelRow kKernelTable[] = {
    {"tqx_sum_seq_kernel", "function", 0, "x:f64[n] out:f64[4] n:i64"},
    {"tqx_sum_kernel", "launch", 256, "x:f64[n] out:f64[1] out_err:f64[1] n:i64", 8},
    {"tqx_dot_seq_kernel", "function", 0, "x:f64[n] y:f64[n] out:f64[4] n:i64"},
    {"tqx_dot_kernel", "launch", 256,
     "x:f64[n] y:f64[n] out:f64[1] out_err:f64[1] out_err2:f64[1] n:i64", 8},
    {"tqx_matmul_kernel", "function", 0,
     "a:f64[M*K] b:f64[K*N] c0:f64[M*N] c1:f64[M*N] c2:f64[M*N] M:i64 N:i64 K:i64"},
    {"tqx_var_kernel", "launch", 1024, "x:f64[n] out_mean:f64[1] out_var:f64[1] n:i64"},
    {"tqx_norm_kernel", "launch", 1024, "x:f64[n] out:f64[1] n:i64"},
    {"tqx_prod_kernel", "launch", 1024, "x:f64[n] out:f64[1] out_err:f64[1] n:i64"},
    {"tqx_cumsum_kernel", "launch", 1024, "x:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_logsumexp_kernel", "launch", 1024, "x:f64[n] out:f64[1] n:i64"},
    {"tqx_add_kernel", "launch", 256, "x:f64[n] y:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_sub_kernel", "launch", 256, "x:f64[n] y:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_mul_kernel", "launch", 256, "x:f64[n] y:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_div_kernel", "launch", 256, "x:f64[n] y:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_relu_kernel", "launch", 256, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_neg_kernel", "launch", 256, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_exp_kernel", "launch", 256, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_log_kernel", "launch", 256, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_sqrt_kernel", "launch", 256, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_sigmoid_kernel", "launch", 256, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_tanh_kernel", "launch", 256, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_leaky_relu_kernel", "launch", 256, "x:f64[n] negative_slope:f64 out:f64[n] n:i64"},
    {"tqx_rms_norm_kernel", "launch", 1024, "x:f64[n] out:f64[n] n:i64 eps:f64"},
};

inline constexpr int kKernelCount = static_cast<int>(sizeof kKernelTable / sizeof kKernelTable[0]);

}  // namespace korvex::kernels
