// SPDX-License-Identifier: Apache-2.0
// Runs every kernel of the device folder on a simulated grid, and what stands for a kernel on the
// whole device, and compares the results with those of the host kernels, and the states that
// kernels leave with those of the host library, bit for bit.
//
// usage: run_grid HOST_LIBRARY [--long] [--seed N] [--kernel NAME] [--hard-cases JSON] [--jobs N]
//                 [--most-elements N]
//
// Each kernel has a process of its own, so what ends it, a sanitizer's report above all, is the
// failure of one launch of one kernel, and named. Arrays lie between guards that may not be read,
// and inputs must be as they were. Static memory of the device is full of junk before each launch,
// as one that was cut short leaves it, but for what a loader clears; that must be zero afterwards.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "tests/device_code/cuda_grid.h"
#include "tests/device_code/device_kernels.h"
#include "tests/device_code/grid_cases.h"
#include "tests/launches/state_case.h"

namespace korvex::test {
namespace {

using launches::Argument;
using launches::Case;
using launches::Failure;
using launches::Subject;

constexpr std::uint64_t kMostSteps = 200'000'000;  // of a launch
constexpr unsigned char kJunk = 0xa5;

struct Options {
  std::string library;
  std::string kernel;
  std::uint64_t seed = 1;
  bool is_long = false;
  std::int64_t most_elements = std::numeric_limits<std::int64_t>::max();
  unsigned jobs = std::thread::hardware_concurrency();
};

// What the process of a kernel tells the one that started it.
struct Progress {
  char launch[256];  // that runs
  std::uint64_t launches;
  std::uint64_t steps;
  double seconds;
  bool is_done;
};

// An array between guards.
class GuardedArray {
 public:
  GuardedArray(const std::vector<double>& values, std::uint64_t bytes_past_16)
      : GuardedArray(values.data(), values.size() * sizeof(double), bytes_past_16) {}
  GuardedArray(const void* content, std::size_t bytes, std::uint64_t bytes_past_16)
      : before_(kGuard + bytes_past_16), bytes_(bytes) {
    memory_.resize(before_ + bytes_ + kGuard, kJunk);
    if (bytes_ != 0) {
      std::memcpy(memory_.data() + before_, content, bytes_);
    }
    forbid_access(memory_.data(), before_);
    forbid_access(memory_.data() + before_ + bytes_, kGuard);
  }
  ~GuardedArray() { allow_access(memory_.data(), memory_.size()); }
  GuardedArray(const GuardedArray&) = delete;
  GuardedArray& operator=(const GuardedArray&) = delete;

  double* data() { return reinterpret_cast<double*>(memory_.data() + before_); }

  void require_guards(const std::string& name) {
    allow_access(memory_.data(), memory_.size());
    for (std::size_t i = 0; i < memory_.size(); ++i) {
      if ((i < before_ || i >= before_ + bytes_) && memory_[i] != kJunk) {
        throw Failure("a write beyond " + name);
      }
    }
  }

 private:
  static constexpr std::size_t kGuard = 256;

  std::size_t before_;
  std::size_t bytes_;
  std::vector<unsigned char> memory_;
};

const DeviceKernel& kernel_of(const launches::Step& step) {
  for (const DeviceKernel& kernel : device_kernels()) {
    if (kernel.name == step.kernel) {
      return kernel;
    }
  }
  throw Failure("the device code has no kernel " + step.kernel);
}

const Workspace& workspace_of(const launches::Step& step) {
  for (const Workspace& workspace : device_workspaces()) {
    if (workspace.name == step.workspace) {
      return workspace;
    }
  }
  throw Failure("the device code has no " + std::string(step.workspace));
}

void fill_workspaces() {
  for (const Workspace& workspace : device_workspaces()) {
    std::memset(workspace.memory, kJunk, workspace.bytes);
  }
}

void require_zero(const Workspace& workspace) {
  const auto* const bytes = static_cast<const unsigned char*>(workspace.memory);
  for (std::size_t i = 0; i < workspace.bytes; ++i) {
    if (bytes[i] != 0) {
      throw Failure("left behind: " + std::string(workspace.name) + " is not zero");
    }
  }
}

void run_step(CudaGrid& grid, const Case& one, const launches::Step& step, void* const* values) {
  const DeviceKernel& kernel = kernel_of(step);
  if (step.workspace != nullptr) {
    const Workspace& workspace = workspace_of(step);
    std::memset(workspace.memory, 0, workspace.bytes);
  }
  const unsigned resident_blocks = 1 + static_cast<unsigned>(one.seed % 3);
  grid.launch(one.shape, one.seed, {kMostSteps, resident_blocks}, [&] { kernel.call(values); });
  if (step.workspace != nullptr) {
    require_zero(workspace_of(step));
  }
}

void run_case(CudaGrid& grid, const launches::HostLibrary& host, const Case& one) {
  std::vector<Argument> arguments = launches::draw_arguments(one);
  const std::vector<Argument> drawn = arguments;
  std::vector<std::unique_ptr<GuardedArray>> arrays;
  std::vector<double*> pointers(arguments.size());
  std::vector<void*> values;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i].is_array) {
      arrays.push_back(std::make_unique<GuardedArray>(
          arguments[i].values, one.bytes_past_16(static_cast<unsigned>(arrays.size()))));
      pointers[i] = arrays.back()->data();
      values.push_back(static_cast<void*>(&pointers[i]));
    } else {
      values.push_back(static_cast<void*>(&arguments[i].bits));
    }
  }
  fill_workspaces();
  for (const launches::Step& step : launches::steps_of(one)) {
    run_step(grid, one, step, values.data());
  }
  if (one.shape.blocks() * one.shape.threads() != 0) {
    launches::launch_on_host(arguments, host, one);
  }
  for (std::size_t i = 0, array = 0; i < arguments.size(); ++i) {
    if (arguments[i].is_array) {
      const Argument& expected = arguments[i].is_output ? arguments[i] : drawn[i];
      launches::require_same_bits(expected, pointers[i]);
      arrays[array++]->require_guards(arguments[i].name);
    }
  }
}

