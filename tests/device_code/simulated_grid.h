// SPDX-License-Identifier: Apache-2.0
// A grid of GPU threads on one host thread: each thread is a fiber, votes and shuffles and barriers
// are meetings of fibers, and a seeded scheduler decides who runs next.
//
// It finds what goes wrong in the logic of a parallel kernel: threads that do not meet, results
// that depend on the order of threads or blocks, memory left dirty. It says nothing about the order
// in which a GPU's memory shows what other threads have written, nor about speed.
#pragma once

#include <ucontext.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "tests/cpp/random_data.h"

namespace korvex::test {

constexpr int kLanesOfWarp = 32;

class SimulatedGrid;

// One thread of the grid; the members that korvex/kernels/device ask of a Thread.
class SimulatedThread {
 public:
  SimulatedThread(SimulatedGrid& grid, int block_slot, std::int64_t block, int index)
      : grid_(&grid), block_slot_(block_slot), block_(block), index_(index) {}

  int index() const { return index_; }
  int lane() const { return index_ % kLanesOfWarp; }
  int warp() const { return index_ / kLanesOfWarp; }
  std::int64_t block() const { return block_; }
  inline int threads() const;
  inline int warps() const;
  inline std::int64_t blocks() const;

  inline bool any(bool condition) const;
  inline unsigned max(unsigned value) const;
  inline std::int64_t sum(std::int64_t value) const;

  bool is_pair_aligned(const double* x) const {
    return reinterpret_cast<std::uintptr_t>(x) % (2 * sizeof(double)) == 0;
  }
  inline void load_pair(const double* x, double* into) const;

  inline void add_to_block(std::int64_t& target, std::int64_t value) const;
  inline void set_bits_of_block(unsigned& target, unsigned bits) const;
  inline std::int64_t add_to_grid(std::int64_t& target, std::int64_t value) const;
  inline void set_bits_of_grid(std::int64_t& target, std::int64_t bits) const;
  inline std::int64_t take_from_grid(std::int64_t& target) const;

  void fence() const {}
  inline void sync_warp() const;
  inline void sync_block() const;

 private:
  SimulatedGrid* grid_;
  int block_slot_;  // which of the blocks that run at a time
  std::int64_t block_;
  int index_;
};

class SimulatedGrid {
 public:
  using Body = std::function<void(const SimulatedThread&, int block_slot)>;

  struct Shape {
    std::int64_t blocks;
    int threads;          // in a block, whole warps
    int resident_blocks;  // that run at a time
  };

  // Runs the body in every thread. False where some thread waits for others that never come, or
  // where threads meet that called different things.
  static bool run(const Shape& shape, std::uint64_t seed, const Body& body) {
    SimulatedGrid grid(shape, seed, body);
    return grid.run_all();
  }

  // Threads meet here: the last one to come makes the joint value and wakes the others.
  enum class Call { kAny, kMax, kSum, kWarpBarrier, kBarrier };
  std::uint64_t meet(int block_slot, int index, Call call, std::uint64_t value) {
    Meeting& meeting = call == Call::kBarrier
                           ? block_meetings_[static_cast<std::size_t>(block_slot)]
                           : warp_meeting(block_slot, index / kLanesOfWarp);
    const int expected = call == Call::kBarrier ? shape_.threads : kLanesOfWarp;
    if (meeting.waiting.empty()) {
      meeting.call = call;
      meeting.joint = value;
    } else if (meeting.call != call) {
      failed_ = true;
    } else {
      meeting.joint = join(call, meeting.joint, value);
    }
    meeting.waiting.push_back(running_);
    if (static_cast<int>(meeting.waiting.size()) == expected) {
      meeting.outcome = meeting.joint;
      runnable_.insert(runnable_.end(), meeting.waiting.begin(), meeting.waiting.end());
      meeting.waiting.clear();
    }
    leave();
    return meeting.outcome;  // the next meeting needs this thread, so it is still ours
  }

  // Lets others go first, now and then.
  void maybe_pause() {
    if (random_.below(4) == 0) {
      runnable_.push_back(running_);
      leave();
    }
  }

  const Shape& shape() const { return shape_; }

 private:
  struct Meeting {
    Call call = Call::kBarrier;
    std::uint64_t joint = 0;
    std::uint64_t outcome = 0;
    std::vector<int> waiting;  // fibers
  };

  struct Fiber {
    ucontext_t context;
    std::unique_ptr<char[]> stack;
    std::unique_ptr<SimulatedThread> thread;
  };

  static constexpr std::size_t kStackBytes = std::size_t{256} << 10;

  SimulatedGrid(const Shape& shape, std::uint64_t seed, const Body& body)
      : shape_(shape), random_(seed), body_(body) {
    const auto slots = static_cast<std::size_t>(shape.resident_blocks);
    fibers_.resize(slots * static_cast<std::size_t>(shape.threads));
    warp_meetings_.resize(fibers_.size() / kLanesOfWarp);
    block_meetings_.resize(slots);
    threads_left_.resize(slots);
    for (std::int64_t block = 0; block < shape.blocks; ++block) {
      blocks_to_start_.push_back(block);
    }
  }

  bool run_all() {
    for (int slot = 0; slot < shape_.resident_blocks; ++slot) {
      start_block(slot);
    }
    while (!runnable_.empty() && !failed_) {
      const auto choice =
          static_cast<std::size_t>(random_.below(static_cast<int>(runnable_.size())));
      running_ = runnable_[choice];
      runnable_[choice] = runnable_.back();
      runnable_.pop_back();
      swapcontext(&scheduler_, &fiber(running_).context);
      if (finished_slot_ >= 0) {
        start_block(std::exchange(finished_slot_, -1));
      }
    }
    return !failed_ && fibers_alive_ == 0;
  }

