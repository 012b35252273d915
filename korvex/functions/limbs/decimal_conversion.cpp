// SPDX-License-Identifier: Apache-2.0
// Exact decimals: one element of each limb is read to the host, split into sign, exponent
// and mantissa, and summed.
//
// All arithmetic is Python's own on int and Decimal objects, under the calling thread's context.
#include "korvex/functions/limbs/decimal_conversion.h"

#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

constexpr long kFractionBits = 52;
constexpr long kExponentMask = 0x7FF;
constexpr long kExponentBias = 1023;
constexpr long long kFractionMask = 0xFFFFFFFFFFFFF;
constexpr long long kImplicitBit = 0x10000000000000;  // 2^52

// struct.unpack('Q', struct.pack('d', f))[0]
Object bits_of(const Object& f) {
  const Object unpack = global("struct"_name).get("unpack"_name);
  const Object pack = global("struct"_name).get("pack"_name);
  const Object bytes = pack.call(text("d"), f);
  return unpack.call(text("Q"), bytes).at(kZero);
}

// The element of a limb that is converted: by index, or the only one, or the first one.
Object element_of(const Object& limb, const Object& index) {
  if (!is_none(index)) {
    return limb.at(index).method("item"_name);
  }
  if (equal(limb.method("numel"_name), kOne)) {
    return limb.method("item"_name);
  }
  return limb.method("flatten"_name).at(kZero).method("item"_name);
}

}  // namespace

Object to_decimal(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object& index = arguments[1];
  Object total = global("Decimal"_name).call(kZero);
  for_each(self.get("limbs"_name), [&](const Object& limb) {
    const Object val = element_of(limb, index);
    const Object exact = self.method("_fp64_to_decimal"_name, val);
    total = in_place_add(total, exact);
  });
  return total;
}

Object fp64_to_decimal(const Arguments& arguments) {
  const Object& f = arguments[0];
  // True for -0.0 too, so the sign of a zero is dropped; false for NaN.
  if (arguments.number(0) == 0.0) {
    return global("Decimal"_name).call(kZero);
  }
  const Object bits = bits_of(f);
  const bool negative = truth(shift_right(bits, integer(63)));
  const Object sign = integer(negative ? -1 : 1);
  const Object exponent_field =
      bit_and(shift_right(bits, integer(kFractionBits)), integer(kExponentMask));
  const Object unbiased = subtract(exponent_field, integer(kExponentBias));
  const Object exp = subtract(unbiased, integer(kFractionBits));
  const Object fraction = bit_and(bits, integer(kFractionMask));
  // The implicit bit is set for subnormals, infinities and NaN as well.
  const Object mantissa = bit_or(fraction, integer(kImplicitBit));
  const Object signed_mantissa = multiply(sign, mantissa);
  const Object scaled = global("Decimal"_name).call(signed_mantissa);
  const Object base = global("Decimal"_name).call(integer(2));
  const Object scale = power(base, exp);
  return multiply(scaled, scale);
}

}  // namespace korvex
