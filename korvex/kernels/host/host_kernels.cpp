// SPDX-License-Identifier: Apache-2.0
// The kernels compiled for the host: each shell fetches its arguments and calls the shared body.
#include "korvex/kernels/host/host_kernels.h"

#include <cstdint>
#include <string_view>

#include "korvex/arithmetic/exact/sum.h"
#include "korvex/kernels/host/host_float_environment.h"
#include "korvex/kernels/host/host_lanes.h"
#include "korvex/kernels/host/host_pairs.h"
#include "korvex/kernels/host/host_products.h"
#include "korvex/kernels/host/host_reductions.h"
#include "korvex/kernels/host/host_rms_norm.h"
#include "korvex/kernels/host/host_unary.h"
#include "korvex/kernels/host/slices.h"
#include "korvex/kernels/table.h"

namespace korvex::host {
namespace {

using arithmetic::ExactSum;
using arithmetic::HostLanes;
using kernels::KernelRow;
using kernels::kKernelCount;
using kernels::kKernelTable;

class Arguments {
 public:
  Arguments(void* const* values, int threads) : values_(values), threads_(threads) {}
  double* array(int index) const { return *static_cast<double* const*>(values_[index]); }
  std::int64_t integer(int index) const {
    return *static_cast<const std::int64_t*>(values_[index]);
  }
  double number(int index) const { return *static_cast<const double*>(values_[index]); }
  int threads() const { return threads_; }

 private:
  void* const* values_;
  int threads_;
};

void run_sum_seq(const Arguments& arguments) {
  arithmetic::sum_sequential<HostLanes>(arguments.array(0), arguments.array(1),
                                        arguments.integer(2));
}

void run_sum(const Arguments& arguments) {
  const double* x = arguments.array(0);
  ExactSum sum;
  for_each_slice<ExactSum>(
      arguments.integer(3), arguments.threads(),
      [x](std::int64_t begin, std::int64_t end, ExactSum& part) {
        arithmetic::add_range<HostLanes>(x + begin, end - begin, part);
      },
      [&sum](const ExactSum& part) { sum.add(part); });
  arithmetic::write_parallel_sum(sum, arguments.array(1), arguments.array(2));
}

struct Shell {
  std::string_view name;
  void (*run)(const Arguments&);
};

// In the order of the kernel table.
constexpr Shell kShells[] = {
    {"tqx_sum_seq_kernel", run_sum_seq},
    {"tqx_sum_kernel", run_sum},
    {"tqx_dot_seq_kernel", run_dot_seq<Arguments>},
    {"tqx_dot_kernel", run_dot<Arguments>},
    {"tqx_matmul_kernel", run_matmul<Arguments>},
    {"tqx_var_kernel", run_var<Arguments>},
    {"tqx_norm_kernel", run_norm<Arguments>},
    {"tqx_prod_kernel", run_prod<Arguments>},
    {"tqx_cumsum_kernel", run_cumsum<Arguments>},
    {"tqx_logsumexp_kernel", run_logsumexp<Arguments>},
    {"tqx_add_kernel", run_pairs<arithmetic::add_pair, Arguments>},
    {"tqx_sub_kernel", run_pairs<arithmetic::subtract_pair, Arguments>},
    {"tqx_mul_kernel", run_pairs<arithmetic::multiply_pair, Arguments>},
    {"tqx_div_kernel", run_pairs<arithmetic::divide_pair, Arguments>},
    {"tqx_relu_kernel", run_unary<arithmetic::relu, Arguments>},
    {"tqx_neg_kernel", run_unary<arithmetic::negated, Arguments>},
    {"tqx_exp_kernel",
     run_tried_unary<arithmetic::try_exponential, arithmetic::exponential, Arguments>},
    {"tqx_log_kernel",
     run_tried_unary<arithmetic::try_logarithm, arithmetic::logarithm, Arguments>},
    {"tqx_sqrt_kernel", run_unary<arithmetic::square_root, Arguments>},
    {"tqx_sigmoid_kernel",
     run_tried_unary<arithmetic::try_sigmoid, arithmetic::sigmoid, Arguments>},
    {"tqx_tanh_kernel",
     run_tried_unary<arithmetic::try_tanh, arithmetic::hyperbolic_tangent, Arguments>},
    {"tqx_leaky_relu_kernel", run_leaky_relu<Arguments>},
    {"tqx_rms_norm_kernel", run_rms_norm<Arguments>},
};

constexpr bool shells_match_the_table() {
  if (sizeof kShells / sizeof kShells[0] != kKernelCount) {
    return false;
  }
  for (int i = 0; i < kKernelCount; ++i) {
    if (kShells[i].name != kKernelTable[i].name) {
      return false;
    }
  }
  return true;
}
static_assert(shells_match_the_table());

const KernelRow* row(int index) {
  return index >= 0 && index < kKernelCount ? &kKernelTable[index] : nullptr;
}

bool has_no_extent(const unsigned extent[3]) {
  return extent[0] == 0 || extent[1] == 0 || extent[2] == 0;
}

}  // namespace
}  // namespace korvex::host

int korvex_host_kernel_count(void) { return korvex::host::kKernelCount; }

const char* korvex_host_kernel_name(int index) {
  const auto* row = korvex::host::row(index);
  return row == nullptr ? nullptr : row->name;
}

const char* korvex_host_kernel_form(int index) {
  const auto* row = korvex::host::row(index);
  return row == nullptr ? nullptr : row->form;
}

unsigned korvex_host_kernel_block(int index) {
  const auto* row = korvex::host::row(index);
  return row == nullptr ? 0 : row->block;
}

const char* korvex_host_kernel_parameters(int index) {
  const auto* row = korvex::host::row(index);
  return row == nullptr ? nullptr : row->parameters;
}

int korvex_host_launch(int index, const unsigned grid[3], const unsigned block[3],
                       void* const* args, int threads) {
  namespace host = korvex::host;
  if (host::row(index) == nullptr) {
    return 1;
  }
  if (host::has_no_extent(grid) || host::has_no_extent(block)) {
    return 0;
  }
  const host::DefaultFloatEnvironment environment;
  host::kShells[index].run(host::Arguments(args, threads));
  return 0;
}

const char* korvex_host_instruction_set(void) {
#if defined(__AVX512F__)
  return "avx512";
#elif defined(__FMA__)
  return "fma";
#else
  return "base";
#endif
}

const char* korvex_host_best_instruction_set(void) {
  __builtin_cpu_init();
  if (!__builtin_cpu_supports("fma") || !__builtin_cpu_supports("avx2")) {
    return "base";
  }
  const bool has_avx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
                          __builtin_cpu_supports("avx512vl");
  return has_avx512 ? "avx512" : "fma";
}
