// SPDX-License-Identifier: Apache-2.0
// Exact decimals: one element of each limb is read to the host, taken apart bit by bit and summed.
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
  const Object unpack = global(names().struct_module).get(names().unpack);
  const Object pack = global(names().struct_module).get(names().pack);
  const Object bytes = pack.call(text("d"), f);
  return unpack.call(text("Q"), bytes).at(names().zero);
}

// The element of a limb that is converted: by index, or the only one, or the first one.
Object element_of(const Object& limb, const Object& index) {
  if (!is_none(index)) return limb.at(index).method(names().item);
  if (equal(limb.method(names().numel), names().one)) return limb.method(names().item);
  return limb.method(names().flatten).at(names().zero).method(names().item);
}

}  // namespace

Object to_decimal(const Arguments& arguments) {
  const Object& self = arguments[0];
  const Object& index = arguments[1];
  Object total = global(names().decimal_class).call(names().zero);
  for_each(self.get(names().limbs), [&](const Object& limb) {
    const Object val = element_of(limb, index);
    const Object exact = self.method(names().fp64_to_decimal, val);
    total = in_place_add(total, exact);
  });
  return total;
}

Object fp64_to_decimal(const Arguments& arguments) {
  const Object& f = arguments[0];
  // True for -0.0 too, so the sign of a zero is dropped; false for NaN.
  if (arguments.number(0) == 0.0) return global(names().decimal_class).call(names().zero);
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
  const Object scaled = global(names().decimal_class).call(signed_mantissa);
  const Object base = global(names().decimal_class).call(integer(2));
  const Object scale = power(base, exp);
  return multiply(scaled, scale);
}

}  // namespace korvex
