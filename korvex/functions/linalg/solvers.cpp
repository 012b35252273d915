// SPDX-License-Identifier: Apache-2.0
// tqx_solve, tqx_inv and tqx_det: torch's factorisations, refined or multiplied out with limbs.
//
// The refinement keeps residuals and the solution in limbs; the solves themselves are plain
// float64.
#include "korvex/functions/linalg/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// torch.linalg.name
Object linalg(Handle name) { return torch_member("linalg"_name).get(name); }

constexpr double kResidualBound = 1e-15;  // absolute, not scaled by A, B or x

// B - A x of the current solution, computed in limbs and collapsed
Object residual_of(const Object& a, const Object& b, const Object& x_tqx) {
  const Object x_current = x_tqx.method("collapse"_name);
  const Object product =
      global("tqx_matmul"_name).call_with(kKeywords<"return_tqx">, a, x_current, boolean(true));
  const Object residual_tqx =
      global("tqx_sub"_name).call_with(kKeywords<"return_tqx">, b, product, boolean(true));
  return residual_tqx.method("collapse"_name);
}

// False for NaN, so a residual with NaN runs all passes.
bool is_small(const Object& residual) {
  const Object largest = residual.method("abs"_name).method("max"_name);
  return truth(compare(largest, floating(kResidualBound), Py_LT));
}

// A correction is merged into the limbs of the solution; the residual after the last one is never
// measured.
Object tqx_solve(const Arguments& arguments) {
  require_cuda(arguments[0]);
  const Object a = arguments[0].method("double"_name);
  const Object b = arguments[1].method("double"_name);
  const Object x = linalg("solve"_name).call(a, b);
  Object x_tqx = limbs_beside(a, [&] { return list(x); });
  const Object passes = checked(PyObject_GetIter(range_to(arguments[2])));
  while (!next_item(passes).empty()) {
    const Object residual = residual_of(a, b, x_tqx);
    if (is_small(residual)) {
      break;
    }
    const Object correction = linalg("solve"_name).call(a, residual);
    x_tqx =
        global("tqx_add"_name).call_with(kKeywords<"return_tqx">, x_tqx, correction, boolean(true));
  }
  return x_tqx.method("collapse"_name);
}

Object tqx_inv(const Arguments& arguments) {
  const Object& x = arguments[0];
  require_cuda(x);
  const Object n = x.get("shape"_name).at(kMinusOne);
  const Object eye = torch_member("eye"_name);
  const Object identity = make_float64(eye, x, n);
  return global("tqx_solve"_name).call(x, identity);
}

// -1 for each row that was exchanged with another; pivots count from 1.
Object sign_of(const Object& pivots, const Object& n) {
  Object sign = object(kOne);
  for_each(range_to(n), [&](const Object& i) {
    const Object pivot = pivots.at(i);
    const Object in_place = add(i, kOne);
    if (not_equal(pivot, in_place)) {
      sign = in_place_multiply(sign, kMinusOne);
    }
  });
  return sign;
}

Object tqx_det(const Arguments& arguments) {
  require_cuda(arguments[0]);
  const Object x = arguments[0].method("double"_name);
  const auto [lu, pivots] = unpack<2>(linalg("lu_factor"_name).call(x));
  const Object diag = torch_member("diag"_name).call(lu);
  const Object det_abs = global("tqx_prod"_name).call(diag);  // signed, in spite of its name
  const Object n = x.get("shape"_name).at(kMinusOne);
  const Object sign = sign_of(pivots, n);
  return multiply(det_abs, sign);
}

constexpr Signature kRows[] = {
    {"tqx_solve",
     {tensor_parameter("A"),
      tensor_parameter("B"),
      {"max_iter", Kind::kInt, "int", Default::integer(3)}},
     kTensor,
     "TRUE TQX linear solve using iterative refinement with limb preservation.\n"
     "\n"
     "The residual B - A x is computed with limbs, and every correction is added to the limbs of\n"
     "the solution; refinement stops at a residual below 1e-15 or after max_iter passes.\n"
     "\n"
     "Supports 1D vector b or 2D matrix B.",
     tqx_solve},
    {"tqx_inv",
     {kX},
     kTensor,
     "TRUE TQX matrix inverse using iterative refinement.\n"
     "Computes inv(A) by solving AX = I.",
     tqx_inv},
    {"tqx_det",
     {kX},
     kTensor,
     "TRUE TQX determinant using LU decomposition with TQX product.\n"
     "det(A) = product of diagonal of U * sign from pivots",
     tqx_det},
};

}  // namespace

void define_solvers() { define_functions(kRows); }

}  // namespace korvex
