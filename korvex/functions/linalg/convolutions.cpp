// SPDX-License-Identifier: Apache-2.0
// tqx_conv2d and tqx_conv_transpose2d: patches by torch's unfold and fold, sums by the matrix
// product, one product per batch member. Each product is collapsed; return_tqx has no effect.
#include "korvex/functions/linalg/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// torch.nn.functional.name
Object functional(Handle name) { return torch_member("nn"_name).get("functional"_name).get(name); }

// matmul(a, b, return_tqx=False); `matmul` is tqx_matmul, looked up before the operands.
Object collapsed_product(const Object& matmul, const Object& a, const Object& b) {
  return matmul.call_with(kKeywords<"return_tqx">, a, b, boolean(false));
}

// size += 2 * padding
Object grown(const Object& size, const Object& padding) {
  return in_place_add(size, multiply(integer(2), padding));
}

// (size - kernel) // stride + 1
Object window_count(const Object& size, const Object& kernel, const Object& stride) {
  const Object steps = floor_divide(subtract(size, kernel), stride);
  return add(steps, kOne);
}

// A negative padding takes no step, so it means none.
Object tqx_conv2d(const Arguments& arguments) {
  const Object& stride = arguments[2];
  const Object& padding = arguments[3];
  Object x = arguments[0].method("double"_name);
  const Object weight = arguments[1].method("double"_name);
  auto [batch_size, in_channels, h_in, w_in] = unpack<4>(x.get("shape"_name));
  const auto [out_channels, ignored, kh, kw] = unpack<4>(weight.get("shape"_name));
  if (greater(padding, kZero)) {
    const Object pad = functional("pad"_name);
    x = pad.call(x, tuple(padding, padding, padding, padding));
    h_in = grown(h_in, padding);
    w_in = grown(w_in, padding);
  }
  const Object h_out = window_count(h_in, kh, stride);
  const Object w_out = window_count(w_in, kw, stride);
  const Object unfold = functional("unfold"_name);
  const Object x_col = unfold.call_with(kKeywords<"stride">, x, tuple(kh, kw), stride);
  const Object weight_mat = weight.method("view"_name, out_channels, kMinusOne);
  const Object zeros = torch_member("zeros"_name);
  const Object positions = multiply(h_out, w_out);
  const Object output = make_float64(zeros, x, batch_size, out_channels, positions);
  for_each(range_to(batch_size), [&](const Object& b) {
    const Object matmul = global("tqx_matmul"_name);
    const Object x_member = x_col.at(b);
    set_item(output, b, collapsed_product(matmul, weight_mat, x_member));
  });
  return output.method("view"_name, batch_size, out_channels, h_out, w_out);
}

// (size - 1) * stride - 2 * padding + kernel + output_padding
Object transposed_size(const Object& size, const Object& kernel, const Arguments& arguments) {
  const Object& stride = arguments[2];
  const Object& padding = arguments[3];
  const Object& output_padding = arguments[4];
  const Object spread = multiply(subtract(size, kOne), stride);
  const Object cropped = subtract(spread, multiply(integer(2), padding));
  return add(add(cropped, kernel), output_padding);
}

// Overlapping contributions are summed by torch's fold in plain float64.
Object tqx_conv_transpose2d(const Arguments& arguments) {
  const Object& stride = arguments[2];
  const Object& padding = arguments[3];
  const Object x = arguments[0].method("double"_name);
  const Object weight = arguments[1].method("double"_name);
  const auto [batch_size, in_channels, h_in, w_in] = unpack<4>(x.get("shape"_name));
  const auto [ignored, out_channels, kh, kw] = unpack<4>(weight.get("shape"_name));
  const Object h_out = transposed_size(h_in, kh, arguments);
  const Object w_out = transposed_size(w_in, kw, arguments);
  const Object x_flat = x.method("view"_name, batch_size, in_channels, kMinusOne);
  const Object weight_mat = weight.method("view"_name, in_channels, kMinusOne);
  const Object zeros = torch_member("zeros"_name);
  const Object rows = multiply(multiply(out_channels, kh), kw);
  const Object columns = multiply(h_in, w_in);
  const Object output_col = make_float64(zeros, x, batch_size, rows, columns);
  for_each(range_to(batch_size), [&](const Object& b) {
    const Object matmul = global("tqx_matmul"_name);
    const Object transposed = weight_mat.method("t"_name);
    const Object x_member = x_flat.at(b);
    set_item(output_col, b, collapsed_product(matmul, transposed, x_member));
  });
  const Object fold = functional("fold"_name);
  return fold.call_with(kKeywords<"stride", "padding">, output_col, tuple(h_out, w_out),
                        tuple(kh, kw), stride, padding);
}

constexpr Parameter kStride{"stride", Kind::kInt, "int", Default::integer(1)};
constexpr Parameter kPadding{"padding", Kind::kInt, "int", Default::integer(0)};
constexpr Parameter kOutputPadding{"output_padding", Kind::kInt, "int", Default::integer(0)};

constexpr Signature kRows[] = {
    {"tqx_conv2d",
     {kX, kWeight, kStride, kPadding, kReturnTqx},
     kTensor,
     "TRUE TQX conv2d using im2col + TQX matmul.\n"
     "Converts convolution to matrix multiplication for exact accumulation.",
     tqx_conv2d},
    {"tqx_conv_transpose2d",
     {kX, kWeight, kStride, kPadding, kOutputPadding, kReturnTqx},
     kTensor,
     "TRUE TQX transposed conv2d using col2im + TQX matmul.",
     tqx_conv_transpose2d},
};

}  // namespace

void define_convolutions() { define_functions(kRows); }

}  // namespace korvex