  // Any block that has not run yet, in this slot.
  void start_block(int slot) {
    if (blocks_to_start_.empty()) {
      return;
    }
    const auto choice =
        static_cast<std::size_t>(random_.below(static_cast<int>(blocks_to_start_.size())));
    const std::int64_t block = blocks_to_start_[choice];
    blocks_to_start_[choice] = blocks_to_start_.back();
    blocks_to_start_.pop_back();
    threads_left_[static_cast<std::size_t>(slot)] = shape_.threads;
    for (int index = 0; index < shape_.threads; ++index) {
      start_thread(slot, block, index);
    }
  }

  void start_thread(int slot, std::int64_t block, int index) {
    const int number = slot * shape_.threads + index;
    Fiber& started = fiber(number);
    if (started.stack == nullptr) {
      started.stack.reset(new char[kStackBytes]);
    }
    started.thread = std::make_unique<SimulatedThread>(*this, slot, block, index);
    getcontext(&started.context);
    started.context.uc_stack.ss_sp = started.stack.get();
    started.context.uc_stack.ss_size = kStackBytes;
    started.context.uc_link = nullptr;
    const auto address = reinterpret_cast<std::uintptr_t>(this);
    makecontext(&started.context, reinterpret_cast<void (*)()>(&SimulatedGrid::enter), 2,
                static_cast<unsigned>(address >> 32), static_cast<unsigned>(address));
    ++fibers_alive_;
    runnable_.push_back(number);
  }

  static void enter(unsigned high, unsigned low) {
    const auto address = (static_cast<std::uintptr_t>(high) << 32) | low;
    reinterpret_cast<SimulatedGrid*>(address)->run_current();
  }

  void run_current() {
    const int slot = running_ / shape_.threads;
    body_(*fiber(running_).thread, slot);
    --fibers_alive_;
    if (--threads_left_[static_cast<std::size_t>(slot)] == 0) {
      finished_slot_ = slot;
    }
    leave();
  }

  // Back to the scheduler; returns when this fiber is chosen again.
  void leave() { swapcontext(&fiber(running_).context, &scheduler_); }

  static std::uint64_t join(Call call, std::uint64_t a, std::uint64_t b) {
    switch (call) {
      case Call::kAny:
        return a | b;
      case Call::kMax:
        return a > b ? a : b;
      default:
        return a + b;
    }
  }

  Fiber& fiber(int number) { return fibers_[static_cast<std::size_t>(number)]; }
  Meeting& warp_meeting(int block_slot, int warp) {
    const auto warps = static_cast<std::size_t>(shape_.threads / kLanesOfWarp);
    return warp_meetings_[static_cast<std::size_t>(block_slot) * warps +
                          static_cast<std::size_t>(warp)];
  }

  Shape shape_;
  Random random_;
  const Body& body_;
  std::vector<Fiber> fibers_;  // one for each thread of the resident blocks
  std::vector<Meeting> warp_meetings_;
  std::vector<Meeting> block_meetings_;
  std::vector<int> threads_left_;  // of each resident block
  std::vector<std::int64_t> blocks_to_start_;
  std::vector<int> runnable_;
  ucontext_t scheduler_{};
  int running_ = -1;
  int finished_slot_ = -1;  // a block's last thread has just ended there
  std::int64_t fibers_alive_ = 0;
  bool failed_ = false;
};

int SimulatedThread::threads() const { return grid_->shape().threads; }
int SimulatedThread::warps() const { return threads() / kLanesOfWarp; }
std::int64_t SimulatedThread::blocks() const { return grid_->shape().blocks; }

bool SimulatedThread::any(bool condition) const {
  return grid_->meet(block_slot_, index_, SimulatedGrid::Call::kAny, condition ? 1 : 0) != 0;
}
unsigned SimulatedThread::max(unsigned value) const {
  return static_cast<unsigned>(grid_->meet(block_slot_, index_, SimulatedGrid::Call::kMax, value));
}
std::int64_t SimulatedThread::sum(std::int64_t value) const {
  return static_cast<std::int64_t>(grid_->meet(block_slot_, index_, SimulatedGrid::Call::kSum,
                                               static_cast<std::uint64_t>(value)));
}
void SimulatedThread::sync_warp() const {
  grid_->meet(block_slot_, index_, SimulatedGrid::Call::kWarpBarrier, 0);
}
void SimulatedThread::sync_block() const {
  grid_->meet(block_slot_, index_, SimulatedGrid::Call::kBarrier, 0);
}

void SimulatedThread::load_pair(const double* x, double* into) const {
  if (!is_pair_aligned(x)) {
    std::abort();  // a GPU reports a misaligned address
  }
  into[0] = x[0];
  into[1] = x[1];
}

void SimulatedThread::add_to_block(std::int64_t& target, std::int64_t value) const {
  grid_->maybe_pause();
  target += value;
}
void SimulatedThread::set_bits_of_block(unsigned& target, unsigned bits) const {
  grid_->maybe_pause();
  target |= bits;
}
std::int64_t SimulatedThread::add_to_grid(std::int64_t& target, std::int64_t value) const {
  grid_->maybe_pause();
  const std::int64_t before = target;
  target += value;
  return before;
}
void SimulatedThread::set_bits_of_grid(std::int64_t& target, std::int64_t bits) const {
  grid_->maybe_pause();
  target |= bits;
}
std::int64_t SimulatedThread::take_from_grid(std::int64_t& target) const {
  grid_->maybe_pause();
  const std::int64_t before = target;
  target = 0;
  return before;
}

}  // namespace korvex::test
