// SPDX-License-Identifier: Apache-2.0
// Integer arithmetic and comparison of PTX: modulo 2^bits, as two's complement.
#include <algorithm>
#include <string>

#include "tests/ptx/machine.h"

namespace korvex::ptx {
namespace {

template <class T>
using Unsigned = std::make_unsigned_t<T>;

// Wide enough for a product of 16-bit numbers, which C++ would take as int.
template <class T>
using Work = std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t>;

template <class T>
struct Add {
  T operator()(T a, T b) const {
    return static_cast<T>(static_cast<Work<T>>(a) + static_cast<Work<T>>(b));
  }
};
template <class T>
struct Subtract {
  T operator()(T a, T b) const {
    return static_cast<T>(static_cast<Work<T>>(a) - static_cast<Work<T>>(b));
  }
};
template <class T>
struct MultiplyLow {
  T operator()(T a, T b) const {
    return static_cast<T>(static_cast<Work<T>>(a) * static_cast<Work<T>>(b));
  }
};
template <class T>
struct MultiplyHigh {
  T operator()(T a, T b) const {
    if constexpr (sizeof(T) == 8) {
      __extension__ using Wide =
          std::conditional_t<std::is_signed_v<T>, __int128, unsigned __int128>;
      return static_cast<T>((Wide{a} * Wide{b}) >> 64);
    } else {
      using Wide = std::conditional_t<std::is_signed_v<T>, std::int64_t, std::uint64_t>;
      return static_cast<T>((Wide{a} * Wide{b}) >> (8 * sizeof(T)));
    }
  }
};
template <class T, class Wide>
struct MultiplyWide {
  Wide operator()(T a, T b) const { return MultiplyLow<Wide>()(Wide{a}, Wide{b}); }
};
template <class T>
struct MultiplyAdd {
  T operator()(T a, T b, T c) const { return Add<T>()(MultiplyLow<T>()(a, b), c); }
};
template <class T, class Wide>
struct MultiplyAddWide {
  Wide operator()(T a, T b, Wide c) const { return Add<Wide>()(MultiplyWide<T, Wide>()(a, b), c); }
};
template <class T>
struct Divide {
  T operator()(T a, T b) const {
    if (b == 0) {
      throw Failure("division by zero");
    }
    if constexpr (std::is_signed_v<T>) {
      if (b == -1) {
        return Subtract<T>()(0, a);
      }
    }
    return static_cast<T>(a / b);
  }
};
template <class T>
struct Remainder {
  T operator()(T a, T b) const {
    if (b == 0) {
      throw Failure("division by zero");
    }
    if constexpr (std::is_signed_v<T>) {
      if (b == -1) {
        return 0;
      }
    }
    return static_cast<T>(a % b);
  }
};
template <class T>
struct Minimum {
  T operator()(T a, T b) const { return std::min(a, b); }
};
template <class T>
struct Maximum {
  T operator()(T a, T b) const { return std::max(a, b); }
};
template <class T>
struct Negate {
  T operator()(T a) const { return Subtract<T>()(0, a); }
};
template <class T>
struct Magnitude {
  T operator()(T a) const { return a < 0 ? Negate<T>()(a) : a; }
};

template <class T>
struct Equal {
  bool operator()(T a, T b) const { return a == b; }
};
template <class T>
struct NotEqual {
  bool operator()(T a, T b) const { return a != b; }
};
template <class T>
struct Less {
  bool operator()(T a, T b) const { return a < b; }
};
template <class T>
struct LessOrEqual {
  bool operator()(T a, T b) const { return a <= b; }
};
template <class T>
struct Greater {
  bool operator()(T a, T b) const { return a > b; }
};
template <class T>
struct GreaterOrEqual {
  bool operator()(T a, T b) const { return a >= b; }
};

template <class T>
void add_comparisons(Table& table, const std::string& type, bool with_order) {
  add_operation<Equal<T>, bool, T, T>(table, "setp.eq." + type);
  add_operation<NotEqual<T>, bool, T, T>(table, "setp.ne." + type);
  if (!with_order) {
    return;
  }
  add_operation<Less<T>, bool, T, T>(table, "setp.lt." + type);
  add_operation<LessOrEqual<T>, bool, T, T>(table, "setp.le." + type);
  add_operation<Greater<T>, bool, T, T>(table, "setp.gt." + type);
  add_operation<GreaterOrEqual<T>, bool, T, T>(table, "setp.ge." + type);
}

template <class T>
void add_arithmetic(Table& table, const std::string& type) {
  add_operation<Add<T>, T, T, T>(table, "add." + type);
  add_operation<Subtract<T>, T, T, T>(table, "sub." + type);
  add_operation<MultiplyLow<T>, T, T, T>(table, "mul.lo." + type);
  add_operation<MultiplyHigh<T>, T, T, T>(table, "mul.hi." + type);
  add_operation<MultiplyAdd<T>, T, T, T, T>(table, "mad.lo." + type);
  add_operation<Divide<T>, T, T, T>(table, "div." + type);
  add_operation<Remainder<T>, T, T, T>(table, "rem." + type);
  add_operation<Minimum<T>, T, T, T>(table, "min." + type);
  add_operation<Maximum<T>, T, T, T>(table, "max." + type);
  add_comparisons<T>(table, type, true);
  if constexpr (std::is_signed_v<T>) {
    add_operation<Negate<T>, T, T>(table, "neg." + type);
    add_operation<Magnitude<T>, T, T>(table, "abs." + type);
  }
}

template <class T, class Wide>
void add_wide_products(Table& table, const std::string& type) {
  add_operation<MultiplyWide<T, Wide>, Wide, T, T>(table, "mul.wide." + type);
  add_operation<MultiplyAddWide<T, Wide>, Wide, T, T, Wide>(table, "mad.wide." + type);
}

}  // namespace

void add_integer_operations(Table& table) {
  add_arithmetic<std::uint16_t>(table, "u16");
  add_arithmetic<std::uint32_t>(table, "u32");
  add_arithmetic<std::uint64_t>(table, "u64");
  add_arithmetic<std::int16_t>(table, "s16");
  add_arithmetic<std::int32_t>(table, "s32");
  add_arithmetic<std::int64_t>(table, "s64");
  add_wide_products<std::uint16_t, std::uint32_t>(table, "u16");
  add_wide_products<std::uint32_t, std::uint64_t>(table, "u32");
  add_wide_products<std::int16_t, std::int32_t>(table, "s16");
  add_wide_products<std::int32_t, std::int64_t>(table, "s32");
  add_comparisons<std::uint16_t>(table, "b16", false);
  add_comparisons<std::uint32_t>(table, "b32", false);
  add_comparisons<std::uint64_t>(table, "b64", false);
}

}  // namespace korvex::ptx
