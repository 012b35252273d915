// SPDX-License-Identifier: Apache-2.0
// The scheduler of the grid, the meetings of threads, and the memory of blocks.
#include "tests/device_code/cuda_grid.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "korvex/kernels/device/async_copy.cuh"

// The linker's names for the ends of the section that holds the memory of a block.
extern "C" {
extern char __start_korvex_shared[];  // NOLINT(bugprone-reserved-identifier)
extern char __stop_korvex_shared[];   // NOLINT(bugprone-reserved-identifier)
}

uint3 threadIdx;
uint3 blockIdx;
dim3 blockDim;
dim3 gridDim;

namespace korvex::test {
namespace {

using launches::Failure;

constexpr char kJunk = '\xa5';

CudaGrid* running_grid = nullptr;
bool in_kernel = false;  // and not in what stands for CUDA

uint3 place_in(std::uint64_t number, const std::array<unsigned, 3>& extent) {
  return {static_cast<unsigned>(number % extent[0]),
          static_cast<unsigned>(number / extent[0] % extent[1]),
          static_cast<unsigned>(number / extent[0] / extent[1])};
}

std::size_t shared_bytes() {
  // As addresses: to the language these are two arrays.
  return reinterpret_cast<std::uintptr_t>(__stop_korvex_shared) -
         reinterpret_cast<std::uintptr_t>(__start_korvex_shared);
}

// By one instruction, as AddressSanitizer forbids memcpy what lies between two variables.
void copy_bytes(const char* from, char* to, std::size_t count) {
  asm volatile("rep movsb" : "+S"(from), "+D"(to), "+c"(count) : : "memory");
}

void fill_shared_with_junk() {
  char* to = __start_korvex_shared;
  std::size_t count = shared_bytes();
  asm volatile("rep stosb" : "+D"(to), "+c"(count) : "a"(kJunk) : "memory");
}

}  // namespace

void count_step_of_kernel() {
  if (in_kernel) {
    running_grid->count_step();
  }
}

CudaGrid& CudaGrid::running() { return *running_grid; }

// --- The scheduler

void CudaGrid::launch(const launches::Shape& shape, std::uint64_t seed, const Limits& limits,
                      const std::function<void()>& kernel) {
  shape_ = shape;
  kernel_ = &kernel;
  random_ = Random(seed);
  failure_.clear();
  last_step_ = steps_ + limits.most_steps;
  // Threads that run to their next meeting, or take turns often, or now and then.
  constexpr std::uint64_t kTurns[] = {~std::uint64_t{0} >> 1, 1000, 30};
  most_steps_to_pause_ = kTurns[seed % std::size(kTurns)];
  steps_to_pause_ = most_steps_to_pause_;
  blockDim = {shape.block[0], shape.block[1], shape.block[2]};
  gridDim = {shape.grid[0], shape.grid[1], shape.grid[2]};
  to_start_.clear();
  for (std::uint64_t number = shape.threads() == 0 ? 0 : shape.blocks(); number > 0; --number) {
    to_start_.push_back(number - 1);
  }
  blocks_.clear();
  blocks_.resize(std::min<std::size_t>(limits.resident_blocks, to_start_.size()));
  block_ = nullptr;
  running_grid = this;
  run_all();
  blocks_.clear();
  if (!failure_.empty()) {
    throw Failure(failure_);
  }
}

void CudaGrid::run_all() {
  for (GridBlock& block : blocks_) {
    start_block(block);
  }
  std::vector<GridBlock*> ready;
  while (failure_.empty()) {
    if (block_ == nullptr || block_->runnable.empty() || draw(32) == 0) {
      ready.clear();
      for (GridBlock& block : blocks_) {
        if (!block.runnable.empty()) {
          ready.push_back(&block);
        }
      }
      if (ready.empty()) {
        break;
      }
      go_on_with(*ready[draw(ready.size())]);
    }
    const unsigned choice = draw(block_->runnable.size());
    const unsigned index = block_->runnable[choice];
    block_->runnable[choice] = block_->runnable.back();
    block_->runnable.pop_back();
    run_thread(index);
    if (block_->alive == 0) {
      start_block(*block_);
    }
  }
  if (failure_.empty()) {
    failure_ = who_waits();
  }
}

// Any block that has not run yet, in place of one that has ended.
void CudaGrid::start_block(GridBlock& block) {
  if (to_start_.empty()) {
    return;
  }
  const unsigned choice = draw(to_start_.size());
  block.number = std::exchange(to_start_[choice], to_start_.back());
  to_start_.pop_back();
  block.alive = shape_.threads();
  block.threads.clear();
  block.threads.resize(block.alive);
  block.warps.assign((block.alive + kWarp - 1) / kWarp, {});
  block.shared.clear();
  for (unsigned index = 0; index < block.alive; ++index) {
    block.threads[index].index = index;
    block.runnable.push_back(index);
  }
  if (block_ == &block) {
    fill_shared_with_junk();
  }
}

void CudaGrid::go_on_with(GridBlock& block) {
  if (block_ == &block) {
    return;
  }
  if (block_ != nullptr) {
    for (GridThread& thread : block_->threads) {
      thread_ = &thread;
      wait_for_copies(0);
    }
    block_->shared.resize(shared_bytes());
    copy_bytes(__start_korvex_shared, block_->shared.data(), shared_bytes());
  }
  if (block.shared.empty()) {
    fill_shared_with_junk();
  } else {
    copy_bytes(block.shared.data(), __start_korvex_shared, shared_bytes());
  }
  block_ = &block;
}

void CudaGrid::run_thread(unsigned index) {
  thread_ = &block_->threads[index];
  threadIdx = place_in(index, shape_.block);
  blockIdx = place_in(block_->number, shape_.grid);
  if (thread_->stack == nullptr) {
    if (spare_stacks_.empty()) {
      spare_stacks_.push_back(std::make_unique<FiberStack>());
    }
    thread_->stack = std::move(spare_stacks_.back());
    spare_stacks_.pop_back();
    thread_->place.stack_pointer = thread_->stack->prepare(&CudaGrid::enter);
    thread_->place.bottom = thread_->stack->bottom();
    thread_->place.bytes = FiberStack::kBytes;
  }
  in_kernel = true;
  switch_fiber(scheduler_, thread_->place);
  in_kernel = false;
  if (std::exchange(thread_ended_, false)) {
    spare_stacks_.push_back(std::move(thread_->stack));
    --block_->alive;
  }
}

void CudaGrid::enter() {
  CudaGrid& grid = *running_grid;
  arrive_in_fiber(grid.scheduler_);
  (*grid.kernel_)();
  in_kernel = false;
  grid.wait_for_copies(0);
  grid.thread_ended_ = true;
  switch_fiber(grid.thread_->place, grid.scheduler_, true);
}

// Back to the scheduler; returns when this thread is chosen again.
void CudaGrid::leave() {
  in_kernel = false;
  switch_fiber(thread_->place, scheduler_);
}

void CudaGrid::fail(const std::string& text) {
  in_kernel = false;
  failure_ = "block " + std::to_string(block_->number) + ", thread " +
             std::to_string(thread_->index) + ": " + text;
  for (;;) {
    leave();
  }
}

void CudaGrid::count_step() {
  if (++steps_ >= last_step_) {
    fail("too many steps: the kernel hangs");
  }
  if (--steps_to_pause_ == 0) {
    steps_to_pause_ = 1 + draw(most_steps_to_pause_);
    block_->runnable.push_back(thread_->index);
    leave();
  }
}

void CudaGrid::maybe_pause() {
  if (draw(4) == 0) {
    block_->runnable.push_back(thread_->index);
    leave();
  }
}

std::string CudaGrid::who_waits() const {
  for (const GridBlock& block : blocks_) {
    for (std::size_t warp = 0; warp < block.warps.size(); ++warp) {
      if (block.warps[warp].arrived != 0) {
        return "block " + std::to_string(block.number) + ", warp " + std::to_string(warp) +
               ": lanes wait for others that never come";
      }
    }
    if (!block.at_barrier.empty()) {
      return "block " + std::to_string(block.number) +
             ": barrier divergence: " + std::to_string(block.at_barrier.size()) + " of " +
             std::to_string(shape_.threads()) + " threads wait";
    }
  }
  return "";
}

// --- Meetings

bool CudaGrid::sync_block(Barrier barrier, bool vote) {
  if (block_->at_barrier.empty()) {
    block_->barrier = barrier;
    block_->any_at_barrier = false;
  } else if (block_->barrier != barrier) {
    fail("barrier divergence: threads of a block wait at different barriers");
  }
  block_->any_at_barrier = block_->any_at_barrier || vote;
  block_->at_barrier.push_back(thread_->index);
  if (block_->at_barrier.size() == shape_.threads()) {
    for (const unsigned index : block_->at_barrier) {
      block_->threads[index].outcome = block_->any_at_barrier ? 1 : 0;
    }
    block_->runnable.insert(block_->runnable.end(), block_->at_barrier.begin(),
                            block_->at_barrier.end());
    block_->at_barrier.clear();
  }
  leave();
  return thread_->outcome != 0;
}

std::uint64_t CudaGrid::meet(Meet call, unsigned mask, std::uint64_t value, int distance) {
  const unsigned lane = thread_->index % kWarp;
  const unsigned first = thread_->index - lane;
  const unsigned lanes = std::min(kWarp, shape_.threads() - first);
  const unsigned present = lanes == kWarp ? ~0U : (1U << lanes) - 1;
  if ((mask >> lane & 1) == 0) {
    fail("wrong mask: it does not name the lane that calls");
  }
  if ((mask & ~present) != 0) {
    fail("wrong mask: it names lanes that do not exist");
  }
  WarpMeeting& meeting = block_->warps[first / kWarp];
  if (meeting.arrived == 0) {
    meeting.call = call;
    meeting.mask = mask;
    meeting.distance = distance;
  } else if (meeting.mask != mask) {
    fail("wrong mask: lanes meet with different ones");
  } else if (meeting.call != call || meeting.distance != distance) {
    fail("lanes of a warp meet in different calls");
  }
  meeting.values[lane] = value;
  meeting.arrived |= 1U << lane;
  if (meeting.arrived == mask) {
    finish_meeting(meeting, first);
  }
  leave();
  return thread_->outcome;
}

void CudaGrid::finish_meeting(WarpMeeting& meeting, unsigned first_thread) {
  std::uint64_t any = 0;
  std::uint64_t most = 0;
  for (unsigned lane = 0; lane < kWarp; ++lane) {
    if ((meeting.mask >> lane & 1) != 0) {
      any |= meeting.values[lane];
      most = std::max(most, meeting.values[lane]);
    }
  }
  for (unsigned lane = 0; lane < kWarp; ++lane) {
    if ((meeting.mask >> lane & 1) == 0) {
      continue;
    }
    const unsigned other = lane ^ static_cast<unsigned>(meeting.distance);
    if (other >= kWarp || (meeting.mask >> other & 1) == 0) {
      fail("wrong mask: a lane reads from one that takes no part");
    }
    block_->threads[first_thread + lane].outcome = meeting.call == Meet::kAny ? any
                                                   : meeting.call == Meet::kMax
                                                       ? most
                                                       : meeting.values[other];
    block_->runnable.push_back(first_thread + lane);
  }
  meeting.arrived = 0;
}

// --- Asynchronous copies

void CudaGrid::start_copy(const void* from, void* to, std::size_t bytes) {
  if ((reinterpret_cast<std::uintptr_t>(from) | reinterpret_cast<std::uintptr_t>(to)) % bytes !=
      0) {
    fail("misaligned address of an asynchronous copy");
  }
  if (to < static_cast<void*>(__start_korvex_shared) ||
      to >= static_cast<void*>(__stop_korvex_shared)) {
    fail("an asynchronous copy to memory that is not the block's");
  }
  AsynchronousCopy copy{to, bytes, {}};
  std::memcpy(copy.content.data(), from, bytes);
  std::memset(to, 0, bytes);  // checked by AddressSanitizer
  forbid_access(to, bytes);
  thread_->open_group.push_back(copy);
}

void CudaGrid::end_group_of_copies() {
  thread_->groups.push_back(std::exchange(thread_->open_group, {}));
}

void CudaGrid::wait_for_copies(std::size_t groups_that_may_fly) {
  std::vector<GroupOfCopies>& groups = thread_->groups;
  while (groups.size() > groups_that_may_fly) {
    for (const AsynchronousCopy& copy : groups.front()) {
      allow_access(copy.to, copy.bytes);
      std::memcpy(copy.to, copy.content.data(), copy.bytes);
    }
    groups.erase(groups.begin());
  }
}

}  // namespace korvex::test

