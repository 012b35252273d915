// SPDX-License-Identifier: Apache-2.0
// What the lanes of a warp do together: votes, shuffles, reductions, and the table of operations.
//
// Lanes that meet may have come by different calls of a function, so each has its own frame. Votes
// and shuffles order no accesses to memory; bar.warp.sync alone does.
#include <algorithm>
#include <bit>

#include "tests/ptx/machine.h"

namespace korvex::ptx {
namespace {

Group alone(const Group& group, int lane) {
  return {group.machine, group.warp, *group.warp.frames[static_cast<std::size_t>(lane)], 1U << lane,
          group.pc};
}
std::uint64_t value_in(const Group& group, Operand operand, int lane) {
  return alone(group, lane).in(operand)[lane];
}
void put_out(const Group& group, std::int32_t number, int lane, std::uint64_t value) {
  alone(group, lane).out(number)[lane] = value;
}

enum class Vote { kAny, kAll, kBallot };

template <Vote kVote>
void vote(const Group& group, const Instruction& instruction) {
  std::uint32_t ballot = 0;
  for_each_lane(group.mask, [&](int lane) {
    ballot |= static_cast<std::uint32_t>(value_in(group, instruction.from[0], lane) != 0) << lane;
  });
  const std::uint32_t result = kVote == Vote::kAny   ? ballot != 0
                               : kVote == Vote::kAll ? ballot == group.mask
                                                     : ballot;
  for_each_lane(group.mask, [&](int lane) { put_out(group, instruction.to[0], lane, result); });
}

enum class Shuffle { kXor, kUp, kDown, kIndex };

// The lane that is read from, before the test of the range; segments as PTX ISA says.
template <Shuffle kShuffle>
int source_lane(int lane, int b, int clamp, int segment, bool* in_range) {
  const int most = (lane & segment) | (clamp & ~segment);
  const int least = lane & segment;
  int from = 0;
  switch (kShuffle) {
    case Shuffle::kXor:
      from = lane ^ b;
      *in_range = from <= most;
      break;
    case Shuffle::kUp:
      from = lane - b;
      *in_range = from >= most;
      break;
    case Shuffle::kDown:
      from = lane + b;
      *in_range = from <= most;
      break;
    default:
      from = least | (b & ~segment);
      *in_range = from <= most;
  }
  return *in_range ? from : lane;
}

template <Shuffle kShuffle>
void shuffle(const Group& group, const Instruction& instruction) {
  std::array<std::uint64_t, kLanes> values{};
  for_each_lane(group.mask, [&](int lane) {
    values[static_cast<std::size_t>(lane)] = value_in(group, instruction.from[0], lane);
  });
  for_each_lane(group.mask, [&](int lane) {
    group.machine.note_lane(lane);
    const auto b = static_cast<int>(value_in(group, instruction.from[1], lane) & 31);
    const auto c = static_cast<int>(value_in(group, instruction.from[2], lane));
    bool in_range = false;
    const int from = source_lane<kShuffle>(lane, b, c & 31, c >> 8 & 31, &in_range);
    if ((group.mask >> from & 1) == 0) {
      throw Failure("a shuffle reads from a lane that does not take part");
    }
    put_out(group, instruction.to[0], lane, values[static_cast<std::size_t>(from)]);
    if (instruction.to_count > 1) {
      put_out(group, instruction.to[1], lane, in_range ? 1 : 0);
    }
  });
}

enum class Reduction { kAdd, kMin, kMax, kAnd, kOr, kXor };

template <Reduction kReduction, class T>
void reduce(const Group& group, const Instruction& instruction) {
  bool is_first = true;
  T result = 0;
  for_each_lane(group.mask, [&](int lane) {
    const T value = value_of<T>(value_in(group, instruction.from[0], lane));
    if (is_first) {
      result = value;
    } else if constexpr (kReduction == Reduction::kAdd) {
      result =
          static_cast<T>(static_cast<std::uint32_t>(result) + static_cast<std::uint32_t>(value));
    } else if constexpr (kReduction == Reduction::kMin) {
      result = std::min(result, value);
    } else if constexpr (kReduction == Reduction::kMax) {
      result = std::max(result, value);
    } else if constexpr (kReduction == Reduction::kAnd) {
      result &= value;
    } else if constexpr (kReduction == Reduction::kOr) {
      result |= value;
    } else {
      result ^= value;
    }
    is_first = false;
  });
  for_each_lane(group.mask,
                [&](int lane) { put_out(group, instruction.to[0], lane, bits_of(result)); });
}

void sync_warp(const Group& group, const Instruction&) {
  group.machine.clocks().meet(group.warp.first_thread, group.mask);
}

void add_meeting(Table& table, const std::string& name, Handler handler) {
  table[name] = {name, Kind::kMeeting, handler, Spread::kNone, 32};
}

void add_control(Table& table, const std::string& name, Kind kind) {
  table[name] = {name, kind, nullptr, Spread::kNone, 0};
}

const Table& table_of_operations() {
  static const Table table = [] {
    Table made;
    add_integer_operations(made);
    add_logic_operations(made);
    add_floating_operations(made);
    add_conversions(made);
    add_memory_operations(made);
    add_warp_operations(made);
    return made;
  }();
  return table;
}

}  // namespace

void add_warp_operations(Table& table) {
  add_meeting(table, "vote.sync.any.pred", &vote<Vote::kAny>);
  add_meeting(table, "vote.sync.all.pred", &vote<Vote::kAll>);
  add_meeting(table, "vote.sync.ballot.b32", &vote<Vote::kBallot>);
  add_meeting(table, "shfl.sync.bfly.b32", &shuffle<Shuffle::kXor>);
  add_meeting(table, "shfl.sync.up.b32", &shuffle<Shuffle::kUp>);
  add_meeting(table, "shfl.sync.down.b32", &shuffle<Shuffle::kDown>);
  add_meeting(table, "shfl.sync.idx.b32", &shuffle<Shuffle::kIndex>);
  add_meeting(table, "redux.sync.add.u32", &reduce<Reduction::kAdd, std::uint32_t>);
  add_meeting(table, "redux.sync.min.u32", &reduce<Reduction::kMin, std::uint32_t>);
  add_meeting(table, "redux.sync.max.u32", &reduce<Reduction::kMax, std::uint32_t>);
  add_meeting(table, "redux.sync.add.s32", &reduce<Reduction::kAdd, std::int32_t>);
  add_meeting(table, "redux.sync.min.s32", &reduce<Reduction::kMin, std::int32_t>);
  add_meeting(table, "redux.sync.max.s32", &reduce<Reduction::kMax, std::int32_t>);
  add_meeting(table, "redux.sync.and.b32", &reduce<Reduction::kAnd, std::uint32_t>);
  add_meeting(table, "redux.sync.or.b32", &reduce<Reduction::kOr, std::uint32_t>);
  add_meeting(table, "redux.sync.xor.b32", &reduce<Reduction::kXor, std::uint32_t>);
  add_meeting(table, "bar.warp.sync", &sync_warp);
  add_control(table, "bar.sync", Kind::kBarrier);
  add_control(table, "bar.red.or.pred", Kind::kBarrier);
  add_control(table, "bra", Kind::kBranch);
  add_control(table, "call", Kind::kCall);
  add_control(table, "ret", Kind::kReturn);
  add_control(table, "trap", Kind::kTrap);
}

const Operation* find_operation(std::string_view name) {
  const Table& table = table_of_operations();
  const auto found = table.find(std::string(name));
  return found == table.end() ? nullptr : &found->second;
}

}  // namespace korvex::ptx
