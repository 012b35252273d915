// SPDX-License-Identifier: Apache-2.0
// Moves, choices, bits and shifts of PTX. Undefined bits may pass through most of these, as
// compilers copy and pack whole words that hold padding.
#include <string>

#include "tests/ptx/machine.h"

namespace korvex::ptx {
namespace {

template <class T>
struct Same {
  T operator()(T a) const { return a; }
};
template <class T>
struct Select {
  T operator()(T a, T b, bool first) const { return first ? a : b; }
};
template <class T>
struct And {
  T operator()(T a, T b) const { return static_cast<T>(a & b); }
};
template <class T>
struct Or {
  T operator()(T a, T b) const { return static_cast<T>(a | b); }
};
template <class T>
struct Xor {
  T operator()(T a, T b) const { return static_cast<T>(a ^ b); }
};
template <class T>
struct Not {
  T operator()(T a) const {
    if constexpr (std::is_same_v<T, bool>) {
      return !a;
    } else {
      return static_cast<T>(~a);
    }
  }
};

// Amounts beyond the width count as the width.
template <class T>
struct ShiftLeft {
  T operator()(T a, std::uint32_t amount) const {
    return amount >= 8 * sizeof(T) ? T{0} : static_cast<T>(static_cast<std::uint64_t>(a) << amount);
  }
};
template <class T>
struct ShiftRight {
  T operator()(T a, std::uint32_t amount) const {
    const std::uint32_t most = 8 * sizeof(T) - 1;
    if (amount > most) {
      return std::is_signed_v<T> ? static_cast<T>(a >> most) : T{0};
    }
    return static_cast<T>(a >> amount);
  }
};
template <bool kLeft, bool kWrap>
struct FunnelShift {
  std::uint32_t operator()(std::uint32_t low, std::uint32_t high, std::uint32_t amount) const {
    const std::uint32_t by = kWrap ? amount & 31 : (amount > 32 ? 32 : amount);
    const std::uint64_t both = (std::uint64_t{high} << 32) | low;
    return static_cast<std::uint32_t>(kLeft ? (both << by) >> 32 : both >> by);
  }
};

template <class T>
struct LeadingZeros {
  std::uint32_t operator()(T a) const { return static_cast<std::uint32_t>(std::countl_zero(a)); }
};
template <class T>
struct OnesCount {
  std::uint32_t operator()(T a) const { return static_cast<std::uint32_t>(std::popcount(a)); }
};

// Position and length are the low 8 bits of their operands.
template <class T>
T field_mask(std::uint32_t position, std::uint32_t length) {
  const T below =
      length >= 8 * sizeof(T) ? static_cast<T>(~T{0}) : static_cast<T>((T{1} << length) - 1);
  return position >= 8 * sizeof(T) ? T{0} : static_cast<T>(below << position);
}
template <class T>
struct InsertField {
  T operator()(T a, T b, std::uint32_t position, std::uint32_t length) const {
    const T mask = field_mask<T>(position & 255, length & 255);
    const T moved =
        (position & 255) >= 8 * sizeof(T) ? T{0} : static_cast<T>(a << (position & 255));
    return static_cast<T>((b & ~mask) | (moved & mask));
  }
};
template <class T>
struct ExtractField {
  T operator()(T a, std::uint32_t position, std::uint32_t length) const {
    const T moved =
        (position & 255) >= 8 * sizeof(T) ? T{0} : static_cast<T>(a >> (position & 255));
    return static_cast<T>(moved & field_mask<T>(0, length & 255));
  }
};
struct Permute {
  std::uint32_t operator()(std::uint32_t a, std::uint32_t b, std::uint32_t selector) const {
    const std::uint64_t bytes = (std::uint64_t{b} << 32) | a;
    std::uint32_t result = 0;
    for (int i = 0; i < 4; ++i) {
      const std::uint32_t choice = (selector >> (4 * i)) & 15;
      auto byte = static_cast<std::uint32_t>(bytes >> (8 * (choice & 7))) & 255;
      if ((choice & 8) != 0) {
        byte = (byte & 128) != 0 ? 255 : 0;  // the sign alone
      }
      result |= byte << (8 * i);
    }
    return result;
  }
};

template <class T>
void add_bits(Table& table, const std::string& type) {
  add_operation<And<T>, T, T, T>(table, "and." + type, Spread::kAnd);
  add_operation<Or<T>, T, T, T>(table, "or." + type, Spread::kOr);
  add_operation<Xor<T>, T, T, T>(table, "xor." + type, Spread::kXor);
  add_operation<Not<T>, T, T>(table, "not." + type, Spread::kMove);
}

template <class T>
void add_moves(Table& table, const std::string& type) {
  add_operation<Same<T>, T, T>(table, "mov." + type, Spread::kMove);
  add_operation<Select<T>, T, T, T, bool>(table, "selp." + type, Spread::kSelect);
}

template <class U, class S>
void add_width(Table& table, const std::string& bits) {
  for (const char* prefix : {"b", "u", "s"}) {
    add_moves<U>(table, prefix + bits);
  }
  add_bits<U>(table, "b" + bits);
  add_operation<ShiftLeft<U>, U, U, std::uint32_t>(table, "shl.b" + bits, Spread::kShiftLeft);
  for (const char* prefix : {"b", "u"}) {
    add_operation<ShiftRight<U>, U, U, std::uint32_t>(table, std::string("shr.") + prefix + bits,
                                                      Spread::kShiftRight);
  }
  add_operation<ShiftRight<S>, S, S, std::uint32_t>(table, "shr.s" + bits);
  if constexpr (sizeof(U) > 2) {
    add_operation<LeadingZeros<U>, std::uint32_t, U>(table, "clz.b" + bits);
    add_operation<OnesCount<U>, std::uint32_t, U>(table, "popc.b" + bits);
    add_operation<InsertField<U>, U, U, U, std::uint32_t, std::uint32_t>(table, "bfi.b" + bits,
                                                                         Spread::kInsert);
    add_operation<ExtractField<U>, U, U, std::uint32_t, std::uint32_t>(table, "bfe.u" + bits,
                                                                       Spread::kExtract);
  }
}

// mov between one register and a vector of parts of it.
void pack(const Group& group, const Instruction& instruction) {
  const int bits = 8 * instruction.width / instruction.from_count;
  std::uint64_t* out = group.out(instruction.to[0]);
  for_each_lane(group.mask, [&](int lane) {
    std::uint64_t value = 0;
    for (int i = 0; i < instruction.from_count; ++i) {
      const std::uint64_t part = group.in(instruction.from[static_cast<std::size_t>(i)])[lane];
      value |= (part & ((std::uint64_t{1} << bits) - 1)) << (bits * i);
    }
    out[lane] = value;
  });
}
void unpack(const Group& group, const Instruction& instruction) {
  const int bits = 8 * instruction.width / instruction.to_count;
  const std::uint64_t* in = group.in(instruction.from[0]);
  for_each_lane(group.mask, [&](int lane) {
    const std::uint64_t value = in[lane];
    for (int i = 0; i < instruction.to_count; ++i) {
      group.out(instruction.to[static_cast<std::size_t>(i)])[lane] =
          (value >> (bits * i)) & ((std::uint64_t{1} << bits) - 1);
    }
  });
}

}  // namespace

void add_logic_operations(Table& table) {
  add_width<std::uint16_t, std::int16_t>(table, "16");
  add_width<std::uint32_t, std::int32_t>(table, "32");
  add_width<std::uint64_t, std::int64_t>(table, "64");
  add_moves<std::uint64_t>(table, "f64");
  add_operation<Same<bool>, bool, bool>(table, "mov.pred", Spread::kMove);
  add_bits<bool>(table, "pred");
  add_operation<Permute, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t>(
      table, "prmt.b32", Spread::kPermute);
  add_operation<FunnelShift<true, true>, std::uint32_t, std::uint32_t, std::uint32_t,
                std::uint32_t>(table, "shf.l.wrap.b32");
  add_operation<FunnelShift<false, true>, std::uint32_t, std::uint32_t, std::uint32_t,
                std::uint32_t>(table, "shf.r.wrap.b32");
  add_operation<FunnelShift<true, false>, std::uint32_t, std::uint32_t, std::uint32_t,
                std::uint32_t>(table, "shf.l.clamp.b32");
  add_operation<FunnelShift<false, false>, std::uint32_t, std::uint32_t, std::uint32_t,
                std::uint32_t>(table, "shf.r.clamp.b32");
  for (const char* width : {"32", "64"}) {
    Operation& packing = table[std::string("pack.b") + width];
    packing = {std::string("pack.b") + width, Kind::kCompute, &pack, Spread::kPack, 64};
    Operation& unpacking = table[std::string("unpack.b") + width];
    unpacking = {std::string("unpack.b") + width, Kind::kCompute, &unpack, Spread::kUnpack, 64};
  }
}

}  // namespace korvex::ptx
