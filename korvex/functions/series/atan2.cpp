// SPDX-License-Identifier: Apache-2.0
// tqx_atan2: the quadrant of tqx_atan(y / x) by six selections, all of them made for every element.
#include "korvex/functions/series/rows.h"
#include "korvex/functions/series/running_sum.h"
#include "korvex/runtime/definitions.h"

namespace korvex {
namespace {

// (x ? 0) & (y ? 0), with the comparisons given; a negative zero counts as zero.
Object both(const Object& x, int x_operation, const Object& y, int y_operation) {
  const Object x_holds = compare(x, names().zero, x_operation);
  const Object y_holds = compare(y, names().zero, y_operation);
  return bit_and(x_holds, y_holds);
}

// torch.tensor(0.0, device=y.device), in torch's default dtype
Object zero_of_default_dtype(const Object& y) {
  const Object tensor = global(names().torch).get(names().tensor);
  const Object device = y.get(names().device);
  return tensor.call_with(names().device_keyword, floating(0.0), device);
}

Object quadrant(const Object& y, const Object& x, const Object& base, const Object& pi) {
  // The first selection changes nothing; it is made all the same.
  Object result =
      where([&] { return compare(x, names().zero, Py_GT); }, [&] { return base; }, base);
  result = where([&] { return both(x, Py_LT, y, Py_GE); }, [&] { return add(base, pi); }, result);
  result =
      where([&] { return both(x, Py_LT, y, Py_LT); }, [&] { return subtract(base, pi); }, result);
  result = where([&] { return both(x, Py_EQ, y, Py_GT); }, [&] { return divide(pi, integer(2)); },
                 result);
  result = where([&] { return both(x, Py_EQ, y, Py_LT); },
                 [&] { return divide(negate(pi), integer(2)); }, result);
  return where([&] { return both(x, Py_EQ, y, Py_EQ); }, [&] { return zero_of_default_dtype(y); },
               result);
}

// Both operands are tested, y first; x is asked only when y passes.
Object tqx_atan2(const Arguments& arguments) {
  Object y = folded(arguments[0]);
  Object x = folded(arguments[1]);
  require_cuda(y);
  require_cuda(x);
  y = y.method(names().double_);
  x = x.method(names().double_);
  const Object pi = float64_scalar([] { return global(names().torch).get(names().pi); }, y);
  const Object atan = global(names().tqx_atan);
  const Object base = atan.call(divide(y, x));
  const Object result = quadrant(y, x, base, pi);
  return one_limb(result, y, arguments.flag(2));
}

constexpr Signature kAtan2{"tqx_atan2",
                           {{"y", Kind::kAny, "torch.Tensor"}, kSeriesX, kSeriesReturnTqx},
                           nullptr,
                           "TRUE TQX atan2 using tqx_atan with quadrant handling.",
                           tqx_atan2};

}  // namespace

void define_atan2() { define_function(kAtan2); }

}  // namespace korvex
