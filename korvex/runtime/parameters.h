// SPDX-License-Identifier: Apache-2.0
// The annotations and parameters that rows of several files share.
#pragma once

#include "korvex/cpython/signature.h"

namespace korvex {

inline constexpr char kTensor[] = "torch.Tensor";

constexpr Parameter tensor_parameter(const char* name) { return {name, Kind::kAny, kTensor}; }

inline constexpr Parameter kSelf{"self"};
inline constexpr Parameter kX = tensor_parameter("x");
inline constexpr Parameter kY = tensor_parameter("y");
inline constexpr Parameter kA = tensor_parameter("a");
inline constexpr Parameter kB = tensor_parameter("b");
inline constexpr Parameter kWeight = tensor_parameter("weight");
// Operands without an annotation: tensors, numbers or limb results.
inline constexpr Parameter kAnyX{"x"};
inline constexpr Parameter kAnyY{"y"};
inline constexpr Parameter kReturnTqx{"return_tqx", Kind::kBool, "bool", Default::boolean(false)};
inline constexpr Parameter kExact{"exact", Kind::kBool, "bool", Default::boolean(true)};
inline constexpr Parameter kUnbiased{"unbiased", Kind::kBool, "bool", Default::boolean(true)};
inline constexpr Parameter kNormOrder{"p", Kind::kInt, "int", Default::integer(2)};

}  // namespace korvex
