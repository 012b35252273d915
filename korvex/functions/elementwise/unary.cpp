// SPDX-License-Identifier: Apache-2.0
// The eight unary kernel operators: one body, one kernel and one row each.
//
// A limb operand is folded to one float64 tensor first, and a limb result has that one limb. terms
// and iterations are converted at the call and reach no kernel; the slope of the leaky ReLU does.
#include "korvex/functions/elementwise/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// One launch of (x, *between, out, n) with one thread per element; the output in the shape of x.
template <typename... Between>
Object run_kernel(Handle kernel_name, const Object& x, const Between&... between) {
  const Object x_f64 = flat_float64(x);
  const Object n = x_f64.method("numel"_name);
  const Object grid = grid_over(n);
  const Object out = empty_like_device(n, x);
  launch(kernel_name, grid, ArrayOf{x_f64}, between..., ArrayOf{out}, n);
  return in_shape_of(out, x);
}

template <Spelling kernel_name, std::size_t return_tqx_position>
Object unary(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object result = run_kernel(kName<kernel_name>, x);
  return one_limb(result, x, arguments.flag(return_tqx_position));
}

Object tqx_leaky_relu(const Arguments& arguments) {
  const Object x = folded(arguments[0]);
  const Object& negative_slope = arguments[1];
  const Object result = run_kernel("tqx_leaky_relu_kernel"_name, x, negative_slope);
  return one_limb(result, x, arguments.flag(2));
}

constexpr Parameter kTerms{"terms", Kind::kInt, "int", Default::integer(30)};
constexpr Parameter kIterations{"iterations", Kind::kInt, "int", Default::integer(5)};
constexpr Parameter kSlope{"negative_slope", Kind::kFloat, "float", Default::floating(0.01)};

constexpr Signature kRows[] = {
    {"tqx_relu",
     {kX, kReturnTqx},
     nullptr,
     "TQX ReLU using native CUDA kernel.",
     unary<"tqx_relu_kernel", 1>},
    {"tqx_neg",
     {kX, kReturnTqx},
     nullptr,
     "TQX negation using native CUDA kernel.",
     unary<"tqx_neg_kernel", 1>},
    {"tqx_exp",
     {kX, kTerms, kReturnTqx},
     nullptr,
     "TQX exp using native CUDA kernel with Taylor series + TQX accumulation.",
     unary<"tqx_exp_kernel", 2>},
    {"tqx_log",
     {kX, kTerms, kReturnTqx},
     nullptr,
     "TQX log using native CUDA kernel with series + TQX accumulation.",
     unary<"tqx_log_kernel", 2>},
    {"tqx_sqrt",
     {kX, kIterations, kReturnTqx},
     nullptr,
     "TQX sqrt using native CUDA kernel with Newton-Raphson + TQX.",
     unary<"tqx_sqrt_kernel", 2>},
    {"tqx_sigmoid",
     {kX, kReturnTqx},
     nullptr,
     "TQX sigmoid using native CUDA kernel.",
     unary<"tqx_sigmoid_kernel", 1>},
    {"tqx_tanh",
     {kX, kReturnTqx},
     nullptr,
     "TQX tanh using native CUDA kernel.",
     unary<"tqx_tanh_kernel", 1>},
    {"tqx_leaky_relu",
     {kX, kSlope, kReturnTqx},
     nullptr,
     "TQX leaky ReLU using native CUDA kernel.",
     tqx_leaky_relu},
};

}  // namespace

void define_unary() { define_functions(kRows); }

}  // namespace korvex
