// SPDX-License-Identifier: Apache-2.0
// tqx_add and tqx_sub: twins with three routes, chosen by the operands and return_tqx alone.
//
//   limb route    a TQXResult among the operands: limb lists are added, no kernel
//   pair route    return_tqx: TwoSum on whole tensors, no kernel
//   kernel route  otherwise: one launch, then value and error are added to one float64
//
// The routes accept different operands (only the pair route takes Python numbers), and none tests
// for a CUDA device.
#include "korvex/functions/elementwise/binary_launch.h"
#include "korvex/functions/elementwise/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// All that differs between the twins.
struct Twin {
  const Constant& limb_function;
  bool negate_second;  // in the pair route
  const Constant& kernel_name;
};

constexpr Twin kAddition{"_tqx_add_limbs"_name, false, "tqx_add_kernel"_name};
constexpr Twin kSubtraction{"_tqx_sub_limbs"_name, true, "tqx_sub_kernel"_name};

// Only x is asked for a device; without one the first limb of x has it.
Object limb_device(const Object& x, const Object& x_limbs) {
  if (has_attribute(x, "device"_name)) {
    return device_text(x);
  }
  return device_text(x_limbs.at(kZero));
}

Object limb_route(const Twin& twin, const Object& x, const Object& y, bool return_tqx) {
  const Object x_limbs = global("_get_tqx_limbs"_name).call(x);
  const Object y_limbs = global("_get_tqx_limbs"_name).call(y);
  const Object device = limb_device(x, x_limbs);
  const Object result = global(twin.limb_function).call(x_limbs, y_limbs, device);
  return return_tqx ? result : result.method("collapse"_name);
}

// A tensor as float64, a number as a 0-dimensional tensor on "cuda".
Object pair_operand(const Object& x) {
  if (has_attribute(x, "double"_name)) {
    return x.method("double"_name);
  }
  const Object tensor = torch_member("tensor"_name);
  const Object dtype = torch_member("float64"_name);
  return tensor.call_with(kKeywords<"dtype", "device">, x, dtype, "cuda"_name);
}

Object pair_route(const Twin& twin, const Object& x, const Object& y) {
  const Object x_t = pair_operand(x);
  const Object y_t = pair_operand(y);
  const Object twosum = global("_twosum_f64"_name);
  const Object second = twin.negate_second ? negate(y_t) : y_t;
  const auto [s, e] = unpack<2>(twosum.call(x_t, second));
  const Object device = device_text(x_t);
  return limb_result(list(s, e), device);
}

Object kernel_route(const Twin& twin, const Object& x, const Object& y) {
  const Object x_f64 = x.method("double"_name);
  const Object y_f64 = y.method("double"_name);
  const BinaryOutputs result = launch_binary(twin.kernel_name, x_f64, y_f64, x);
  return add(result.out, result.out_err).method("view"_name, result.output_shape);
}

Object dispatch(const Twin& twin, const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& y = arguments[1];
  const bool return_tqx = arguments.flag(2);
  const bool x_is_tqx = is_limb_result(x);
  const bool y_is_tqx = is_limb_result(y);
  if (x_is_tqx || y_is_tqx) {
    return limb_route(twin, x, y, return_tqx);
  }
  if (return_tqx) {
    return pair_route(twin, x, y);
  }
  return kernel_route(twin, x, y);
}

Object tqx_add(const Arguments& arguments) { return dispatch(kAddition, arguments); }
Object tqx_sub(const Arguments& arguments) { return dispatch(kSubtraction, arguments); }

constexpr Signature kRows[] = {
    {"tqx_add",
     {kAnyX, kAnyY, kReturnTqx},
     nullptr,
     "TQX exact addition using TwoSum.\n"
     "Accepts tensors or TQXResult. Propagates TQX precision through chains.\n"
     "When inputs are TQXResult or return_tqx=True, preserves ALL limbs\n"
     "for maximum precision in chained operations.\n"
     "Uses FP64 TwoSum throughout to avoid FP32 precision loss.",
     tqx_add},
    {"tqx_sub",
     {kAnyX, kAnyY, kReturnTqx},
     nullptr,
     "TQX exact subtraction using TwoSum.\n"
     "Accepts tensors or TQXResult. Propagates TQX precision through chains.\n"
     "When inputs are TQXResult or return_tqx=True, preserves ALL limbs\n"
     "for maximum precision in chained operations.\n"
     "Uses FP64 TwoSum throughout to avoid FP32 precision loss.",
     tqx_sub},
};

}  // namespace

void define_sum_difference() { define_functions(kRows); }

}  // namespace korvex
