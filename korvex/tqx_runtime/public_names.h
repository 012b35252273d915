// SPDX-License-Identifier: Apache-2.0
// The public surface of the module, in its fixed order.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex {

// clang-format off
inline constexpr const char* kPublicNames[] = {
    "__version__", "TQXResult", "tqx_checksum", "tqx_verify", "tqx_checksum_hex",
    "TQXVerifiedResult", "tqx_sum", "tqx_mean", "tqx_var", "tqx_std", "tqx_norm", "tqx_prod",
    "tqx_cumsum", "tqx_logsumexp", "tqx_min", "tqx_max", "tqx_argmin", "tqx_argmax",
    "tqx_sum_exact", "tqx_dot_exact", "tqx_mean_exact", "tqx_matmul_exact", "tqx_var_exact",
    "tqx_std_exact", "tqx_norm_exact", "tqx_prod_exact", "tqx_cumsum_exact", "tqx_trace_exact",
    "tqx_bmm_exact", "tqx_logsumexp_exact", "tqx_dot", "tqx_matmul", "tqx_bmm", "tqx_linear",
    "tqx_conv2d", "tqx_conv_transpose2d", "tqx_einsum", "tqx_add", "tqx_sub", "tqx_mul",
    "tqx_div", "tqx_neg", "tqx_abs", "tqx_pow", "tqx_clamp", "tqx_fmod", "tqx_exp", "tqx_log",
    "tqx_sqrt", "tqx_rsqrt", "tqx_sin", "tqx_cos", "tqx_tan", "tqx_asin", "tqx_acos",
    "tqx_atan", "tqx_atan2", "tqx_sinh", "tqx_cosh", "tqx_tanh", "tqx_floor", "tqx_ceil",
    "tqx_round", "tqx_trunc", "tqx_sign", "tqx_eq", "tqx_ne", "tqx_lt", "tqx_le", "tqx_gt",
    "tqx_ge", "tqx_where", "tqx_relu", "tqx_sigmoid", "tqx_leaky_relu", "tqx_fft", "tqx_ifft",
    "tqx_rfft", "tqx_irfft", "tqx_trace", "tqx_det", "tqx_inv", "tqx_solve", "tqx_mse_loss",
    "get_backend_info",
};
// clang-format on

// __all__: a new list of the names above.
inline Object public_names() {
  const Object names = list();
  for (const char* name : kPublicNames) append(names, text(name));
  return names;
}

}  // namespace korvex
