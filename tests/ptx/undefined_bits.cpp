// SPDX-License-Identifier: Apache-2.0
// How undefined bits pass through moves, logic and shifts.
//
// Compilers copy objects as whole words, padding included, and pack bytes into words; so a word may
// hold bits that nobody has written, and is wrong only where a result depends on them. For each
// lane a mask tells which bits those are (as in Seward and Nethercote, Using Valgrind to detect
// undefined value errors with bit-precision, 2005).
#include <algorithm>

#include "tests/ptx/machine.h"

namespace korvex::ptx {
namespace {

struct Bits {
  std::uint64_t value = 0;
  std::uint64_t undefined = 0;
};

Bits bits_in(const Group& group, Operand operand, int lane) {
  Bits bits;
  bits.value = group.in(operand)[lane];
  if (is_register(operand) &&
      (group.frame.partial[static_cast<std::size_t>(operand)] >> lane & 1) != 0) {
    bits.undefined =
        group.frame
            .undefined[static_cast<std::size_t>(operand) * kLanes + static_cast<std::size_t>(lane)];
  }
  return bits;
}

void require_defined(const Bits& bits) {
  if (bits.undefined != 0) {
    throw Failure("a result depends on memory that nobody wrote");
  }
}

std::uint64_t shifted(std::uint64_t mask, std::uint64_t amount, bool left) {
  if (amount >= 64) {
    return 0;
  }
  return left ? mask << amount : mask >> amount;
}

// Bits of the result that are not defined.
std::uint64_t undefined_result(const Operation& operation, const std::array<Bits, 4>& in) {
  const Bits& a = in[0];
  const Bits& b = in[1];
  switch (operation.spread) {
    case Spread::kMove:
      return a.undefined;
    case Spread::kSelect:
      require_defined(in[2]);
      return in[2].value != 0 ? a.undefined : b.undefined;
    case Spread::kAnd:  // a defined 0 decides
      return (a.undefined | b.undefined) & (a.undefined | a.value) & (b.undefined | b.value);
    case Spread::kOr:  // a defined 1 decides
      return (a.undefined | b.undefined) & (a.undefined | ~a.value) & (b.undefined | ~b.value);
    case Spread::kXor:
      return a.undefined | b.undefined;
    case Spread::kShiftLeft:
      require_defined(b);
      return shifted(a.undefined, b.value & 0xffffffff, true);
    case Spread::kShiftRight:
      require_defined(b);
      return shifted(a.undefined, b.value & 0xffffffff, false);
    case Spread::kInsert: {
      require_defined(in[2]);
      require_defined(in[3]);
      const std::uint64_t position = in[2].value & 255;
      const std::uint64_t length = in[3].value & 255;
      const std::uint64_t field = shifted(
          length >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << length) - 1, position, true);
      return (b.undefined & ~field) | (shifted(a.undefined, position, true) & field);
    }
    case Spread::kExtract: {
      require_defined(b);
      require_defined(in[2]);
      const std::uint64_t length = in[2].value & 255;
      return shifted(a.undefined, b.value & 255, false) &
             (length >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << length) - 1);
    }
    case Spread::kPermute: {
      require_defined(in[2]);
      const std::uint64_t both = (b.undefined << 32) | (a.undefined & 0xffffffff);
      std::uint64_t result = 0;
      for (int i = 0; i < 4; ++i) {
        const std::uint64_t byte = both >> (8 * (in[2].value >> (4 * i) & 7)) & 255;
        result |= byte << (8 * i);
      }
      return result;
    }
    default:
      throw Failure("a result depends on memory that nobody wrote");
  }
}

}  // namespace

namespace {

// Writes down which bits of a register are undefined in one lane.
void set_undefined(const Group& group, std::int32_t number, int lane, std::uint64_t bits) {
  const auto at = static_cast<std::size_t>(number);
  const std::uint32_t own = 1U << lane;
  group.frame.undefined[at * kLanes + static_cast<std::size_t>(lane)] = bits;
  group.frame.written[at] |= own;
  group.frame.partial[at] =
      bits != 0 ? group.frame.partial[at] | own : group.frame.partial[at] & ~own;
}

// A vector of parts and one register: the parts' bits in turn.
void spread_parts(const Group& group, const Instruction& instruction) {
  const bool packs = instruction.operation->spread == Spread::kPack;
  const std::size_t count = packs ? instruction.from_count : instruction.to_count;
  const std::size_t bits = 8 * std::size_t{instruction.width} / count;
  const std::uint64_t mask = (std::uint64_t{1} << bits) - 1;
  for_each_lane(group.mask, [&](int lane) {
    std::uint64_t whole = packs ? 0 : bits_in(group, instruction.from[0], lane).undefined;
    for (std::size_t i = 0; i < count; ++i) {
      if (packs) {
        whole |= (bits_in(group, instruction.from[i], lane).undefined & mask) << (bits * i);
      } else {
        set_undefined(group, instruction.to[i], lane, whole >> (bits * i) & mask);
      }
    }
    if (packs) {
      set_undefined(group, instruction.to[0], lane, whole);
    }
  });
}

}  // namespace

void spread_undefined(const Group& group, const Instruction& instruction) {
  if (instruction.operation->spread == Spread::kPack ||
      instruction.operation->spread == Spread::kUnpack) {
    spread_parts(group, instruction);
    return;
  }
  if (instruction.operation->spread == Spread::kOwn) {
    require_defined(is_register(instruction.from[0]) &&
                            (group.frame.partial[static_cast<std::size_t>(instruction.from[0])] &
                             group.mask) != 0
                        ? Bits{0, 1}
                        : Bits{});
    return;
  }
  const std::uint8_t width = instruction.operation->bits;
  const std::uint64_t kept = width >= 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << width) - 1;
  for_each_lane(group.mask, [&](int lane) {
    group.machine.note_lane(lane);
    std::array<Bits, 4> in{};
    for (std::size_t i = 0; i < instruction.from_count && i < in.size(); ++i) {
      in[i] = bits_in(group, instruction.from[i], lane);
    }
    set_undefined(group, instruction.to[0], lane,
                  undefined_result(*instruction.operation, in) & kept);
  });
}

}  // namespace korvex::ptx
