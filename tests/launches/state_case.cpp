// SPDX-License-Identifier: Apache-2.0
// The cases of states: their arrays, the launches, and the same additions by the host library.
#include "tests/launches/state_case.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "tests/launches/array_cases.h"
#include "tests/launches/many_cases.h"
#include "tests/launches/state_data.h"

namespace korvex::launches {
namespace {

using kernels::StateKernelRow;

// The same array for the host library.
struct HostArray {
  HostArray(const DrawnOperand& drawn, int format, std::int64_t n)
      : extent(n), byte_stride(drawn.byte_stride) {
    array = {drawn.array.bytes.data() + drawn.first, format, 1, &extent, &byte_stride};
  }
  HostArray(const HostArray&) = delete;
  HostArray& operator=(const HostArray&) = delete;

  std::int64_t extent;
  std::int64_t byte_stride;
  korvex_exact_array array;
};

using Words = std::vector<std::int64_t>;

StateArray words_array(const Words& words) {
  StateArray array;
  array.name = "state";
  array.bytes.resize(words.size() * sizeof(std::int64_t));
  std::memcpy(array.bytes.data(), words.data(), array.bytes.size());
  return array;
}

Words words_of(const StateArray& array) {
  Words words(array.bytes.size() / sizeof(std::int64_t));
  std::memcpy(words.data(), array.bytes.data(), array.bytes.size());
  return words;
}

void require_same(const Words& found, const Words& expected) {
  for (std::size_t i = 0; i < expected.size(); ++i) {
    if (found[i] != expected[i]) {
      std::ostringstream text;
      text << "result differs: word " << i << " is " << found[i] << ", on the host " << expected[i];
      throw Failure(text.str());
    }
  }
}

// One addition, to the state on the device and to that of the host.
void add(StateRunner& device, const korvex_exact_functions& host, int kind,
         const StateAddition& addition, StateArray& state, Words& expected) {
  test::Random random(addition.seed);
  DrawnOperand x = draw_operand(random, addition.x, addition.n, "x");
  DrawnOperand y = draw_operand(random, addition.y, addition.n, "y");
  const HostArray host_x(x, addition.x.format, addition.n);
  const HostArray host_y(y, addition.y.format, addition.n);
  require(host.accumulate(kind, expected.data(), &host_x.array,
                          kind == KORVEX_EXACT_DOT ? &host_y.array : nullptr, addition.sign,
                          1) == KORVEX_EXACT_DONE,
          "the host library refuses an addition");
  device.place(x.array);
  device.place(y.array);
  const auto word = [](std::int64_t value) { return static_cast<std::uint64_t>(value); };
  const std::uint64_t digits = state.address;
  const std::uint64_t counts = digits + state.bytes.size() - 4 * sizeof(std::int64_t);
  const std::uint64_t n = word(addition.n);
  const auto values_of = [&](const DrawnOperand& drawn, int format) {
    return std::vector<std::uint64_t>{drawn.array.address + word(drawn.first),
                                      word(drawn.byte_stride), word(format)};
  };
  const auto launch = [&](const char* name, const std::vector<const DrawnOperand*>& operands,
                          const std::vector<int>& formats, std::uint64_t to,
                          std::uint64_t counted) {
    std::vector<std::uint64_t> values = {n};
    for (std::size_t i = 0; i < operands.size(); ++i) {
      const auto more = values_of(*operands[i], formats[i]);
      values.insert(values.end(), more.begin(), more.end());
    }
    values.insert(values.end(), {word(addition.sign), to, counted});
    device.launch(kernel_named(name), addition.shape, values, addition.seed);
  };
  const int x_format = addition.x.format;
  if (kind == KORVEX_EXACT_DOT) {
    launch("korvex_add_products", {&x, &y}, {x_format, addition.y.format}, digits, counts);
  } else {
    launch("korvex_add_elements", {&x}, {x_format}, digits, counts);
  }
  if (kind == KORVEX_EXACT_MOMENTS) {
    const auto sum_digits = static_cast<std::uint64_t>(host.words(KORVEX_EXACT_SUM) - 4);
    launch("korvex_add_products", {&x, &x}, {x_format, x_format},
           digits + sum_digits * sizeof(std::int64_t), 0);
  }
  for (DrawnOperand* operand : {&x, &y}) {
    const std::vector<unsigned char> before = operand->array.bytes;
    device.read(operand->array);
    require(operand->array.bytes == before, "an input was changed");
  }
}

void run_additions(StateRunner& device, const korvex_exact_functions& host, const StateCase& one) {
  Words expected(static_cast<std::size_t>(host.words(one.kind)));
  StateArray state = words_array(expected);
  device.place(state);
  for (const StateAddition& addition : one.additions) {
    add(device, host, one.kind, addition, state, expected);
  }
  device.read(state);
  Words found = words_of(state);
  require(host.settle(one.kind, found.data()) == KORVEX_EXACT_DONE, "result differs: no state");
  require_same(found, expected);
}

// --- Settling and rounding drawn words

// The sum of many states: digits beyond 32 bits, of either sign. Few of them, or all; sometimes
// infinities and NaN.
Words draw_words(test::Random& random, const korvex_exact_functions& host, int kind,
                 bool has_specials) {
  Words words(static_cast<std::size_t>(host.words(kind)));
  const std::size_t digits = words.size() - 4;
  const bool is_sparse = random.below(3) != 0;
  const auto first = static_cast<std::size_t>(random.below(static_cast<int>(digits)));
  for (std::size_t i = 0; i < digits; ++i) {
    if (!is_sparse || (i >= first && i < first + 3)) {
      words[i] = static_cast<std::int64_t>(random.bits()) >> random.between(2, 63);
    }
  }
  const std::size_t sum_digits = static_cast<std::size_t>(host.words(KORVEX_EXACT_SUM)) - 4;
  words[digits - 1] >>= 33;  // no carries out of the top
  if (kind == KORVEX_EXACT_MOMENTS) {
    words[sum_digits - 1] >>= 33;
  }
  words[digits + 3] = 5;
  if (has_specials) {
    words[digits + static_cast<std::size_t>(random.below(3))] = random.below(2);
  }
  return words;
}

void run_settling(StateRunner& device, const korvex_exact_functions& host, const StateCase& one) {
  test::Random random(one.seed);
  Words expected = draw_words(random, host, one.kind, true);
  if (random.below(8) == 0) {
    expected[0] = INT64_MAX;  // no state: it stays as it is
  }
  StateArray state = words_array(expected);
  device.place(state);
  static_cast<void>(host.settle(one.kind, expected.data()));
  device.launch(*one.kernel, one.additions[0].shape,
                {static_cast<std::uint64_t>(one.kind), state.address}, one.seed);
  device.read(state);
  require_same(words_of(state), expected);
}

void run_rounding(StateRunner& device, const korvex_exact_functions& host, const StateCase& one) {
  test::Random random(one.seed);
  const bool has_specials = random.below(4) == 0;
  const Words words = draw_words(random, host, one.kind, has_specials);
  StateArray state = words_array(words);
  state.is_input = true;
  device.place(state);
  for (int part = 0; part < (one.kind == KORVEX_EXACT_MOMENTS ? 2 : 1); ++part) {
    const int of_products = one.kind == KORVEX_EXACT_DOT || part == 1 ? 1 : 0;
    for (const int format : {KORVEX_FORMAT_FLOAT64, KORVEX_FORMAT_FLOAT32, KORVEX_FORMAT_FLOAT16,
                             KORVEX_FORMAT_BFLOAT16}) {
      double value = 0;
      require(
          host.limbs(one.kind, words.data(), of_products, 1, format, &value) == KORVEX_EXACT_DONE,
          "the host library refuses a state");
      const auto bytes = static_cast<std::size_t>(kBytes[format]);
      StateArray out;
      out.name = "out";
      out.bytes.resize(bytes, 0xa5);
      device.place(out);
      device.launch(*one.kernel, one.additions[0].shape,
                    {static_cast<std::uint64_t>(one.kind), state.address,
                     static_cast<std::uint64_t>(of_products), static_cast<std::uint64_t>(format),
                     out.address},
                    one.seed);
      device.read(out);
      std::uint64_t found = 0;
      std::memcpy(&found, out.bytes.data(), bytes);
      std::ostringstream text;
      text << "result differs: in format " << format << " it is " << std::hex << found
           << ", on the host " << bits_of(value, format);
      require(found == bits_of(value, format), text.str());
    }
  }
}

}  // namespace

std::string name_of(const StateCase& one) {
  std::ostringstream name;
  name << one.kernel->name << " kind=" << one.kind << " seed=" << one.seed;
  for (const StateAddition& addition : one.additions) {
    name << " [n=" << addition.n << " x=" << addition.x.format << "/" << addition.x.stride << "/"
         << static_cast<int>(addition.x.data) << " y=" << addition.y.format << "/"
         << addition.y.stride << "/" << static_cast<int>(addition.y.data)
         << " sign=" << addition.sign << " blocks=" << addition.shape.blocks()
         << " threads=" << addition.shape.threads() << "]";
  }
  if (one.arrays) {
    name << name_of(*one.arrays);
  }
  if (one.many) {
    name << name_of(*one.many);
  }
  return name.str();
}

void run_state_case(StateRunner& device, const korvex_exact_functions& host, const StateCase& one) {
  device.forget();
  try {
    const std::string_view kernel = one.kernel->name;
    if (one.arrays) {
      run_array_case(device, host, one);
    } else if (one.many) {
      run_many_case(device, host, one);
    } else if (kernel == "korvex_settle_state") {
      run_settling(device, host, one);
    } else if (kernel == "korvex_round_state") {
      run_rounding(device, host, one);
    } else {
      run_additions(device, host, one);
    }
  } catch (const Failure& failure) {
    throw Failure(name_of(one) + "\n  " + failure.what());
  }
}

// --- Which cases there are

namespace {

class CaseMaker {
 public:
  CaseMaker(const StateKernelRow& kernel, bool is_long, std::uint64_t seed)
      : kernel_(kernel), is_long_(is_long), seed_(seed) {}

