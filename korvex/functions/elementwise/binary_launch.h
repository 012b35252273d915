// SPDX-License-Identifier: Apache-2.0
// The launch of a kernel with two operands, a value and an error term.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex {

// What a two-operand kernel leaves: flat value and error, and the shape they stand for.
struct BinaryOutputs {
  Object out;
  Object out_err;
  Object output_shape;
};

// Broadcasts two float64 tensors, flattens them, and launches (x, y, out, out_err, n) with one
// thread per element. The outputs lie on device_source.device and are written whole by the kernel.
BinaryOutputs launch_binary(Handle kernel_name, Object x, Object y, const Object& device_source);

}  // namespace korvex