// --- The names of CUDA

namespace {

using korvex::test::Barrier;
using korvex::test::CudaGrid;
using korvex::test::Meet;

template <class Number, class Change>
Number change(Number* target, const Change& change_it) {
  CudaGrid::running().maybe_pause();
  const Number before = *target;
  *target = change_it(before);
  return before;
}

}  // namespace

void __syncthreads() { CudaGrid::running().sync_block(Barrier::kPlain, false); }
int __syncthreads_or(int condition) {
  return CudaGrid::running().sync_block(Barrier::kVote, condition != 0) ? 1 : 0;
}
void __syncwarp(unsigned mask) { CudaGrid::running().meet(Meet::kSyncWarp, mask, 0); }
void __threadfence() { CudaGrid::running().maybe_pause(); }
void __trap() { CudaGrid::running().fail("a trap"); }

bool __any_sync(unsigned mask, bool condition) {
  return CudaGrid::running().meet(Meet::kAny, mask, condition ? 1 : 0) != 0;
}
unsigned __reduce_max_sync(unsigned mask, unsigned value) {
  return static_cast<unsigned>(CudaGrid::running().meet(Meet::kMax, mask, value));
}
unsigned __shfl_xor_sync(unsigned mask, unsigned value, int distance) {
  return static_cast<unsigned>(CudaGrid::running().meet(Meet::kShuffle, mask, value, distance));
}
unsigned long long __shfl_xor_sync(unsigned mask, unsigned long long value, int distance) {
  return CudaGrid::running().meet(Meet::kShuffle, mask, value, distance);
}

unsigned atomicOr(unsigned* target, unsigned bits) {
  return change(target, [bits](unsigned before) { return before | bits; });
}
unsigned long long atomicOr(unsigned long long* target, unsigned long long bits) {
  return change(target, [bits](unsigned long long before) { return before | bits; });
}
unsigned long long atomicAdd(unsigned long long* target, unsigned long long value) {
  return change(target, [value](unsigned long long before) { return before + value; });
}
unsigned long long atomicExch(unsigned long long* target, unsigned long long value) {
  return change(target, [value](unsigned long long) { return value; });
}

namespace korvex::kernels {

void start_copying(const double* from, double* to, int bytes) {
  CudaGrid::running().start_copy(from, to, static_cast<std::size_t>(bytes));
}
void end_group_of_copies() { CudaGrid::running().end_group_of_copies(); }
void wait_for_copies_before(int groups) {
  CudaGrid::running().wait_for_copies(static_cast<std::size_t>(groups));
}

}  // namespace korvex::kernels

// Called at each branch of the kernels, which are compiled for that.
extern "C" void __sanitizer_cov_trace_pc() {  // NOLINT(bugprone-reserved-identifier)
  korvex::test::count_step_of_kernel();
}
