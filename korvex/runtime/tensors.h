// SPDX-License-Identifier: Apache-2.0
// Tensors of torch: the CUDA test, flat float64 inputs, new float64 tensors beside another one.
#pragma once

#include "korvex/runtime/globals.h"

namespace korvex {

// Raises the RuntimeError for a tensor that is not on a CUDA device. Only the operand given here
// is tested; any other fails in cp.from_dlpack.
void require_cuda(const Object& x);

// x.double().contiguous().view(-1)
Object flat_float64(const Object& x);

// make(*arguments, dtype=torch.float64, device=x.device)
template <typename... Arguments>
Object make_float64(const Object& make, const Object& x, const Arguments&... arguments) {
  const Object dtype = torch_member("float64"_name);
  const Object device = x.get("device"_name);
  return make.call_with(kKeywords<"dtype", "device">, arguments..., dtype, device);
}

// torch.zeros(size, dtype=torch.float64, device=x.device)
Object zeros_like_device(Handle size, const Object& x);

// torch.empty(size, dtype=torch.float64, device=x.device): the kernel must write every element.
Object empty_like_device(Handle size, const Object& x);

// out.view(x.shape)
Object in_shape_of(const Object& out, const Object& x);

// str(x.device)
Object device_text(const Object& x);

}  // namespace korvex
