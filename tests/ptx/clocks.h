// SPDX-License-Identifier: Apache-2.0
// Which accesses of a launch are ordered: vector clocks over all its threads.
//
// A thread counts a clock of its own. At a barrier of the block, or of lanes of a warp, those who
// meet learn the clocks of each other. To other blocks an order leads by fences alone: a thread
// that fences holds what it knows ready (fenced); an atomic operation leaves at its place what its
// thread holds ready, which may have come to it by a barrier; who reads that place by an atomic
// operation takes it along (pending), and knows it from its next fence on. That is the order that
// sequentially consistent fences (membar.gl) give; an atomic operation alone orders nothing.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "tests/ptx/module.h"

namespace korvex::ptx {

using Clock = std::uint32_t;

class Clocks {
 public:
  // Every clock of a launch is above those of the launch before.
  void start_launch(std::uint32_t blocks, std::uint32_t threads_per_block);

  Clock now(std::uint32_t thread) const { return clocks_[thread]; }

  // Did what `thread` had done by `clock` come before what `self` does now?
  bool is_ordered(std::uint32_t self, std::uint32_t thread, Clock clock) const;

  void barrier(std::uint32_t block);
  void end_block(std::uint32_t block);  // none of its threads does anything any more
  void meet(std::uint32_t first_of_warp, std::uint32_t lanes);  // bar.warp.sync
  void fence(std::uint32_t thread);
  void atomic(std::uint32_t thread, std::uint64_t address);

 private:
  // Of each thread of the launch, block by block. Blocks of which the same is known share it: a
  // launch has many of them, and each thread that fences keeps a vector.
  using OfBlock = std::shared_ptr<const std::vector<Clock>>;  // null where nothing is known
  using Vector = std::vector<OfBlock>;
  using Shared = std::shared_ptr<const Vector>;  // null where nothing is known
  struct Knowledge {
    Shared outside;  // of threads of other blocks, and of the own one at fences
    Shared fenced;
    Shared pending;
  };
  using WarpTable = std::array<std::array<Clock, kLanes>, kLanes>;  // what a lane knows of another

  static void join(OfBlock& into, const OfBlock& more);
  static void join(Shared& into, const Shared& more);
  void join_all(const std::vector<std::uint32_t>& threads);
  Vector all_known_to(std::uint32_t thread) const;

  std::uint32_t threads_per_block_ = 0;
  Clock before_launch_ = 0;
  Clock latest_ = 0;
  std::vector<Clock> clocks_;
  std::vector<Clock> at_barrier_;  // the clock of each thread at the last barrier of its block
  std::vector<std::unique_ptr<WarpTable>> warps_;      // null before the first meeting
  std::vector<Knowledge> knowledge_;                   // of each thread
  std::unordered_map<std::uint64_t, Shared> left_at_;  // by atomic operations
};

// What has touched four neighbouring bytes. A thread of kNobody: nothing has.
struct Cell {
  static constexpr std::uint32_t kNobody = 0xffffffff;
  // The clock is a place in a list of marks, and the line the number of the launch.
  static constexpr std::uint32_t kMany = 0xfffffffe;

  struct Mark {
    std::uint32_t thread = kNobody;
    Clock clock = 0;
    std::int32_t line = 0;
  };
  Mark write;
  // Those since the last one whose result was used: that one saw all before it.
  Mark atomic;
  Mark read;
  std::uint8_t write_bytes = 0;  // of the last write and reads: one bit for each byte
  std::uint8_t read_bytes = 0;
  std::uint8_t atomic_kind = 0;
};

enum AtomicKind : std::uint8_t {
  kNoAtomic,
  kAtomicAdd,
  kAtomicOr,
  kAtomicAnd,
  kAtomicMax,
  kAtomicMin,
  kAtomicOther
};

// Checks each access against those before it, and throws a Failure where two are not ordered and
// one of them writes. Atomic operations that commute need no order among themselves.
// Not seen: an older write to a part of the four bytes, where a later one took another part.
class Races {
 public:
  explicit Races(const Clocks& clocks) : clocks_(&clocks) {}

  void start_launch() {
    lists_.clear();
    ++launch_;
  }

  struct Access {
    std::uint32_t thread;
    std::int32_t line;
    std::uint64_t offset;  // in the memory that the cells stand for
    std::uint32_t bytes;
  };
  void read(std::vector<Cell>& cells, const Access& access);
  void write(std::vector<Cell>& cells, const Access& access);
  void atomic(std::vector<Cell>& cells, const Access& access, AtomicKind kind, bool observes);

 private:
  using Marks = std::vector<Cell::Mark>;

  void check(const Cell::Mark& mark, const Access& access, const char* what) const;
  void add(Cell::Mark& mark, const Access& access);
  void drop_of_launches_before(Cell& cell) const;

  const Clocks* clocks_;
  std::vector<Marks> lists_;
  std::int32_t launch_ = 0;
};

}  // namespace korvex::ptx
