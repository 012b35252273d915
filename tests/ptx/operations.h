// SPDX-License-Identifier: Apache-2.0
// The table of operations that the machine knows: their names as PTX spells them, and what each
// does to the lanes of a warp.
#pragma once

#include <bit>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>

#include "tests/ptx/module.h"

namespace korvex::ptx {

class Machine;
struct Warp;
struct Frame;

// Lanes of one warp that execute one instruction together, in one frame.
struct Group {
  Machine& machine;
  Warp& warp;
  Frame& frame;
  std::uint32_t mask;
  std::int32_t pc;

  inline const std::uint64_t* in(Operand operand) const;
  inline std::uint64_t* out(std::int32_t number) const;
};

using Handler = void (*)(const Group&, const Instruction&);

enum class Kind : std::uint8_t {
  kCompute,  // registers to registers
  kLoad,     // memory; the shape of an access stands in the instruction
  kStore,
  kAtomic,  // with a result
  kReduce,  // without
  kCopy,    // cp.async
  kCommit,
  kWait,
  kFence,
  kBranch,
  kCall,
  kReturn,
  kTrap,
  kBarrier,  // of the block
  kMeeting,  // of lanes of a warp, which a mask names
};

// How bits that nobody has written pass through an operation. All but these need defined operands.
enum class Spread : std::uint8_t {
  kNone,
  kOwn,  // loads and stores keep the account themselves
  kMove,
  kSelect,
  kAnd,
  kOr,
  kXor,
  kShiftLeft,
  kShiftRight,
  kInsert,
  kExtract,
  kPermute,
  kPack,
  kUnpack,
};

struct Operation {
  std::string name;
  Kind kind = Kind::kCompute;
  Handler run = nullptr;
  Spread spread = Spread::kNone;
  std::uint8_t bits = 64;  // of the result
};

using Table = std::unordered_map<std::string, Operation>;

const Operation* find_operation(std::string_view name);

void add_integer_operations(Table& table);
void add_logic_operations(Table& table);
void add_floating_operations(Table& table);
void add_conversions(Table& table);
void add_memory_operations(Table& table);
void add_warp_operations(Table& table);

// Marks what an operation makes of operands that are not all defined.
void spread_undefined(const Group& group, const Instruction& instruction);

// --- Values in registers: the low bits of 64, the rest zero

template <class T>
T value_of(std::uint64_t bits) {
  if constexpr (std::is_same_v<T, double>) {
    return std::bit_cast<double>(bits);
  } else if constexpr (std::is_same_v<T, bool>) {
    return bits != 0;
  } else {
    return static_cast<T>(bits);
  }
}

template <class T>
std::uint64_t bits_of(T value) {
  if constexpr (std::is_same_v<T, double>) {
    return std::bit_cast<std::uint64_t>(value);
  } else if constexpr (std::is_same_v<T, bool>) {
    return value ? 1 : 0;
  } else {
    return static_cast<std::make_unsigned_t<T>>(value);
  }
}

template <class Body>
void for_each_lane(std::uint32_t mask, const Body& body) {
  if (mask == kAllLanes) {
    for (int lane = 0; lane < kLanes; ++lane) {
      body(lane);
    }
    return;
  }
  for (; mask != 0; mask &= mask - 1) {
    body(std::countr_zero(mask));
  }
}

// The handler of an operation without memory: to[0] = F(from[0], from[1], ...).
template <class F, class Result, class... Arguments>
void compute(const Group& group, const Instruction& instruction) {
  const auto over = [&]<std::size_t... I>(std::index_sequence<I...>) {
    std::uint64_t* out = group.out(instruction.to[0]);
    const std::uint64_t* in[] = {group.in(instruction.from[I])...};
    for_each_lane(group.mask, [&](int lane) {
      out[lane] = bits_of<Result>(F()(value_of<Arguments>(in[I][lane])...));
    });
  };
  over(std::index_sequence_for<Arguments...>());
}

template <class F, class Result, class... Arguments>
void add_operation(Table& table, const std::string& name, Spread spread = Spread::kNone) {
  Operation& row = table[name];
  row.name = name;
  row.run = &compute<F, Result, Arguments...>;
  row.spread = spread;
  row.bits = static_cast<std::uint8_t>(sizeof(Result) * 8);
}

}  // namespace korvex::ptx
