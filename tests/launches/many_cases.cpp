// SPDX-License-Identifier: Apache-2.0
// The launches of reductions along dimensions, sums by segment and running sums of vectors, on
// shapes and layouts that a seed draws, and which cases there are.
#include "tests/launches/many_cases.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <numeric>
#include <sstream>

#include "tests/launches/result_array.h"
#include "tests/launches/state_data.h"

namespace korvex::launches {
namespace {

using kernels::StateKernelRow;
using Extents = std::vector<std::int64_t>;

std::uint64_t word(std::int64_t value) { return static_cast<std::uint64_t>(value); }

std::int64_t product_of(const Extents& extents, std::size_t begin, std::size_t end) {
  std::int64_t product = 1;
  for (std::size_t d = begin; d < end; ++d) {
    product *= extents[d];
  }
  return product;
}

StateArray words_array(const char* name, const Extents& words, bool is_input) {
  StateArray array;
  array.name = name;
  array.is_input = is_input;
  array.bytes.resize(words.size() * sizeof(std::int64_t));
  if (!words.empty()) {
    std::memcpy(array.bytes.data(), words.data(), array.bytes.size());
  }
  return array;
}

// An operand with strides of its own: dimensions in any order, with gaps, backwards or repeated.
struct LaidOut {
  LaidOut(test::Random& random, const StateOperand& operand, const Extents& extents,
          const char* name)
      : shape(extents), byte_strides(extents.size()) {
    std::vector<std::size_t> order(extents.size());
    std::iota(order.begin(), order.end(), 0);
    for (std::size_t i = order.size(); i > 1; --i) {
      std::swap(order[i - 1], order[static_cast<std::size_t>(random.below(static_cast<int>(i)))]);
    }
    if (random.below(2) == 0) {
      std::ranges::sort(order, std::greater());  // as C has them
    }
    std::int64_t places = 1;
    for (const std::size_t d : order) {
      const bool is_repeated = random.below(9) == 0;
      const std::int64_t gap = random.below(5) == 0 ? 2 : 1;
      const std::int64_t stride = is_repeated ? 0 : places * gap;
      byte_strides[d] = stride * kBytes[operand.format];
      places += stride * std::max<std::int64_t>(extents[d] - 1, 0);
      if (random.below(6) == 0) {
        first += byte_strides[d] * std::max<std::int64_t>(extents[d] - 1, 0);
        byte_strides[d] = -byte_strides[d];
      }
    }
    const bool is_empty = product_of(extents, 0, extents.size()) == 0;
    drawn = draw_operand(random, {operand.format, 1, operand.data}, is_empty ? 0 : places, name);
    first = is_empty ? 0 : first;
    array = {drawn.array.bytes.data() + first, operand.format, static_cast<int>(extents.size()),
             shape.data(), byte_strides.data()};
  }
  LaidOut(const LaidOut&) = delete;
  LaidOut& operator=(const LaidOut&) = delete;

  std::uint64_t address() const { return drawn.array.address + word(first); }

  Extents shape;
  Extents byte_strides;
  std::int64_t first = 0;  // byte of the element whose indices are 0
  DrawnOperand drawn;
  korvex_exact_array array{};
};

class ManyRun {
 public:
  ManyRun(StateRunner& device, const korvex_exact_functions& host, const StateCase& one)
      : device_(device), host_(host), case_(*one.many), seed_(one.seed), random_(one.seed) {}

