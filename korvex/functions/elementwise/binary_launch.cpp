// SPDX-License-Identifier: Apache-2.0
// The launch of a kernel with two operands, a value and an error term.
#include "korvex/functions/elementwise/binary_launch.h"

#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// tensor.contiguous().view(-1)
Object flat(const Object& tensor) {
  return tensor.method("contiguous"_name).method("view"_name, kMinusOne);
}

}  // namespace

BinaryOutputs launch_binary(Handle kernel_name, Object x, Object y, const Object& device_source) {
  const Object x_shape = x.get("shape"_name);
  const Object y_shape = y.get("shape"_name);
  if (not_equal(x_shape, y_shape)) {
    const Object broadcast = torch_member("broadcast_tensors"_name);
    const auto [wide_x, wide_y] = unpack<2>(broadcast.call(x, y));
    x = wide_x;
    y = wide_y;
  }
  const Object output_shape = x.get("shape"_name);
  const Object x_flat = flat(x);
  const Object y_flat = flat(y);
  const Object n = x_flat.method("numel"_name);
  const Object grid = grid_over(n);
  const Object out = empty_like_device(n, device_source);
  const Object out_err = empty_like_device(n, device_source);
  launch(kernel_name, grid, ArrayOf{x_flat}, ArrayOf{y_flat}, ArrayOf{out}, ArrayOf{out_err}, n);
  return {out, out_err, output_shape};
}

}  // namespace korvex
