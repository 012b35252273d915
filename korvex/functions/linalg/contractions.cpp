// SPDX-License-Identifier: Apache-2.0
// tqx_linear, tqx_einsum and tqx_mse_loss: which route is taken, and where limbs are collapsed.
#include "korvex/functions/linalg/linalg.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// The product is rounded to one float64 per element before the bias arrives.
Object tqx_linear(const Arguments& arguments) {
  const Object& bias = arguments[2];
  const Object matmul = global("tqx_matmul"_name);
  const Object result = matmul.call(arguments[0], arguments[1].method("t"_name));
  if (is_none(bias)) {
    return result;
  }
  const Object sum = global("tqx_add"_name);
  const Object result_f64 = result.method("double"_name);
  const Object expand = bias.method("double"_name).get("expand_as"_name);
  return sum.call(result_f64, expand.call(result));
}

// The equations that reach the limb machinery, compared whole and exact, in this order.
struct EinsumRoute {
  const char* equation;
  const Constant& function;
};

constexpr EinsumRoute kRoutes[] = {
    {"i,i->", "tqx_dot"_name},
    {"ij,jk->ik", "tqx_matmul"_name},
    {"mk,kn->mn", "tqx_matmul"_name},
    {"bij,bjk->bik", "tqx_bmm"_name},
};

// torch.einsum(equation, *[op.double() for op in operands])
Object plain_einsum(const Object& equation, const Object& operands) {
  const Object tensors =
      list_of(operands, [](const Object& operand) { return operand.method("double"_name); });
  const Object einsum = torch_member("einsum"_name);
  checked(PyList_Insert(tensors, 0, equation));
  return checked(PyObject_CallObject(einsum, checked(PyList_AsTuple(tensors))));
}

// Operands beyond the second are dropped silently on the four routes.
Object tqx_einsum(const Arguments& arguments) {
  const Object& equation = arguments[0];
  const Object& operands = arguments[1];
  for (const EinsumRoute& route : kRoutes) {
    if (PyUnicode_CompareWithASCIIString(equation, route.equation) != 0) {
      continue;
    }
    const Object function = global(route.function);
    const Object first = operands.at(kZero);
    const Object second = operands.at(kOne);
    return function.call_with(kKeywords<"return_tqx">, first, second, arguments[2]);
  }
  return plain_einsum(equation, operands);
}

// Every text but "mean" means the sum.
Object tqx_mse_loss(const Arguments& arguments) {
  const Object diff = global("tqx_sub"_name).call(arguments[0], arguments[1]);
  const Object product = global("tqx_mul"_name);
  const Object left = diff.method("double"_name);
  const Object right = diff.method("double"_name);
  const Object sq = product.call(left, right);
  const bool mean = PyUnicode_CompareWithASCIIString(arguments[2], "mean") == 0;
  return global(mean ? "tqx_mean"_name : "tqx_sum"_name).call(sq);
}

constexpr Signature kRows[] = {
    {"tqx_linear",
     {kX,
      tensor_parameter("weight"),
      {"bias", Kind::kAny, "Optional[torch.Tensor]", Default::none()}},
     kTensor,
     "TQX linear using TQX matmul.",
     tqx_linear},
    {"tqx_einsum",
     {{"equation", Kind::kStr, "str"},
      {"operands", Kind::kVariadic},
      {"return_tqx", Kind::kBool, "bool", Default::boolean(false), true}},
     nullptr,
     "TQX einsum - routes to TQX matmul/dot where possible.",
     tqx_einsum},
    {"tqx_mse_loss",
     {tensor_parameter("pred"),
      tensor_parameter("target"),
      {"reduction", Kind::kStr, "str", Default::text_value("mean")},
      kReturnTqx},
     kTensor,
     "TQX MSE loss using TQX sub and mul.",
     tqx_mse_loss},
};

}  // namespace

void define_contractions() { define_functions(kRows); }

}  // namespace korvex
