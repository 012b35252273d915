// SPDX-License-Identifier: Apache-2.0
// The exact decimal value of a limb result: the two methods of TQXResult that make it.
#pragma once

#include "korvex/cpython/signature.h"

namespace korvex {

Object to_decimal(const Arguments& arguments);
Object fp64_to_decimal(const Arguments& arguments);

inline constexpr char kToDecimalDoc[] =
    "Convert to exact Decimal representation.\n"
    "\n"
    "Sums the exact Decimal of every limb of one element, under the decimal context in force.\n"
    "\n"
    "Args:\n"
    "    index: Optional tuple index for multi-dimensional results.\n"
    "           If None, assumes scalar or returns element [0].\n"
    "\n"
    "Returns:\n"
    "    Decimal: the sum of the element's limbs; no rounding within the context's precision.";

inline constexpr char kFp64ToDecimalDoc[] =
    "Convert FP64 to exact Decimal via binary representation.\n"
    "\n"
    "Takes sign, exponent and mantissa from the 64 bits. The implicit bit is always set, so the\n"
    "result is exact for normal numbers and zero only: a subnormal, an infinity or a NaN gives a\n"
    "finite Decimal that is not its value.";

}  // namespace korvex
