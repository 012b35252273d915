// SPDX-License-Identifier: Apache-2.0
// The parts of the element-wise operators, and the launch that the two-operand ones share.
#pragma once

#include "korvex/cpython/object.h"

namespace korvex {

void define_sum_difference();
void define_product_quotient();
void define_unary();
void define_rounding_comparison();
void define_composed();

// What a two-operand kernel leaves: flat value and error, and the shape they stand for.
struct BinaryOutputs {
  Object out;
  Object out_err;
  Object output_shape;
};

// Broadcasts two float64 tensors, flattens them, and launches (x, y, out, out_err, n) with one
// thread per element. The outputs lie on device_source.device and are written whole by the kernel.
BinaryOutputs launch_binary(const Object& kernel_name, Object x, Object y,
                            const Object& device_source);

}  // namespace korvex
