// SPDX-License-Identifier: Apache-2.0
// The parameters that the element-wise functions with folded operands share.
#pragma once

#include "korvex/runtime/runtime.h"

namespace korvex {

inline constexpr Parameter kX{"x", Kind::kAny, "torch.Tensor"};
inline constexpr Parameter kY{"y", Kind::kAny, "torch.Tensor"};
inline constexpr Parameter kReturnTqx{"return_tqx", Kind::kBool, "bool", Default::boolean(false)};

}  // namespace korvex
