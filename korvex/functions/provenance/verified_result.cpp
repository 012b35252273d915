// SPDX-License-Identifier: Apache-2.0
// TQXVerifiedResult: a result with the checksum it had when it was wrapped.
//
// The value is held by reference and may change; verify() finds that out.
#include "korvex/functions/provenance/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// None and the empty text both mean: compute it now. A given checksum is stored untested.
Object init(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object& value = arguments[1];
  const Object& checksum = arguments[2];
  set_attribute(self, "value"_name, value);
  const Object stored = truth(checksum) ? checksum : global("tqx_checksum"_name).call(value);
  set_attribute(self, "_checksum"_name, stored);
  const Object device = has_attribute(value, "device"_name) ? device_text(value) : text("cpu");
  set_attribute(self, "_device"_name, device);
  return none();
}

// The stored text; the one place where a value is tested on its way out.
Object checksum(const Arguments& arguments) {
  const Object stored = arguments[0].get("_checksum"_name);
  if (PyUnicode_CheckExact(stored.handle()) == 0 && !is_none(stored)) {
    raise_formatted(PyExc_TypeError, messages::kReturnType, "str", Py_TYPE(stored)->tp_name);
  }
  return stored;
}

Object checksum_full(const Arguments& arguments) {
  const Object full_text = global("tqx_checksum_hex"_name);
  const Object value = arguments[0].get("value"_name);
  return full_text.call(value);
}

Object verify(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object verify_checksum = global("tqx_verify"_name);
  const Object value = self.get("value"_name);
  const Object stored = self.get("_checksum"_name);
  return verify_checksum.call_with(kKeywords<"raise_on_mismatch">, value, stored, boolean(true));
}

// Both kinds of value answer to the same call; the test stays although it changes nothing.
Object item(const Arguments& arguments) {
  const Object& self = arguments[0];
  if (is_limb_result(self.get("value"_name))) {
    return self.get("value"_name).method("item"_name);
  }
  return self.get("value"_name).method("item"_name);
}

Object repr(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object stored = formatted(self.get("_checksum"_name));
  const Object device = formatted(self.get("_device"_name));
  return checked(PyUnicode_FromFormat("TQXVerifiedResult(checksum='%U', device='%U')",
                                      stored.handle(), device.handle()));
}

constexpr char kClassDoc[] =
    "A TQX result with the checksum it had when it was wrapped.\n"
    "\n"
    "For audit trails, reproducibility proofs and later verification.\n"
    "\n"
    "Example:\n"
    "    >>> result = tqx.tqx_sum(data, return_verified=True)\n"
    "    >>> result.checksum\n"
    "    >>> result.verify()";

constexpr ClassRow kVerifiedResult{
    "TQXVerifiedResult",
    kClassDoc,
    {
        {{"__init__",
          {kSelf,
           {"value", Kind::kAny, "Union[torch.Tensor, TQXResult]"},
           {"checksum", Kind::kOptionalStr, "Optional[str]", Default::none()}},
          nullptr,
          nullptr,
          init}},
        {{"checksum", {kSelf}, "str", "Stored checksum of the result.", checksum},
         Method::Role::kProperty},
        {{"checksum_full",
          {kSelf},
          "str",
          "Full 64-character checksum of the value as it is now.",
          checksum_full},
         Method::Role::kProperty},
        {{"verify",
          {kSelf},
          "bool",
          "Verify that the value still matches the stored checksum.\n"
          "\n"
          "Returns:\n"
          "    bool: True; a mismatch raises ValueError.",
          verify}},
        {{"item", {kSelf}, "float", "Return the value as a Python number.", item}},
        {{"__repr__", {kSelf}, "str", nullptr, repr}},
    },
};

}  // namespace

void define_verified_result() { define_class(kVerifiedResult); }

}  // namespace korvex
