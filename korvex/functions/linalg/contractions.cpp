// SPDX-License-Identifier: Apache-2.0
// tqx_linear, tqx_einsum and tqx_mse_loss: which route is taken, and where limbs are given up.
#include "korvex/functions/linalg/linalg.h"
#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// The product is rounded to one float64 per element before the bias arrives.
Object tqx_linear(const Arguments& arguments) {
  const Object& bias = arguments[2];
  const Object matmul = global(names().tqx_matmul);
  const Object result = matmul.call(arguments[0], arguments[1].method(names().t));
  if (is_none(bias)) return result;
  const Object sum = global(names().tqx_add);
  const Object result_f64 = result.method(names().double_);
  const Object expand = bias.method(names().double_).get(names().expand_as);
  return sum.call(result_f64, expand.call(result));
}

// The equations that reach the limb machinery, compared whole and exact, in this order.
struct EinsumRoute {
  const char* equation;
  Object Names::* function;
};

constexpr EinsumRoute kRoutes[] = {
    {"i,i->", &Names::tqx_dot},
    {"ij,jk->ik", &Names::tqx_matmul},
    {"mk,kn->mn", &Names::tqx_matmul},
    {"bij,bjk->bik", &Names::tqx_bmm},
};

// torch.einsum(equation, *[op.double() for op in operands])
Object plain_einsum(const Object& equation, const Object& operands) {
  const Object tensors =
      list_of(operands, [](const Object& operand) { return operand.method(names().double_); });
  const Object einsum = global(names().torch).get(names().einsum);
  checked(PyList_Insert(tensors, 0, equation));
  return checked(PyObject_CallObject(einsum, checked(PyList_AsTuple(tensors))));
}

// Operands beyond the second are dropped silently on the four routes.
Object tqx_einsum(const Arguments& arguments) {
  const Object& equation = arguments[0];
  const Object& operands = arguments[1];
  for (const EinsumRoute& route : kRoutes) {
    if (PyUnicode_CompareWithASCIIString(equation, route.equation) != 0) continue;
    const Object function = global(names().*route.function);
    const Object first = operands.at(names().zero);
    const Object second = operands.at(names().one);
    return function.call_with(names().return_tqx_keyword, first, second, arguments[2]);
  }
  return plain_einsum(equation, operands);
}

// Every text but "mean" means the sum.
Object tqx_mse_loss(const Arguments& arguments) {
  const Object diff = global(names().tqx_sub).call(arguments[0], arguments[1]);
  const Object product = global(names().tqx_mul);
  const Object left = diff.method(names().double_);
  const Object right = diff.method(names().double_);
  const Object sq = product.call(left, right);
  const bool mean = PyUnicode_CompareWithASCIIString(arguments[2], "mean") == 0;
  return global(mean ? names().tqx_mean : names().tqx_sum).call(sq);
}

constexpr char kTensor[] = "torch.Tensor";
constexpr Parameter kReturnTqx{"return_tqx", Kind::kBool, "bool", Default::boolean(false)};

constexpr Signature kLinear{"tqx_linear",
                            {{"x", Kind::kAny, kTensor},
                             {"weight", Kind::kAny, kTensor},
                             {"bias", Kind::kAny, "Optional[torch.Tensor]", Default::none()}},
                            kTensor,
                            "TQX linear using TQX matmul.",
                            tqx_linear};

constexpr Signature kEinsum{"tqx_einsum",
                            {{"equation", Kind::kStr, "str"},
                             {"operands", Kind::kVariadic},
                             {"return_tqx", Kind::kBool, "bool", Default::boolean(false), true}},
                            nullptr,
                            "TQX einsum - routes to TQX matmul/dot where possible.",
                            tqx_einsum};

constexpr Signature kMseLoss{"tqx_mse_loss",
                             {{"pred", Kind::kAny, kTensor},
                              {"target", Kind::kAny, kTensor},
                              {"reduction", Kind::kStr, "str", Default::text_value("mean")},
                              kReturnTqx},
                             kTensor,
                             "TQX MSE loss using TQX sub and mul.",
                             tqx_mse_loss};

}  // namespace

void define_contractions() {
  define_function(kLinear);
  define_function(kEinsum);
  define_function(kMseLoss);
}

}  // namespace korvex
