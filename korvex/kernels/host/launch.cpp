// SPDX-License-Identifier: Apache-2.0
// The kernels of the host in the order of the kernel table, and the C interface that launches them.
#include "korvex/kernels/host/launch.h"

#include <new>
#include <stdexcept>
#include <string_view>

#include "korvex/kernels/host/float_environment.h"
#include "korvex/kernels/host/product_way.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/modular/double_lanes.h"
#include "korvex/kernels/modular/instructions.h"
#include "korvex/kernels/processor.h"
#include "korvex/kernels/table.h"

namespace korvex::host {
namespace {

using kernels::KernelRow;
using kernels::kKernelCount;
using kernels::kKernelTable;

struct NamedShell {
  std::string_view name;
  Shell* run;
};

// In the order of the kernel table, one row a line.
// clang-format off
constexpr NamedShell kShells[] = {
    {"tqx_sum_seq_kernel", run_sum_seq},
    {"tqx_sum_kernel", run_sum},
    {"tqx_dot_seq_kernel", run_dot_seq},
    {"tqx_dot_kernel", run_dot},
    {"tqx_matmul_kernel", run_matmul},
    {"tqx_var_kernel", run_var},
    {"tqx_norm_kernel", run_norm},
    {"tqx_prod_kernel", run_prod},
    {"tqx_cumsum_kernel", run_cumsum},
    {"tqx_logsumexp_kernel", run_logsumexp},
    {"tqx_add_kernel", run_add},
    {"tqx_sub_kernel", run_sub},
    {"tqx_mul_kernel", run_mul},
    {"tqx_div_kernel", run_div},
    {"tqx_relu_kernel", run_relu},
    {"tqx_neg_kernel", run_neg},
    {"tqx_exp_kernel", run_exp},
    {"tqx_log_kernel", run_log},
    {"tqx_sqrt_kernel", run_sqrt},
    {"tqx_sigmoid_kernel", run_sigmoid},
    {"tqx_tanh_kernel", run_tanh},
    {"tqx_leaky_relu_kernel", run_leaky_relu},
    {"tqx_rms_norm_kernel", run_rms_norm},
};
// clang-format on

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

int korvex_host_kernel_strides_along_y(int index) {
  const auto* row = korvex::host::row(index);
  return row != nullptr && row->strides_along_y ? 1 : 0;
}

int korvex_host_launch(int index, const unsigned grid[3], const unsigned block[3],
                       void* const* args, int threads) {
  namespace host = korvex::host;
  if (host::row(index) == nullptr) {
    return KORVEX_HOST_NO_SUCH_KERNEL;
  }
  if (host::has_no_extent(grid) || host::has_no_extent(block)) {
    return KORVEX_HOST_DONE;
  }
  const host::DefaultFloatEnvironment environment;
  try {
    host::kShells[index].run(host::Arguments(args, threads));
  } catch (const std::bad_alloc&) {
    return KORVEX_HOST_OUT_OF_MEMORY;
  } catch (const std::length_error&) {  // of a vector: more than any memory holds
    return KORVEX_HOST_OUT_OF_MEMORY;
  }
  return KORVEX_HOST_DONE;
}

void korvex_host_set_product_way(int way) { korvex::host::product_settings.way = way; }

const char* korvex_host_residues_of_products(void) {
  return korvex::modular::can_run() ? "bytes" : korvex::modular::can_run_doubles() ? "doubles" : "";
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
  return korvex::kernels::best_instruction_set();
}