  void reduce_axes() {
    const std::size_t kept = static_cast<std::size_t>(random_.below(3));
    Extents extents(kept + static_cast<std::size_t>(random_.below(4)));
    for (std::size_t d = 0; d < extents.size(); ++d) {
      const int most = d < kept ? 6 : extents.size() == kept + 1 ? 1200 : 12;
      extents[d] = random_.below(25) == 0 ? 0 : random_.between(1, most);
    }
    std::vector<std::unique_ptr<LaidOut>> operands;
    const int count = case_.function == kernels::kDotProductFunction ? 2 * case_.pairs : 1;
    for (int i = 0; i < count; ++i) {
      const StateOperand& operand = i % 2 == 0 ? case_.a : case_.b;
      operands.push_back(std::make_unique<LaidOut>(random_, operand, extents, i == 0 ? "x" : "y"));
      device_.place(operands.back()->drawn.array);
    }
    const std::int64_t outputs = product_of(extents, 0, kept);
    const std::int64_t elements = product_of(extents, kept, extents.size());
    draw_divisor(elements);
    ResultArray result(device_, outputs, case_.format, step_);
    reduce_on_host(operands, kept, result.of_host());
    if (case_.way == ManyWay::kColumns) {
      sum_columns(*operands[0], kept, elements, outputs, result);
      result.require_same(device_);
      return;
    }
    // In two turns, as of outputs whose states do not fit the memory at hand.
    const std::int64_t first_turn = outputs - random_.below(2) * (outputs / 3);
    sum_outputs(operands, kept, elements, 0, first_turn, result);
    sum_outputs(operands, kept, elements, first_turn, outputs, result);
    result.require_same(device_);
  }

  void run_sums() {
    const Extents extents = {random_.between(1, 5), random_.between(1, 7),
                             random_.below(12) == 0 ? 0 : random_.between(1, 90)};
    LaidOut x(random_, case_.a, extents, "x");
    device_.place(x.drawn.array);
    const std::int64_t vectors = extents[0] * extents[1];
    ResultArray result(device_, vectors * extents[2], case_.format, 1);
    const korvex_exact_running running = {case_.format, 0, extents[1]};
    require(host_.cumulative_sum(&x.array, &running, 1, result.of_host()) == KORVEX_EXACT_DONE,
            "the host library refuses running sums");
    const std::int64_t threads = random_.between(1, 40);
    StateArray memory = junk_array("memory", threads * kernels::kSegmentWords * 8);
    device_.place(memory);
    const std::int64_t bytes = kBytes[case_.format];
    Extents words = {2, 1, extents[2], extents[2], 1, 0};
    words.insert(words.end(), extents.begin(), extents.end());
    words.insert(words.end(), x.byte_strides.begin(), x.byte_strides.end());
    words.insert(words.end(), {extents[2] * extents[1] * bytes, bytes, extents[1] * bytes});
    StateArray plan = words_array("plan", words, true);
    device_.place(plan);
    launch("korvex_running_axes",
           {word(vectors), word(threads), memory.address, plan.address, x.address(),
            word(case_.a.format), result.address(), word(case_.format)});
    result.require_same(device_);
  }

  void sum_by_segment() {
    const std::int64_t outer = random_.below(3) == 0 ? random_.between(1, 3) : 1;
    const std::int64_t rows = random_.below(12) == 0 ? 0 : random_.between(1, 300);
    const std::int64_t inner = random_.below(2) == 0 ? random_.between(1, 4) : 1;
    const std::int64_t segments = random_.below(12) == 0 ? 0 : random_.between(1, 9);
    LaidOut x(random_, case_.a, {outer, rows, inner}, "x");
    LaidOut initial(random_, case_.b, {outer, segments, inner}, "initial");
    LaidOut ids(random_, {drawn_format_of_ids(), 1, StateData::kModerate}, {rows}, "ids");
    draw_ids(ids, segments);
    for (LaidOut* each : {&x, &initial, &ids}) {
      device_.place(each->drawn.array);
    }
    const std::int64_t outputs = outer * segments * inner;
    ResultArray result(device_, outputs, case_.format, step_);
    const bool has_initial = random_.below(2) == 0;
    const std::int64_t wrong = sum_on_host(x, ids, has_initial ? &initial : nullptr, segments,
                                           static_cast<unsigned char*>(result.of_host()));
    const std::int64_t half = outputs / 2;
    std::int64_t counted = 0;
    for (const auto& [begin, end] : {std::pair{std::int64_t{0}, half}, std::pair{half, outputs}}) {
      counted =
          sum_segments(x, ids, has_initial ? &initial : nullptr, segments, begin, end, result);
    }
    require(counted == wrong * outer * inner, "result differs: the count of wrong numbers");
    if (wrong == 0) {
      result.require_same(device_);
    }
  }

