// SPDX-License-Identifier: Apache-2.0
// tqx_atan2: the quadrant of tqx_atan(y / x) by six selections, all of them made for every element.
#include "korvex/functions/series/parts.h"
#include "korvex/functions/series/steps.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// (x ? 0) & (y ? 0), with the comparisons given; a negative zero counts as zero.
Object both(const Object& x, int x_operation, const Object& y, int y_operation) {
  const Object x_holds = compare(x, kZero, x_operation);
  const Object y_holds = compare(y, kZero, y_operation);
  return bit_and(x_holds, y_holds);
}

// torch.tensor(0.0, device=y.device), in torch's default dtype
Object zero_of_default_dtype(const Object& y) {
  const Object tensor = torch_member("tensor"_name);
  const Object device = y.get("device"_name);
  return tensor.call_with(kKeywords<"device">, floating(0.0), device);
}

Object quadrant(const Object& y, const Object& x, const Object& base, const Object& pi) {
  // The first selection changes nothing; it is made all the same.
  Object result = where([&] { return compare(x, kZero, Py_GT); }, [&] { return base; }, base);
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
  y = y.method("double"_name);
  x = x.method("double"_name);
  const Object pi = float64_scalar([] { return torch_member("pi"_name); }, y);
  const Object atan = global("tqx_atan"_name);
  const Object base = atan.call(divide(y, x));
  const Object result = quadrant(y, x, base, pi);
  return one_limb(result, y, arguments.flag(2));
}

constexpr Signature kRows[] = {
    {"tqx_atan2",
     {kY, kX, kReturnTqx},
     nullptr,
     "TRUE TQX atan2 using tqx_atan with quadrant handling.",
     tqx_atan2},
};

}  // namespace

void define_atan2() { define_functions(kRows); }

}  // namespace korvex
