// SPDX-License-Identifier: Apache-2.0
// Every kernel of the host, and every exact call, with a failing allocation, or a thread that
// cannot start, at every place.
//
// usage: test_out_of_memory INSTRUCTION_SET. The program replaces operator new and pthread_create
// by such that fail once, at a chosen call. A launch must return then, either with the results of
// one where nothing failed or with the status for it; its inputs stay as they are, none of its
// threads is left, and the next launch gives the same bits as ever. Status 77: this processor has
// no such instructions.
#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <new>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "check.h"
#include "korvex/kernels/host/exact.h"
#include "korvex/kernels/host/launch.h"
#include "korvex/kernels/host/threads.h"
#include "random_data.h"

namespace {

constexpr long kNever = -1;
std::atomic<long> calls_until_failure{kNever};  // of operator new and pthread_create
std::atomic<long> failures{0};

// True for one call only.
bool is_to_fail() {
  if (calls_until_failure.load() == kNever || calls_until_failure.fetch_sub(1) != 0) {
    return false;
  }
  ++failures;
  return true;
}

void* allocate(std::size_t bytes, std::size_t alignment) {
  void* memory = nullptr;
  if (is_to_fail() || posix_memalign(&memory, alignment, bytes == 0 ? 1 : bytes) != 0) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

void* operator new(std::size_t bytes) { return allocate(bytes, alignof(std::max_align_t)); }
void* operator new(std::size_t bytes, std::align_val_t alignment) {
  return allocate(bytes, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }

extern "C" __attribute__((visibility("default"))) int pthread_create(
    pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument) {
  using Function = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "pthread_create"));
  return is_to_fail() ? EAGAIN : real(thread, attributes, run, argument);
}

namespace korvex::test {
namespace {

constexpr int kThreads = 4;
constexpr unsigned kOne[3] = {1, 1, 1};
constexpr double kNothing = 7.0;

// Several ranges for each kernel, and several tiles for the matrix product.
const std::map<std::string, std::int64_t>& integers() {
  static const std::map<std::string, std::int64_t> values = {
      {"n", 300000}, {"M", 70}, {"N", 70}, {"K", 300}};
  return values;
}

struct Parameter {
  std::string name;
  std::string kind;
  bool is_array() const { return kind.back() == ']'; }
  bool is_input() const { return name.size() == 1; }
};

std::vector<Parameter> parameters_of(int kernel) {
  std::istringstream text(korvex_host_kernel_parameters(kernel));
  std::vector<Parameter> parameters;
  for (std::string word; text >> word;) {
    const std::size_t colon = word.find(':');
    parameters.push_back({word.substr(0, colon), word.substr(colon + 1)});
  }
  return parameters;
}

// What stands between the brackets of f64[...].
std::size_t elements(const Parameter& parameter) {
  std::istringstream factors(parameter.kind.substr(4, parameter.kind.size() - 5));
  std::int64_t product = 1;
  for (std::string factor; std::getline(factors, factor, '*');) {
    const auto found = integers().find(factor);
    product *= found != integers().end() ? found->second : std::stol(factor);
  }
  return static_cast<std::size_t>(product);
}

// A kernel with operands of its own.
class Launch {
 public:
  explicit Launch(int kernel) : kernel_(kernel), parameters_(parameters_of(kernel)) {
    Random random(61);
    for (const Parameter& parameter : parameters_) {
      std::vector<double> array(parameter.is_array() ? elements(parameter) : 0, kNothing);
      if (parameter.is_input()) {
        for (double& x : array) {
          x = random.with_exponent(random.between(-30, 3));
        }
      }
      arrays_.push_back(array);
      pointers_.push_back(arrays_.back().data());
      const auto found = integers().find(parameter.name);
      integers_.push_back(found != integers().end() ? found->second : 0);
    }
    for (std::size_t i = 0; i < parameters_.size(); ++i) {
      const Parameter& parameter = parameters_[i];
      values_.push_back(parameter.is_array()      ? static_cast<void*>(&pointers_[i])
                        : parameter.kind == "i64" ? static_cast<void*>(&integers_[i])
                                                  : static_cast<void*>(&number_));
    }
    inputs_ = arrays_of(true);
  }

  // With outputs that hold nothing yet; fails at the call of that number, from 0.
  int run(long failing_call) {
    for (std::size_t i = 0; i < parameters_.size(); ++i) {
      if (!parameters_[i].is_input()) {
        std::fill(arrays_[i].begin(), arrays_[i].end(), kNothing);
      }
    }
    calls_until_failure = failing_call;
    const int status = korvex_host_launch(kernel_, kOne, kOne, values_.data(), kThreads);
    calls_until_failure = kNever;
    return status;
  }