 private:
  static constexpr int kSumDigits = 68;
  static constexpr int kProductDigits = 134;

  void launch(const char* name, const std::vector<std::uint64_t>& values) {
    device_.launch(kernel_named(name), case_.shape, values, ++seed_);
  }

  void draw_divisor(std::int64_t elements) {
    constexpr std::uint64_t kLarge = (std::uint64_t{1} << 62) + 12345;
    const int way = random_.below(4);
    divisor_ = way == 0   ? 0
               : way == 1 ? kLarge
                          : static_cast<std::uint64_t>(std::max<std::int64_t>(elements - 1, 1));
    scale_ = way == 2 ? kLarge - 2 : 1;
    step_ = 1 + random_.below(2);
  }

  void reduce_on_host(const std::vector<std::unique_ptr<LaidOut>>& operands, std::size_t kept,
                      void* out) const {
    korvex_exact_reduction task{};
    task.function = case_.function;
    task.operand_count = static_cast<int>(operands.size());
    for (std::size_t i = 0; i < operands.size(); ++i) {
      task.operands[i] = &operands[i]->array;
    }
    task.is_negative = case_.pairs == 2 ? 1 : 0;
    task.kept = static_cast<int>(kept);
    task.divisor = divisor_;
    task.scale = scale_;
    require(host_.reduce_axes(&task, case_.format, 1, out) == KORVEX_EXACT_DONE,
            "the host library refuses a reduction");
  }

  StateArray placed_plan(const std::vector<const LaidOut*>& operands, std::size_t kept,
                         std::int64_t elements) {
    const Extents& extents = operands[0]->shape;
    const std::size_t reduced = extents.size() - kept;
    const bool is_folded = random_.below(2) == 0;
    const std::int64_t run = reduced == 0 || is_folded ? elements : extents.back();
    const bool is_by_block = random_.below(2) == 0;
    Extents words = {static_cast<std::int64_t>(kept),
                     static_cast<std::int64_t>(reduced),
                     run,
                     elements,
                     parts_ = random_.between(1, most_parts_),
                     is_by_block ? 1 : 0};
    words.insert(words.end(), extents.begin(), extents.end());
    for (const LaidOut* operand : operands) {
      words.insert(words.end(), operand->byte_strides.begin(), operand->byte_strides.end());
    }
    StateArray plan = words_array("plan", words, true);
    device_.place(plan);
    return plan;
  }

  // States of some outputs, and the values of these.
  void sum_outputs(const std::vector<std::unique_ptr<LaidOut>>& operands, std::size_t kept,
                   std::int64_t elements, std::int64_t begin, std::int64_t end,
                   const ResultArray& result) {
    const int function = case_.function;
    const bool is_of_variance =
        function == kernels::kVarianceFunction || function == kernels::kDeviationFunction;
    const bool has_products = is_of_variance || function == kernels::kDotProductFunction ||
                              function == kernels::kNormFunction;
    const bool has_sum = is_of_variance || !has_products;
    const std::int64_t words = (has_sum ? kSumDigits : 0) + (has_products ? kProductDigits : 0) + 4;
    StateArray states =
        words_array("states", Extents(static_cast<std::size_t>((end - begin) * words)), false);
    device_.place(states);
    const std::uint64_t counts = states.address + word((words - 4) * 8);
    const auto item_count = [&] { return word((end - begin) * parts_); };
    if (has_sum) {
      const LaidOut& x = *operands[0];
      const StateArray plan = placed_plan({&x}, kept, elements);
      launch("korvex_add_axes", {item_count(), word(begin), plan.address, x.address(),
                                 word(case_.a.format), states.address, word(words), counts});
    }
    for (std::size_t i = 0; has_products && i < operands.size(); i += 2) {
      const LaidOut& x = *operands[i];
      const LaidOut& y = *operands[operands.size() == 1 ? 0 : i + 1];
      const int y_format = operands.size() == 1 ? case_.a.format : case_.b.format;
      const StateArray plan = placed_plan({&x, &y}, kept, elements);
      launch(
          "korvex_multiply_axes",
          {item_count(), word(begin), plan.address, x.address(), word(case_.a.format), y.address(),
           word(y_format), word(i == 0 ? 1 : -1),
           states.address + word(has_sum ? kSumDigits * 8 : 0), word(words), has_sum ? 0 : counts});
    }
    launch("korvex_round_states",
           {word(end - begin), states.address, word(function), word(elements), divisor_, scale_,
            result.address() + word(begin * step_ * kBytes[case_.format]), word(step_),
            word(case_.format)});
  }

