// SPDX-License-Identifier: Apache-2.0
// A CUDA grid on one host thread: each thread is a fiber, and a seed decides who runs next.
//
// Device code is compiled for the host as it stands (cuda_names.h), with a callback at each branch:
// there steps are counted, so a kernel that hangs is noticed, and another thread may go on, so
// what wants a barrier and has none comes out wrong. Blocks run a few at a time; the memory of each
// starts full of junk. Threads that wait for what never comes, masks that name the wrong lanes,
// and asynchronous copies to odd addresses are failures; the destination of a copy must not be
// touched before it was waited for, which AddressSanitizer reports.
//
// It does not see an order of memory weaker than that of the host, nor what the compiler for the
// device makes of the source (tests/ptx does).
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/cpp/random_data.h"
#include "tests/device_code/cuda_names.h"
#include "tests/device_code/fiber.h"
#include "tests/launches/launch_case.h"

namespace korvex::test {

constexpr unsigned kWarp = 32;

// Where lanes of a warp, or threads of a block, wait for each other.
enum class Meet { kAny, kMax, kShuffle, kSyncWarp };
enum class Barrier { kPlain, kVote };

struct WarpMeeting {
  Meet call = Meet::kAny;
  unsigned mask = 0;
  int distance = 0;      // of a shuffle
  unsigned arrived = 0;  // lanes
  std::array<std::uint64_t, kWarp> values{};
};

struct AsynchronousCopy {
  void* to;
  std::size_t bytes;
  std::array<char, 16> content;  // read when the copy starts
};
using GroupOfCopies = std::vector<AsynchronousCopy>;

struct GridThread {
  unsigned index = 0;  // in its block
  FiberPlace place;
  std::unique_ptr<FiberStack> stack;  // from its first step to its last
  std::uint64_t outcome = 0;          // of the latest meeting
  GroupOfCopies open_group;
  std::vector<GroupOfCopies> groups;  // in flight, the oldest first
};

struct GridBlock {
  std::uint64_t number = 0;
  std::vector<GridThread> threads;
  std::vector<unsigned> runnable;
  std::vector<unsigned> at_barrier;
  Barrier barrier = Barrier::kPlain;
  bool any_at_barrier = false;  // whether a thread that waits there votes yes
  std::vector<WarpMeeting> warps;
  unsigned alive = 0;
  std::vector<char> shared;  // its memory while another block runs
};

class CudaGrid {
 public:
  struct Limits {
    std::uint64_t most_steps;
    unsigned resident_blocks;
  };

  CudaGrid() = default;

  // Runs kernel() in each thread; throws a Failure where that does not come to a good end.
  void launch(const launches::Shape& shape, std::uint64_t seed, const Limits& limits,
              const std::function<void()>& kernel);

  std::uint64_t steps() const { return steps_; }  // of all launches

  // The grid whose kernel runs. What follows is for the thread that runs.
  static CudaGrid& running();
  std::uint64_t meet(Meet call, unsigned mask, std::uint64_t value, int distance = 0);
  bool sync_block(Barrier barrier, bool vote);  // whether any thread votes yes
  void start_copy(const void* from, void* to, std::size_t bytes);
  void end_group_of_copies();
  void wait_for_copies(std::size_t groups_that_may_fly);
  [[noreturn]] void fail(const std::string& text);
  void count_step();
  void maybe_pause();

 private:
  void run_all();
  void start_block(GridBlock& block);
  void go_on_with(GridBlock& block);
  void run_thread(unsigned index);
  static void enter();
  void leave();
  void finish_meeting(WarpMeeting& meeting, unsigned first_thread);
  std::string who_waits() const;
  unsigned draw(std::size_t count) { return static_cast<unsigned>(random_.bits() % count); }

  launches::Shape shape_;
  const std::function<void()>* kernel_ = nullptr;
  Random random_{0};
  std::vector<GridBlock> blocks_;        // those that run at a time
  std::vector<std::uint64_t> to_start_;  // numbers of blocks
  std::vector<std::unique_ptr<FiberStack>> spare_stacks_;
  GridBlock* block_ = nullptr;  // whose memory is in place
  GridThread* thread_ = nullptr;
  FiberPlace scheduler_;
  std::string failure_;
  bool thread_ended_ = false;
  std::uint64_t steps_ = 0;
  std::uint64_t last_step_ = 0;  // allowed in this launch
  std::uint64_t steps_to_pause_ = 0;
  std::uint64_t most_steps_to_pause_ = 0;
};

// Does nothing outside a kernel.
void count_step_of_kernel();

}  // namespace korvex::test