  std::vector<double> outputs() const { return arrays_of(false); }
  bool has_its_inputs() const { return is_same(arrays_of(true), inputs_); }

  static bool is_same(const std::vector<double>& a, const std::vector<double>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0;
  }

 private:
  std::vector<double> arrays_of(bool input) const {
    std::vector<double> all;
    for (std::size_t i = 0; i < parameters_.size(); ++i) {
      if (parameters_[i].is_input() == input) {
        all.insert(all.end(), arrays_[i].begin(), arrays_[i].end());
      }
    }
    return all;
  }

  int kernel_;
  std::vector<Parameter> parameters_;
  std::vector<std::vector<double>> arrays_;
  std::vector<double*> pointers_;
  std::vector<std::int64_t> integers_;
  double number_ = 0.25;
  std::vector<void*> values_;
  std::vector<double> inputs_;
};

// Have all other threads ended? The system takes a joined one off its list a moment later.
bool runs_alone() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}) != 1) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

// Returns how many launches ended for want of memory.
int fail_at_every_place(int kernel) {
  Launch launch(kernel);
  CHECK(launch.run(kNever) == KORVEX_HOST_DONE);
  const std::vector<double> expected = launch.outputs();
  int out_of_memory = 0;
  int with_results = 0;
  for (long call = 0;; ++call) {
    const long failures_before = failures;
    const int status = launch.run(call);
    if (failures == failures_before) {
      break;  // fewer calls than that
    }
    CHECK(runs_alone());
    CHECK(launch.has_its_inputs());
    if (status == KORVEX_HOST_OUT_OF_MEMORY) {
      ++out_of_memory;
    } else {
      CHECK(status == KORVEX_HOST_DONE);
      CHECK(Launch::is_same(launch.outputs(), expected));
      ++with_results;
    }
    CHECK(launch.run(kNever) == KORVEX_HOST_DONE);
    CHECK(Launch::is_same(launch.outputs(), expected));
  }
  const bool has_threads =
      std::string_view(korvex_host_kernel_name(kernel)).find("seq") == std::string_view::npos;
  CHECK(!has_threads || out_of_memory > 0);
  CHECK(!has_threads || with_results >= kThreads - 1);  // each thread once, at least
  return out_of_memory;
}

// Runs call() with a failure at every place: it must say so, or leave in `written` what it leaves
// without one; a call that ran out of memory leaves a state in `written` as it was.
template <class Call>
int fail_exact_call_at_every_place(std::vector<std::int64_t>& written, bool is_state,
                                   const Call& call) {
  const std::vector<std::int64_t> before = written;
  CHECK(call() == KORVEX_EXACT_DONE);
  const std::vector<std::int64_t> expected = written;
  CHECK(expected != before);
  int out_of_memory = 0;
  for (long failing = 0;; ++failing) {
    written = before;
    const long failures_before = failures;
    calls_until_failure = failing;
    const int status = call();
    calls_until_failure = kNever;
    if (failures == failures_before) {
      break;
    }
    CHECK(runs_alone());
    if (status == KORVEX_EXACT_OUT_OF_MEMORY) {
      ++out_of_memory;
      CHECK(!is_state || written == before);
    } else {
      CHECK(status == KORVEX_EXACT_DONE);
      CHECK(written == expected);
    }
  }
  CHECK(out_of_memory > 0);
  return out_of_memory;
}