// A block that a kernel cannot work with ends in a trap, which a caller sees as an error: not in a
// wrong result, and not in a wait without end.
void require_trap(CudaGrid& grid, const launches::HostLibrary& host, const Case& one) {
  try {
    run_case(grid, host, one);
  } catch (const Failure& failure) {
    if (std::string(failure.what()).find("a trap") != std::string::npos) {
      return;
    }
    throw;
  }
  throw Failure("the kernel does not refuse this block");
}

// Kernels of states on the grid.
class GridOfStates : public launches::StateRunner {
 public:
  explicit GridOfStates(CudaGrid& grid) : grid_(grid) {}

  void place(launches::StateArray& array) override {
    arrays_.push_back(
        std::make_unique<GuardedArray>(array.bytes.data(), array.bytes.size(), array.past_16));
    array.address = reinterpret_cast<std::uintptr_t>(arrays_.back()->data());
  }
  void launch(const kernels::StateKernelRow& kernel, const launches::Shape& shape,
              const std::vector<std::uint64_t>& values, std::uint64_t seed) override {
    std::vector<std::uint64_t> own = values;
    std::vector<void*> pointers;
    pointers.reserve(own.size());
    for (std::uint64_t& value : own) {
      pointers.push_back(&value);
    }
    const DeviceKernel& code =
        state_kernels()[static_cast<std::size_t>(&kernel - kernels::kStateKernels)];
    const unsigned resident_blocks = 1 + static_cast<unsigned>(seed % 3);
    grid_.launch(shape, seed, {kMostSteps, resident_blocks}, [&] { code.call(pointers.data()); });
  }
  void read(launches::StateArray& array) override {
    for (auto& placed : arrays_) {
      if (reinterpret_cast<std::uintptr_t>(placed->data()) == array.address) {
        if (!array.bytes.empty()) {
          std::memcpy(array.bytes.data(), placed->data(), array.bytes.size());
        }
        placed->require_guards(array.name);
        return;
      }
    }
  }
  void forget() override { arrays_.clear(); }

 private:
  CudaGrid& grid_;
  std::vector<std::unique_ptr<GuardedArray>> arrays_;
};

// What one process runs.
struct Job {
  Subject subject;
  const kernels::StateKernelRow* states;  // null: the subject

  const char* name() const { return states == nullptr ? subject.name() : states->name; }
};

std::vector<Job> all_jobs() {
  std::vector<Job> jobs;
  for (const Subject& subject : launches::subjects()) {
    jobs.push_back({subject, nullptr});
  }
  for (const kernels::StateKernelRow& states : kernels::kStateKernels) {
    jobs.push_back({{}, &states});
  }
  return jobs;
}

void run_cases(CudaGrid& grid, const launches::HostLibrary& host, const Options& options,
               const Subject& subject, Progress& progress) {
  const std::vector<Case> cases = grid_cases_of(subject, options.is_long, options.seed);
  if (const std::string missing = what_is_missing(subject, cases); !missing.empty()) {
    throw Failure("the cases lack:" + missing);
  }
  for (const Case& one : trapping_cases_of(subject, options.seed)) {
    std::snprintf(progress.launch, sizeof progress.launch, "%s", launches::name_of(one).c_str());
    require_trap(grid, host, one);
    ++progress.launches;
  }
  for (const Case& one : cases) {
    if (launches::most_elements(one) > options.most_elements) {
      continue;
    }
    std::snprintf(progress.launch, sizeof progress.launch, "%s", launches::name_of(one).c_str());
    run_case(grid, host, one);
    ++progress.launches;
    progress.steps = grid.steps();
  }
}

