// SPDX-License-Identifier: Apache-2.0
// tqx_solve, tqx_inv and tqx_det: torch's factorisations, refined or multiplied out with limbs.
//
// The refinement keeps residuals and the solution in limbs; the solves themselves are plain
// float64.
#include "korvex/functions/linalg/rows.h"
#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// torch.linalg.name
Object linalg(Handle name) { return global(names().torch).get(names().linalg).get(name); }

constexpr double kResidualBound = 1e-15;  // absolute, not scaled by A, B or x

// B - A x of the current solution, computed in limbs and collapsed
Object residual_of(const Object& a, const Object& b, const Object& x_tqx) {
  const Object x_current = x_tqx.method(names().collapse);
  const Object product =
      global(names().tqx_matmul).call_with(names().return_tqx_keyword, a, x_current, boolean(true));
  const Object residual_tqx =
      global(names().tqx_sub).call_with(names().return_tqx_keyword, b, product, boolean(true));
  return residual_tqx.method(names().collapse);
}

// False for NaN, so a residual with NaN runs all passes.
bool is_small(const Object& residual) {
  const Object largest = residual.method(names().abs).method(names().max);
  return truth(compare(largest, floating(kResidualBound), Py_LT));
}

// A correction is merged into the limbs of the solution; the residual after the last one is never
// measured.
Object tqx_solve(const Arguments& arguments) {
  require_cuda(arguments[0]);
  const Object a = arguments[0].method(names().double_);
  const Object b = arguments[1].method(names().double_);
  const Object x = linalg(names().solve).call(a, b);
  const Object result_class = global(names().tqx_result);
  const Object first_limbs = list(x);
  const Object device = device_text(a);
  Object x_tqx = result_class.call(first_limbs, device);
  const Object passes = checked(PyObject_GetIter(range_to(arguments[2])));
  while (!next_item(passes).empty()) {
    const Object residual = residual_of(a, b, x_tqx);
    if (is_small(residual)) break;
    const Object correction = linalg(names().solve).call(a, residual);
    x_tqx = global(names().tqx_add)
                .call_with(names().return_tqx_keyword, x_tqx, correction, boolean(true));
  }
  return x_tqx.method(names().collapse);
}

Object tqx_inv(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object n = x.get(names().shape).at(names().minus_one);
  const Object eye = global(names().torch).get(names().eye);
  const Object dtype = global(names().torch).get(names().float64);
  const Object device = x.get(names().device);
  const Object identity = eye.call_with(names().dtype_device_keywords, n, dtype, device);
  return global(names().tqx_solve).call(x, identity);
}

// -1 for each row that was exchanged with another; pivots count from 1.
Object sign_of(const Object& pivots, const Object& n) {
  Object sign = names().one;
  for_each(range_to(n), [&](const Object& i) {
    const Object pivot = pivots.at(i);
    const Object in_place = add(i, names().one);
    if (not_equal(pivot, in_place)) sign = in_place_multiply(sign, names().minus_one);
  });
  return sign;
}

Object tqx_det(const Arguments& arguments) {
  require_cuda(arguments[0]);
  const Object x = arguments[0].method(names().double_);
  const auto [lu, pivots] = unpack<2>(linalg(names().lu_factor).call(x));
  const Object diag = global(names().torch).get(names().diag).call(lu);
  const Object det_abs = global(names().tqx_prod).call(diag);  // signed, in spite of its name
  const Object n = x.get(names().shape).at(names().minus_one);
  const Object sign = sign_of(pivots, n);
  return multiply(det_abs, sign);
}

constexpr Parameter kX{"x", Kind::kAny, "torch.Tensor"};

constexpr Signature kSolve{
    "tqx_solve",
    {{"A", Kind::kAny, "torch.Tensor"},
     {"B", Kind::kAny, "torch.Tensor"},
     {"max_iter", Kind::kInt, "int", Default::integer(3)}},
    "torch.Tensor",
    "TRUE TQX linear solve using iterative refinement with limb preservation.\n"
    "\n"
    "The residual B - A x is computed with limbs, and every correction is added to the limbs of\n"
    "the solution; refinement stops at a residual below 1e-15 or after max_iter passes.\n"
    "\n"
    "Supports 1D vector b or 2D matrix B.",
    tqx_solve};

constexpr Signature kInv{"tqx_inv",
                         {kX},
                         "torch.Tensor",
                         "TRUE TQX matrix inverse using iterative refinement.\n"
                         "Computes inv(A) by solving AX = I.",
                         tqx_inv};

constexpr Signature kDet{"tqx_det",
                         {kX},
                         "torch.Tensor",
                         "TRUE TQX determinant using LU decomposition with TQX product.\n"
                         "det(A) = product of diagonal of U * sign from pivots",
                         tqx_det};

}  // namespace

void define_solvers() {
  define_function(kSolve);
  define_function(kInv);
  define_function(kDet);
}

}  // namespace korvex
