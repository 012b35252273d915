// SPDX-License-Identifier: Apache-2.0
// The one matrix product of the system: two matrices, one launch, three limbs per element.
#include "korvex/functions/linalg/assertions.h"
#include "korvex/functions/linalg/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

constexpr long kTile = 16;  // rows and columns of the output that one thread block takes

// torch.zeros(M, N, device=a.device, dtype=torch.float64)
Object zero_matrix(const Object& m, const Object& n, const Object& a) {
  const Object zeros = torch_member("zeros"_name);
  const Object device = a.get("device"_name);
  const Object dtype = torch_member("float64"_name);
  return zeros.call_with(kKeywords<"device", "dtype">, m, n, device, dtype);
}

struct ProductShape {
  Object m, n, k;
};

ProductShape product_shape(const Object& a, const Object& b) {
  const auto [m, k] = unpack<2>(a.get("shape"_name));
  const auto [k2, n] = unpack<2>(b.get("shape"_name));
  assert_inner_dimensions(k, k2);
  return {m, n, k};
}

// Grid x runs over the columns of the output, grid y over its rows.
Object tile_grid(const ProductShape& shape) {
  const Object columns = blocks_for(shape.n, kTile);
  const Object rows = blocks_for(shape.m, kTile);
  return tuple(columns, rows, kOne);
}

Object tqx_matmul_2d(const Arguments& arguments) {
  const Object& a = arguments[0];
  const Object& b = arguments[1];
  const ProductShape shape = product_shape(a, b);
  const Object a_fp64 = a.method("double"_name).method("contiguous"_name);
  const Object b_fp64 = b.method("double"_name).method("contiguous"_name);
  const Object c0 = zero_matrix(shape.m, shape.n, a);
  const Object c1 = zero_matrix(shape.m, shape.n, a);
  const Object c2 = zero_matrix(shape.m, shape.n, a);
  const Object grid = tile_grid(shape);
  const Object block = tuple(integer(kTile), integer(kTile), kOne);
  launch_in_blocks("tqx_matmul_kernel"_name, grid, block, ArrayOf{a_fp64}, ArrayOf{b_fp64},
                   ArrayOf{c0}, ArrayOf{c1}, ArrayOf{c2}, shape.m, shape.n, shape.k);
  const Object result = limbs_beside(a, [&] { return list(c0, c1, c2); });
  return arguments.flag(2) ? result : result.method("collapse"_name);
}

constexpr Signature kRows[] = {
    {"_tqx_matmul_2d",
     {kA, kB, kReturnTqx},
     kTensor,
     "Core 2D matmul kernel. Inputs must be 2D CUDA tensors.",
     tqx_matmul_2d},
};

}  // namespace

void define_matrix_product() { define_functions(kRows); }

}  // namespace korvex