  void sum_columns(const LaidOut& x, std::size_t kept, std::int64_t elements, std::int64_t outputs,
                   const ResultArray& result) {
    most_parts_ = 1;
    const StateArray plan = placed_plan({&x}, kept, elements);
    launch("korvex_sum_columns",
           {word(outputs), plan.address, x.address(), word(case_.a.format), word(case_.function),
            word(elements), result.address(), word(step_), word(case_.format)});
  }

  // ---- Segments

  int drawn_format_of_ids() {
    constexpr std::array kFormatsOfIds = {kernels::kInt8Format, kernels::kUint16Format,
                                          kernels::kInt32Format, kernels::kInt64Format,
                                          kernels::kUint64Format};
    return kFormatsOfIds[static_cast<std::size_t>(random_.below(5))];
  }

  // One of them may name no segment.
  void draw_ids(LaidOut& ids, std::int64_t segments) {
    const std::int64_t rows = ids.shape[0];
    const std::int64_t wrong = random_.below(5) == 0 ? random_.below(300) : -1;
    const auto bytes = static_cast<std::size_t>(kBytes[ids.array.format]);
    auto* const data = ids.drawn.array.bytes.data() + ids.first;
    for (std::int64_t i = 0; i < rows; ++i) {
      std::int64_t id = segments == 0 ? 0 : random_.below(static_cast<int>(segments));
      if (i == wrong) {
        id = random_.below(2) == 0 ? -1 : segments;
      }
      std::memcpy(data + i * ids.byte_strides[0], &id, bytes);
    }
  }

  // How many rows have a wrong number; 0 where the sums were written.
  std::int64_t sum_on_host(const LaidOut& x, const LaidOut& ids, const LaidOut* initial,
                           std::int64_t segments, unsigned char* out) const {
    const std::int64_t inner = x.shape[2];
    std::int64_t first_wrong = -1;
    for (std::int64_t i = 0; i < x.shape[0]; ++i) {
      const auto slice = [&](const LaidOut& whole) {
        const auto* data = static_cast<const unsigned char*>(whole.array.data);
        return korvex_exact_array{data + i * whole.byte_strides[0], whole.array.format, 2,
                                  whole.shape.data() + 1, whole.byte_strides.data() + 1};
      };
      const korvex_exact_array of_x = slice(x);
      const korvex_exact_array of_initial = initial == nullptr ? of_x : slice(*initial);
      require(host_.segment_sums(&of_x, &ids.array, segments,
                                 initial == nullptr ? nullptr : &of_initial, case_.format, 1,
                                 out + i * segments * inner * kBytes[case_.format],
                                 &first_wrong) == KORVEX_EXACT_DONE,
              "the host library refuses a sum by segment");
    }
    return first_wrong < 0 ? 0 : count_wrong(ids, segments);
  }