void run_state_cases(CudaGrid& grid, const launches::HostLibrary& host, const Options& options,
                     const kernels::StateKernelRow& row, Progress& progress) {
  GridOfStates states(grid);
  for (const auto& one : launches::state_cases_of(row, options.is_long, options.seed)) {
    std::snprintf(progress.launch, sizeof progress.launch, "%s", launches::name_of(one).c_str());
    launches::run_state_case(states, host.exact(), one);
    progress.launches += one.arrays ? 3 : one.additions.size();
    progress.steps = grid.steps();
  }
}

// The process of one kernel.
[[noreturn]] void run_kernel(const Options& options, const Job& job, Progress& progress) {
  const auto start = std::chrono::steady_clock::now();
  int status = 0;
  try {
    const launches::HostLibrary host(options.library.c_str());
    CudaGrid grid;
    if (job.states == nullptr) {
      run_cases(grid, host, options, job.subject, progress);
    } else {
      run_state_cases(grid, host, options, *job.states, progress);
    }
    progress.is_done = true;
  } catch (const std::exception& failure) {
    std::printf("%s\n", failure.what());
    status = 1;
  }
  progress.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::fflush(stdout);
  _exit(status);
}

struct Totals {
  std::size_t kernels = 0;
  std::size_t failures = 0;
  std::uint64_t launches = 0;
  std::uint64_t steps = 0;
};

void report(const char* kernel, const Progress& progress, Totals& totals) {
  ++totals.kernels;
  totals.launches += progress.launches;
  totals.steps += progress.steps;
  if (!progress.is_done) {
    ++totals.failures;
    std::printf("FAILED %s\n", progress.launch);
  }
  std::printf("%-26s %4llu launches %10.1f million steps %6.1f s\n", kernel,
              static_cast<unsigned long long>(progress.launches),
              static_cast<double>(progress.steps) * 1e-6, progress.seconds);
  std::fflush(stdout);
}

Progress* shared_progress(std::size_t count) {
  void* const memory = mmap(nullptr, sizeof(Progress) * count, PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? throw Failure("no memory") : static_cast<Progress*>(memory);
}

int run(const Options& options) {
  const auto start = std::chrono::steady_clock::now();
  const std::vector<Job> jobs = all_jobs();
  Progress* const progress = shared_progress(jobs.size());
  std::vector<pid_t> processes(jobs.size(), 0);
  Totals totals;
  unsigned running = 0;
  const auto wait_for_one = [&] {
    const pid_t ended = wait(nullptr);
    for (std::size_t i = 0; i < processes.size(); ++i) {
      if (processes[i] == ended) {
        report(jobs[i].name(), progress[i], totals);
      }
    }
    --running;
  };
  for (std::size_t i = 0; i < processes.size(); ++i) {
    if (!options.kernel.empty() && options.kernel != jobs[i].name()) {
      continue;
    }
    if (running >= options.jobs) {
      wait_for_one();
    }
    std::fflush(stdout);
    processes[i] = fork();
    if (processes[i] == 0) {
      run_kernel(options, jobs[i], progress[i]);
    }
    ++running;
  }
  while (running > 0) {
    wait_for_one();
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  std::printf(
      "Simulated grid: %zu kernels, %llu launches, %.1f million steps, %zu failures, %.1f "
      "seconds\n",
      totals.kernels, static_cast<unsigned long long>(totals.launches),
      static_cast<double>(totals.steps) * 1e-6, totals.failures, taken.count());
  return totals.failures == 0 && totals.kernels > 0 ? 0 : 1;
}

Options options_of(int count, char** words) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    const auto value = [&] {
      return i + 1 < count ? words[++i] : throw Failure(word + " needs a value");
    };
    if (word == "--long") {
      options.is_long = true;
    } else if (word == "--seed") {
      options.seed = std::strtoull(value(), nullptr, 10);
    } else if (word == "--kernel") {
      options.kernel = value();
    } else if (word == "--hard-cases") {
      launches::read_hard_cases(value());
    } else if (word == "--most-elements") {
      options.most_elements = std::strtoll(value(), nullptr, 10);
    } else if (word == "--jobs") {
      options.jobs = static_cast<unsigned>(std::strtoul(value(), nullptr, 10));
    } else {
      options.library = word;
    }
  }
  if (options.library.empty()) {
    throw Failure("usage: run_grid HOST_LIBRARY");
  }
  return options;
}

}  // namespace
}  // namespace korvex::test

int main(int argc, char** argv) {
  try {
    return korvex::test::run(korvex::test::options_of(argc, argv));
  } catch (const std::exception& error) {
    std::printf("%s\n", error.what());
    return 2;
  }
}
