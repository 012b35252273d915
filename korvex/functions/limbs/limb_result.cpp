// SPDX-License-Identifier: Apache-2.0
// TQXResult: a number or tensor held as a list of float64 limbs whose sum is the value.
//
// The limb list is the caller's own object, neither copied nor checked. Methods change nothing;
// derived results carry the device string on unchanged.
#include "korvex/functions/limbs/decimal_conversion.h"
#include "korvex/functions/limbs/limbs.h"
#include "korvex/functions/limbs/two_sum.h"
#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object init(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object& limbs = arguments[1];
  const Object& device = arguments[2];
  set_attribute(self, names().limbs, limbs);
  set_attribute(self, names().device, device);
  const Py_ssize_t limb_count = PyList_GET_SIZE(limbs.handle());
  set_attribute(self, names().n_limbs, integer(limb_count));
  const Object shape = limb_count > 0 ? limbs.at(names().zero).get(names().shape) : tuple();
  set_attribute(self, names().shape, shape);
  const Object dtype = global(names().torch).get(names().float64);
  set_attribute(self, names().dtype, dtype);
  return none();
}

// limbs[i].double(), with the list looked up anew each time.
Object limb_as_double(const Object& self, const Object& index) {
  return self.get(names().limbs).at(index).method(names().double_);
}

// torch.tensor(0.0, dtype=torch.float64): on the CPU, whatever the device string says.
Object zero_scalar() {
  const Object tensor = global(names().torch).get(names().tensor);
  const Object dtype = global(names().torch).get(names().float64);
  return tensor.call_with(names().dtype_keyword, floating(0.0), dtype);
}

// One TwoSum of the running result with each limb, from the largest to the smallest (Knuth, TAOCP
// 2, 4.2.2). The errors are gathered by plain addition, so the last rounding is not always the
// correct one: that is what collapsing means here.
Object collapse(const Arguments& arguments) {
  const Object& self = arguments[0];
  if (equal(self.get(names().n_limbs), names().zero)) return zero_scalar();
  if (equal(self.get(names().n_limbs), names().one)) return limb_as_double(self, names().zero);
  Object result = limb_as_double(self, names().zero);
  Object carry = global(names().torch).get(names().zeros_like).call(result);
  const Object range = object(reinterpret_cast<PyObject*>(&PyRange_Type));
  const Object indices = range.call(names().one, self.get(names().n_limbs));
  for_each(indices, [&](const Object& i) {
    const Object limb = limb_as_double(self, i);
    const Object s = add(result, limb);
    const Object e = rounding_error(s, result, limb);
    result = s;
    carry = add(carry, e);
  });
  return add(result, carry);
}

// A result of several elements silently gives its first one.
Object item(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object collapsed = self.method(names().collapse);
  if (equal(collapsed.method(names().numel), names().one)) return collapsed.method(names().item);
  return collapsed.method(names().flatten).at(names().zero).method(names().item);
}

Object to_float(const Arguments& arguments) { return arguments[0].method(names().item); }

// TQXResult([operation(limb) for limb in self.limbs], self.device)
template <typename Operation>
Object derived_result(const Object& self, const Operation& operation) {
  const Object new_limbs = list_of(self.get(names().limbs), operation);
  const Object result_class = global(names().tqx_result);
  const Object device = self.get(names().device);
  return result_class.call(new_limbs, device);
}

Object squeeze(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object& dim = arguments[1];
  if (is_none(dim)) {
    return derived_result(self, [](const Object& limb) { return limb.method(names().squeeze); });
  }
  return derived_result(self,
                        [&](const Object& limb) { return limb.method(names().squeeze, dim); });
}

Object unsqueeze(const Arguments& arguments) {
  const Object& dim = arguments[1];
  return derived_result(arguments[0],
                        [&](const Object& limb) { return limb.method(names().unsqueeze, dim); });
}

// limb.method(*shape)
Object with_shape(const Object& limb, Handle method, const Object& shape) {
  const Object bound = limb.get(method);
  return checked(PyObject_CallObject(bound, shape));
}

Object view(const Arguments& arguments) {
  const Object& shape = arguments[1];
  return derived_result(arguments[0],
                        [&](const Object& limb) { return with_shape(limb, names().view, shape); });
}

Object reshape(const Arguments& arguments) {
  const Object& shape = arguments[1];
  return derived_result(
      arguments[0], [&](const Object& limb) { return with_shape(limb, names().reshape, shape); });
}

Object repr(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object n_limbs = formatted(self.get(names().n_limbs));
  const Object shape = formatted(self.get(names().shape));
  return checked(
      PyUnicode_FromFormat("TQXResult(n_limbs=%U, shape=%U)", n_limbs.handle(), shape.handle()));
}

constexpr Parameter kSelf{"self"};

constexpr char kClassDoc[] =
    "Result of a TQX operation: a number or tensor as a list of float64 limbs.\n"
    "\n"
    "Limb order is [hi, err1, err2, ...]:\n"
    "- hi: the primary FP64 result\n"
    "- err1: the first error term (from exact arithmetic)\n"
    "- err2: the error of the error (from multi-level error tracking)\n"
    "\n"
    "The TRUE result = sum(all limbs)";

constexpr char kCollapseDoc[] =
    "Collapse limbs to single FP64 tensor using TwoSum cascade.\n"
    "\n"
    "For EXACT results, use to_decimal() instead.\n"
    "The limb list IS the exact number - collapsing loses information.";

constexpr ClassRow kTqxResult{
    "TQXResult",
    kClassDoc,
    {
        {{"__init__",
          {kSelf,
           {"limbs", Kind::kList, "List[torch.Tensor]"},
           {"device", Kind::kStr, "str", Default::text_value("cuda")}},
          nullptr,
          nullptr,
          init}},
        {{"collapse", {kSelf}, "torch.Tensor", kCollapseDoc, collapse}},
        {{"to_decimal",
          {kSelf, {"index", Kind::kOptionalTuple, "Optional[Tuple]", Default::none()}},
          "Decimal",
          kToDecimalDoc,
          to_decimal}},
        {{"_fp64_to_decimal",
          {{"f", Kind::kFloat, "float"}},
          "Decimal",
          kFp64ToDecimalDoc,
          fp64_to_decimal},
         Method::Role::kStatic},
        {{"item", {kSelf}, "float", "Return collapsed scalar value as Python float.", item}},
        {{"__float__", {kSelf}, "float", "Allow float() conversion.", to_float}},
        {{"squeeze",
          {kSelf, {"dim", Kind::kOptionalInt, "Optional[int]", Default::none()}},
          "TQXResult",
          "Squeeze dimensions from all limbs.",
          squeeze}},
        {{"unsqueeze",
          {kSelf, {"dim", Kind::kInt, "int"}},
          "TQXResult",
          "Unsqueeze dimension in all limbs.",
          unsqueeze}},
        {{"view",
          {kSelf, {"shape", Kind::kVariadic}},
          "TQXResult",
          "View all limbs with new shape.",
          view}},
        {{"reshape",
          {kSelf, {"shape", Kind::kVariadic}},
          "TQXResult",
          "Reshape all limbs.",
          reshape}},
        {{"__repr__", {kSelf}, "str", nullptr, repr}},
    },
};

}  // namespace

void define_limb_result() { define_class(kTqxResult); }

}  // namespace korvex
