// SPDX-License-Identifier: Apache-2.0
// All kernels, in the order of korvex/kernels/table.h: each a thin shell that names its
// memory and calls one body.
//
// Every kernel takes n and indices as 64-bit numbers, runs on any grid of at least one block, and
// leaves the same bits for each. A block of a kernel of form "launch" is 1 to 8 whole warps.
// One of a single-block kernel may have up to 1024 threads.
#include "korvex/arithmetic/exact/exact_sum.h"
#include "korvex/arithmetic/exact/sum.h"
#include "korvex/kernels/device/device_thread.cuh"
#include "korvex/kernels/device/pairs.cuh"
#include "korvex/kernels/device/parallel_sum.h"
#include "korvex/kernels/device/products.cuh"
#include "korvex/kernels/device/reductions.cuh"
#include "korvex/kernels/device/rms_norm.cuh"
#include "korvex/kernels/device/staged_sum.cuh"
#include "korvex/kernels/device/unary.cuh"

namespace korvex::kernels {
namespace {

// Launches of tqx_sum_kernel never overlap: all are made on the null stream of the device.
__device__ GridMemory sum_grid_memory;

}  // namespace
}  // namespace korvex::kernels

// out[0] to out[3]: the sum of x[0] to x[n - 1]. One thread does it all; others leave at once.
extern "C" __global__ void __launch_bounds__(256)
    tqx_sum_seq_kernel(const double* x, double* out, long long n) {
  using namespace korvex;
  __shared__ alignas(16) double pieces[2][kernels::kPiece];
  __shared__ alignas(arithmetic::ExactSum) unsigned char sum_memory[sizeof(arithmetic::ExactSum)];
  if (!kernels::is_first_thread_of_grid()) {
    return;
  }
  arithmetic::ExactSum& sum = *new (sum_memory) arithmetic::ExactSum;
  kernels::add_staged(x, n, pieces, sum);
  sum.round<4>(out);
}

// out[0] and out_err[0]: the first two limbs of the sum of x[0] to x[n - 1].
extern "C" __global__ void __launch_bounds__(256, 4)
    tqx_sum_kernel(const double* x, double* out, double* out_err, long long n) {
  using namespace korvex;
  __shared__ kernels::BlockMemory block;
  kernels::sum_by_grid(kernels::DeviceThread(), x, out, out_err, n, block,
                       kernels::sum_grid_memory);
}
