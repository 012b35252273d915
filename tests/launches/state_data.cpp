// SPDX-License-Identifier: Apache-2.0
// The elements that are drawn, bit by bit.
#include "tests/launches/state_data.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

namespace korvex::launches {
namespace {

using kernels::kStateKernels;
using kernels::StateKernelRow;

static_assert(int{kernels::kBoolFormat} == int{KORVEX_FORMAT_BOOL});
static_assert(int{kernels::kInt64Format} == int{KORVEX_FORMAT_INT64});
static_assert(int{kernels::kUint64Format} == int{KORVEX_FORMAT_UINT64});
static_assert(int{kernels::kFloat16Format} == int{KORVEX_FORMAT_FLOAT16});
static_assert(int{kernels::kBfloat16Format} == int{KORVEX_FORMAT_BFLOAT16});
static_assert(int{kernels::kFloat32Format} == int{KORVEX_FORMAT_FLOAT32});
static_assert(int{kernels::kFloat64Format} == int{KORVEX_FORMAT_FLOAT64});

// Of floating-point formats: the bits of the exponent, and of the fraction.
constexpr int kFractionBits[kFormats] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 10, 7, 23, 52};

bool is_floating(int format) { return format >= kernels::kFloat16Format; }

std::uint64_t infinity_of(int format) {
  const int width = static_cast<int>(8 * kBytes[format]);
  return (std::uint64_t{1} << (width - 1)) - (std::uint64_t{1} << kFractionBits[format]);
}

double draw_notable(test::Random& random, StateData data) {
  constexpr double kLargest = std::numeric_limits<double>::max();
  constexpr double kLarge[] = {kLargest, 0x1p+1023, 0x1p+970, 0x1p+969, 0x1p-1074, 1.0};
  constexpr double kTies[] = {2049.0, 257.0, 0x1.000001p+0, 1.0, 0x1p-1000, 0.0};
  const auto i = static_cast<std::size_t>(random.below(6));
  return random.sign() * (data == StateData::kLarge ? kLarge[i] : kTies[i]);
}

// The bits of one element. Preconditions: data kLarge and kTies are float64's alone.
std::uint64_t draw_bits(test::Random& random, const StateOperand& operand, double value) {
  const int format = operand.format;
  std::uint64_t bits = random.bits() >> (64 - 8 * kBytes[format]);
  if (!is_floating(format)) {
    return operand.data == StateData::kModerate ? bits & 0x7 : bits;
  }
  const std::uint64_t infinity = infinity_of(format);
  if (operand.data == StateData::kSpecial && random.below(8) == 0) {
    const std::uint64_t sign = (bits & 1) << (8 * kBytes[format] - 1);
    const std::uint64_t kinds[] = {infinity, infinity, infinity | 1, 0, 1};
    return kinds[static_cast<std::size_t>(random.below(5))] | sign;
  }
  if (operand.data == StateData::kDoubles && format == kernels::kFloat64Format) {
    return std::bit_cast<std::uint64_t>(value);
  }
  if (operand.data == StateData::kLarge || operand.data == StateData::kTies) {
    return std::bit_cast<std::uint64_t>(draw_notable(random, operand.data));
  }
  if (operand.data == StateData::kModerate) {  // a few binades around 1
    const std::uint64_t one = (infinity >> 1) & infinity;
    const auto lower = static_cast<std::uint64_t>(random.below(4)) << kFractionBits[format];
    const std::uint64_t fraction = bits & ((std::uint64_t{1} << kFractionBits[format]) - 1);
    return (one - lower) | fraction |
           (bits & (infinity + (std::uint64_t{1} << kFractionBits[format])));
  }
  return (bits & infinity) == infinity ? bits & ~infinity : bits;
}

}  // namespace

const StateKernelRow& kernel_named(std::string_view name) {
  return *std::ranges::find_if(kStateKernels,
                               [&](const StateKernelRow& row) { return row.name == name; });
}

DrawnOperand draw_operand(test::Random& random, const StateOperand& operand, std::int64_t n,
                          const char* name) {
  const std::int64_t bytes = kBytes[operand.format];
  const std::int64_t places = n == 0 ? 0 : std::abs(operand.stride) * (n - 1) + 1;
  DrawnOperand drawn;
  drawn.byte_stride = operand.stride * bytes;
  drawn.first = operand.stride < 0 && n > 0 ? (places - 1) * bytes : 0;
  drawn.array.name = name;
  drawn.array.is_input = true;
  drawn.array.past_16 =
      static_cast<std::uint64_t>(bytes * random.below(static_cast<int>(16 / bytes)));
  drawn.array.bytes.resize(static_cast<std::size_t>(places * bytes));
  const auto shape = static_cast<test::Shape>(random.below(static_cast<int>(test::Shape::kCount)));
  const auto values = test::draw_many(random, shape, static_cast<std::size_t>(places), false);
  for (std::int64_t i = 0; i < places; ++i) {
    const std::uint64_t bits = draw_bits(random, operand, values[static_cast<std::size_t>(i)]);
    std::memcpy(drawn.array.bytes.data() + i * bytes, &bits, static_cast<std::size_t>(bytes));
  }
  return drawn;
}

// The bits that a result array gets for a value of its format.
std::uint64_t bits_of(double value, int format) {
  if (format == KORVEX_FORMAT_FLOAT64) {
    return std::bit_cast<std::uint64_t>(value);
  }
  if (value != value) {
    return format == KORVEX_FORMAT_FLOAT32   ? 0x7fc00000
           : format == KORVEX_FORMAT_FLOAT16 ? 0x7e00
                                             : 0x7fc0;
  }
  const auto bits = std::bit_cast<std::uint32_t>(static_cast<float>(value));
  if (format == KORVEX_FORMAT_FLOAT32) {
    return bits;
  }
  if (format == KORVEX_FORMAT_BFLOAT16) {
    return bits >> 16;
  }
  return std::bit_cast<std::uint16_t>(static_cast<_Float16>(value));
}

void require(bool holds, const std::string& text) {
  if (!holds) {
    throw Failure(text);
  }
}

}  // namespace korvex::launches
