// SPDX-License-Identifier: Apache-2.0
// tqx_conv2d and tqx_conv_transpose2d: patches by torch's unfold and fold, sums by the matrix
// product, one product per batch member. Limbs end in each product; return_tqx has no effect.
#include "korvex/functions/linalg/rows.h"
#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// torch.nn.functional.name
Object functional(Handle name) {
  return global(names().torch).get(names().nn).get(names().functional).get(name);
}

// zeros(a, b, c, dtype=torch.float64, device=x.device); `zeros` is torch's, looked up before the
// sizes were worked out.
Object zero_stack(const Object& zeros, const Object& a, const Object& b, const Object& c,
                  const Object& x) {
  const Object dtype = global(names().torch).get(names().float64);
  const Object device = x.get(names().device);
  return zeros.call_with(names().dtype_device_keywords, a, b, c, dtype, device);
}

// matmul(a, b, return_tqx=False); `matmul` is tqx_matmul, looked up before the operands.
Object collapsed_product(const Object& matmul, const Object& a, const Object& b) {
  return matmul.call_with(names().return_tqx_keyword, a, b, boolean(false));
}

// size += 2 * padding
Object grown(const Object& size, const Object& padding) {
  return in_place_add(size, multiply(integer(2), padding));
}

// (size - kernel) // stride + 1
Object window_count(const Object& size, const Object& kernel, const Object& stride) {
  const Object steps = floor_divide(subtract(size, kernel), stride);
  return add(steps, names().one);
}

// A negative padding takes no step, so it means none.
Object tqx_conv2d(const Arguments& arguments) {
  const Object& stride = arguments[2];
  const Object& padding = arguments[3];
  Object x = arguments[0].method(names().double_);
  const Object weight = arguments[1].method(names().double_);
  auto [batch_size, in_channels, h_in, w_in] = unpack<4>(x.get(names().shape));
  const auto [out_channels, ignored, kh, kw] = unpack<4>(weight.get(names().shape));
  if (greater(padding, names().zero)) {
    const Object pad = functional(names().pad);
    x = pad.call(x, tuple(padding, padding, padding, padding));
    h_in = grown(h_in, padding);
    w_in = grown(w_in, padding);
  }
  const Object h_out = window_count(h_in, kh, stride);
  const Object w_out = window_count(w_in, kw, stride);
  const Object unfold = functional(names().unfold);
  const Object x_col = unfold.call_with(names().stride_keyword, x, tuple(kh, kw), stride);
  const Object weight_mat = weight.method(names().view, out_channels, names().minus_one);
  const Object zeros = global(names().torch).get(names().zeros);
  const Object positions = multiply(h_out, w_out);
  const Object output = zero_stack(zeros, batch_size, out_channels, positions, x);
  for_each(range_to(batch_size), [&](const Object& b) {
    const Object matmul = global(names().tqx_matmul);
    const Object x_member = x_col.at(b);
    set_item(output, b, collapsed_product(matmul, weight_mat, x_member));
  });
  return output.method(names().view, batch_size, out_channels, h_out, w_out);
}

// (size - 1) * stride - 2 * padding + kernel + output_padding
Object transposed_size(const Object& size, const Object& kernel, const Arguments& arguments) {
  const Object& stride = arguments[2];
  const Object& padding = arguments[3];
  const Object& output_padding = arguments[4];
  const Object spread = multiply(subtract(size, names().one), stride);
  const Object cropped = subtract(spread, multiply(integer(2), padding));
  return add(add(cropped, kernel), output_padding);
}

// Overlapping contributions are summed by torch's fold in plain float64.
Object tqx_conv_transpose2d(const Arguments& arguments) {
  const Object& stride = arguments[2];
  const Object& padding = arguments[3];
  const Object x = arguments[0].method(names().double_);
  const Object weight = arguments[1].method(names().double_);
  const auto [batch_size, in_channels, h_in, w_in] = unpack<4>(x.get(names().shape));
  const auto [ignored, out_channels, kh, kw] = unpack<4>(weight.get(names().shape));
  const Object h_out = transposed_size(h_in, kh, arguments);
  const Object w_out = transposed_size(w_in, kw, arguments);
  const Object x_flat = x.method(names().view, batch_size, in_channels, names().minus_one);
  const Object weight_mat = weight.method(names().view, in_channels, names().minus_one);
  const Object zeros = global(names().torch).get(names().zeros);
  const Object rows = multiply(multiply(out_channels, kh), kw);
  const Object columns = multiply(h_in, w_in);
  const Object output_col = zero_stack(zeros, batch_size, rows, columns, x);
  for_each(range_to(batch_size), [&](const Object& b) {
    const Object matmul = global(names().tqx_matmul);
    const Object transposed = weight_mat.method(names().t);
    const Object x_member = x_flat.at(b);
    set_item(output_col, b, collapsed_product(matmul, transposed, x_member));
  });
  const Object fold = functional(names().fold);
  return fold.call_with(names().stride_padding_keywords, output_col, tuple(h_out, w_out),
                        tuple(kh, kw), stride, padding);
}

constexpr Parameter kX{"x", Kind::kAny, "torch.Tensor"};
constexpr Parameter kWeight{"weight", Kind::kAny, "torch.Tensor"};
constexpr Parameter kStride{"stride", Kind::kInt, "int", Default::integer(1)};
constexpr Parameter kPadding{"padding", Kind::kInt, "int", Default::integer(0)};
constexpr Parameter kOutputPadding{"output_padding", Kind::kInt, "int", Default::integer(0)};
constexpr Parameter kReturnTqx{"return_tqx", Kind::kBool, "bool", Default::boolean(false)};

constexpr Signature kConv2d{"tqx_conv2d",
                            {kX, kWeight, kStride, kPadding, kReturnTqx},
                            "torch.Tensor",
                            "TRUE TQX conv2d using im2col + TQX matmul.\n"
                            "Converts convolution to matrix multiplication for exact accumulation.",
                            tqx_conv2d};

constexpr Signature kConvTranspose2d{"tqx_conv_transpose2d",
                                     {kX, kWeight, kStride, kPadding, kOutputPadding, kReturnTqx},
                                     "torch.Tensor",
                                     "TRUE TQX transposed conv2d using col2im + TQX matmul.",
                                     tqx_conv_transpose2d};

}  // namespace

void define_convolutions() {
  define_function(kConv2d);
  define_function(kConvTranspose2d);
}

}  // namespace korvex
