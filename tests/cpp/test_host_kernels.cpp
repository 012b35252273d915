// SPDX-License-Identifier: Apache-2.0
// The C interface of a host kernel library, loaded as its users load it.
//
// usage: test_host_kernels LIBRARY INSTRUCTION_SET. A library that this processor cannot run is
// reported and skipped with status 77.
#include <dlfcn.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "check.h"
#include "korvex/arithmetic/exact/pairs.h"
#include "korvex/kernels/host/float_environment.h"
#include "korvex/kernels/host/launch.h"
#include "korvex/kernels/table.h"
#include "processor_flags.h"
#include "random_data.h"
#include "sum_checks.h"

namespace korvex::test {
namespace {

constexpr unsigned kOne[3] = {1, 1, 1};
// Exceptions masked; a flag of Arm's that is set shows that flags come back.
#if defined(__x86_64__)
constexpr host::FloatState kRoundUpAndFlush = {0xdfc0};  // MXCSR: round up, FTZ, DAZ
#else
constexpr host::FloatState kRoundUpAndFlush = {0x1400000, 0x10};  // FPCR: round up, FZ; FPSR: IXC
#endif

class Library {
 public:
  // NOLINTNEXTLINE(clang-analyzer-optin.taint.GenericTaint): the path is the test's own argument
  explicit Library(const char* path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) {
      std::printf("%s\n", dlerror());
    }
  }
  bool is_open() const { return handle_ != nullptr; }

  template <class Function>
  Function* find(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }

  int index_of(std::string_view kernel) const {
    const auto count = find<decltype(korvex_host_kernel_count)>("korvex_host_kernel_count");
    const auto name = find<decltype(korvex_host_kernel_name)>("korvex_host_kernel_name");
    for (int i = 0; i < count(); ++i) {
      if (name(i) == kernel) {
        return i;
      }
    }
    return -1;
  }

  int launch(int index, const unsigned grid[3], const std::vector<void*>& args, int threads) const {
    const auto function = find<decltype(korvex_host_launch)>("korvex_host_launch");
    return function(index, grid, kOne, args.data(), threads);
  }

 private:
  void* handle_;  // kept open to the end of the process
};

Limbs4 launch_sequential(const Library& library, const std::vector<double>& x,
                         const unsigned grid[3]) {
  Limbs4 out = {7.0, 7.0, 7.0, 7.0};
  const double* x_pointer = x.data();
  double* out_pointer = out.data();
  auto n = static_cast<std::int64_t>(x.size());
  CHECK(library.launch(library.index_of("tqx_sum_seq_kernel"), grid,
                       {static_cast<void*>(&x_pointer), static_cast<void*>(&out_pointer), &n},
                       1) == 0);
  return out;
}

Limbs2 launch_parallel(const Library& library, const std::vector<double>& x, int threads,
                       const unsigned grid[3]) {
  Limbs2 out = {7.0, 7.0};
  const double* x_pointer = x.data();
  double* out_pointer = &out[0];
  double* err_pointer = &out[1];
  auto n = static_cast<std::int64_t>(x.size());
  CHECK(library.launch(library.index_of("tqx_sum_kernel"), grid,
                       {static_cast<void*>(&x_pointer), static_cast<void*>(&out_pointer),
                        static_cast<void*>(&err_pointer), &n},
                       threads) == 0);
  return out;
}

void rows_are_those_of_the_table(const Library& library) {
  const auto name = library.find<decltype(korvex_host_kernel_name)>("korvex_host_kernel_name");
  const auto form = library.find<decltype(korvex_host_kernel_form)>("korvex_host_kernel_form");
  const auto block = library.find<decltype(korvex_host_kernel_block)>("korvex_host_kernel_block");
  const auto parameters =
      library.find<decltype(korvex_host_kernel_parameters)>("korvex_host_kernel_parameters");
  const auto strides = library.find<decltype(korvex_host_kernel_strides_along_y)>(
      "korvex_host_kernel_strides_along_y");
  CHECK(library.find<decltype(korvex_host_kernel_count)>("korvex_host_kernel_count")() ==
        kernels::kKernelCount);
  for (int i = 0; i < kernels::kKernelCount; ++i) {
    const kernels::KernelRow& row = kernels::kKernelTable[i];
    CHECK(std::string(name(i)) == row.name);
    CHECK(std::string(form(i)) == row.form);
    CHECK(std::string(parameters(i)) == row.parameters);
    CHECK(block(i) == row.block);
    CHECK((strides(i) != 0) == row.strides_along_y);
  }
  for (const int outside : {-1, kernels::kKernelCount}) {
    CHECK(name(outside) == nullptr && form(outside) == nullptr);
    CHECK(parameters(outside) == nullptr && block(outside) == 0 && strides(outside) == 0);
    CHECK(library.launch(outside, kOne, {}, 1) == 1);
  }
}

void the_number_of_threads_does_not_show(const Library& library) {
  Random random(51);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    const std::vector<double> x =
        draw_many(random, static_cast<Shape>(shape), 300001, shape % 2 == 0);
    const Limbs4 four = sequential_limbs<arithmetic::ScalarLanes>(x);
    CHECK(same_limbs(launch_sequential(library, x, kOne), four));
    const Limbs2 two = parallel_limbs<arithmetic::ScalarLanes>(x, x.size());
    for (const int threads : {-1, 1, 2, 3, 7, 1000}) {
      CHECK(same_limbs(launch_parallel(library, x, threads, kOne), two));
    }
    for (const double limb : four) {
      Tally::all().record(limb);
    }
  }
}

