// SPDX-License-Identifier: Apache-2.0
// The launches of a matrix product and of running sums, as korvex.exact makes them, and which cases
// there are.
#include "tests/launches/array_cases.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "tests/launches/result_array.h"
#include "tests/launches/state_data.h"

namespace korvex::launches {
namespace {

using kernels::StateKernelRow;

std::uint64_t word(std::int64_t value) { return static_cast<std::uint64_t>(value); }

bool is_wide(int format) {
  return format == kernels::kInt64Format || format == kernels::kUint64Format;
}

class ArrayRun {
 public:
  ArrayRun(StateRunner& device, const korvex_exact_functions& host, const StateCase& one)
      : device_(device), host_(host), case_(*one.arrays), seed_(one.seed), random_(one.seed) {}

  void multiply() {
    DrawnOperand a = draw_operand(random_, case_.a, case_.rows * case_.depth, "a");
    DrawnOperand b = draw_operand(random_, case_.b, case_.depth * case_.columns, "b");
    ResultArray result(device_, case_.rows * case_.columns, case_.format, case_.step);
    multiply_on_host(a, b, result.of_host());
    const std::int64_t copies =
        std::int64_t{is_wide(case_.a.format) ? 2 : 1} * (is_wide(case_.b.format) ? 2 : 1);
    const std::uint64_t wide_a = widened(a, case_.a, case_.b, 1, 1, copies);
    const std::uint64_t wide_b = widened(b, case_.b, case_.a, is_wide(case_.a.format) ? 2 : 1,
                                         std::max<std::int64_t>(case_.columns, 1), copies);
    const std::int64_t height = static_cast<std::int64_t>(case_.shape.threads()) / case_.width;
    const std::int64_t tiles =
        ((case_.rows + height - 1) / height) * ((case_.columns + case_.width - 1) / case_.width);
    launch("korvex_multiply",
           {word(tiles), word(case_.width), wide_a, wide_b, word(case_.rows), word(case_.columns),
            word(case_.depth * copies), result.address(), word(case_.step), word(case_.format)});
    result.require_same(device_);
  }

  void run_sums() {
    DrawnOperand x = draw_operand(random_, case_.a, case_.depth, "x");
    ResultArray result(device_, case_.depth, case_.format, case_.step);
    const korvex_exact_array array = {x.array.bytes.data() + x.first, case_.a.format, 1,
                                      &case_.depth, &x.byte_stride};
    const korvex_exact_running running = {case_.format, 0, 1};
    require(host_.cumulative_sum(&array, &running, 1, result.of_host()) == KORVEX_EXACT_DONE,
            "the host library refuses a running sum");
    device_.place(x.array);
    StateArray memory = junk_array("segments", case_.segments * kernels::kSegmentWords * 8);
    device_.place(memory);
    const std::vector<std::uint64_t> elements = {
        word(case_.segments), memory.address,
        word(case_.depth),    x.array.address + word(x.first),
        word(x.byte_stride),  word(case_.a.format)};
    launch("korvex_sum_segments", elements);
    launch("korvex_join_segments", {elements[0], elements[1], elements[2]});
    std::vector<std::uint64_t> values = elements;
    values.insert(values.end(), {result.address(), word(case_.step), word(case_.format)});
    launch("korvex_running_sums", values);
    result.require_same(device_);
  }

 private:
  void launch(const char* name, const std::vector<std::uint64_t>& values) {
    device_.launch(kernel_named(name), case_.shape, values, ++seed_);
  }

  void multiply_on_host(const DrawnOperand& a, const DrawnOperand& b, void* out) const {
    const std::int64_t a_extents[] = {case_.rows, case_.depth};
    const std::int64_t b_extents[] = {case_.depth, case_.columns};
    const std::int64_t a_strides[] = {case_.depth * a.byte_stride, a.byte_stride};
    const std::int64_t b_strides[] = {case_.columns * b.byte_stride, b.byte_stride};
    const korvex_exact_array left = {a.array.bytes.data() + a.first, case_.a.format, 2, a_extents,
                                     a_strides};
    const korvex_exact_array right = {b.array.bytes.data() + b.first, case_.b.format, 2, b_extents,
                                      b_strides};
    require(host_.matrix_product(&left, &right, case_.format, 1, out) == KORVEX_EXACT_DONE,
            "the host library refuses a product");
  }

  // The address of an operand as doubles: where it lies, or of copies. A part of a wide integer
  // stays for `turn` of them.
  std::uint64_t widened(DrawnOperand& x, const StateOperand& operand, const StateOperand& other,
                        std::int64_t turn, std::int64_t inner, std::int64_t copies) {
    device_.place(x.array);
    const std::uint64_t first = x.array.address + word(x.first);
    if (copies == 1 && operand.format == kernels::kFloat64Format && operand.stride == 1) {
      return first;
    }
    const auto n = static_cast<std::int64_t>(&operand == &case_.a ? case_.rows * case_.depth
                                                                  : case_.depth * case_.columns);
    StateArray doubles = junk_array("doubles", n * copies * 8);
    device_.place(doubles);
    for (std::int64_t copy = 0; copy < copies; ++copy) {
      const int part = is_wide(operand.format)
                           ? (copy / turn % 2 == 0 ? kernels::kWholePart : kernels::kRestPart)
                       : copy > 0 && is_wide(other.format) ? kernels::kFinitePart
                                                           : kernels::kWholePart;
      launch("korvex_widen", {word(n), first, word(x.byte_stride), word(operand.format), word(part),
                              word(inner), word(copies), doubles.address + word(copy * inner * 8)});
    }
    return doubles.address;
  }

