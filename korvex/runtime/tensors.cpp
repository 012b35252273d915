// SPDX-License-Identifier: Apache-2.0
// The CUDA test, flat float64 inputs, new float64 tensors.
#include "korvex/runtime/tensors.h"

#include "korvex/runtime/messages.h"

namespace korvex {

void require_cuda(const Object& x) {
  const Object is_cuda = x.get("is_cuda"_name);
  if (!truth(is_cuda)) {
    raise(PyExc_RuntimeError, messages::kNeedsCuda);
  }
}

Object flat_float64(const Object& x) {
  return x.method("double"_name).method("contiguous"_name).method("view"_name, kMinusOne);
}

Object zeros_like_device(Handle size, const Object& x) {
  const Object zeros = torch_member("zeros"_name);
  return make_float64(zeros, x, size);
}

Object empty_like_device(Handle size, const Object& x) {
  const Object empty = torch_member("empty"_name);
  return make_float64(empty, x, size);
}

Object in_shape_of(const Object& out, const Object& x) {
  const Object view = out.get("view"_name);
  return view.call(x.get("shape"_name));
}

Object device_text(const Object& x) {
  const Object device = x.get("device"_name);
  return to_text(device);
}

}  // namespace korvex