void a_grid_of_any_size_runs_once(const Library& library) {
  const std::vector<double> x(1000, 0.1);
  const unsigned larger[3] = {64, 2, 2};
  CHECK(same_limbs(launch_sequential(library, x, larger), launch_sequential(library, x, kOne)));
  CHECK(same_limbs(launch_parallel(library, x, 2, larger), launch_parallel(library, x, 1, kOne)));
}

void a_grid_without_extent_does_nothing(const Library& library) {
  for (int axis = 0; axis < 3; ++axis) {
    unsigned grid[3] = {1, 1, 1};
    grid[axis] = 0;
    CHECK(same_limbs(launch_sequential(library, {1.0}, grid), std::vector<double>(4, 7.0)));
    CHECK(same_limbs(launch_parallel(library, {1.0}, 2, grid), std::vector<double>(2, 7.0)));
  }
}

void empty_arrays_give_zeros(const Library& library) {
  CHECK(same_limbs(launch_sequential(library, {}, kOne), std::vector<double>(4, 0.0)));
  CHECK(same_limbs(launch_parallel(library, {}, 4, kOne), std::vector<double>(2, 0.0)));
}

// Another library may have set the processor to round up and to flush subnormal numbers to zero.
void the_callers_float_environment_neither_acts_nor_changes(const Library& library) {
  Random random(52);
  const std::vector<double> tiny(200000, 0x1p-1074);
  const std::vector<double> x = draw_many(random, Shape::kWide, 200000, false);
  const Limbs4 tiny_sum = launch_sequential(library, tiny, kOne);
  const Limbs4 x_sum = launch_sequential(library, x, kOne);
  const host::FloatState before = host::float_state();
  host::set_float_state(kRoundUpAndFlush);
  const Limbs4 tiny_again = launch_sequential(library, tiny, kOne);
  const Limbs4 x_again = launch_sequential(library, x, kOne);
  const Limbs2 tiny_parallel = launch_parallel(library, tiny, 3, kOne);
  const host::FloatState after = host::float_state();
  host::set_float_state(before);
  CHECK(after == kRoundUpAndFlush);
  CHECK(bits_of(tiny_sum[0]) == 200000);
  CHECK(same_limbs(tiny_again, tiny_sum));
  CHECK(same_limbs(x_again, x_sum));
  CHECK(bits_of(tiny_parallel[0]) == 200000);
}

struct Pairs {
  std::vector<double> value;
  std::vector<double> error;
};

