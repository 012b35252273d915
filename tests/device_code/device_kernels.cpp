// SPDX-License-Identifier: Apache-2.0
// The device code as it stands, compiled for the host.
#include "tests/device_code/cuda_names.h"
// The names come first.
#include <utility>

#include "korvex/kernels/device/kernels.cu"
#include "korvex/kernels/device/states.cu"
#include "tests/device_code/device_kernels.h"

namespace korvex::test {
namespace {

template <class... Arguments, std::size_t... kPlaces>
void call_with(void (*kernel)(Arguments...), void* const* values,
               std::index_sequence<kPlaces...> /*places*/) {
  kernel(*static_cast<Arguments*>(values[kPlaces])...);
}

template <class... Arguments>
constexpr std::size_t count_of(void (* /*kernel*/)(Arguments...)) {
  return sizeof...(Arguments);
}

template <auto kKernel>
void call(void* const* values) {
  call_with(kKernel, values, std::make_index_sequence<count_of(kKernel)>());
}

// clang-format off
const DeviceKernel kKernels[] = {
    {"tqx_sum_seq_kernel", call<tqx_sum_seq_kernel>},
    {"tqx_sum_kernel", call<tqx_sum_kernel>},
    {"tqx_dot_seq_kernel", call<tqx_dot_seq_kernel>},
    {"tqx_dot_kernel", call<tqx_dot_kernel>},
    {"tqx_matmul_kernel", call<tqx_matmul_kernel>},
    {"tqx_var_kernel", call<tqx_var_kernel>},
    {"tqx_norm_kernel", call<tqx_norm_kernel>},
    {"tqx_prod_kernel", call<tqx_prod_kernel>},
    {"tqx_cumsum_kernel", call<tqx_cumsum_kernel>},
    {"tqx_logsumexp_kernel", call<tqx_logsumexp_kernel>},
    {"tqx_add_kernel", call<tqx_add_kernel>},
    {"tqx_sub_kernel", call<tqx_sub_kernel>},
    {"tqx_mul_kernel", call<tqx_mul_kernel>},
    {"tqx_div_kernel", call<tqx_div_kernel>},
    {"tqx_relu_kernel", call<tqx_relu_kernel>},
    {"tqx_neg_kernel", call<tqx_neg_kernel>},
    {"tqx_exp_kernel", call<tqx_exp_kernel>},
    {"tqx_log_kernel", call<tqx_log_kernel>},
    {"tqx_sqrt_kernel", call<tqx_sqrt_kernel>},
    {"tqx_sigmoid_kernel", call<tqx_sigmoid_kernel>},
    {"tqx_tanh_kernel", call<tqx_tanh_kernel>},
    {"tqx_leaky_relu_kernel", call<tqx_leaky_relu_kernel>},
    {"tqx_rms_norm_kernel", call<tqx_rms_norm_kernel>},
    {"tqx_sum_device_kernel", call<tqx_sum_device_kernel>},
    {"tqx_dot_device_kernel", call<tqx_dot_device_kernel>},
    {"tqx_var_device_sum_kernel", call<tqx_var_device_sum_kernel>},
    {"tqx_var_device_kernel", call<tqx_var_device_kernel>},
    {"tqx_norm_device_kernel", call<tqx_norm_device_kernel>},
    {"tqx_prod_device_kernel", call<tqx_prod_device_kernel>},
    {"tqx_cumsum_device_sum_kernel", call<tqx_cumsum_device_sum_kernel>},
    {"tqx_cumsum_device_kernel", call<tqx_cumsum_device_kernel>},
    {"tqx_logsumexp_device_largest_kernel", call<tqx_logsumexp_device_largest_kernel>},
    {"tqx_logsumexp_device_sum_kernel", call<tqx_logsumexp_device_sum_kernel>},
    {"tqx_logsumexp_device_kernel", call<tqx_logsumexp_device_kernel>},
    {"tqx_rms_norm_device_root_kernel", call<tqx_rms_norm_device_root_kernel>},
    {"tqx_rms_norm_device_kernel", call<tqx_rms_norm_device_kernel>},
};
// clang-format on

const DeviceKernel kStateKernels[] = {
    {"korvex_add_elements", call<korvex_add_elements>},
    {"korvex_add_products", call<korvex_add_products>},
    {"korvex_settle_state", call<korvex_settle_state>},
    {"korvex_round_state", call<korvex_round_state>},
    {"korvex_widen", call<korvex_widen>},
    {"korvex_multiply", call<korvex_multiply>},
    {"korvex_sum_segments", call<korvex_sum_segments>},
    {"korvex_join_segments", call<korvex_join_segments>},
    {"korvex_running_sums", call<korvex_running_sums>},
    {"korvex_add_axes", call<korvex_add_axes>},
    {"korvex_multiply_axes", call<korvex_multiply_axes>},
    {"korvex_add_by_ids", call<korvex_add_by_ids>},
    {"korvex_round_states", call<korvex_round_states>},
    {"korvex_sum_columns", call<korvex_sum_columns>},
    {"korvex_running_axes", call<korvex_running_axes>},
};
static_assert(std::size(kStateKernels) == kernels::kStateKernelCount);

template <class Memory>
Workspace workspace(std::string_view name, Memory& memory) {
  return {name, &memory, sizeof memory};
}

}  // namespace

std::span<const DeviceKernel> device_kernels() { return kKernels; }
std::span<const DeviceKernel> state_kernels() { return kStateKernels; }

std::span<const Workspace> device_workspaces() {
  using namespace kernels;
  static const Workspace workspaces[] = {
      workspace("sum_grid_memory", sum_grid_memory),
      workspace("dot_grid_memory", dot_grid_memory),
      workspace("prod_grid_memory", prod_grid_memory),
      workspace("logsumexp_grid_memory", logsumexp_grid_memory),
      workspace("parts_of_blocks", parts_of_blocks),
      workspace("sums_of_blocks", sums_of_blocks),
      workspace("log_sum_so_far", log_sum_so_far),
      workspace("moments_memory", moments_memory),
      workspace("root_memory", root_memory),
      workspace("part_memory", part_memory),
      workspace("reduction_workspace", reduction_workspace),
      workspace("accurate_product_memory", accurate_product_memory),
  };
  return workspaces;
}

}  // namespace korvex::test
