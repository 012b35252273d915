// SPDX-License-Identifier: Apache-2.0
// Reductions as Decimal values: limbs from the limb form of a function, summed in decimal.
#include "korvex/functions/reductions/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// tqx_sum(x, return_tqx=True)
Object sum_limbs(const Object& x) {
  return global("tqx_sum"_name).call_with(kKeywords<"return_tqx">, x, boolean(true));
}

Object tqx_sum_exact(const Arguments& arguments) {
  const Object result = sum_limbs(arguments[0]);
  return result.method("to_decimal"_name);
}

// The exact sum, then one division rounded to the precision of the context.
Object tqx_mean_exact(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object sum_result = sum_limbs(x);
  const Object decimal_class = global("Decimal"_name);
  const Object n = decimal_class.call(x.method("numel"_name));
  const Object total = sum_result.method("to_decimal"_name);
  return divide(total, n);
}

Object tqx_dot_exact(const Arguments& arguments) {
  const Object dot = global("tqx_dot"_name);
  const Object result =
      dot.call_with(kKeywords<"return_tqx">, arguments[0], arguments[1], boolean(true));
  return result.method("to_decimal"_name);
}

// result.to_decimal(index=(i, j)) of the limbs of a @ b
Object product_element(const Object& product, const Object& i, const Object& j) {
  const Object convert = product.get("to_decimal"_name);
  return convert.call_with(kKeywords<"index">, tuple(i, j));
}

// The whole product is computed to read one element of it.
Object tqx_matmul_exact(const Arguments& arguments) {
  const Object matmul = global("tqx_matmul"_name);
  const Object result =
      matmul.call_with(kKeywords<"return_tqx">, arguments[0], arguments[1], boolean(true));
  return product_element(result, arguments[2], arguments[3]);
}

Object tqx_bmm_exact(const Arguments& arguments) {
  const Object& batch = arguments[2];
  const Object matmul = global("tqx_matmul"_name);
  const Object a = arguments[0].at(batch);
  const Object b = arguments[1].at(batch);
  const Object result = matmul.call_with(kKeywords<"return_tqx">, a, b, boolean(true));
  return product_element(result, arguments[3], arguments[4]);
}

// x.double().flatten()
Object flattened(const Object& x) { return x.method("double"_name).method("flatten"_name); }

// torch.tensor(float(mean), dtype=torch.float64, device=x.device): the mean is rounded to one
// float64 here, so what follows is not exact.
Object mean_scalar(const Object& mean, const Object& x) {
  const Object tensor = torch_member("tensor"_name);
  const Object value = checked(PyNumber_Float(mean));
  return make_float64(tensor, x, value);
}

Object tqx_var_exact(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object x_f64 = flattened(x);
  const Object n = x_f64.method("numel"_name);
  const Object mean_dec = global("tqx_mean_exact"_name).call(x);
  const Object mean_tensor = mean_scalar(mean_dec, x);
  const Object diff = subtract(x_f64, mean_tensor);
  const Object diff_sq = multiply(diff, diff);
  const Object sum_sq = global("tqx_sum_exact"_name).call(diff_sq);
  const Object decimal_class = global("Decimal"_name);
  const Object divisor = decimal_class.call(arguments.flag(1) ? subtract(n, kOne) : n);
  return divide(sum_sq, divisor);
}

Object tqx_std_exact(const Arguments& arguments) {
  const Object variance = global("tqx_var_exact"_name);
  const Object var = variance.call_with(kKeywords<"unbiased">, arguments[0], arguments[1]);
  return var.method("sqrt"_name);
}

// The squares are rounded to float64 before the exact sum; p has no effect.
Object tqx_norm_exact(const Arguments& arguments) {
  const Object x_f64 = flattened(arguments[0]);
  const Object x_sq = multiply(x_f64, x_f64);
  const Object sum_sq = global("tqx_sum_exact"_name).call(x_sq);
  return sum_sq.method("sqrt"_name);
}

Object tqx_prod_exact(const Arguments& arguments) {
  const Object prod = global("tqx_prod"_name);
  const Object result = prod.call_with(kKeywords<"return_tqx">, arguments[0], boolean(true));
  return result.method("to_decimal"_name);
}

Object tqx_cumsum_exact(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object cumsum = global("tqx_cumsum"_name);
  const Object result = cumsum.call_with(kKeywords<"return_tqx">, x, boolean(true));
  const Object x_flat = x.method("flatten"_name);
  const Object n = x_flat.method("numel"_name);
  return list_of(range_to(n), [&](const Object& i) {
    const Object convert = result.get("to_decimal"_name);
    return convert.call_with(kKeywords<"index">, tuple(i));
  });
}

