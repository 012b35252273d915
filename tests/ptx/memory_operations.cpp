// SPDX-License-Identifier: Apache-2.0
// Loads, stores, atomic operations and asynchronous copies, with the checks of each access.
#include <algorithm>
#include <string>

#include "tests/ptx/machine.h"

namespace korvex::ptx {
namespace {

std::uint64_t low_bits(unsigned bytes) {
  return bytes == 8 ? ~std::uint64_t{0} : (std::uint64_t{1} << (8 * bytes)) - 1;
}

std::uint64_t address_of(const Instruction& instruction, std::uint64_t base, std::int64_t offset) {
  const std::uint64_t sum = base + static_cast<std::uint64_t>(offset);
  return instruction.space == Space::kShared ? sum & 0xffffffff : sum;
}

[[noreturn]] void fail_for_state(const Machine::Place& place, std::uint32_t bytes) {
  const Region& region = *place.region;
  if (region.any(place.offset, bytes, kNothing)) {
    throw Failure("out of bounds: " + std::to_string(bytes) + " bytes at " +
                  std::to_string(place.offset) + " of " + region.name + " belong to no object");
  }
  throw Failure("in flight: an asynchronous copy writes " + region.name + " at " +
                std::to_string(place.offset) + ", and nothing has waited for it");
}

// Bits of one element that nobody has written, from the states of its bytes.
std::uint64_t undefined_bits(const std::uint8_t* states, unsigned width) {
  std::uint64_t bits = 0;
  for (unsigned i = 0; i < width; ++i) {
    if (states[i] != kWritten) {
      bits |= std::uint64_t{0xff} << (8 * i);
    }
  }
  return bits;
}

std::uint64_t extended(const Instruction& instruction, std::uint64_t value) {
  if (!instruction.is_signed || instruction.width == 8) {
    return value;
  }
  const int unused = 64 - 8 * instruction.width;
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(value << unused) >> unused);
}

// Takes the elements of one lane from bytes and their states into registers.
void take_elements(const Group& group, const Instruction& instruction, int lane,
                   const std::uint8_t* bytes, const std::uint8_t* states, bool is_defined) {
  for (unsigned i = 0; i < instruction.elements; ++i) {
    const std::size_t place = std::size_t{i} * instruction.width;
    std::uint64_t value = 0;
    std::memcpy(&value, bytes + place, instruction.width);
    group.out(instruction.to[i])[lane] = extended(instruction, value);
    const std::uint64_t undefined =
        is_defined ? 0 : undefined_bits(states + place, instruction.width);
    if (undefined != 0) {
      const auto number = static_cast<std::size_t>(instruction.to[i]);
      group.frame.partial[number] |= 1U << lane;
      group.frame.undefined[number * kLanes + static_cast<std::size_t>(lane)] = undefined;
    }
  }
}

// Puts the elements of one lane where bytes and states are.
void give_elements(const Group& group, const Instruction& instruction, int lane,
                   std::uint8_t* bytes, std::uint8_t* states) {
  for (unsigned i = 0; i < instruction.elements; ++i) {
    const Operand operand = instruction.from[i + 1];
    const std::uint64_t value = group.in(operand)[lane];
    const std::size_t place = std::size_t{i} * instruction.width;
    std::memcpy(bytes + place, &value, instruction.width);
    std::uint8_t* own = states + place;
    std::fill_n(own, instruction.width, std::uint8_t{kWritten});
    if (is_register(operand) &&
        (group.frame.partial[static_cast<std::size_t>(operand)] >> lane & 1) != 0) {
      const std::uint64_t undefined =
          group.frame.undefined[static_cast<std::size_t>(operand) * kLanes +
                                static_cast<std::size_t>(lane)];
      for (unsigned byte = 0; byte < instruction.width; ++byte) {
        if ((undefined >> (8 * byte) & 0xff) != 0) {
          own[byte] = kUnwritten;
        }
      }
    }
  }
}

std::size_t parameter_place(const Group& group, const Instruction& instruction, int lane) {
  return static_cast<std::size_t>(lane * group.frame.function->parameter_bytes +
                                  instruction.offset);
}

void check_parameter(const Group& group, const Instruction& instruction) {
  const std::int64_t bytes = std::int64_t{instruction.width} * instruction.elements;
  if (instruction.offset < 0 ||
      instruction.offset + bytes > group.frame.function->parameter_bytes) {
    throw Failure("out of bounds: parameter memory");
  }
}

void load(const Group& group, const Instruction& instruction) {
  const std::uint32_t bytes = std::uint32_t{instruction.width} * instruction.elements;
  // The states tell what is defined, also where registers in between are not.
  for (unsigned i = 0; i < instruction.to_count; ++i) {
    group.frame.partial[static_cast<std::size_t>(instruction.to[i])] &= ~group.mask;
  }
  if (instruction.space == Space::kParam) {
    check_parameter(group, instruction);
    for_each_lane(group.mask, [&](int lane) {
      const std::size_t at = parameter_place(group, instruction, lane);
      take_elements(group, instruction, lane, group.frame.parameters.data() + at,
                    group.frame.parameter_states.data() + at, false);
    });
    return;
  }
  group.machine.count_accesses(group.mask);
  std::array<std::uint64_t, kLanes> bases;  // the result may be the address
  std::copy_n(group.in(instruction.from[0]), kLanes, bases.begin());
  for_each_lane(group.mask, [&](int lane) {
    const std::uint64_t address =
        address_of(instruction, bases[static_cast<std::size_t>(lane)], instruction.offset);
    const Machine::Place place = group.machine.find(group, instruction.space, address, bytes, lane);
    Region& region = *place.region;
    const bool is_defined = region.all(place.offset, bytes, kWritten);
    if (!is_defined &&
        (region.any(place.offset, bytes, kNothing) || region.any(place.offset, bytes, kInFlight))) {
      fail_for_state(place, bytes);
    }
    if (!region.cells.empty()) {
      group.machine.races().read(region.cells,
                                 group.machine.access(group, instruction, place, bytes, lane));
    }
    take_elements(group, instruction, lane, region.bytes.data() + place.offset,
                  region.states.data() + place.offset, is_defined);
  });
}

// Where a lane may write; throws where it may not.
Machine::Place writable(const Group& group, const Instruction& instruction, std::uint64_t address,
                        std::uint32_t bytes, int lane) {
  const Machine::Place place = group.machine.find(group, instruction.space, address, bytes, lane);
  if (place.region->is_constant) {
    throw Failure("writes to " + place.region->name + ", which is input");
  }
  if (place.region->any(place.offset, bytes, kNothing) ||
      place.region->any(place.offset, bytes, kInFlight)) {
    fail_for_state(place, bytes);
  }
  return place;
}

void store(const Group& group, const Instruction& instruction) {
  const std::uint32_t bytes = std::uint32_t{instruction.width} * instruction.elements;
  if (instruction.space == Space::kParam) {
    check_parameter(group, instruction);
    for_each_lane(group.mask, [&](int lane) {
      const std::size_t at = parameter_place(group, instruction, lane);
      give_elements(group, instruction, lane, group.frame.parameters.data() + at,
                    group.frame.parameter_states.data() + at);
    });
    return;
  }
  group.machine.count_accesses(group.mask);
  const std::uint64_t* bases = group.in(instruction.from[0]);
  for_each_lane(group.mask, [&](int lane) {
    const std::uint64_t address = address_of(instruction, bases[lane], instruction.offset);
    const Machine::Place place = writable(group, instruction, address, bytes, lane);
    Region& region = *place.region;
    if (!region.cells.empty()) {
      group.machine.races().write(region.cells,
                                  group.machine.access(group, instruction, place, bytes, lane));
    }
    give_elements(group, instruction, lane, region.bytes.data() + place.offset,
                  region.states.data() + place.offset);
  });
}

// --- Atomic operations

using Join = std::uint64_t (*)(std::uint64_t old, std::uint64_t value, std::uint64_t third);

std::uint64_t join_add(std::uint64_t old, std::uint64_t value, std::uint64_t) {
  return old + value;
}
std::uint64_t join_or(std::uint64_t old, std::uint64_t value, std::uint64_t) { return old | value; }
std::uint64_t join_and(std::uint64_t old, std::uint64_t value, std::uint64_t) {
  return old & value;
}
std::uint64_t join_exchange(std::uint64_t, std::uint64_t value, std::uint64_t) { return value; }
std::uint64_t join_max(std::uint64_t old, std::uint64_t value, std::uint64_t) {
  return std::max(old, value);
}
std::uint64_t join_min(std::uint64_t old, std::uint64_t value, std::uint64_t) {
  return std::min(old, value);
}
std::uint64_t join_swap_if_equal(std::uint64_t old, std::uint64_t wanted, std::uint64_t value) {
  return old == wanted ? value : old;
}

template <Join kJoin, AtomicKind kKind, bool kHasResult>
void atomic(const Group& group, const Instruction& instruction) {
  if (instruction.is_signed) {
    throw Failure("a signed atomic operation, which this machine does not run");
  }
  group.machine.count_accesses(group.mask);
  std::array<std::uint64_t, kLanes> bases;
  std::copy_n(group.in(instruction.from[0]), kLanes, bases.begin());
  const std::uint64_t* values = group.in(instruction.from[1]);
  const std::uint64_t* thirds = group.in(instruction.from[instruction.from_count - 1U]);
  for_each_lane(group.mask, [&](int lane) {
    const std::uint64_t address =
        address_of(instruction, bases[static_cast<std::size_t>(lane)], instruction.offset);
    const Machine::Place place = writable(group, instruction, address, instruction.width, lane);
    if (place.region->cells.empty()) {
      throw Failure("an atomic operation on " + place.region->name);
    }
    if (!place.region->all(place.offset, instruction.width, kWritten)) {
      throw Failure("an atomic operation on memory that nobody wrote");
    }
    const Races::Access access =
        group.machine.access(group, instruction, place, instruction.width, lane);
    group.machine.races().atomic(place.region->cells, access, kKind, instruction.has_used_result);
    group.machine.clocks().atomic(
        access.thread,
        place.is_shared
            ? kSharedWindow + (std::uint64_t{group.warp.block->index} << 20) + place.offset
            : address);
    std::uint8_t* bytes = place.region->bytes.data() + place.offset;
    std::uint64_t old = 0;
    std::memcpy(&old, bytes, instruction.width);
    const std::uint64_t mask = low_bits(instruction.width);
    const std::uint64_t joined = kJoin(old, values[lane] & mask, thirds[lane] & mask);
    std::memcpy(bytes, &joined, instruction.width);
    if constexpr (kHasResult) {
      group.out(instruction.to[0])[lane] = old;
    }
  });
}

template <Join kJoin, AtomicKind kKind>
void add_atomic(Table& table, const std::string& name) {
  table["atom." + name] = {"atom." + name, Kind::kAtomic, &atomic<kJoin, kKind, true>,
                           Spread::kNone, 64};
  table["red." + name] = {"red." + name, Kind::kReduce, &atomic<kJoin, kKind, false>, Spread::kNone,
                          64};
}

// --- Asynchronous copies: the bytes arrive when the thread waits for them, and not before

std::vector<std::vector<Copy>>& groups_of(const Group& group, int lane) {
  auto& groups = group.warp.copies[static_cast<std::size_t>(lane)];
  if (groups.empty()) {
    groups.emplace_back();
  }
  return groups;
}

void start_copy(const Group& group, const Instruction& instruction) {
  const auto bytes = static_cast<std::uint32_t>(group.in(instruction.from[2])[0]);
  if (bytes != 16 && bytes != 8 && bytes != 4) {
    throw Failure("a copy of such a size");
  }
  group.machine.count_accesses(group.mask);
  for_each_lane(group.mask, [&](int lane) {
    const std::uint64_t to =
        (group.in(instruction.from[0])[lane] + static_cast<std::uint64_t>(instruction.offset)) &
        0xffffffff;
    const std::uint64_t from =
        group.in(instruction.from[1])[lane] + static_cast<std::uint64_t>(instruction.second_offset);
    const Machine::Place source = group.machine.find(group, Space::kGlobal, from, bytes, lane);
    if (!source.region->all(source.offset, bytes, kWritten) || !source.region->cells.empty()) {
      throw Failure("an asynchronous copy of " + source.region->name + ", which is no input");
    }
    const Machine::Place target = group.machine.find(group, Space::kShared, to, bytes, lane);
    if (target.region->any(target.offset, bytes, kNothing) ||
        target.region->any(target.offset, bytes, kInFlight)) {
      fail_for_state(target, bytes);
    }
    group.machine.races().write(target.region->cells,
                                group.machine.access(group, instruction, target, bytes, lane));
    std::fill_n(target.region->states.begin() + static_cast<std::ptrdiff_t>(target.offset), bytes,
                std::uint8_t{kInFlight});
    groups_of(group, lane).back().push_back({from, to, bytes});
  });
}

void commit_copies(const Group& group, const Instruction&) {
  for_each_lane(group.mask, [&](int lane) { groups_of(group, lane).emplace_back(); });
}

// All groups but the latest ones that are closed.
void wait_for_copies(const Group& group, const Instruction& instruction) {
  const std::uint64_t left = group.in(instruction.from[0])[0];
  for_each_lane(group.mask, [&](int lane) {
    auto& groups = groups_of(group, lane);
    while (groups.size() > left + 1) {
      for (const Copy& copy : groups.front()) {
        const Machine::Place source =
            group.machine.find(group, Space::kGlobal, copy.from, copy.bytes, lane);
        const Machine::Place target =
            group.machine.find(group, Space::kShared, copy.to, copy.bytes, lane);
        std::memcpy(target.region->bytes.data() + target.offset,
                    source.region->bytes.data() + source.offset, copy.bytes);
        std::fill_n(target.region->states.begin() + static_cast<std::ptrdiff_t>(target.offset),
                    copy.bytes, std::uint8_t{kWritten});
      }
      groups.erase(groups.begin());
    }
  });
}

void fence(const Group& group, const Instruction&) {
  for_each_lane(group.mask, [&](int lane) {
    group.machine.clocks().fence(group.warp.first_thread + static_cast<std::uint32_t>(lane));
  });
}

// --- Generic addresses

template <std::uint64_t kWindow>
struct ToGeneric {
  std::uint64_t operator()(std::uint64_t offset) const { return offset + kWindow; }
};
template <std::uint64_t kWindow>
struct FromGeneric {
  std::uint64_t operator()(std::uint64_t address) const {
    if (address < kWindow || address >= kWindow + kWindowBytes) {
      throw Failure("the address does not lie in the space that it is converted to");
    }
    return address - kWindow;
  }
};

}  // namespace

