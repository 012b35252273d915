// SPDX-License-Identifier: Apache-2.0
// A machine that runs PTX on the host: blocks of warps, each lane with a program counter of its
// own, in an order that a seed decides.
//
// Lanes that stand at one instruction of one call run it together. Where they part, the deepest
// call goes first and then the lowest program counter, so they come together again; now and then
// others go first. Blocks, warps and the length of their turns are drawn at random.
//
// Each access is checked: its alignment, its extent, its space, whether somebody has written what
// is read, and whether it is ordered with the accesses of other threads (clocks.h). Each register
// that is read must have been written. Barriers want all threads of the block at one instruction;
// what a mask names must come. An instruction that the machine does not know is an error of the
// file. A launch that takes too many steps is a failure.
//
// What it does not see: what ptxas makes of the PTX, an order of memory weaker than the accesses
// that it executes one after another, and time.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tests/cpp/random_data.h"
#include "tests/launches/launch_case.h"
#include "tests/ptx/clocks.h"
#include "tests/ptx/memory.h"
#include "tests/ptx/module.h"
#include "tests/ptx/operations.h"

namespace korvex::ptx {

struct Block;

// One call of a function by some lanes of a warp.
struct Frame {
  const Function* function = nullptr;
  Frame* caller = nullptr;
  std::int32_t return_pc = 0;
  const CallSite* site = nullptr;  // of the caller
  int depth = 0;
  std::uint32_t lanes = 0;               // that are still in it
  std::uint64_t local_top = 0;           // where the local memory of further calls may begin
  std::vector<std::uint64_t> registers;  // 32 lanes of each
  std::vector<std::uint64_t> undefined;  // the same: bits that nobody has written
  std::vector<std::uint32_t> written;    // of each register: lanes that hold a value
  std::vector<std::uint32_t> partial;    // lanes of which some bits are undefined
  std::array<std::uint64_t, kLanes> depot{};
  std::vector<std::uint8_t> parameters;        // of each lane in turn
  std::vector<std::uint8_t> parameter_states;  // kUnwritten or kWritten
};

enum class LaneState : std::uint8_t { kRunning, kMeeting, kBarrier, kExited };

struct Copy {  // asynchronous
  std::uint64_t from;
  std::uint64_t to;
  std::uint32_t bytes;
};

struct Warp {
  Block* block = nullptr;
  std::uint32_t first_thread = 0;  // in the launch
  std::uint32_t lanes = 0;         // that exist
  std::array<LaneState, kLanes> states{};
  std::array<std::int32_t, kLanes> pcs{};
  std::array<Frame*, kLanes> frames{};
  std::uint32_t running = 0;
  std::array<std::array<std::uint64_t, kLanes>, kEndOfSpecial - kFirstSpecial> specials{};
  std::array<Region, kLanes> local;
  std::array<std::vector<std::vector<Copy>>, kLanes> copies;  // groups, the last one still open
  std::vector<std::unique_ptr<Frame>> used_frames;
  std::vector<std::unique_ptr<Frame>> free_frames;
};

struct Block {
  std::uint32_t index = 0;
  std::vector<std::unique_ptr<Warp>> warps;
  std::unique_ptr<Region> shared;  // made at the first access
  std::uint32_t waiting = 0;       // threads at the barrier
  std::uint32_t exited = 0;
  std::int32_t barrier_pc = -1;
};

using launches::Shape;

struct Figures {
  std::uint64_t launches = 0;
  std::uint64_t instructions = 0;  // counted once for each lane
  std::uint64_t accesses = 0;

  Figures& operator+=(const Figures& more) {
    launches += more.launches;
    instructions += more.instructions;
    accesses += more.accesses;
    return *this;
  }
};

class Machine {
 public:
  explicit Machine(std::unique_ptr<Module> module);

  // Arrays of global memory, kept until the next call of forget_arrays.
  Region& add_array(std::string name, std::uint64_t bytes, State state, bool is_constant,
                    std::uint64_t past_16);
  void forget_arrays();

  // Variables of the module in global memory, by name. They hold junk that nobody wrote until a
  // launch or a host writes them, and last from one launch to the next.
  void forget_variables();
  void clear_variable(std::string_view name);
  Region& variable(std::string_view name);

