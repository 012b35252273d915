// SPDX-License-Identifier: Apache-2.0
// One turn of a warp: which lanes run, and what branches, calls, barriers and meetings do to them.
#include <algorithm>
#include <bit>
#include <limits>

#include "tests/ptx/machine.h"

namespace korvex::ptx {
namespace {

constexpr int kDeepestCall = 64;
constexpr std::int32_t kNowhere = std::numeric_limits<std::int32_t>::max();

std::size_t first_of(std::uint32_t mask) {
  return static_cast<std::size_t>(std::countr_zero(mask));
}

}  // namespace

void Machine::run_warp(Warp& warp, int steps) {
  while (steps > 0 && warp.running != 0) {
    steps -= run_group(warp, choose(warp), steps);
  }
}

// The lanes that go next: all that stand where one of them does.
std::uint32_t Machine::choose(Warp& warp) {
  std::size_t best = first_of(warp.running);
  const bool any = random_.below(16) == 0;
  int seen = 0;
  bool is_parted = false;
  for (std::uint32_t rest = warp.running; rest != 0; rest &= rest - 1) {
    const std::size_t lane = first_of(rest);
    if (warp.pcs[lane] == warp.pcs[best] && warp.frames[lane] == warp.frames[best]) {
      continue;
    }
    is_parted = true;
    const int depth = warp.frames[lane]->depth;
    const int best_depth = warp.frames[best]->depth;
    const bool is_before =
        depth > best_depth || (depth == best_depth && warp.pcs[lane] < warp.pcs[best]);
    if (any ? random_.below(++seen + 1) == 0 : is_before) {
      best = lane;
    }
  }
  if (!is_parted) {
    return warp.running;
  }
  std::uint32_t mask = 0;
  for (std::uint32_t rest = warp.running; rest != 0; rest &= rest - 1) {
    const std::size_t lane = first_of(rest);
    if (warp.pcs[lane] == warp.pcs[best] && warp.frames[lane] == warp.frames[best]) {
      mask |= 1U << lane;
    }
  }
  return mask;
}

// The nearest place ahead where other lanes of the same call stand.
std::int32_t Machine::next_meeting_point(const Warp& warp, std::uint32_t mask,
                                         std::int32_t pc) const {
  std::int32_t nearest = kNowhere;
  const Frame* frame = warp.frames[first_of(mask)];
  for (std::uint32_t rest = warp.running & ~mask; rest != 0; rest &= rest - 1) {
    const std::size_t lane = first_of(rest);
    if (warp.frames[lane] == frame && warp.pcs[lane] > pc) {
      nearest = std::min(nearest, warp.pcs[lane]);
    }
  }
  return nearest;
}

void Machine::put(Warp& warp, std::uint32_t mask, std::int32_t pc) {
  for (; mask != 0; mask &= mask - 1) {
    warp.pcs[first_of(mask)] = pc;
  }
}

std::uint32_t Machine::guarded(const Group& group, const Instruction& instruction) const {
  if (instruction.guard < 0) {
    return group.mask;
  }
  const auto number = static_cast<std::size_t>(instruction.guard);
  const std::uint32_t written = group.frame.written[number] & ~group.frame.partial[number];
  if ((written & group.mask) != group.mask) {
    throw Failure("the guard was never written");
  }
  const std::uint64_t* values = group.in(instruction.guard);
  std::uint32_t active = 0;
  for_each_lane(group.mask,
                [&](int lane) { active |= static_cast<std::uint32_t>(values[lane] != 0) << lane; });
  return instruction.is_negated ? group.mask & ~active : active;
}

// A register that was never written holds any bits, none of them defined.
void Machine::fill_undefined(Frame& frame, std::size_t number, std::uint32_t lanes) {
  const std::string& name = frame.function->register_names[number];
  const std::uint64_t bits = name.starts_with("%p")    ? 1
                             : name.starts_with("%rs") ? 0xffff
                             : name.starts_with("%rd") || name.starts_with("%fd")
                                 ? ~std::uint64_t{0}
                                 : 0xffffffff;
  for_each_lane(lanes, [&](int lane) {
    const std::size_t at = number * kLanes + static_cast<std::size_t>(lane);
    frame.registers[at] = 0xa5a5a5a5a5a5a5a5 & bits;
    frame.undefined[at] = bits;
  });
  frame.written[number] |= lanes;
  frame.partial[number] |= lanes;
}

void Machine::check_operands(const Group& group, const Instruction& instruction) {
  Frame& frame = group.frame;
  std::uint32_t undefined = 0;
  for (std::size_t i = 0; i < instruction.from_count; ++i) {
    const Operand operand = instruction.from[i];
    if (!is_register(operand)) {
      continue;
    }
    const auto number = static_cast<std::size_t>(operand);
    const std::uint32_t missing = group.mask & ~frame.written[number];
    if (missing != 0) {
      lane_ = std::countr_zero(missing);
      if (instruction.operation->spread == Spread::kNone) {
        throw Failure("register " + frame.function->register_names[number] + " was never written");
      }
      fill_undefined(frame, number, missing);
    }
    undefined |= frame.partial[number] & group.mask;
  }
  if (undefined == 0) {
    for (std::size_t i = 0; i < instruction.to_count; ++i) {
      const auto number = static_cast<std::size_t>(instruction.to[i]);
      group.frame.written[number] |= group.mask;
      group.frame.partial[number] &= ~group.mask;
    }
    return;
  }
  if (instruction.operation->spread == Spread::kNone) {
    lane_ = std::countr_zero(undefined);
    throw Failure("a result depends on memory that nobody wrote");
  }
  spread_undefined(group, instruction);
}

void Machine::execute(const Group& group, const Instruction& instruction) {
  check_operands(group, instruction);
  instruction.operation->run(group, instruction);
}

// Runs lanes that stand together, until they part, wait, come to where others stand, or have had
// their steps. The number of steps taken, at least one.
int Machine::run_group(Warp& warp, std::uint32_t mask, int steps) {
  Frame& frame = *warp.frames[first_of(mask)];
  std::int32_t pc = warp.pcs[first_of(mask)];
  std::int32_t stop = next_meeting_point(warp, mask, pc);
  int taken = 0;
  while (taken < steps) {
    pc_ = pc;
    lane_ = static_cast<int>(first_of(mask));
    Instruction& instruction = module_->code[static_cast<std::size_t>(pc)];
    Group group{*this, warp, frame, mask, pc};
    group.mask = guarded(group, instruction);
    ++taken;
    if (steps_left_-- == 0) {
      throw Failure("the launch takes too many steps");
    }
    const std::uint32_t skipped = mask & ~group.mask;
    if (group.mask != 0) {
      figures_.instructions += static_cast<std::uint64_t>(std::popcount(group.mask));
      ++instruction.hits;
      switch (instruction.operation->kind) {
        case Kind::kBranch:
          if (skipped == 0 && warp.running == mask) {
            pc = instruction.target;
            continue;
          }
          put(warp, group.mask, instruction.target);
          put(warp, skipped, pc + 1);
          return taken;
        case Kind::kCall:
          put(warp, skipped, pc + 1);
          call(group, instruction);
          return taken;
        case Kind::kReturn:
          put(warp, skipped, pc + 1);
          leave(warp, frame, group.mask);
          return taken;
        case Kind::kTrap:
          throw Failure("trap");
        case Kind::kBarrier:
          put(warp, skipped, pc + 1);
          arrive_at_barrier(warp, group.mask, pc);
          return taken;
        case Kind::kMeeting:
          put(warp, skipped, pc + 1);
          arrive_at_meeting(warp, group.mask, pc);
          return taken;
        default:
          execute(group, instruction);
      }
    }
    ++pc;
    if (pc >= stop) {
      break;
    }
  }
  put(warp, mask, pc);
  return taken;
}

// --- Calls

Frame& Machine::make_frame(Warp& warp, const Function& function) {
  std::unique_ptr<Frame> frame;
  const auto same = std::ranges::find_if(
      warp.free_frames, [&](const auto& free) { return free->function == &function; });
  if (same != warp.free_frames.end()) {
    frame = std::move(*same);
    warp.free_frames.erase(same);
  } else {
    frame = std::make_unique<Frame>();
    frame->function = &function;
    const auto registers = static_cast<std::size_t>(function.register_count);
    frame->registers.resize(registers * kLanes);
    frame->undefined.resize(registers * kLanes);
    frame->parameters.resize(static_cast<std::size_t>(function.parameter_bytes) * kLanes);
  }
  const auto registers = static_cast<std::size_t>(function.register_count);
  frame->written.assign(registers, 0);
  frame->partial.assign(registers, 0);
  frame->parameter_states.assign(frame->parameters.size(), kUnwritten);
  frame->caller = nullptr;
  frame->site = nullptr;
  frame->depth = 0;
  frame->local_top = kFirstOffset;
  warp.used_frames.push_back(std::move(frame));
  return *warp.used_frames.back();
}

namespace {

void move_parameters(const std::vector<ParameterMove>& moves, const Frame& from, Frame& to,
                     std::uint32_t mask, bool is_call) {
  for (const ParameterMove& move : moves) {
    const std::int64_t source = is_call ? move.caller_offset : move.callee_offset;
    const std::int64_t target = is_call ? move.callee_offset : move.caller_offset;
    for_each_lane(mask, [&](int lane) {
      const auto read = static_cast<std::size_t>(lane * from.function->parameter_bytes + source);
      const auto write = static_cast<std::size_t>(lane * to.function->parameter_bytes + target);
      const auto bytes = static_cast<std::size_t>(move.bytes);
      std::memcpy(to.parameters.data() + write, from.parameters.data() + read, bytes);
      std::memcpy(to.parameter_states.data() + write, from.parameter_states.data() + read, bytes);
    });
  }
}

// Local memory of a call: unwritten while the call lasts, nothing afterwards.
void set_local(Warp& warp, std::uint32_t mask, std::uint64_t begin, std::uint64_t bytes,
               State state) {
  for_each_lane(mask, [&](int lane) {
    Region& local = warp.local[static_cast<std::size_t>(lane)];
    const std::uint64_t end = begin + bytes + kRedZone;
    if (local.bytes.size() < end) {
      local.name = "local memory";
      local.bytes.resize(end * 2);
      local.states.resize(end * 2, kNothing);
    }
    std::fill_n(local.states.begin() + static_cast<std::ptrdiff_t>(begin), bytes, state);
  });
}

}  // namespace

void Machine::open_depot(Warp& warp, Frame& frame, std::uint32_t mask) {
  const auto bytes = static_cast<std::uint64_t>(frame.function->depot_bytes);
  if (bytes == 0) {
    return;
  }
  frame.depot.fill(frame.local_top);
  set_local(warp, mask, frame.local_top, bytes, kUnwritten);
  frame.local_top = (frame.local_top + bytes + kRedZone + 15) / 16 * 16;
  for (const ParameterMove& move : frame.function->addressed) {
    for_each_lane(mask, [&](int lane) {
      Region& local = warp.local[static_cast<std::size_t>(lane)];
      const auto read =
          static_cast<std::size_t>(lane * frame.function->parameter_bytes + move.callee_offset);
      const auto write =
          static_cast<std::size_t>(frame.depot[0]) + static_cast<std::size_t>(move.caller_offset);
      const auto count = static_cast<std::size_t>(move.bytes);
      std::memcpy(local.bytes.data() + write, frame.parameters.data() + read, count);
      std::memcpy(local.states.data() + write, frame.parameter_states.data() + read, count);
    });
  }
}

void Machine::call(const Group& group, const Instruction& instruction) {
  const CallSite& site = module_->calls[static_cast<std::size_t>(instruction.target)];
  Frame& frame = make_frame(group.warp, *site.callee);
  frame.caller = &group.frame;
  frame.site = &site;
  frame.return_pc = group.pc + 1;
  frame.depth = group.frame.depth + 1;
  frame.lanes = group.mask;
  if (frame.depth > kDeepestCall) {
    throw Failure("calls are nested too deep");
  }
  move_parameters(site.arguments, group.frame, frame, group.mask, true);
  frame.local_top = group.frame.local_top;
  open_depot(group.warp, frame, group.mask);
  for_each_lane(group.mask, [&](int lane) {
    group.warp.frames[static_cast<std::size_t>(lane)] = &frame;
    group.warp.pcs[static_cast<std::size_t>(lane)] = site.callee->begin;
  });
}

void Machine::leave(Warp& warp, Frame& frame, std::uint32_t mask) {
  const auto bytes = static_cast<std::uint64_t>(frame.function->depot_bytes);
  if (bytes != 0) {
    set_local(warp, mask, frame.depot[0], bytes, kNothing);
  }
  if (frame.caller == nullptr) {
    exit_lanes(warp, mask, pc_);
  } else {
    for (const ParameterMove& move : frame.site->arguments) {
      for_each_lane(mask, [&](int lane) {
        std::memset(frame.caller->parameter_states.data() +
                        static_cast<std::size_t>(lane * frame.caller->function->parameter_bytes +
                                                 move.caller_offset),
                    kUnwritten, static_cast<std::size_t>(move.bytes));
      });
    }
    move_parameters(frame.site->results, frame, *frame.caller, mask, false);
    for_each_lane(mask, [&](int lane) {
      warp.frames[static_cast<std::size_t>(lane)] = frame.caller;
      warp.pcs[static_cast<std::size_t>(lane)] = frame.return_pc;
    });
  }
  frame.lanes &= ~mask;
  if (frame.lanes == 0) {
    const auto own = std::ranges::find_if(warp.used_frames,
                                          [&](const auto& used) { return used.get() == &frame; });
    warp.free_frames.push_back(std::move(*own));
    warp.used_frames.erase(own);
  }
}

void Machine::exit_lanes(Warp& warp, std::uint32_t mask, std::int32_t pc) {
  Block& block = *warp.block;
  if (block.waiting != 0) {
    pc_ = pc;
    throw Failure("barrier divergence: a thread ends while others wait at the barrier");
  }
  warp.running &= ~mask;
  block.exited += static_cast<std::uint32_t>(std::popcount(mask));
  for_each_lane(mask, [&](int lane) {
    warp.states[static_cast<std::size_t>(lane)] = LaneState::kExited;
    for (const auto& copies : warp.copies[static_cast<std::size_t>(lane)]) {
      if (!copies.empty()) {
        throw Failure("a thread ends before its copies have arrived");
      }
    }
  });
}

// --- Waiting

void Machine::arrive_at_barrier(Warp& warp, std::uint32_t mask, std::int32_t pc) {
  Block& block = *warp.block;
  if (block.exited != 0) {
    throw Failure("barrier divergence: other threads of the block have ended");
  }
  if (block.waiting != 0 && block.barrier_pc != pc) {
    throw Failure("barrier divergence: others wait at PTX line " +
                  std::to_string(module_->code[static_cast<std::size_t>(block.barrier_pc)].line));
  }
  const Instruction& instruction = module_->code[static_cast<std::size_t>(pc)];
  check_operands(Group{*this, warp, *warp.frames[first_of(mask)], mask, pc}, instruction);
  block.barrier_pc = pc;
  block.waiting += static_cast<std::uint32_t>(std::popcount(mask));
  put(warp, mask, pc);
  for_each_lane(
      mask, [&](int lane) { warp.states[static_cast<std::size_t>(lane)] = LaneState::kBarrier; });
  warp.running &= ~mask;
  if (block.waiting != shape_.threads()) {
    return;
  }
  block.waiting = 0;
  if (instruction.to_count != 0) {
    vote_of_block(block, instruction, pc);
  }
  for (const auto& each : block.warps) {
    each->running = each->lanes;
    put(*each, each->lanes, pc + 1);
    for_each_lane(each->lanes, [&](int lane) {
      each->states[static_cast<std::size_t>(lane)] = LaneState::kRunning;
    });
  }
  clocks_.barrier(block.index);
}

// All threads of the block are here: each gets whether the condition is true in any.
void Machine::vote_of_block(const Block& block, const Instruction& instruction, std::int32_t pc) {
  const auto for_each_thread = [&](const auto& body) {
    for (const auto& warp : block.warps) {
      for_each_lane(warp->lanes, [&](int lane) {
        Frame& frame = *warp->frames[static_cast<std::size_t>(lane)];
        body(Group{*this, *warp, frame, 1U << lane, pc}, lane);
      });
    }
  };
  std::uint64_t any = 0;
  for_each_thread(
      [&](const Group& group, int lane) { any |= group.in(instruction.from[1])[lane]; });
  for_each_thread([&](const Group& group, int lane) { group.out(instruction.to[0])[lane] = any; });
}

std::uint32_t Machine::mask_of_meeting(const Warp& warp, int lane,
                                       const Instruction& instruction) const {
  const Operand operand = instruction.from[instruction.from_count - 1U];
  Frame& frame = *warp.frames[static_cast<std::size_t>(lane)];
  if (is_register(operand)) {
    if ((frame.written[static_cast<std::size_t>(operand)] >> lane & 1) == 0) {
      throw Failure("the mask was never written");
    }
    return static_cast<std::uint32_t>(frame.registers[static_cast<std::size_t>(operand) * kLanes +
                                                      static_cast<std::size_t>(lane)]);
  }
  return static_cast<std::uint32_t>(module_->constants[static_cast<std::size_t>(-1 - operand)][0]);
}

void Machine::arrive_at_meeting(Warp& warp, std::uint32_t mask, std::int32_t pc) {
  const Instruction& instruction = module_->code[static_cast<std::size_t>(pc)];
  put(warp, mask, pc);
  warp.running &= ~mask;
  for_each_lane(
      mask, [&](int lane) { warp.states[static_cast<std::size_t>(lane)] = LaneState::kMeeting; });
  for (std::uint32_t rest = mask; rest != 0; rest &= rest - 1) {
    const auto lane = static_cast<int>(first_of(rest));
    lane_ = lane;
    const std::uint32_t named = mask_of_meeting(warp, lane, instruction);
    if ((named >> lane & 1) == 0) {
      throw Failure("wrong mask: it does not name the lane that executes this");
    }
    if (warp.states[static_cast<std::size_t>(lane)] == LaneState::kRunning) {
      continue;  // has met with those before it
    }
    bool all_here = true;
    for (std::uint32_t others = named; others != 0; others &= others - 1) {
      const std::size_t other = first_of(others);
      if (warp.states[other] == LaneState::kExited) {
        throw Failure("wrong mask: it names a lane that has ended or never was");
      }
      const bool here = warp.states[other] == LaneState::kMeeting && warp.pcs[other] == pc;
      all_here = all_here && here;
      if (here && mask_of_meeting(warp, static_cast<int>(other), instruction) != named) {
        throw Failure("wrong mask: lanes that meet name different ones");
      }
    }
    if (all_here) {
      meet(warp, named, instruction, pc);
    }
  }
}

// All lanes of the mask are here, though perhaps in different calls of the function.
void Machine::meet(Warp& warp, std::uint32_t named, const Instruction& instruction,
                   std::int32_t pc) {
  for (std::uint32_t rest = named; rest != 0;) {
    Frame& frame = *warp.frames[first_of(rest)];
    std::uint32_t same = 0;
    for_each_lane(rest, [&](int lane) {
      same |= static_cast<std::uint32_t>(warp.frames[static_cast<std::size_t>(lane)] == &frame)
              << lane;
    });
    check_operands(Group{*this, warp, frame, same, pc}, instruction);
    rest &= ~same;
  }
  instruction.operation->run(Group{*this, warp, *warp.frames[first_of(named)], named, pc},
                             instruction);
  put(warp, named, pc + 1);
  warp.running |= named;
  for_each_lane(
      named, [&](int lane) { warp.states[static_cast<std::size_t>(lane)] = LaneState::kRunning; });
}

}  // namespace korvex::ptx