void add_memory_operations(Table& table) {
  table["ld"] = {"ld", Kind::kLoad, &load, Spread::kNone, 64};
  table["st"] = {"st", Kind::kStore, &store, Spread::kOwn, 64};
  add_atomic<join_add, kAtomicAdd>(table, "add");
  add_atomic<join_or, kAtomicOr>(table, "or");
  add_atomic<join_and, kAtomicAnd>(table, "and");
  add_atomic<join_max, kAtomicMax>(table, "max");
  add_atomic<join_min, kAtomicMin>(table, "min");
  add_atomic<join_exchange, kAtomicOther>(table, "exch");
  add_atomic<join_swap_if_equal, kAtomicOther>(table, "cas");
  const std::string copy = "cp.async.cg.shared.global";
  table[copy] = {copy, Kind::kCopy, &start_copy, Spread::kNone, 64};
  table["cp.async.ca.shared.global"] = {"cp.async.ca.shared.global", Kind::kCopy, &start_copy,
                                        Spread::kNone, 64};
  table["cp.async.commit_group"] = {"cp.async.commit_group", Kind::kCommit, &commit_copies,
                                    Spread::kNone, 64};
  table["cp.async.wait_group"] = {"cp.async.wait_group", Kind::kWait, &wait_for_copies,
                                  Spread::kNone, 64};
  table["membar.gl"] = {"membar.gl", Kind::kFence, &fence, Spread::kNone, 64};
  table["fence.sc.gpu"] = {"fence.sc.gpu", Kind::kFence, &fence, Spread::kNone, 64};
  using Word = std::uint64_t;
  add_operation<ToGeneric<0>, Word, Word>(table, "cvta.global.u64");
  add_operation<ToGeneric<kSharedWindow>, Word, Word>(table, "cvta.shared.u64");
  add_operation<ToGeneric<kLocalWindow>, Word, Word>(table, "cvta.local.u64");
  add_operation<ToGeneric<0>, Word, Word>(table, "cvta.to.global.u64");
  add_operation<FromGeneric<kSharedWindow>, Word, Word>(table, "cvta.to.shared.u64");
  add_operation<FromGeneric<kLocalWindow>, Word, Word>(table, "cvta.to.local.u64");
}

}  // namespace korvex::ptx