Pairs launch_pairs(const Library& library, const char* kernel, const std::vector<double>& x,
                   const std::vector<double>& y, int threads) {
  Pairs pairs = {std::vector<double>(x.size(), 7.0), std::vector<double>(x.size(), 7.0)};
  const double* x_pointer = x.data();
  const double* y_pointer = y.data();
  double* out_pointer = pairs.value.data();
  double* err_pointer = pairs.error.data();
  auto n = static_cast<std::int64_t>(x.size());
  CHECK(library.launch(library.index_of(kernel), kOne,
                       {static_cast<void*>(&x_pointer), static_cast<void*>(&y_pointer),
                        static_cast<void*>(&out_pointer), static_cast<void*>(&err_pointer), &n},
                       threads) == 0);
  return pairs;
}

// On several threads, with the caller's processor set to round up and flush.
void pairs_are_those_of_the_bodies(const Library& library) {
  const struct {
    const char* kernel;
    arithmetic::ValueAndError (*body)(double, double);
  } kernels[] = {{"tqx_add_kernel", arithmetic::add_pair},
                 {"tqx_sub_kernel", arithmetic::subtract_pair},
                 {"tqx_mul_kernel", arithmetic::multiply_pair},
                 {"tqx_div_kernel", arithmetic::divide_pair}};
  Random random(53);
  std::vector<double> x = draw_many(random, Shape::kTiny, 200001, false);
  std::vector<double> y = draw_many(random, Shape::kAnyBits, 200001, false);
  for (const auto& [kernel, body] : kernels) {
    const host::FloatState before = host::float_state();
    host::set_float_state(kRoundUpAndFlush);
    const Pairs pairs = launch_pairs(library, kernel, x, y, 3);
    const host::FloatState after = host::float_state();
    host::set_float_state(before);
    CHECK(after == kRoundUpAndFlush);
    bool same = true;
    for (std::size_t i = 0; i < x.size(); ++i) {
      const arithmetic::ValueAndError pair = body(x[i], y[i]);
      same = same && bits_of(pair.value) == bits_of(pairs.value[i]) &&
             bits_of(pair.error) == bits_of(pairs.error[i]);
    }
    CHECK(same);
  }
}

// Of a kernel that takes x, arrays of results and the number of elements.
std::vector<double> launch_reduction(const Library& library, const char* kernel,
                                     const std::vector<double>& x, std::size_t outputs,
                                     std::size_t size, int threads) {
  std::vector<double> out(outputs * size, 7.0);
  std::vector<const double*> pointers = {x.data()};
  for (std::size_t i = 0; i < outputs; ++i) {
    pointers.push_back(out.data() + i * size);
  }
  auto n = static_cast<std::int64_t>(x.size());
  std::vector<void*> arguments;
  arguments.reserve(pointers.size() + 1);
  for (auto& pointer : pointers) {
    arguments.push_back(static_cast<void*>(&pointer));
  }
  arguments.push_back(&n);
  CHECK(library.launch(library.index_of(kernel), kOne, arguments, threads) == 0);
  return out;
}

void reductions_on_several_threads_are_those_on_one(const Library& library) {
  Random random(54);
  const std::vector<double> x = draw_many(random, Shape::kNarrow, 300001, true);
  const struct {
    const char* kernel;
    std::size_t outputs;
    std::size_t size;
  } kernels[] = {{"tqx_var_kernel", 2, 1},
                 {"tqx_norm_kernel", 1, 1},
                 {"tqx_prod_kernel", 2, 1},
                 {"tqx_cumsum_kernel", 2, x.size()},
                 {"tqx_logsumexp_kernel", 1, 1}};
  for (const auto& [kernel, outputs, size] : kernels) {
    const std::vector<double> one = launch_reduction(library, kernel, x, outputs, size, 1);
    for (const int threads : {2, 3, 4}) {
      CHECK(same_limbs(launch_reduction(library, kernel, x, outputs, size, threads), one));
    }
  }
}

