// SPDX-License-Identifier: Apache-2.0
// The attribute, global, keyword and kernel names that bodies use, as interned str objects.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex {

// One object holds all names from the first import to the end of the process. They are made when
// the module starts, not at load time, because they are Python objects.
struct Names {
  // ---- globals ----
  Object cp = interned("cp");
  Object debug = interned("__debug__");
  Object decimal_class = interned("Decimal");
  Object extract_tqx_tensor = interned("_extract_tqx_tensor");
  Object get_tqx_limbs = interned("_get_tqx_limbs");
  Object hashlib = interned("hashlib");
  Object native_loader = interned("_NATIVE_LOADER");
  Object sorted = interned("sorted");
  Object struct_module = interned("struct");
  Object torch = interned("torch");
  Object tqx_add = interned("tqx_add");
  Object tqx_add_limbs = interned("_tqx_add_limbs");
  Object tqx_asin = interned("tqx_asin");
  Object tqx_atan = interned("tqx_atan");
  Object tqx_bmm = interned("tqx_bmm");
  Object tqx_checksum = interned("tqx_checksum");
  Object tqx_checksum_hex = interned("tqx_checksum_hex");
  Object tqx_cos = interned("tqx_cos");
  Object tqx_cumsum = interned("tqx_cumsum");
  Object tqx_dot = interned("tqx_dot");
  Object tqx_exp = interned("tqx_exp");
  Object tqx_fft = interned("tqx_fft");
  Object tqx_fft_butterfly = interned("_tqx_fft_butterfly");
  Object tqx_ifft = interned("tqx_ifft");
  Object tqx_log = interned("tqx_log");
  Object tqx_logsumexp = interned("tqx_logsumexp");
  Object tqx_matmul = interned("tqx_matmul");
  Object tqx_matmul_2d = interned("_tqx_matmul_2d");
  Object tqx_mean = interned("tqx_mean");
  Object tqx_mean_exact = interned("tqx_mean_exact");
  Object tqx_mul = interned("tqx_mul");
  Object tqx_prod = interned("tqx_prod");
  Object tqx_result = interned("TQXResult");
  Object tqx_sin = interned("tqx_sin");
  Object tqx_solve = interned("tqx_solve");
  Object tqx_sqrt = interned("tqx_sqrt");
  Object tqx_sub = interned("tqx_sub");
  Object tqx_sub_limbs = interned("_tqx_sub_limbs");
  Object tqx_sum = interned("tqx_sum");
  Object tqx_sum_exact = interned("tqx_sum_exact");
  Object tqx_var = interned("tqx_var");
  Object tqx_var_exact = interned("tqx_var_exact");
  Object tqx_verify = interned("tqx_verify");
  Object two_product = interned("_two_product");
  Object two_sum = interned("_two_sum");
  Object twosum_f64 = interned("_twosum_f64");
  Object version = interned("__version__");

  // ---- torch: functions and tensor members ----
  Object abs = interned("abs");
  Object argmax = interned("argmax");
  Object argmin = interned("argmin");
  Object broadcast_shapes = interned("broadcast_shapes");
  Object broadcast_tensors = interned("broadcast_tensors");
  Object cat = interned("cat");
  Object ceil = interned("ceil");
  Object clamp = interned("clamp");
  Object clone = interned("clone");
  Object complex = interned("complex");
  Object conj = interned("conj");
  Object contiguous = interned("contiguous");
  Object cos = interned("cos");
  Object cpu = interned("cpu");
  Object cuda = interned("cuda");
  Object device = interned("device");
  Object diag = interned("diag");
  Object double_ = interned("double");
  Object dtype = interned("dtype");
  Object einsum = interned("einsum");
  Object empty = interned("empty");
  Object eq = interned("eq");
  Object expand = interned("expand");
  Object expand_as = interned("expand_as");
  Object eye = interned("eye");
  Object fft = interned("fft");
  Object flatten = interned("flatten");
  Object flip = interned("flip");
  Object float64 = interned("float64");
  Object floor = interned("floor");
  Object fma = interned("fma");
  Object fmod = interned("fmod");
  Object fold = interned("fold");
  Object functional = interned("functional");
  Object ge = interned("ge");
  Object get_device_name = interned("get_device_name");
  Object gt = interned("gt");
  Object ifft = interned("ifft");
  Object is_available = interned("is_available");
  Object is_complex = interned("is_complex");
  Object is_cuda = interned("is_cuda");
  Object item = interned("item");
  Object le = interned("le");
  Object linalg = interned("linalg");
  Object log2 = interned("log2");
  Object lt = interned("lt");
  Object lu_factor = interned("lu_factor");
  Object max = interned("max");
  Object min = interned("min");
  Object narrow = interned("narrow");
  Object ndim = interned("ndim");
  Object ne = interned("ne");
  Object nn = interned("nn");
  Object numel = interned("numel");
  Object numpy = interned("numpy");
  Object ones_like = interned("ones_like");
  Object pad = interned("pad");
  Object pi = interned("pi");
  Object real = interned("real");
  Object remainder = interned("remainder");
  Object reshape = interned("reshape");
  Object round = interned("round");
  Object shape = interned("shape");
  Object sign = interned("sign");
  Object sin = interned("sin");
  Object solve = interned("solve");
  Object sqrt = interned("sqrt");
  Object squeeze = interned("squeeze");
  Object stack = interned("stack");
  Object sum = interned("sum");
  Object t = interned("t");
  Object tensor = interned("tensor");
  Object tobytes = interned("tobytes");
  Object trunc = interned("trunc");
  Object unfold = interned("unfold");
  Object unsqueeze = interned("unsqueeze");
  Object view = interned("view");
  Object where = interned("where");
  Object zeros = interned("zeros");
  Object zeros_like = interned("zeros_like");