  std::vector<StateCase> of_additions(bool of_products) {
    // Every format, with any other for products, at sizes around the ends of tiles.
    for (int format = 0; format < kFormats; ++format) {
      for (const StateData data :
           {StateData::kModerate, StateData::kAnyBits, StateData::kSpecial}) {
        const int rounds = is_long_ ? 6 : 1;
        for (int round = 0; round < rounds; ++round) {
          begin(of_products ? KORVEX_EXACT_DOT : KORVEX_EXACT_SUM);
          add(next_size(), format, data);
          add(next_size(), format, data);
        }
      }
    }
    for (int format = 0; format < kFormats; ++format) {
      begin(KORVEX_EXACT_MOMENTS);
      add(next_size(), format, StateData::kSpecial);
      add(next_size(), kernels::kFloat64Format, StateData::kDoubles);
    }
    // Doubles of every shape, with plans that go stale and digits everywhere.
    for (int round = 0; round < (is_long_ ? 40 : 8); ++round) {
      begin(of_products ? KORVEX_EXACT_DOT : KORVEX_EXACT_SUM);
      for (int i = 0; i < 3; ++i) {
        add(next_size(), kernels::kFloat64Format, StateData::kDoubles);
      }
    }
    return std::move(cases_);
  }

  std::vector<StateCase> of_words() {
    for (int round = 0; round < (is_long_ ? 60 : 12); ++round) {
      for (const int kind : {KORVEX_EXACT_SUM, KORVEX_EXACT_DOT, KORVEX_EXACT_MOMENTS}) {
        begin(kind);
        StateAddition launch;
        launch.shape = {{1 + static_cast<unsigned>(round) % 2, 1, 1},
                        {round % 3 == 0 ? 32U : 256U, 1, 1}};
        cases_.back().additions.push_back(launch);
      }
    }
    return std::move(cases_);
  }

