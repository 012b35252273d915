// SPDX-License-Identifier: Apache-2.0
// The launch of a kernel with two operands, a value and an error term.
#include "korvex/functions/elementwise/rows.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object flat(const Object& tensor) {
  return tensor.method(names().contiguous).method(names().view, names().minus_one);
}

}  // namespace

BinaryOutputs launch_binary(const Object& kernel_name, Object x, Object y,
                            const Object& device_source) {
  const Object x_shape = x.get(names().shape);
  const Object y_shape = y.get(names().shape);
  if (not_equal(x_shape, y_shape)) {
    const Object broadcast = global(names().torch).get(names().broadcast_tensors);
    const auto [wide_x, wide_y] = unpack<2>(broadcast.call(x, y));
    x = wide_x;
    y = wide_y;
  }
  const Object output_shape = x.get(names().shape);
  const Object x_flat = flat(x);
  const Object y_flat = flat(y);
  const Object n = x_flat.method(names().numel);
  const Object num_blocks = blocks_for(n, kBlock);
  const Object out = empty_like_device(n, device_source);
  const Object out_err = empty_like_device(n, device_source);
  const Object kernel = get_kernel(kernel_name);
  {
    const Object launch = kernel.get(names().launch);
    const Object x_array = from_dlpack(x_flat);
    const Object y_array = from_dlpack(y_flat);
    const Object out_array = from_dlpack(out);
    const Object out_err_array = from_dlpack(out_err);
    const Object grid = tuple(num_blocks, names().one, names().one);
    launch.call_with(names().grid_keyword, x_array, y_array, out_array, out_err_array, n, grid);
  }
  synchronize();
  return {out, out_err, output_shape};
}

}  // namespace korvex