  // ---- cupy and the loader ----
  Object arch = interned("arch");
  Object cubin_path = interned("cubin_path");
  Object from_dlpack = interned("from_dlpack");
  Object function = interned("function");
  Object get_kernel = interned("get_kernel");
  Object launch = interned("launch");
  Object null = interned("null");
  Object stream = interned("Stream");
  Object synchronize = interned("synchronize");

  // ---- standard library ----
  Object getitem = interned("__getitem__");
  Object hexdigest = interned("hexdigest");
  Object pack = interned("pack");
  Object sha256 = interned("sha256");
  Object unpack = interned("unpack");

  // ---- limb results ----
  Object collapse = interned("collapse");
  Object fp64_to_decimal = interned("_fp64_to_decimal");
  Object limbs = interned("limbs");
  Object n_limbs = interned("n_limbs");
  Object to_decimal = interned("to_decimal");

  // ---- verified results ----
  Object checksum = interned("_checksum");
  Object device_attribute = interned("_device");
  Object value = interned("value");

  // ---- kernels ----
  Object tqx_add_kernel = interned("tqx_add_kernel");
  Object tqx_cumsum_kernel = interned("tqx_cumsum_kernel");
  Object tqx_div_kernel = interned("tqx_div_kernel");
  Object tqx_dot_kernel = interned("tqx_dot_kernel");
  Object tqx_dot_seq_kernel = interned("tqx_dot_seq_kernel");
  Object tqx_exp_kernel = interned("tqx_exp_kernel");
  Object tqx_leaky_relu_kernel = interned("tqx_leaky_relu_kernel");
  Object tqx_log_kernel = interned("tqx_log_kernel");
  Object tqx_logsumexp_kernel = interned("tqx_logsumexp_kernel");
  Object tqx_matmul_kernel = interned("tqx_matmul_kernel");
  Object tqx_mul_kernel = interned("tqx_mul_kernel");
  Object tqx_neg_kernel = interned("tqx_neg_kernel");
  Object tqx_norm_kernel = interned("tqx_norm_kernel");
  Object tqx_prod_kernel = interned("tqx_prod_kernel");
  Object tqx_relu_kernel = interned("tqx_relu_kernel");
  Object tqx_rms_norm_kernel = interned("tqx_rms_norm_kernel");
  Object tqx_sigmoid_kernel = interned("tqx_sigmoid_kernel");
  Object tqx_sqrt_kernel = interned("tqx_sqrt_kernel");
  Object tqx_sub_kernel = interned("tqx_sub_kernel");
  Object tqx_sum_kernel = interned("tqx_sum_kernel");
  Object tqx_sum_seq_kernel = interned("tqx_sum_seq_kernel");
  Object tqx_tanh_kernel = interned("tqx_tanh_kernel");
  Object tqx_var_kernel = interned("tqx_var_kernel");

  // ---- keyword names of calls ----
  Object device_dtype_keywords = tuple(interned("device"), interned("dtype"));
  Object device_keyword = tuple(interned("device"));
  Object dim_keepdim_keywords = tuple(interned("dim"), interned("keepdim"));
  Object dim_keyword = tuple(interned("dim"));
  Object dims_keyword = tuple(interned("dims"));
  Object dtype_device_keywords = tuple(interned("dtype"), interned("device"));
  Object dtype_keyword = tuple(interned("dtype"));
  Object grid_keyword = tuple(interned("grid"));
  Object index_keyword = tuple(interned("index"));
  Object inverse_keyword = tuple(interned("inverse"));
  Object key_keyword = tuple(interned("key"));
  Object n_dim_keywords = tuple(interned("n"), interned("dim"));
  Object raise_on_mismatch_keyword = tuple(interned("raise_on_mismatch"));
  Object return_tqx_keyword = tuple(interned("return_tqx"));
  Object stride_keyword = tuple(interned("stride"));
  Object stride_padding_keywords = tuple(interned("stride"), interned("padding"));
  Object truncate_keyword = tuple(interned("truncate"));
  Object unbiased_keyword = tuple(interned("unbiased"));

  // ---- constants ----
  Object minus_one = integer(-1);
  Object zero = integer(0);
  Object one = integer(1);
  Object single_thread = tuple(integer(1), integer(1), integer(1));
};

const Names& names();

}  // namespace korvex