void dots_on_several_threads_are_those_on_one(const Library& library) {
  Random random(55);
  const std::vector<double> x = draw_many(random, Shape::kWide, 300001, false);
  const std::vector<double> y = draw_many(random, Shape::kWide, 300001, false);
  const auto dot = [&](int threads) {
    std::vector<double> out(3, 7.0);
    const double* pointers[] = {x.data(), y.data(), &out[0], &out[1], &out[2]};
    auto n = static_cast<std::int64_t>(x.size());
    std::vector<void*> arguments;
    for (auto& pointer : pointers) {
      arguments.push_back(static_cast<void*>(&pointer));
    }
    arguments.push_back(&n);
    CHECK(library.launch(library.index_of("tqx_dot_kernel"), kOne, arguments, threads) == 0);
    return out;
  };
  const std::vector<double> one = dot(1);
  CHECK(one[0] != 7.0);
  for (const int threads : {2, 3, 4}) {
    CHECK(same_limbs(dot(threads), one));
  }
}

// On several threads, whose ranges end inside the array and at its end.
void elements_beyond_the_array_stay(const Library& library) {
  constexpr std::int64_t kElements = 200001;
  Random random(56);
  const std::vector<double> x = draw_many(random, Shape::kNarrow, 2 * kElements, false);
  for (const char* kernel :
       {"tqx_relu_kernel", "tqx_neg_kernel", "tqx_exp_kernel", "tqx_log_kernel", "tqx_sqrt_kernel",
        "tqx_sigmoid_kernel", "tqx_tanh_kernel"}) {
    const auto results = [&](int threads) {
      std::vector<double> out(x.size(), 7.0);
      const double* x_pointer = x.data();
      double* out_pointer = out.data();
      std::int64_t n = kElements;
      CHECK(library.launch(library.index_of(kernel), kOne,
                           {static_cast<void*>(&x_pointer), static_cast<void*>(&out_pointer), &n},
                           threads) == 0);
      const std::vector<double> beyond(out.begin() + kElements, out.end());
      CHECK(same_limbs(beyond, std::vector<double>(beyond.size(), 7.0)));
      return out;
    };
    CHECK(same_limbs(results(3), results(1)));
  }
}

// By the system's own account, where there is one.
const char* best_instruction_set() {
  const FlagsOfSystem flags;
  if (!flags.have({"fma", "avx2", "f16c"})) {
    return "base";
  }
  return flags.have({"avx512f", "avx512dq", "avx512vl"}) ? "avx512" : "fma";
}

// Each processor that has one has those before it.
bool is_usable(const char* instruction_set) {
  for (const char* known : {"base", "fma", "avx512"}) {
    if (std::strcmp(instruction_set, known) == 0) {
      return true;
    }
    if (std::strcmp(best_instruction_set(), known) == 0) {
      return false;
    }
  }
  return false;
}

int run(const char* path, const char* instruction_set) {
  if (!is_usable(instruction_set)) {
    std::printf("this processor has no such instructions: not run\n");
    return 77;
  }
  const Library library(path);
  CHECK(library.is_open());
  if (!library.is_open()) {
    return Tally::all().finish();
  }
  CHECK(std::string(library.find<decltype(korvex_host_instruction_set)>(
            "korvex_host_instruction_set")()) == instruction_set);
  CHECK(std::string(library.find<decltype(korvex_host_best_instruction_set)>(
            "korvex_host_best_instruction_set")()) == best_instruction_set());
  rows_are_those_of_the_table(library);
  the_number_of_threads_does_not_show(library);
  a_grid_of_any_size_runs_once(library);
  a_grid_without_extent_does_nothing(library);
  empty_arrays_give_zeros(library);
  the_callers_float_environment_neither_acts_nor_changes(library);
  pairs_are_those_of_the_bodies(library);
  elements_beyond_the_array_stay(library);
  reductions_on_several_threads_are_those_on_one(library);
  dots_on_several_threads_are_those_on_one(library);
  return Tally::all().finish();
}

}  // namespace
}  // namespace korvex::test

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: test_host_kernels LIBRARY INSTRUCTION_SET\n");
    return 2;
  }
  return korvex::test::run(argv[1], argv[2]);
}