// Several ranges, of two formats, one of them not side by side; and matrices that are copied.
int fail_in_exact_calls() {
  const korvex_exact_functions& exact = *korvex_host_exact();
  constexpr std::int64_t kCount = 300000;
  std::vector<float> x(2 * kCount, 0.5F);
  std::vector<std::int64_t> y(kCount, -3);
  const std::int64_t extents[2] = {kCount / 500, 500};
  const std::int64_t strides_of_x[2] = {4000, 8};
  const std::int64_t strides_of_y[2] = {4000, 8};
  const korvex_exact_array a = {x.data(), KORVEX_FORMAT_FLOAT32, 2, extents, strides_of_x};
  const korvex_exact_array b = {y.data(), KORVEX_FORMAT_INT64, 2, extents, strides_of_y};
  int out_of_memory = 0;
  for (const int kind : {KORVEX_EXACT_SUM, KORVEX_EXACT_DOT, KORVEX_EXACT_MOMENTS}) {
    std::vector<std::int64_t> state(static_cast<std::size_t>(exact.words(kind)), 0);
    const korvex_exact_array* second = kind == KORVEX_EXACT_DOT ? &b : nullptr;
    out_of_memory += fail_exact_call_at_every_place(
        state, true, [&] { return exact.accumulate(kind, state.data(), &a, second, 1, kThreads); });
  }
  std::vector<std::int64_t> out(kCount, 7);
  const std::int64_t one_stride = 8;
  const std::int64_t one_extent = kCount;
  const korvex_exact_array line = {y.data(), KORVEX_FORMAT_INT64, 1, &one_extent, &one_stride};
  out_of_memory += fail_exact_call_at_every_place(out, false, [&] {
    const korvex_exact_running running = {KORVEX_FORMAT_FLOAT64, 0, 1};
    return exact.cumulative_sum(&line, &running, kThreads, out.data());
  });
  // Rows, columns and tiles; of few outputs, whose elements threads share, and of many.
  const std::int64_t transposed[2] = {500, kCount / 500};
  const std::int64_t strides_of_transposed[2] = {8, 4000};
  const std::int64_t two[2] = {2, kCount / 2};
  const std::int64_t strides_of_two[2] = {kCount / 2 * 8, 8};
  const korvex_exact_array arrays[] = {
      {y.data(), KORVEX_FORMAT_INT64, 2, extents, strides_of_y},
      {y.data(), KORVEX_FORMAT_INT64, 2, transposed, strides_of_transposed},
      {y.data(), KORVEX_FORMAT_INT64, 2, two, strides_of_two},
  };
  for (const korvex_exact_array& each : arrays) {
    for (const int function : {KORVEX_EXACT_TOTAL, KORVEX_EXACT_VARIANCE}) {
      const korvex_exact_reduction task = {function, {&each}, 1, 0, 1, 1, 1};
      out_of_memory += fail_exact_call_at_every_place(out, false, [&] {
        return exact.reduce_axes(&task, KORVEX_FORMAT_FLOAT64, kThreads, out.data());
      });
    }
  }
  const std::int64_t square[2] = {150, 150};
  const korvex_exact_array left = {x.data(), KORVEX_FORMAT_FLOAT32, 2, square, strides_of_x};
  const korvex_exact_array right = {y.data(), KORVEX_FORMAT_INT64, 2, square, strides_of_y};
  out_of_memory += fail_exact_call_at_every_place(out, false, [&] {
    return exact.matrix_product(&left, &right, KORVEX_FORMAT_FLOAT64, kThreads, out.data());
  });
  return out_of_memory;
}

// No kernel allocates within its threads, but what one threw there would have to come over.
void an_exception_of_any_range_comes_over() {
  for (int failing = 0; failing < kThreads; ++failing) {
    std::atomic<int> finished{0};
    bool is_caught = false;
    bool is_joined = false;
    try {
      host::for_each_of_ranges<int>(
          kThreads, kThreads,
          [&](std::int64_t begin, std::int64_t, int&) {
            if (begin == failing) {
              throw std::bad_alloc();
            }
            ++finished;
          },
          [&](int) { is_joined = is_joined || failing == 0; });
    } catch (const std::bad_alloc&) {
      is_caught = true;
    }
    CHECK(is_caught && !is_joined);
    CHECK(finished == kThreads - 1);
    CHECK(runs_alone());
  }
}

bool is_usable(std::string_view instruction_set) {
  const std::string_view best = korvex_host_best_instruction_set();
  return instruction_set == "base" || best == "avx512" || instruction_set == best;
}

int run(const char* instruction_set) {
  if (!is_usable(instruction_set)) {
    std::printf("this processor has no such instructions: not run\n");
    return 77;
  }
  CHECK(std::string_view(korvex_host_instruction_set()) == instruction_set);
  int out_of_memory = 0;
  for (int kernel = 0; kernel < korvex_host_kernel_count(); ++kernel) {
    out_of_memory += fail_at_every_place(kernel);
  }
  out_of_memory += fail_in_exact_calls();
  std::printf("%d launches ran out of memory\n", out_of_memory);
  an_exception_of_any_range_comes_over();
  return Tally::all().finish();
}

}  // namespace
}  // namespace korvex::test

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: test_out_of_memory INSTRUCTION_SET\n");
    return 2;
  }
  return korvex::test::run(argv[1]);
}