Object tqx_trace_exact(const Arguments& arguments) {
  const Object diagonal = torch_member("diag"_name);
  const Object diag = diagonal.call(arguments[0].method("double"_name));
  return global("tqx_sum_exact"_name).call(diag);
}

// No more exact than tqx_logsumexp: its one float64, written out in decimal.
Object tqx_logsumexp_exact(const Arguments& arguments) {
  const Object logsumexp = global("tqx_logsumexp"_name);
  const Object result = logsumexp.call_with(kKeywords<"return_tqx">, arguments[0], boolean(false));
  const Object convert = global("TQXResult"_name).get("_fp64_to_decimal"_name);
  return convert.call(result.method("item"_name));
}

constexpr Parameter kI{"i", Kind::kInt, "int"};
constexpr Parameter kJ{"j", Kind::kInt, "int"};

constexpr Signature kRows[] = {
    {"tqx_sum_exact",
     {kX},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR sum.\n"
     "\n"
     "Returns Decimal with ALL precision preserved. No drift, no accumulation error.\n"
     "\n"
     "The returned Decimal is the EXACT sum of the FP64 values stored in x.\n"
     "Note: the inputs still carry their representation error; 0.1 is stored as the nearest FP64.\n"
     "\n"
     "Example:\n"
     "    >>> x = torch.ones(100000, device='cuda') * 0.1\n"
     "    >>> tqx_sum_exact(x)\n"
     "    Decimal('9999.999999999999892419....')",
     tqx_sum_exact},
    {"tqx_dot_exact",
     {kX, kY},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR dot product.\n"
     "\n"
     "Returns Decimal with ALL precision preserved: the EXACT sum of the "
     "products of the FP64 values\n"
     "stored in x and y, as far as the four limbs of the kernel hold it.",
     tqx_dot_exact},
    {"tqx_mean_exact",
     {kX},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR mean.\n"
     "\n"
     "Returns Decimal: the EXACT sum of the FP64 values stored in x, divided by their number.\n"
     "The division is rounded to the precision of the decimal context (1000 digits).",
     tqx_mean_exact},
    {"tqx_matmul_exact",
     {kA, kB, kI, kJ},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR matrix product element.\n"
     "\n"
     "Returns Decimal: element (i, j) of a @ b with ALL precision of its three limbs preserved.",
     tqx_matmul_exact},
    {"tqx_var_exact",
     {kX, kUnbiased},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR variance.\n"
     "\n"
     "Returns Decimal: the EXACT sum of the squared deviations, divided by n - 1 if unbiased (the\n"
     "default), else by n.",
     tqx_var_exact},
    {"tqx_std_exact",
     {kX, kUnbiased},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR standard deviation.\n"
     "\n"
     "Returns Decimal: the square root of tqx_var_exact.\n"
     "Note: sqrt itself is approximate, but the variance input is exact.",
     tqx_std_exact},
    {"tqx_norm_exact",
     {kX, kNormOrder},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR norm.\n"
     "\n"
     "Returns Decimal: the square root of the EXACT sum of the squares.",
     tqx_norm_exact},
    {"tqx_prod_exact",
     {kX},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR product.\n"
     "\n"
     "Returns Decimal with ALL precision of the kernel's two limbs preserved.",
     tqx_prod_exact},
    {"tqx_cumsum_exact",
     {kX},
     "List[Decimal]",
     "TRUE ZERO COMPUTATIONAL ERROR cumulative sum.\n"
     "\n"
     "Returns a list of Decimal, one per element, each with ALL "
     "precision of its two limbs preserved.",
     tqx_cumsum_exact},
    {"tqx_trace_exact",
     {kX},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR trace.\n"
     "\n"
     "Returns Decimal: the EXACT sum of the FP64 values on the diagonal of x.",
     tqx_trace_exact},
    {"tqx_bmm_exact",
     {kA, kB, {"batch", Kind::kInt, "int"}, kI, kJ},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR batched matrix product element.\n"
     "\n"
     "Returns Decimal: element (i, j) of product number batch with ALL "
     "precision of its three limbs\n"
     "preserved.",
     tqx_bmm_exact},
    {"tqx_logsumexp_exact",
     {kX},
     "Decimal",
     "TRUE ZERO COMPUTATIONAL ERROR logsumexp.\n"
     "\n"
     "Returns Decimal: the value of tqx_logsumexp, written out exactly.\n"
     "Note: exp() is approximate, but the sum is exact.",
     tqx_logsumexp_exact},
};

}  // namespace

void define_exact_decimals() { define_functions(kRows); }

}  // namespace korvex
