// SPDX-License-Identifier: Apache-2.0
// The kernels of exact states for a GPU, in the order of korvex/kernels/states.h.
//
// As those of kernels.cu they are thin shells, and run on any grid of at least one block; blocks
// are whole warps. They keep nothing between launches: what they add, they add to the state, and
// what the launches of one running sum share, the caller brings.
#include "korvex/kernels/device/state_axes.h"
#include "korvex/kernels/device/state_columns.h"
#include "korvex/kernels/device/state_functions.h"
#include "korvex/kernels/device/state_ids.h"
#include "korvex/kernels/device/state_products.h"
#include "korvex/kernels/device/state_segments.h"
#include "korvex/kernels/device/state_sums.h"
#include "korvex/kernels/device/state_vectors.h"
#include "korvex/kernels/device/thread.cuh"

namespace korvex::kernels {

__device__ __forceinline__ StateElements elements(const void* first, long long byte_stride,
                                                  long long format) {
  return {first, byte_stride, static_cast<int>(format)};
}
__device__ __forceinline__ arithmetic::StateKind state_kind(long long kind) {
  return static_cast<arithmetic::StateKind>(kind);
}

}  // namespace korvex::kernels

// Adds n elements to the digits of a sum, or takes them away.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_add_elements(long long n, const void* x, long long x_stride, long long x_format,
                        long long sign, std::int64_t* digits, std::int64_t* counts) {
  using namespace korvex::kernels;
  __shared__ StateBlockMemory<korvex::arithmetic::ExactSum> block;
  add_elements_by_grid(DeviceThread(), elements(x, x_stride, x_format), n, {digits, counts, sign},
                       block);
}

// Adds the products of n pairs to the digits of a sum of products, or takes them away.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_add_products(long long n, const void* x, long long x_stride, long long x_format,
                        const void* y, long long y_stride, long long y_format, long long sign,
                        std::int64_t* digits, std::int64_t* counts) {
  using namespace korvex::kernels;
  __shared__ StateBlockMemory<korvex::arithmetic::ExactProductSum> block;
  add_products_by_grid(DeviceThread(), elements(x, x_stride, x_format),
                       elements(y, y_stride, y_format), n, {digits, counts, sign}, block);
}

// Brings the digits of a state into [0, 2^32); by the first block.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock)
    korvex_settle_state(long long kind, std::int64_t* words) {
  using namespace korvex::kernels;
  __shared__ StateWorkMemory block;
  const DeviceThread thread;
  if (thread.block() == 0) {
    settle_by_block(thread, state_kind(kind), words, block);
  }
}

// Writes the value of a state, rounded once to a format; by the first block.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock)
    korvex_round_state(long long kind, const std::int64_t* words, long long of_products,
                       long long format, void* out) {
  using namespace korvex::kernels;
  __shared__ StateWorkMemory block;
  const DeviceThread thread;
  if (thread.block() == 0) {
    round_by_block(thread, state_kind(kind), words, of_products != 0, static_cast<int>(format), out,
                   block);
  }
}

// Writes one part of n elements as doubles, in runs of `inner`, each of which has room for
// `copies`.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_widen(long long n, const void* x, long long x_stride, long long x_format, long long part,
                 long long inner, long long copies, double* out) {
  using namespace korvex::kernels;
  widen_by_grid(DeviceThread(), elements(x, x_stride, x_format), n, static_cast<int>(part), inner,
                copies, out);
}

// Writes a times b, each element rounded once to a format; blocks take tiles of a width.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentProductBlocks)
    korvex_multiply(long long tiles, long long width, const double* a, const double* b,
                    long long rows, long long columns, long long depth, void* out, long long step,
                    long long format) {
  using namespace korvex::kernels;
  using Memory = MatrixTile<DeviceThread, RoundedResults>::Memory;
  alignas(16) __shared__ unsigned char memory[sizeof(Memory)];
  multiply_by_grid(DeviceThread(), tiles, static_cast<int>(width), {a, b, rows, columns, depth},
                   {{out, step, static_cast<int>(format)}}, *reinterpret_cast<Memory*>(memory));
}

// The first of three launches of a running sum: each segment of the n elements by itself.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_sum_segments(long long segments, void* memory, long long n, const void* x,
                        long long x_stride, long long x_format) {
  using namespace korvex::kernels;
  sum_segments_by_grid(DeviceThread(), elements(x, x_stride, x_format), {n, segments, memory});
}

