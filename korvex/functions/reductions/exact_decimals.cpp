// SPDX-License-Identifier: Apache-2.0
// Reductions as Decimal values: limbs from the limb form of a function, summed in decimal.
#include "korvex/functions/reductions/rows.h"
#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// tqx_sum(x, return_tqx=True)
Object sum_limbs(const Object& x) {
  return global(names().tqx_sum).call_with(names().return_tqx_keyword, x, boolean(true));
}

Object tqx_sum_exact(const Arguments& arguments) {
  const Object result = sum_limbs(arguments[0]);
  return result.method(names().to_decimal);
}

// The exact sum, then one division rounded to the precision of the context.
Object tqx_mean_exact(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object sum_result = sum_limbs(x);
  const Object decimal_class = global(names().decimal_class);
  const Object n = decimal_class.call(x.method(names().numel));
  const Object total = sum_result.method(names().to_decimal);
  return divide(total, n);
}

Object tqx_dot_exact(const Arguments& arguments) {
  const Object dot = global(names().tqx_dot);
  const Object result =
      dot.call_with(names().return_tqx_keyword, arguments[0], arguments[1], boolean(true));
  return result.method(names().to_decimal);
}

// result.to_decimal(index=(i, j)) of the limbs of a @ b
Object product_element(const Object& product, const Object& i, const Object& j) {
  const Object convert = product.get(names().to_decimal);
  return convert.call_with(names().index_keyword, tuple(i, j));
}

// The whole product is computed to read one element of it.
Object tqx_matmul_exact(const Arguments& arguments) {
  const Object matmul = global(names().tqx_matmul);
  const Object result =
      matmul.call_with(names().return_tqx_keyword, arguments[0], arguments[1], boolean(true));
  return product_element(result, arguments[2], arguments[3]);
}

Object tqx_bmm_exact(const Arguments& arguments) {
  const Object& batch = arguments[2];
  const Object matmul = global(names().tqx_matmul);
  const Object a = arguments[0].at(batch);
  const Object b = arguments[1].at(batch);
  const Object result = matmul.call_with(names().return_tqx_keyword, a, b, boolean(true));
  return product_element(result, arguments[3], arguments[4]);
}

// x.double().flatten()
Object flattened(const Object& x) { return x.method(names().double_).method(names().flatten); }

// torch.tensor(float(mean), dtype=torch.float64, device=x.device): here exactness ends, the mean
// goes back to one float64.
Object mean_scalar(const Object& mean, const Object& x) {
  const Object tensor = global(names().torch).get(names().tensor);
  const Object value = checked(PyNumber_Float(mean));
  const Object dtype = global(names().torch).get(names().float64);
  const Object device = x.get(names().device);
  return tensor.call_with(names().dtype_device_keywords, value, dtype, device);
}

Object tqx_var_exact(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object x_f64 = flattened(x);
  const Object n = x_f64.method(names().numel);
  const Object mean_dec = global(names().tqx_mean_exact).call(x);
  const Object mean_tensor = mean_scalar(mean_dec, x);
  const Object diff = subtract(x_f64, mean_tensor);
  const Object diff_sq = multiply(diff, diff);
  const Object sum_sq = global(names().tqx_sum_exact).call(diff_sq);
  const Object decimal_class = global(names().decimal_class);
  const Object divisor = decimal_class.call(arguments.flag(1) ? subtract(n, names().one) : n);
  return divide(sum_sq, divisor);
}

Object tqx_std_exact(const Arguments& arguments) {
  const Object variance = global(names().tqx_var_exact);
  const Object var = variance.call_with(names().unbiased_keyword, arguments[0], arguments[1]);
  return var.method(names().sqrt);
}

// The squares are rounded to float64 before the exact sum; p has no effect.
Object tqx_norm_exact(const Arguments& arguments) {
  const Object x_f64 = flattened(arguments[0]);
  const Object x_sq = multiply(x_f64, x_f64);
  const Object sum_sq = global(names().tqx_sum_exact).call(x_sq);
  return sum_sq.method(names().sqrt);
}

Object tqx_prod_exact(const Arguments& arguments) {
  const Object prod = global(names().tqx_prod);
  const Object result = prod.call_with(names().return_tqx_keyword, arguments[0], boolean(true));
  return result.method(names().to_decimal);
}

Object tqx_cumsum_exact(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object cumsum = global(names().tqx_cumsum);
  const Object result = cumsum.call_with(names().return_tqx_keyword, x, boolean(true));
  const Object x_flat = x.method(names().flatten);
  const Object n = x_flat.method(names().numel);
  return list_of(range_to(n), [&](const Object& i) {
    const Object convert = result.get(names().to_decimal);
    return convert.call_with(names().index_keyword, tuple(i));
  });
}

Object tqx_trace_exact(const Arguments& arguments) {
  const Object diagonal = global(names().torch).get(names().diag);
  const Object diag = diagonal.call(arguments[0].method(names().double_));
  return global(names().tqx_sum_exact).call(diag);
}

// No more exact than tqx_logsumexp: its one float64, written out in decimal.
Object tqx_logsumexp_exact(const Arguments& arguments) {
  const Object logsumexp = global(names().tqx_logsumexp);
  const Object result =
      logsumexp.call_with(names().return_tqx_keyword, arguments[0], boolean(false));
  const Object convert = global(names().tqx_result).get(names().fp64_to_decimal);
  return convert.call(result.method(names().item));
}

