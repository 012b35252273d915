// SPDX-License-Identifier: Apache-2.0
// Double precision of PTX by the host's own IEEE 754 operations: binary64, round to nearest even,
// no contraction, subnormals kept. Conversions stand here too.
//
// Which NaN an operation makes differs between processors, and no result may depend on it: each
// NaN made here is one that no x86 operation makes.
#include <cmath>
#include <limits>
#include <string>

#include "tests/ptx/machine.h"

namespace korvex::ptx {
namespace {

constexpr std::uint64_t kNanOfMachine = 0x7fffffffffffffff;

double made(double x) { return std::isnan(x) ? std::bit_cast<double>(kNanOfMachine) : x; }

struct Add {
  double operator()(double a, double b) const { return made(a + b); }
};
struct Subtract {
  double operator()(double a, double b) const { return made(a - b); }
};
struct Multiply {
  double operator()(double a, double b) const { return made(a * b); }
};
struct Divide {
  double operator()(double a, double b) const { return made(a / b); }
};
struct FusedMultiplyAdd {
  double operator()(double a, double b, double c) const { return made(std::fma(a, b, c)); }
};
struct SquareRoot {
  double operator()(double a) const { return made(std::sqrt(a)); }
};
// The sign bit alone, of a NaN too.
struct Negate {
  double operator()(double a) const { return -a; }
};
struct Magnitude {
  double operator()(double a) const { return std::fabs(a); }
};
// A number before a NaN; -0 below +0.
struct Minimum {
  double operator()(double a, double b) const {
    if (std::isnan(a) || std::isnan(b)) {
      return made(std::isnan(a) ? b : a);
    }
    return a < b || (a == b && std::signbit(a)) ? a : b;
  }
};
struct Maximum {
  double operator()(double a, double b) const {
    if (std::isnan(a) || std::isnan(b)) {
      return made(std::isnan(a) ? b : a);
    }
    return a > b || (a == b && !std::signbit(a)) ? a : b;
  }
};

enum class Order { kEqual, kNotEqual, kLess, kLessOrEqual, kGreater, kGreaterOrEqual };

template <Order kOrder, bool kOfNan>
struct Compare {
  bool operator()(double a, double b) const {
    if (std::isnan(a) || std::isnan(b)) {
      return kOfNan;
    }
    switch (kOrder) {
      case Order::kEqual:
        return a == b;
      case Order::kNotEqual:
        return a != b;
      case Order::kLess:
        return a < b;
      case Order::kLessOrEqual:
        return a <= b;
      case Order::kGreater:
        return a > b;
      default:
        return a >= b;
    }
  }
};
template <bool kWanted>
struct IsNan {
  bool operator()(double a, double b) const { return (std::isnan(a) || std::isnan(b)) == kWanted; }
};

template <Order kOrder>
void add_comparison(Table& table, const std::string& name) {
  add_operation<Compare<kOrder, false>, bool, double, double>(table, "setp." + name + ".f64");
  add_operation<Compare<kOrder, true>, bool, double, double>(table, "setp." + name + "u.f64");
}

// --- Conversions

template <class To, class From>
struct ConvertInteger {
  To operator()(From a) const { return static_cast<To>(a); }
};
template <class From>
struct ToDouble {
  double operator()(From a) const { return static_cast<double>(a); }
};
// Toward zero; beyond the range its end, and for a NaN what PTX says of 64-bit conversions.
template <class To>
struct FromDouble {
  To operator()(double a) const {
    constexpr double kEnd = std::is_signed_v<To>
                                ? -static_cast<double>(std::numeric_limits<To>::min())
                                : 2.0 * (1ULL << (8 * sizeof(To) - 1));
    if (std::isnan(a)) {
      return static_cast<To>(std::uint64_t{1} << (8 * sizeof(To) - 1));
    }
    if (a >= kEnd) {
      return std::numeric_limits<To>::max();
    }
    if (a <= static_cast<double>(std::numeric_limits<To>::min())) {
      return std::numeric_limits<To>::min();
    }
    return static_cast<To>(a);
  }
};

template <class To, class From>
void add_integer_conversion(Table& table, const std::string& to, const std::string& from) {
  const bool keeps_bits = std::is_unsigned_v<From> || sizeof(To) <= sizeof(From);
  add_operation<ConvertInteger<To, From>, To, From>(table, "cvt." + to + "." + from,
                                                    keeps_bits ? Spread::kMove : Spread::kNone);
}

template <class From>
void add_conversions_from(Table& table, const std::string& from) {
  add_integer_conversion<std::uint8_t, From>(table, "u8", from);
  add_integer_conversion<std::uint16_t, From>(table, "u16", from);
  add_integer_conversion<std::uint32_t, From>(table, "u32", from);
  add_integer_conversion<std::uint64_t, From>(table, "u64", from);
  add_integer_conversion<std::int8_t, From>(table, "s8", from);
  add_integer_conversion<std::int16_t, From>(table, "s16", from);
  add_integer_conversion<std::int32_t, From>(table, "s32", from);
  add_integer_conversion<std::int64_t, From>(table, "s64", from);
  add_operation<ToDouble<From>, double, From>(table, "cvt.rn.f64." + from);
}

}  // namespace

void add_floating_operations(Table& table) {
  add_operation<Add, double, double, double>(table, "add.rn.f64");
  add_operation<Subtract, double, double, double>(table, "sub.rn.f64");
  add_operation<Multiply, double, double, double>(table, "mul.rn.f64");
  add_operation<Divide, double, double, double>(table, "div.rn.f64");
  add_operation<FusedMultiplyAdd, double, double, double, double>(table, "fma.rn.f64");
  add_operation<SquareRoot, double, double>(table, "sqrt.rn.f64");
  add_operation<Negate, double, double>(table, "neg.f64");
  add_operation<Magnitude, double, double>(table, "abs.f64");
  add_operation<Minimum, double, double, double>(table, "min.f64");
  add_operation<Maximum, double, double, double>(table, "max.f64");
  add_comparison<Order::kEqual>(table, "eq");
  add_comparison<Order::kNotEqual>(table, "ne");
  add_comparison<Order::kLess>(table, "lt");
  add_comparison<Order::kLessOrEqual>(table, "le");
  add_comparison<Order::kGreater>(table, "gt");
  add_comparison<Order::kGreaterOrEqual>(table, "ge");
  add_operation<IsNan<true>, bool, double, double>(table, "setp.nan.f64");
  add_operation<IsNan<false>, bool, double, double>(table, "setp.num.f64");
}

void add_conversions(Table& table) {
  add_conversions_from<std::uint8_t>(table, "u8");
  add_conversions_from<std::uint16_t>(table, "u16");
  add_conversions_from<std::uint32_t>(table, "u32");
  add_conversions_from<std::uint64_t>(table, "u64");
  add_conversions_from<std::int8_t>(table, "s8");
  add_conversions_from<std::int16_t>(table, "s16");
  add_conversions_from<std::int32_t>(table, "s32");
  add_conversions_from<std::int64_t>(table, "s64");
  add_operation<FromDouble<std::uint32_t>, std::uint32_t, double>(table, "cvt.rzi.u32.f64");
  add_operation<FromDouble<std::uint64_t>, std::uint64_t, double>(table, "cvt.rzi.u64.f64");
  add_operation<FromDouble<std::int32_t>, std::int32_t, double>(table, "cvt.rzi.s32.f64");
  add_operation<FromDouble<std::int64_t>, std::int64_t, double>(table, "cvt.rzi.s64.f64");
}

}  // namespace korvex::ptx