 private:
  void begin(int kind) {
    StateCase one;
    one.kernel = &kernel_;
    one.kind = kind;
    one.seed = seed_++;
    cases_.push_back(one);
  }

  void add(std::int64_t n, int format, StateData data) {
    test::Random random(seed_ * 77);
    constexpr std::int64_t kStrides[] = {1, 1, 2, -1, 3, -2, 0};
    const auto stride = [&] { return kStrides[static_cast<std::size_t>(random.below(7))]; };
    StateAddition addition;
    addition.n = n;
    addition.x = {format, stride(), data};
    addition.y = {random.below(2) == 0 ? format : random.below(kFormats), stride(),
                  random.below(3) == 0 ? StateData::kSpecial : data};
    addition.sign = random.below(3) == 0 ? -1 : 1;
    constexpr Shape kShapes[] = {
        {{1, 1, 1}, {256, 1, 1}}, {{2, 1, 1}, {64, 1, 1}}, {{3, 1, 1}, {32, 1, 1}},
        {{2, 2, 1}, {32, 2, 1}},  {{1, 1, 1}, {32, 1, 1}},
    };
    addition.shape = kShapes[seed_ % std::size(kShapes)];
    addition.seed = seed_++;
    cases_.back().additions.push_back(addition);
  }

  std::int64_t next_size() {
    constexpr std::int64_t kOrdinary[] = {513, 1, 256, 33, 0, 1025, 511, 257, 31, 600, 255, 2049};
    constexpr std::int64_t kLong[] = {4609, 512, 2, 32, 8193, 1023, 16385, 700};
    if (is_long_ && size_ % 2 == 1) {
      return kLong[size_++ / 2 % std::size(kLong)];
    }
    return kOrdinary[size_++ % std::size(kOrdinary)];
  }

  const StateKernelRow& kernel_;
  bool is_long_;
  std::uint64_t seed_;
  std::size_t size_ = 0;
  std::vector<StateCase> cases_;
};

}  // namespace

std::vector<StateCase> state_cases_of(const StateKernelRow& kernel, bool is_long,
                                      std::uint64_t seed) {
  if (is_of_arrays(kernel)) {
    return array_cases_of(kernel, is_long, seed);
  }
  if (is_of_many(kernel)) {
    return many_cases_of(kernel, is_long, seed);
  }
  CaseMaker maker(kernel, is_long, seed);
  const std::string_view name = kernel.name;
  if (name == "korvex_add_elements" || name == "korvex_add_products") {
    return maker.of_additions(name == "korvex_add_products");
  }
  return maker.of_words();
}

}  // namespace korvex::launches
