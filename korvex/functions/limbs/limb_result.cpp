// SPDX-License-Identifier: Apache-2.0
// TQXResult: a number or tensor held as a list of float64 limbs whose sum is the value.
//
// The limb list is the caller's own object, neither copied nor checked. Methods change nothing;
// derived results carry the device string on unchanged.
#include "korvex/functions/limbs/decimal_conversion.h"
#include "korvex/functions/limbs/limbs.h"
#include "korvex/functions/limbs/rounding_error.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object init(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object& limbs = arguments[1];
  const Object& device = arguments[2];
  set_attribute(self, "limbs"_name, limbs);
  set_attribute(self, "device"_name, device);
  const Py_ssize_t limb_count = PyList_GET_SIZE(limbs.handle());
  set_attribute(self, "n_limbs"_name, integer(limb_count));
  const Object shape = limb_count > 0 ? limbs.at(kZero).get("shape"_name) : tuple();
  set_attribute(self, "shape"_name, shape);
  const Object dtype = torch_member("float64"_name);
  set_attribute(self, "dtype"_name, dtype);
  return none();
}

// limbs[i].double(), with the list looked up anew each time.
Object limb_as_double(const Object& self, Handle index) {
  return self.get("limbs"_name).at(index).method("double"_name);
}

// torch.tensor(0.0, dtype=torch.float64): on the CPU, whatever the device string says.
Object zero_scalar() {
  const Object tensor = torch_member("tensor"_name);
  const Object dtype = torch_member("float64"_name);
  return tensor.call_with(kKeywords<"dtype">, floating(0.0), dtype);
}

// One TwoSum of the running result with each limb, from the largest to the smallest (Knuth, TAOCP
// 2, 4.2.2). The errors are gathered by plain addition, so the last rounding is not always the
// correct one: that is what collapsing means here.
Object collapse(const Arguments& arguments) {
  const Object& self = arguments[0];
  if (equal(self.get("n_limbs"_name), kZero)) {
    return zero_scalar();
  }
  if (equal(self.get("n_limbs"_name), kOne)) {
    return limb_as_double(self, kZero);
  }
  Object result = limb_as_double(self, kZero);
  Object carry = torch_member("zeros_like"_name).call(result);
  const Object range = object(reinterpret_cast<PyObject*>(&PyRange_Type));
  const Object indices = range.call(kOne, self.get("n_limbs"_name));
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
  const Object collapsed = self.method("collapse"_name);
  if (equal(collapsed.method("numel"_name), kOne)) {
    return collapsed.method("item"_name);
  }
  return collapsed.method("flatten"_name).at(kZero).method("item"_name);
}

Object to_float(const Arguments& arguments) { return arguments[0].method("item"_name); }

// TQXResult([operation(limb) for limb in self.limbs], self.device)
template <typename Operation>
Object derived_result(const Object& self, const Operation& operation) {
  const Object new_limbs = list_of(self.get("limbs"_name), operation);
  return limb_result([&] { return new_limbs; }, [&] { return self.get("device"_name); });
}

Object squeeze(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object& dim = arguments[1];
  if (is_none(dim)) {
    return derived_result(self, [](const Object& limb) { return limb.method("squeeze"_name); });
  }
  return derived_result(self, [&](const Object& limb) { return limb.method("squeeze"_name, dim); });
}

Object unsqueeze(const Arguments& arguments) {
  const Object& dim = arguments[1];
  return derived_result(arguments[0],
                        [&](const Object& limb) { return limb.method("unsqueeze"_name, dim); });
}

// limb.method(*shape)
Object with_shape(const Object& limb, Handle method, const Object& shape) {
  const Object bound = limb.get(method);
  return checked(PyObject_CallObject(bound, shape));
}

Object view(const Arguments& arguments) {
  const Object& shape = arguments[1];
  return derived_result(arguments[0],
                        [&](const Object& limb) { return with_shape(limb, "view"_name, shape); });
}

Object reshape(const Arguments& arguments) {
  const Object& shape = arguments[1];
  return derived_result(
      arguments[0], [&](const Object& limb) { return with_shape(limb, "reshape"_name, shape); });
}

Object repr(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object n_limbs = formatted(self.get("n_limbs"_name));
  const Object shape = formatted(self.get("shape"_name));
  return checked(
      PyUnicode_FromFormat("TQXResult(n_limbs=%U, shape=%U)", n_limbs.handle(), shape.handle()));
}

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
        {{"collapse", {kSelf}, kTensor, kCollapseDoc, collapse}},
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