constexpr Parameter kX{"x", Kind::kAny, "torch.Tensor"};

constexpr Signature kSumExact{
    "tqx_sum_exact",
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
    tqx_sum_exact};

constexpr Signature kMeanExact{
    "tqx_mean_exact",
    {kX},
    "Decimal",
    "TRUE ZERO COMPUTATIONAL ERROR mean.\n"
    "\n"
    "Returns Decimal: the EXACT sum of the FP64 values stored in x, divided by their number.\n"
    "The division is rounded to the precision of the decimal context (1000 digits).",
    tqx_mean_exact};

constexpr Parameter kY{"y", Kind::kAny, "torch.Tensor"};
constexpr Parameter kA{"a", Kind::kAny, "torch.Tensor"};
constexpr Parameter kB{"b", Kind::kAny, "torch.Tensor"};
constexpr Parameter kI{"i", Kind::kInt, "int"};
constexpr Parameter kJ{"j", Kind::kInt, "int"};
constexpr Parameter kUnbiased{"unbiased", Kind::kBool, "bool", Default::boolean(true)};

constexpr Signature kDotExact{"tqx_dot_exact",
                              {kX, kY},
                              "Decimal",
                              "TRUE ZERO COMPUTATIONAL ERROR dot product.\n"
                              "\n"
                              "Returns Decimal with ALL precision preserved: the EXACT sum of the "
                              "products of the FP64 values\n"
                              "stored in x and y, as far as the four limbs of the kernel hold it.",
                              tqx_dot_exact};

constexpr Signature kMatmulExact{
    "tqx_matmul_exact",
    {kA, kB, kI, kJ},
    "Decimal",
    "TRUE ZERO COMPUTATIONAL ERROR matrix product element.\n"
    "\n"
    "Returns Decimal: element (i, j) of a @ b with ALL precision of its three limbs preserved.",
    tqx_matmul_exact};

constexpr Signature kVarExact{
    "tqx_var_exact",
    {kX, kUnbiased},
    "Decimal",
    "TRUE ZERO COMPUTATIONAL ERROR variance.\n"
    "\n"
    "Returns Decimal: the EXACT sum of the squared deviations, divided by n - 1 if unbiased (the\n"
    "default), else by n.",
    tqx_var_exact};

constexpr Signature kStdExact{"tqx_std_exact",
                              {kX, kUnbiased},
                              "Decimal",
                              "TRUE ZERO COMPUTATIONAL ERROR standard deviation.\n"
                              "\n"
                              "Returns Decimal: the square root of tqx_var_exact.\n"
                              "Note: sqrt itself is approximate, but the variance input is exact.",
                              tqx_std_exact};

constexpr Signature kNormExact{"tqx_norm_exact",
                               {kX, {"p", Kind::kInt, "int", Default::integer(2)}},
                               "Decimal",
                               "TRUE ZERO COMPUTATIONAL ERROR norm.\n"
                               "\n"
                               "Returns Decimal: the square root of the EXACT sum of the squares.",
                               tqx_norm_exact};

constexpr Signature kProdExact{
    "tqx_prod_exact",
    {kX},
    "Decimal",
    "TRUE ZERO COMPUTATIONAL ERROR product.\n"
    "\n"
    "Returns Decimal with ALL precision of the kernel's two limbs preserved.",
    tqx_prod_exact};

constexpr Signature kCumsumExact{"tqx_cumsum_exact",
                                 {kX},
                                 "List[Decimal]",
                                 "TRUE ZERO COMPUTATIONAL ERROR cumulative sum.\n"
                                 "\n"
                                 "Returns a list of Decimal, one per element, each with ALL "
                                 "precision of its two limbs preserved.",
                                 tqx_cumsum_exact};

constexpr Signature kTraceExact{
    "tqx_trace_exact",
    {kX},
    "Decimal",
    "TRUE ZERO COMPUTATIONAL ERROR trace.\n"
    "\n"
    "Returns Decimal: the EXACT sum of the FP64 values on the diagonal of x.",
    tqx_trace_exact};

constexpr Signature kBmmExact{"tqx_bmm_exact",
                              {kA, kB, {"batch", Kind::kInt, "int"}, kI, kJ},
                              "Decimal",
                              "TRUE ZERO COMPUTATIONAL ERROR batched matrix product element.\n"
                              "\n"
                              "Returns Decimal: element (i, j) of product number batch with ALL "
                              "precision of its three limbs\n"
                              "preserved.",
                              tqx_bmm_exact};

constexpr Signature kLogsumexpExact{
    "tqx_logsumexp_exact",
    {kX},
    "Decimal",
    "TRUE ZERO COMPUTATIONAL ERROR logsumexp.\n"
    "\n"
    "Returns Decimal: the value of tqx_logsumexp, written out exactly.\n"
    "Note: exp() is approximate, but the sum is exact.",
    tqx_logsumexp_exact};

}  // namespace

void define_exact_decimals() {
  define_function(kSumExact);
  define_function(kDotExact);
  define_function(kMeanExact);
  define_function(kMatmulExact);
  define_function(kVarExact);
  define_function(kStdExact);
  define_function(kNormExact);
  define_function(kProdExact);
  define_function(kCumsumExact);
  define_function(kTraceExact);
  define_function(kBmmExact);
  define_function(kLogsumexpExact);
}

}  // namespace korvex
