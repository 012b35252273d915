// SPDX-License-Identifier: Apache-2.0
// The kernels that exist and how each is called: the one list that every checker of arguments
// reads, and the shapes of blocks for which the device code is compiled.
//
// A parameter is name:kind. Kind i64 and f64 are scalars; f64[count] is an array of at least so
// many doubles, count being a number, the name of an i64 parameter, or a product of such, as in
// M*K.
#pragma once

namespace korvex::kernels {

// Launch shapes: threads in a block of each kind of kernel.
inline constexpr unsigned kElementBlock = 256;  // a thread for each element
inline constexpr unsigned kGridBlock = 256;     // all threads of a grid on one result, whole warps
inline constexpr unsigned kSingleBlock = 1024;  // one block on one result, or any smaller one
// Of form "function": the most threads that a caller may ask for.
inline constexpr unsigned kMostThreadsOfFunction = 256;

// Blocks of kGridBlock threads for which a multiprocessor has registers at a time: the compiler is
// asked to keep to that, and no launch needs more.
inline constexpr unsigned kResidentSumBlocks = 4;
inline constexpr unsigned kResidentDotBlocks = 3;
// Of the elementary functions, of kElementBlock threads: more warps hide more of their latency.
inline constexpr unsigned kResidentElementaryBlocks = 4;
// Elements that one block of kGridBlock threads takes at a time: a tile for each of its 8 warps.
inline constexpr unsigned kSumBlockElements = 8 * 512;
inline constexpr unsigned kDotBlockElements = 8 * 256;

// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): a row reads best in this order.
struct KernelRow {
  const char* name;
  const char* form;        // "function": the caller gives the block; "launch": the kernel knows it
  unsigned block;          // threads in a block of form "launch"; 0 for form "function"
  const char* parameters;  // in the order of the arguments, separated by one space
  // Blocks that fill a multiprocessor, for kernels that stride over their grid: more of them than
  // that do no work and may be left out of a launch. 0: every block of the grid is needed.
  unsigned blocks_per_multiprocessor = 0;
  // Its blocks go over the rows of the output in strides of the grid's second extent. That extent
  // may be more than a device takes, and blocks beyond that number are left out of the launch.
  bool strides_along_y = false;
  // Elements, n, for each block: of a larger grid the other blocks do no work. 0: no such limit.
  unsigned elements_per_block = 0;
  // Static memory of the device, by its name, that a launch finds zero. Whoever launches clears it
  // before, on the stream of the launch: one that was cut short left something there. Null: none.
  const char* workspace = nullptr;
};

inline constexpr KernelRow kKernelTable[] = {
    {"tqx_sum_seq_kernel", "function", 0, "x:f64[n] out:f64[4] n:i64"},
    {"tqx_sum_kernel", "launch", kGridBlock, "x:f64[n] out:f64[1] out_err:f64[1] n:i64",
     kResidentSumBlocks, false, kSumBlockElements, "sum_grid_memory"},
    {"tqx_dot_seq_kernel", "function", 0, "x:f64[n] y:f64[n] out:f64[4] n:i64"},
    {"tqx_dot_kernel", "launch", kGridBlock,
     "x:f64[n] y:f64[n] out:f64[1] out_err:f64[1] out_err2:f64[1] n:i64", kResidentDotBlocks, false,
     kDotBlockElements, "dot_grid_memory"},
    {"tqx_matmul_kernel", "function", 0,
     "a:f64[M*K] b:f64[K*N] c0:f64[M*N] c1:f64[M*N] c2:f64[M*N] M:i64 N:i64 K:i64", 0, true},
    {"tqx_var_kernel", "launch", kSingleBlock, "x:f64[n] out_mean:f64[1] out_var:f64[1] n:i64"},
    {"tqx_norm_kernel", "launch", kSingleBlock, "x:f64[n] out:f64[1] n:i64"},
    {"tqx_prod_kernel", "launch", kSingleBlock, "x:f64[n] out:f64[1] out_err:f64[1] n:i64"},
    {"tqx_cumsum_kernel", "launch", kSingleBlock, "x:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_logsumexp_kernel", "launch", kSingleBlock, "x:f64[n] out:f64[1] n:i64"},
    {"tqx_add_kernel", "launch", kElementBlock,
     "x:f64[n] y:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_sub_kernel", "launch", kElementBlock,
     "x:f64[n] y:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_mul_kernel", "launch", kElementBlock,
     "x:f64[n] y:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_div_kernel", "launch", kElementBlock,
     "x:f64[n] y:f64[n] out:f64[n] out_err:f64[n] n:i64"},
    {"tqx_relu_kernel", "launch", kElementBlock, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_neg_kernel", "launch", kElementBlock, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_exp_kernel", "launch", kElementBlock, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_log_kernel", "launch", kElementBlock, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_sqrt_kernel", "launch", kElementBlock, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_sigmoid_kernel", "launch", kElementBlock, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_tanh_kernel", "launch", kElementBlock, "x:f64[n] out:f64[n] n:i64"},
    {"tqx_leaky_relu_kernel", "launch", kElementBlock,
     "x:f64[n] negative_slope:f64 out:f64[n] n:i64"},
    {"tqx_rms_norm_kernel", "launch", kSingleBlock, "x:f64[n] out:f64[n] n:i64 eps:f64"},
};

inline constexpr int kKernelCount = static_cast<int>(sizeof kKernelTable / sizeof kKernelTable[0]);

}  // namespace korvex::kernels
