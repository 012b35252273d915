// SPDX-License-Identifier: Apache-2.0
// Checksums: SHA-256 over the float64 bytes of a result, as text that two machines compare.
//
// Hashed are the raw bytes of the collapsed values in row-major order and nothing else: no shape,
// no dtype, no device, no limb count. The text must never change.
#include "korvex/functions/provenance/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

constexpr long kFullLength = 64;  // hexadecimal characters of a SHA-256 digest

// min(truncate, 64)
Object capped(const Object& truncate) {
  const Object full_length = integer(kFullLength);
  const bool capped = checked(PyObject_RichCompareBool(full_length, truncate, Py_LT)) != 0;
  return capped ? full_length : truncate;
}

// There is no CUDA test: a host tensor is as good as one on a device.
Object tqx_checksum(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& truncate = arguments[1];
  const Object tensor = folded(x);
  const Object tensor_f64 =
      tensor.method("double"_name).method("cpu"_name).method("contiguous"_name);
  const Object data_bytes = tensor_f64.method("numpy"_name).method("tobytes"_name);
  const Object sha256 = global("hashlib"_name).get("sha256"_name);
  const Object full_hash = sha256.call(data_bytes).method("hexdigest"_name);
  const Object stop = capped(truncate);
  const Object slice = checked(PySlice_New(nullptr, stop, nullptr));
  return full_hash.at(slice);
}

Object tqx_checksum_hex(const Arguments& arguments) {
  const Object checksum = global("tqx_checksum"_name);
  return checksum.call_with(kKeywords<"truncate">, arguments[0], integer(kFullLength));
}

// expected[:truncate] with a machine-word stop: one that is too large raises OverflowError.
Object truncated(const Object& expected, const Object& truncate) {
  const Py_ssize_t stop = PyLong_AsSsize_t(truncate);
  if (stop == -1 && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  return checked(PySequence_GetSlice(expected, 0, stop));
}

[[noreturn]] void raise_mismatch(const Object& actual, const Object& expected) {
  const Object actual_text = formatted(actual);
  raise_formatted(PyExc_ValueError, messages::kChecksumMismatch, actual_text.handle(),
                  expected.handle());
}

Object tqx_verify(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& expected = arguments[1];
  const Object& truncate = arguments[2];
  const bool raise_on_mismatch = arguments.flag(3);
  const Object checksum = global("tqx_checksum"_name);
  const Object actual = checksum.call_with(kKeywords<"truncate">, x, truncate);
  const Object expected_truncated = truncated(expected, truncate);
  const bool match = equal(actual, expected_truncated);
  if (!match && raise_on_mismatch) {
    raise_mismatch(actual, expected_truncated);
  }
  return boolean(match);
}

constexpr char kValueAnnotation[] = "Union[torch.Tensor, TQXResult]";
constexpr Parameter kResult{"x", Kind::kAny, kValueAnnotation};
constexpr Parameter kTruncate{"truncate", Kind::kInt, "int", Default::integer(16)};

constexpr Signature kRows[] = {
    {"tqx_checksum",
     {kResult, kTruncate},
     "str",
     "Compute SHA256 checksum of TQX result for reproducibility verification.\n"
     "\n"
     "The checksum depends on the float64 values alone: not on shape, device or machine.\n"
     "A TQXResult is collapsed first.\n"
     "\n"
     "Args:\n"
     "    x: Tensor on any device, or TQXResult.\n"
     "    truncate: Number of hex characters to return (default 16, max 64)\n"
     "\n"
     "Returns:\n"
     "    str: lower-case hexadecimal text.",
     tqx_checksum},
    {"tqx_checksum_hex",
     {kResult},
     "str",
     "Compute full 64-character SHA256 hex checksum.\n"
     "\n"
     "Args:\n"
     "    x: Tensor on any device, or TQXResult.\n"
     "\n"
     "Returns:\n"
     "    str: all 64 lower-case hexadecimal characters.",
     tqx_checksum_hex},
    {"tqx_verify",
     {kResult,
      {"expected", Kind::kStr, "str"},
      kTruncate,
      {"raise_on_mismatch", Kind::kBool, "bool", Default::boolean(true)}},
     "bool",
     "Verify that a TQX result matches an expected checksum.\n"
     "\n"
     "Args:\n"
     "    x: Tensor on any device, or TQXResult.\n"
     "    expected: Checksum to compare with; its first truncate characters count.\n"
     "    truncate: Number of hex characters to compare (default 16, max 64)\n"
     "    raise_on_mismatch: If True (default), raise instead of returning False.\n"
     "\n"
     "Returns:\n"
     "    bool: True if the checksums match.\n"
     "\n"
     "Raises:\n"
     "    ValueError: TQX checksum mismatch! Got: ..., Expected: ...",
     tqx_verify},
};

}  // namespace

void define_checksums() { define_functions(kRows); }

}  // namespace korvex