  // Runs a kernel to its end, or throws a Failure that says where. arguments: 8 bytes each.
  void launch(const std::string& kernel, const Shape& shape,
              const std::vector<std::uint64_t>& arguments, std::uint64_t seed,
              std::uint64_t most_steps);

  const Figures& figures() const { return figures_; }
  const Module& module() const { return *module_; }

  // --- For the handlers of operations
  struct Place {
    Region* region;
    std::uint64_t offset;
    bool is_shared;
  };
  Place find(const Group& group, Space space, std::uint64_t address, std::uint32_t bytes, int lane);
  void note_lane(int lane) { lane_ = lane; }
  Races::Access access(const Group& group, const Instruction& instruction, const Place& place,
                       std::uint32_t bytes, int lane) const {
    return {group.warp.first_thread + static_cast<std::uint32_t>(lane), instruction.line,
            place.offset, bytes};
  }
  Races& races() { return races_; }
  Clocks& clocks() { return clocks_; }
  void count_accesses(std::uint32_t mask) {
    figures_.accesses += static_cast<std::uint64_t>(std::popcount(mask));
  }

 private:
  void find_shared_memory();
  std::unique_ptr<Block> start_block(std::uint32_t index,
                                     const std::vector<std::uint64_t>& arguments);
  void fill_specials(Warp& warp, std::uint32_t block, std::uint32_t first) const;
  void run_resident_blocks(const std::vector<std::uint64_t>& arguments);
  [[noreturn]] void fail_for_ever(const std::vector<std::unique_ptr<Block>>& resident) const;
  std::string place_of(const Warp& warp, int lane, std::int32_t pc) const;

  // --- One turn of a warp (warp_run.cpp)
  void run_warp(Warp& warp, int steps);
  std::uint32_t choose(Warp& warp);
  int run_group(Warp& warp, std::uint32_t mask, int steps);
  std::int32_t next_meeting_point(const Warp& warp, std::uint32_t mask, std::int32_t pc) const;
  static void fill_undefined(Frame& frame, std::size_t number, std::uint32_t lanes);
  void check_operands(const Group& group, const Instruction& instruction);
  void execute(const Group& group, const Instruction& instruction);
  std::uint32_t guarded(const Group& group, const Instruction& instruction) const;
  void put(Warp& warp, std::uint32_t mask, std::int32_t pc);
  Frame& make_frame(Warp& warp, const Function& function);
  static void open_depot(Warp& warp, Frame& frame, std::uint32_t mask);
  void call(const Group& group, const Instruction& instruction);
  void leave(Warp& warp, Frame& frame, std::uint32_t mask);
  void exit_lanes(Warp& warp, std::uint32_t mask, std::int32_t pc);
  void arrive_at_barrier(Warp& warp, std::uint32_t mask, std::int32_t pc);
  void vote_of_block(const Block& block, const Instruction& instruction, std::int32_t pc);
  void arrive_at_meeting(Warp& warp, std::uint32_t mask, std::int32_t pc);
  std::uint32_t mask_of_meeting(const Warp& warp, int lane, const Instruction& instruction) const;
  void meet(Warp& warp, std::uint32_t named, const Instruction& instruction, std::int32_t pc);

  std::unique_ptr<Module> module_;
  GlobalMemory global_;
  std::size_t symbols_ = 0;  // regions of the module's variables
  Clocks clocks_;
  Races races_{clocks_};
  Figures figures_;

  // Of the launch at hand.
  Shape shape_;
  const Function* entry_ = nullptr;
  test::Random random_{0};
  std::uint64_t steps_left_ = 0;
  std::vector<const Symbol*> shared_symbols_;
  int lane_ = 0;  // at which an error would be
  std::int32_t pc_ = 0;
};

const std::uint64_t* Group::in(Operand operand) const {
  if (operand < 0) {
    return machine.module().constants[static_cast<std::size_t>(-1 - operand)].data();
  }
  if (operand < kFirstSpecial) {
    return frame.registers.data() + static_cast<std::size_t>(operand) * kLanes;
  }
  if (operand == kDepot) {
    return frame.depot.data();
  }
  return warp.specials[static_cast<std::size_t>(operand - kFirstSpecial)].data();
}

std::uint64_t* Group::out(std::int32_t number) const {
  return frame.registers.data() + static_cast<std::size_t>(number) * kLanes;
}

}  // namespace korvex::ptx
