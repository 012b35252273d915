// SPDX-License-Identifier: Apache-2.0
// The one matrix product of the system: two matrices, one launch, three limbs per element.
#include "korvex/functions/linalg/assertions.h"
#include "korvex/functions/linalg/rows.h"
#include "korvex/runtime/definitions.h"

namespace korvex {
namespace {

constexpr long kTile = 16;  // rows and columns of the output that one thread block takes

// torch.zeros(M, N, device=a.device, dtype=torch.float64)
Object zero_matrix(const Object& m, const Object& n, const Object& a) {
  const Object zeros = global(names().torch).get(names().zeros);
  const Object device = a.get(names().device);
  const Object dtype = global(names().torch).get(names().float64);
  return zeros.call_with(names().device_dtype_keywords, m, n, device, dtype);
}

struct ProductShape {
  Object m, n, k;
};

ProductShape product_shape(const Object& a, const Object& b) {
  const auto [m, k] = unpack<2>(a.get(names().shape));
  const auto [k2, n] = unpack<2>(b.get(names().shape));
  assert_inner_dimensions(k, k2);
  return {m, n, k};
}

// Grid x runs over the columns of the output, grid y over its rows.
Object tile_grid(const ProductShape& shape) {
  const Object columns = blocks_for(shape.n, kTile);
  const Object rows = blocks_for(shape.m, kTile);
  return tuple(columns, rows, names().one);
}

Object tqx_matmul_2d(const Arguments& arguments) {
  const Object& a = arguments[0];
  const Object& b = arguments[1];
  const ProductShape shape = product_shape(a, b);
  const Object a_fp64 = a.method(names().double_).method(names().contiguous);
  const Object b_fp64 = b.method(names().double_).method(names().contiguous);
  const Object c0 = zero_matrix(shape.m, shape.n, a);
  const Object c1 = zero_matrix(shape.m, shape.n, a);
  const Object c2 = zero_matrix(shape.m, shape.n, a);
  const Object grid = tile_grid(shape);
  const Object block = tuple(integer(kTile), integer(kTile), names().one);
  const Object kernel = get_kernel(names().tqx_matmul_kernel);
  {
    const Object function = kernel.get(names().function);
    const Object a_array = from_dlpack(a_fp64);
    const Object b_array = from_dlpack(b_fp64);
    const Object c0_array = from_dlpack(c0);
    const Object c1_array = from_dlpack(c1);
    const Object c2_array = from_dlpack(c2);
    const Object kernel_arguments =
        tuple(a_array, b_array, c0_array, c1_array, c2_array, shape.m, shape.n, shape.k);
    function.call(grid, block, kernel_arguments);
  }
  synchronize();
  const Object result_class = global(names().tqx_result);
  const Object limbs = list(c0, c1, c2);
  const Object device = device_text(a);
  const Object result = result_class.call(limbs, device);
  return arguments.flag(2) ? result : result.method(names().collapse);
}

constexpr Signature kMatmul2d{"_tqx_matmul_2d",
                              {{"a", Kind::kAny, "torch.Tensor"},
                               {"b", Kind::kAny, "torch.Tensor"},
                               {"return_tqx", Kind::kBool, "bool", Default::boolean(false)}},
                              "torch.Tensor",
                              "Core 2D matmul kernel. Inputs must be 2D CUDA tensors.",
                              tqx_matmul_2d};

}  // namespace

void define_matrix_product() { define_function(kMatmul2d); }

}  // namespace korvex