// The second: gives each segment the sum of all before it; by the first block.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock)
    korvex_join_segments(long long segments, void* memory, long long n) {
  using namespace korvex::kernels;
  const DeviceThread thread;
  if (thread.block() == 0) {
    join_segments_by_block(thread, {n, segments, memory});
  }
}

// The third: writes the sum through each element, rounded once to a format.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_running_sums(long long segments, void* memory, long long n, const void* x,
                        long long x_stride, long long x_format, void* out, long long step,
                        long long format) {
  using namespace korvex::kernels;
  write_running_sums_by_grid(DeviceThread(), elements(x, x_stride, x_format), {n, segments, memory},
                             {out, step, static_cast<int>(format)});
}

// Adds the elements of each output to its state: items of outputs, cut into parts as the plan says.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentAxisBlocks)
    korvex_add_axes(long long items, long long first, const std::int64_t* plan, const void* x,
                    long long x_format, std::int64_t* digits, long long words,
                    std::int64_t* counts) {
  using namespace korvex::kernels;
  __shared__ TeamMemory<korvex::arithmetic::ExactSum> block;
  add_axes_by_grid(DeviceThread(), items, first, AxisPlan(plan), {x, static_cast<int>(x_format), 0},
                   {digits, counts, words, 1}, block);
}

// The same of products of pairs.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentAxisBlocks)
    korvex_multiply_axes(long long items, long long first, const std::int64_t* plan, const void* x,
                         long long x_format, const void* y, long long y_format, long long sign,
                         std::int64_t* digits, long long words, std::int64_t* counts) {
  using namespace korvex::kernels;
  __shared__ TeamMemory<korvex::arithmetic::ExactProductSum> block;
  multiply_axes_by_grid(DeviceThread(), items, first, AxisPlan(plan),
                        {x, static_cast<int>(x_format), 0}, {y, static_cast<int>(y_format), 1},
                        {digits, counts, words, sign}, block);
}

// Adds n elements from one on to the states of outputs that numbers beside them name.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_add_by_ids(long long n, long long begin, const void* ids, long long ids_stride,
                      long long ids_format, const std::int64_t* plan, const void* x,
                      long long x_format, std::int64_t* states, long long first, long long count,
                      std::int64_t* wrong) {
  using namespace korvex::kernels;
  add_by_ids_by_grid(
      DeviceThread(), n, begin,
      {static_cast<const unsigned char*>(ids), ids_stride, static_cast<int>(ids_format)},
      SegmentPlan(plan), elements(x, 0, x_format), {states, first, count, wrong});
}

// Writes what a function makes of each of many states, rounded once to a format; or settles them.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_round_states(long long count, std::int64_t* states, long long function,
                        long long elements, unsigned long long divisor, unsigned long long scale,
                        void* out, long long step, long long format) {
  using namespace korvex::kernels;
  alignas(FunctionMemory)
      __shared__ unsigned char memory[kFunctionWorkers * sizeof(FunctionMemory)];
  round_states_by_grid(
      DeviceThread(), count, states, {static_cast<int>(function), elements, divisor, scale},
      {out, step, static_cast<int>(format)}, reinterpret_cast<FunctionMemory*>(memory));
}

// Writes sums or means along dimensions, each rounded once to a format; a thread an output.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentAxisBlocks)
    korvex_sum_columns(long long outputs, const std::int64_t* plan, const void* x,
                       long long x_format, long long function, long long elements, void* out,
                       long long step, long long format) {
  using namespace korvex::kernels;
  alignas(ColumnMemory) __shared__ unsigned char memory[sizeof(ColumnMemory)];
  sum_columns_by_grid(DeviceThread(), outputs, AxisPlan(plan), {x, static_cast<int>(x_format), 0},
                      {static_cast<int>(function), elements}, {out, step, static_cast<int>(format)},
                      *reinterpret_cast<ColumnMemory*>(memory));
}

// Writes the running sums of many vectors, each rounded once to a format; a thread a vector.
extern "C" __global__ void __launch_bounds__(korvex::kernels::kGridBlock,
                                             korvex::kernels::kResidentStateBlocks)
    korvex_running_axes(long long vectors, long long threads, void* memory,
                        const std::int64_t* plan, const void* x, long long x_format, void* out,
                        long long format) {
  using namespace korvex::kernels;
  write_running_axes_by_grid(DeviceThread(), vectors, {threads, memory}, AxisPlan(plan),
                             {x, static_cast<int>(x_format), 0}, {out, static_cast<int>(format)});
}