  static std::int64_t count_wrong(const LaidOut& ids, std::int64_t segments) {
    const auto bytes = static_cast<std::size_t>(kBytes[ids.array.format]);
    const auto* data = static_cast<const unsigned char*>(ids.array.data);
    std::int64_t wrong = 0;
    for (std::int64_t i = 0; i < ids.shape[0]; ++i) {
      std::uint64_t id = 0;
      std::memcpy(&id, data + i * ids.byte_strides[0], bytes);
      wrong += id >= static_cast<std::uint64_t>(segments) ? 1 : 0;  // negative ones are large
    }
    return wrong;
  }

  std::int64_t sum_segments(const LaidOut& x, const LaidOut& ids, const LaidOut* initial,
                            std::int64_t segments, std::int64_t begin, std::int64_t end,
                            const ResultArray& result) {
    constexpr std::int64_t kWords = kSumDigits + 4;
    StateArray states =
        words_array("states", Extents(static_cast<std::size_t>((end - begin) * kWords)), false);
    StateArray wrong = words_array("wrong", Extents(1), false);
    device_.place(states);
    device_.place(wrong);
    const auto add = [&](const LaidOut& elements, int format, const LaidOut* numbers) {
      const Extents head = {3, elements.shape[1], elements.shape[2], segments};
      Extents words = head;
      words.insert(words.end(), elements.shape.begin(), elements.shape.end());
      words.insert(words.end(), elements.byte_strides.begin(), elements.byte_strides.end());
      StateArray plan = words_array("plan", words, true);
      device_.place(plan);
      const std::int64_t n = product_of(elements.shape, 0, 3);
      const std::int64_t cut = n / 3;
      for (const auto& [from, to] : {std::pair{std::int64_t{0}, cut}, std::pair{cut, n}}) {
        launch(
            "korvex_add_by_ids",
            {word(to - from), word(from), numbers == nullptr ? 0 : numbers->address(),
             numbers == nullptr ? 0 : word(numbers->byte_strides[0]),
             numbers == nullptr ? 0 : word(numbers->array.format), plan.address, elements.address(),
             word(format), states.address, word(begin), word(end - begin), wrong.address});
        launch("korvex_round_states",
               {word(end - begin), states.address, word(kernels::kSettleFunction), 0, 1, 1, 0, 1,
                word(kernels::kFloat64Format)});
      }
    };
    add(x, case_.a.format, &ids);
    if (initial != nullptr) {
      add(*initial, case_.b.format, nullptr);
    }
    launch("korvex_round_states",
           {word(end - begin), states.address, word(kernels::kTotalFunction), 0, 1, 1,
            result.address() + word(begin * step_ * kBytes[case_.format]), word(step_),
            word(case_.format)});
    device_.read(wrong);
    std::int64_t counted = 0;
    std::memcpy(&counted, wrong.bytes.data(), sizeof counted);
    return counted;
  }

  StateRunner& device_;
  const korvex_exact_functions& host_;
  const ManyCase& case_;
  std::uint64_t seed_;
  test::Random random_;
  std::uint64_t divisor_ = 1;
  std::uint64_t scale_ = 1;
  std::int64_t step_ = 1;
  std::int64_t parts_ = 1;
  int most_parts_ = 3;
};

// --- Which cases there are

class CaseMaker {
 public:
  CaseMaker(const StateKernelRow& kernel, std::uint64_t seed) : kernel_(kernel), seed_(seed) {}

  void add_formats(const std::vector<int>& functions, int rounds, ManyWay way) {
    for (int round = 0; round < rounds; ++round) {
      for (int format = 0; format < kFormats; ++format) {
        for (const StateData data :
             {StateData::kModerate, StateData::kAnyBits, StateData::kSpecial}) {
          ManyCase one = drawn(functions, way);
          one.a = {format, 1, data};
          one.b = {(format * 5 + round) % kFormats, 1, data};
          add(one);
        }
      }
    }
  }
  void add_doubles(const std::vector<int>& functions, int rounds, ManyWay way) {
    for (int round = 0; round < rounds; ++round) {
      for (const StateData data :
           {StateData::kDoubles, StateData::kDoubles, StateData::kLarge, StateData::kTies}) {
        ManyCase one = drawn(functions, way);
        one.a = {kernels::kFloat64Format, 1, data};
        one.b = one.a;
        one.pairs = one.function == kernels::kDotProductFunction ? 1 + round % 2 : 1;
        add(one);
      }
    }
  }