  StateRunner& device_;
  const korvex_exact_functions& host_;
  const ArrayCase& case_;
  std::uint64_t seed_;
  test::Random random_;
};

bool is_of_products(const StateKernelRow& kernel) {
  const std::string_view name = kernel.name;
  return name == "korvex_widen" || name == "korvex_multiply";
}

// --- Which cases there are

class CaseMaker {
 public:
  CaseMaker(const StateKernelRow& kernel, std::uint64_t seed) : kernel_(kernel), seed_(seed) {}

  // Every format of either operand, with any other; results of every format.
  void add_formats(int rounds) {
    for (int round = 0; round < rounds; ++round) {
      for (int format = 0; format < kFormats; ++format) {
        for (const StateData data :
             {StateData::kModerate, StateData::kAnyBits, StateData::kSpecial}) {
          test::Random random(seed_ * 31);
          const int other = random.below(2) == 0 ? kernels::kInt64Format : random.below(kFormats);
          ArrayCase one = drawn(random);
          one.a = {format, stride(random), data};
          one.b = {other, stride(random), data};
          if (random.below(2) == 0) {
            std::swap(one.a, one.b);
          }
          add(one);
        }
      }
    }
  }
  void add_doubles(int rounds) {
    for (int round = 0; round < rounds; ++round) {
      for (const StateData data : {StateData::kDoubles, StateData::kLarge, StateData::kTies}) {
        test::Random random(seed_ * 31);
        ArrayCase one = drawn(random);
        one.a = {kernels::kFloat64Format, stride(random), data};
        one.b = {kernels::kFloat64Format, stride(random), data};
        add(one);
      }
    }
  }

  std::vector<StateCase> take() { return std::move(cases_); }

 private:
  static std::int64_t stride(test::Random& random) {
    constexpr std::int64_t kStrides[] = {1, 1, 2, -1, -3, 0};
    return kStrides[static_cast<std::size_t>(random.below(6))];
  }

  ArrayCase drawn(test::Random& random) const {
    constexpr Shape kShapes[] = {
        {{1, 1, 1}, {64, 1, 1}},  {{2, 1, 1}, {32, 1, 1}}, {{3, 1, 1}, {64, 1, 1}},
        {{1, 1, 1}, {256, 1, 1}}, {{5, 1, 1}, {32, 1, 1}},
    };
    constexpr int kFormatsOfResults[] = {kernels::kFloat64Format, kernels::kFloat32Format,
                                         kernels::kFloat16Format, kernels::kBfloat16Format};
    ArrayCase one;
    one.shape = kShapes[seed_ % std::size(kShapes)];
    one.format = kFormatsOfResults[seed_ / 3 % std::size(kFormatsOfResults)];
    if (is_of_products(kernel_)) {
      one.rows = size(random, 9);
      one.columns = size(random, 20);
      one.depth = random.below(9) == 0 ? 131 : size(random, 40);
      one.width = 1 << random.below(6);
      one.step = 1 + random.below(2);
    } else {
      one.depth = size(random, 700);
      one.segments = 1 + random.below(random.below(2) == 0 ? 6 : 150);
      one.step = 1 + random.below(2);
    }
    return one;
  }
  static std::int64_t size(test::Random& random, int most) {
    return random.below(12) == 0 ? 0 : random.between(1, random.below(3) == 0 ? most : most / 3);
  }

  void add(const ArrayCase& arrays) {
    StateCase one;
    one.kernel = &kernel_;
    one.seed = seed_++;
    one.arrays = arrays;
    cases_.push_back(one);
  }

  const StateKernelRow& kernel_;
  std::uint64_t seed_;
  std::vector<StateCase> cases_;
};

}  // namespace

bool is_of_arrays(const StateKernelRow& kernel) {
  const std::string_view name = kernel.name;
  return is_of_products(kernel) || name == "korvex_sum_segments" ||
         name == "korvex_join_segments" || name == "korvex_running_sums";
}

std::string name_of(const ArrayCase& one) {
  std::ostringstream name;
  name << " [" << one.rows << " x " << one.depth << " x " << one.columns << " a=" << one.a.format
       << "/" << one.a.stride << "/" << static_cast<int>(one.a.data) << " b=" << one.b.format << "/"
       << one.b.stride << "/" << static_cast<int>(one.b.data) << " to=" << one.format
       << " width=" << one.width << " step=" << one.step << " segments=" << one.segments
       << " blocks=" << one.shape.blocks() << " threads=" << one.shape.threads() << "]";
  return name.str();
}

std::vector<StateCase> array_cases_of(const StateKernelRow& kernel, bool is_long,
                                      std::uint64_t seed) {
  // All launches are made for each kernel; those that come before the last have other seeds.
  const std::string_view name = kernel.name;
  const bool is_last = name == "korvex_multiply" || name == "korvex_running_sums";
  CaseMaker maker(kernel, is_last ? seed : seed + 7000);
  maker.add_formats(is_long ? 8 : is_last ? 2 : 1);
  maker.add_doubles((is_long ? 4 : 1) * (is_last ? 8 : 2));
  return maker.take();
}

void run_array_case(StateRunner& device, const korvex_exact_functions& host, const StateCase& one) {
  ArrayRun run(device, host, one);
  if (is_of_products(*one.kernel)) {
    run.multiply();
  } else {
    run.run_sums();
  }
}

}  // namespace korvex::launches