  std::vector<StateCase> take() { return std::move(cases_); }

 private:
  ManyCase drawn(const std::vector<int>& functions, ManyWay way) const {
    constexpr Shape kShapes[] = {
        {{1, 1, 1}, {64, 1, 1}},  {{2, 1, 1}, {32, 1, 1}}, {{3, 1, 1}, {64, 1, 1}},
        {{1, 1, 1}, {256, 1, 1}}, {{2, 2, 1}, {32, 2, 1}},
    };
    constexpr int kFormatsOfResults[] = {kernels::kFloat64Format, kernels::kFloat32Format,
                                         kernels::kFloat16Format, kernels::kBfloat16Format};
    ManyCase one;
    one.way = way;
    one.function = functions[seed_ % functions.size()];
    one.shape = kShapes[seed_ % std::size(kShapes)];
    one.format = kFormatsOfResults[seed_ / 3 % std::size(kFormatsOfResults)];
    return one;
  }

  void add(const ManyCase& many) {
    StateCase one;
    one.kernel = &kernel_;
    one.seed = seed_++;
    one.many = many;
    cases_.push_back(one);
  }

  const StateKernelRow& kernel_;
  std::uint64_t seed_;
  std::vector<StateCase> cases_;
};

}  // namespace

bool is_of_many(const StateKernelRow& kernel) {
  const std::string_view name = kernel.name;
  return name == "korvex_add_axes" || name == "korvex_multiply_axes" ||
         name == "korvex_add_by_ids" || name == "korvex_round_states" ||
         name == "korvex_sum_columns" || name == "korvex_running_axes";
}

std::string name_of(const ManyCase& one) {
  std::ostringstream name;
  name << " [way=" << static_cast<int>(one.way) << " function=" << one.function
       << " a=" << one.a.format << "/" << static_cast<int>(one.a.data) << " b=" << one.b.format
       << "/" << static_cast<int>(one.b.data) << " pairs=" << one.pairs << " to=" << one.format
       << " blocks=" << one.shape.blocks() << " threads=" << one.shape.threads() << "]";
  return name.str();
}

std::vector<StateCase> many_cases_of(const StateKernelRow& kernel, bool is_long,
                                     std::uint64_t seed) {
  using namespace kernels;
  const std::string_view name = kernel.name;
  const int rounds = is_long ? 6 : 1;
  const ManyWay way = name == "korvex_add_by_ids"     ? ManyWay::kIds
                      : name == "korvex_sum_columns"  ? ManyWay::kColumns
                      : name == "korvex_running_axes" ? ManyWay::kRunning
                                                      : ManyWay::kAxes;
  std::vector<int> functions = {kVarianceFunction, kDeviationFunction, kNormFunction,
                                kMeanFunction,     kTotalFunction,     kDotProductFunction};
  if (way != ManyWay::kAxes || name == "korvex_add_axes") {
    functions = {kTotalFunction, kMeanFunction};
  } else if (name == "korvex_multiply_axes") {
    functions = {kDotProductFunction, kNormFunction, kDotProductFunction};
  }
  CaseMaker maker(kernel, seed);
  maker.add_formats(functions, rounds, way);
  maker.add_doubles(functions, 4 * rounds, way);
  return maker.take();
}

void run_many_case(StateRunner& device, const korvex_exact_functions& host, const StateCase& one) {
  ManyRun run(device, host, one);
  switch (one.many->way) {
    case ManyWay::kIds:
      return run.sum_by_segment();
    case ManyWay::kRunning:
      return run.run_sums();
    default:
      return run.reduce_axes();
  }
}

}  // namespace korvex::launches
