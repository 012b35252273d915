// SPDX-License-Identifier: Apache-2.0
// Wide fixed-point numbers against plain 128-bit integers, both phases of exp, log, sigmoid and
// tanh against each other, and identities that hold for correctly rounded results alone.
#include <cmath>
#include <cstdint>
#include <limits>

#include "check.h"
#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic.h"
#include "korvex/arithmetic/elementary/rms_norm.h"
#include "korvex/arithmetic/elementary/unary.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

using namespace arithmetic;
__extension__ using Wide = unsigned __int128;

constexpr double kInf = std::numeric_limits<double>::infinity();

std::uint64_t random_bits(Random& random) {
  std::uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) bits = bits << 8 | static_cast<std::uint64_t>(random.below(256));
  return bits;
}

// Two words: an integer of 128 bits in units of 2^-64.
Fixed<2> fixed_of(Wide value) {
  return {{static_cast<std::uint64_t>(value), static_cast<std::uint64_t>(value >> 64)}};
}

Wide wide_of(const Fixed<2>& a) { return static_cast<Wide>(a.word[1]) << 64 | a.word[0]; }

void fixed_point_agrees_with_integers() {
  Random random(71);
  for (int i = 0; i < 3000; ++i) {
    const Wide a = static_cast<Wide>(random_bits(random) >> 8) << 64 | random_bits(random);
    const Wide b = static_cast<Wide>(random_bits(random) >> 8) << 64 | random_bits(random);
    const Wide greater = a > b ? a : b;
    const Wide less = a > b ? b : a;
    CHECK(wide_of(fixed_of(a) + fixed_of(b)) == a + b);
    CHECK(wide_of(fixed_of(greater) - fixed_of(less)) == greater - less);
    CHECK((fixed_of(a) < fixed_of(b)) == (a < b));
    const int shift = random.below(140);
    CHECK(wide_of(shifted_down<2>(fixed_of(a), shift)) == (shift < 128 ? a >> shift : 0));
    CHECK(wide_of(shifted_down<2>(fixed_of(a), -(shift % 8))) == a << (shift % 8));
    Fixed<2> shifted = fixed_of(a);
    shift_up(shifted, shift % 7 + 1);
    CHECK(wide_of(shifted) == a << (shift % 7 + 1));
    const auto divisor = static_cast<std::uint32_t>(random.below(1 << 30)) + 1;
    CHECK(wide_of(fixed_of(a) / divisor) == a / divisor);
    CHECK(wide_of(fixed_of(a >> 32) * divisor) == (a >> 32) * divisor);
    CHECK(a == 0 || (a >> highest_bit(fixed_of(a))) == 1);
  }
}

// Three words hold the product of two numbers with one fractional word each, exactly.
void products_lose_less_than_their_words() {
  Random random(72);
  for (int i = 0; i < 3000; ++i) {
    const std::uint64_t a = random_bits(random);
    const std::uint64_t b = random_bits(random);
    const Fixed<3> product = fixed_product(Fixed<3>{{0, a}}, Fixed<3>{{0, b}});
    const Wide exact = static_cast<Wide>(a) * b;
    CHECK((static_cast<Wide>(product.word[1]) << 64 | product.word[0]) == exact);
    CHECK(product.word[2] == 0);
    // In two words the lower half is cut off.
    const Fixed<2> cut = fixed_product(fixed_of(a), fixed_of(b));
    CHECK(static_cast<std::uint64_t>(exact >> 64) - cut.word[0] <= 2 && cut.word[1] == 0);
  }
}

void quotients_are_cut_to_units() {
  Random random(73);
  for (int i = 0; i < 2000; ++i) {
    const std::uint64_t a = random_bits(random) >> 2 | std::uint64_t{1} << 61;
    const std::uint64_t b = random_bits(random) >> 2 | std::uint64_t{1} << 61;
    const Fixed<2> unit =
        fixed_quotient(shifted_down<2>(fixed_of(a), -2), shifted_down<2>(fixed_of(b), -2));
    CHECK(wide_of(unit) == (static_cast<Wide>(a) << 64) / b);
  }
}

void square_roots_are_cut_to_units() {
  Random random(74);
  for (int i = 0; i < 40; ++i) {
    RootFixed a;
    for (auto& word : a.word) word = random_bits(random);
    a.word[kRootWords - 1] = static_cast<std::uint64_t>(random.below(3)) + 1;
    const RootFixed root = fixed_square_root(a);
    const RootFixed square = fixed_product(root, root);  // too small by fewer than 9 units
    CHECK(!(a < square));
    CHECK(highest_bit(a - square) < 6);
  }
  for (const std::uint64_t k : {1u, 2u, 3u}) {
    CHECK(highest_bit(fixed_square_root(fixed_from<kRootWords>(k * k, -2)) -
                      fixed_from<kRootWords>(k, -1)) == -1);
  }
}

// A double made of fixed point and back is the same.
void rounding_gives_back_doubles_and_finds_midpoints() {
  Random random(75);
  for (int i = 0; i < 2000; ++i) {
    const double x = std::ldexp(1.0 + static_cast<double>(random_bits(random) >> 12) * 0x1p-52,
                                -random.below(60));
    const Fixed<5> fixed = fixed_magnitude<5>(x);
    const Rounded same = rounded(fixed, 0, 24);
    CHECK(same.is_decided);
    CHECK_SAME_BITS(same.value, x);
    const int gap = std::ilogb(x) - 53;  // half a gap
    const Fixed<5> half = fixed_from<5>(1, gap);
    CHECK(!rounded(fixed + half, 0, 24).is_decided);
    const Fixed<5> little = fixed_from<5>(1, -200);
    CHECK_SAME_BITS(rounded(fixed + half + little, 0, 24).value, std::nextafter(x, kInf));
    CHECK_SAME_BITS(rounded(fixed + half - little, 0, 24).value, x);
    CHECK(rounded(fixed + half - little, 0, 24).is_decided);
    // Subnormal results, down to half of the least.
    const int down = -1040 - random.below(60);
    const Rounded small = rounded(fixed, down, 24);
    if (small.is_decided) CHECK_SAME_BITS(small.value, std::ldexp(x, down));
  }
}

void phases_agree() {
  Random random(76);
  for (int i = 0; i < 400; ++i) {
    const double unit = static_cast<double>(random_bits(random) >> 11) * 0x1p-53;
    const double x = std::ldexp(unit + 0.5, random.below(18) - 8);
    if (x < 700) {
      CHECK_SAME_BITS(exponential(x), accurate_exp(x));
      CHECK_SAME_BITS(exponential(-x), accurate_exp(-x));
      CHECK_SAME_BITS(sigmoid(-x), widened_sigmoid(-x));
    }
    CHECK_SAME_BITS(exponential(-700 - 46 * unit * 0.98), accurate_exp(-700 - 46 * unit * 0.98));
    CHECK_SAME_BITS(logarithm(x), accurate_log(x, log_pair(x).value));
    const double tiny = std::ldexp(unit + 0.5, -1030 - random.below(40));
    if (tiny != 0) CHECK_SAME_BITS(logarithm(tiny), accurate_log(tiny, log_pair(tiny).value));
    if (x < 19) {
      CHECK_SAME_BITS(hyperbolic_tangent(x), widened_tanh(x));
      CHECK_SAME_BITS(hyperbolic_tangent(-x), -widened_tanh(x));
    }
    if (x < 38) CHECK_SAME_BITS(sigmoid(x), widened_sigmoid(x));
  }
}

// What a first try decides is what the whole function gives; it leaves few open, and all that is
// not ordinary.
template <Rounded (*Try)(double), double (*Function)(double), class Usual>
void check_first_try(const double* ordinary, int count, const Usual& is_usual) {
  Random random(78);
  int open = 0;
  for (int i = 0; i < count; ++i) {
    const double any = from_bits(random_bits(random));
    const double unit = static_cast<double>(random_bits(random) >> 11) * 0x1p-53;
    const double usual[] = {ordinary[i], 1400 * (unit - 0.5), 1e300 * unit,
                            1.0 + ordinary[i] * 0x1p-20};
    for (const double x : usual) {
      if (is_usual(x) && !Try(x).is_decided) ++open;
    }
    for (const double x : {usual[0], usual[1], usual[2], usual[3], any, std::ldexp(unit, -1060)}) {
      const Rounded tried = Try(x);
      if (tried.is_decided) CHECK_SAME_BITS(tried.value, Function(x));
    }
  }
  CHECK(open <= count / 100);
  const double borders[] = {708.0, 709.78, 709.79, 745.2, 746.0, 19.07,     38.1,
                            kInf,  -kInf,  0.0,    -0.0,  1.0,   0x1p-1074, std::nan("")};
  for (const double border : borders) {
    for (const double x : {border, -border, std::nextafter(border, 0.0)}) {
      const Rounded tried = Try(x);
      if (tried.is_decided) CHECK_SAME_BITS(tried.value, Function(x));
      CHECK(tried.is_decided == is_usual(x));
    }
  }
}

void first_tries_agree() {
  Random random(81);
  constexpr int kCount = 20000;
  static double x[kCount];
  for (double& value : x) {
    const double unit = static_cast<double>(random_bits(random) >> 11) * 0x1p-53;
    value = std::ldexp(unit - 0.5, random.below(34) - 24);
  }
  check_first_try<try_exponential, exponential>(x, kCount,
                                                [](double v) { return absolute(v) < 708; });
  check_first_try<try_sigmoid, sigmoid>(x, kCount, [](double v) { return v > -708; });
  check_first_try<try_tanh, hyperbolic_tangent>(x, kCount,
                                                [](double v) { return absolute(v) >= 0x1p-27; });
  for (double& value : x) value = absolute(value);
  check_first_try<try_logarithm, logarithm>(
      x, kCount, [](double v) { return v >= 0x1p-1022 && v <= kLargest; });
}

void widths_agree() {
  Random random(77);
  for (int i = 0; i < 30; ++i) {
    const double x = static_cast<double>(random_bits(random) >> 11) * 0x1p-50;
    CHECK_SAME_BITS(accurate_sigmoid<5>(x).value, accurate_sigmoid<17>(x).value);
    CHECK_SAME_BITS(accurate_tanh<5>(x + 0x1p-20).value, accurate_tanh<9>(x + 0x1p-20).value);
  }
}

void special_arguments() {
  CHECK_SAME_BITS(exponential(-kInf), 0.0);
  CHECK_SAME_BITS(exponential(kInf), kInf);
  CHECK_SAME_BITS(exponential(kExpOverflow), 0x1.fffffffffff2ap+1023);
  CHECK_SAME_BITS(exponential(std::nextafter(kExpOverflow, kInf)), kInf);
  CHECK_SAME_BITS(exponential(kExpUnderflow), 0x1p-1074);
  CHECK_SAME_BITS(exponential(std::nextafter(kExpUnderflow, -kInf)), 0.0);
  CHECK_SAME_BITS(logarithm(0.0), -kInf);
  CHECK_SAME_BITS(logarithm(-0.0), -kInf);
  CHECK_SAME_BITS(logarithm(-1.0), canonical_nan());
  CHECK_SAME_BITS(logarithm(1.0), 0.0);
  CHECK_SAME_BITS(sigmoid(kInf), 1.0);
  CHECK_SAME_BITS(sigmoid(-kInf), 0.0);
  CHECK_SAME_BITS(hyperbolic_tangent(-kInf), -1.0);
  CHECK_SAME_BITS(hyperbolic_tangent(-0.0), -0.0);
  CHECK_SAME_BITS(square_root(-0.0), -0.0);
  CHECK_SAME_BITS(square_root(-1.0), canonical_nan());
  CHECK_SAME_BITS(relu(-0.0), 0.0);
  CHECK_SAME_BITS(negated(canonical_nan()), double_of(0xfff8000000000000));
}

}  // namespace

void test_elementary() {
  fixed_point_agrees_with_integers();
  products_lose_less_than_their_words();
  quotients_are_cut_to_units();
  square_roots_are_cut_to_units();
  rounding_gives_back_doubles_and_finds_midpoints();
  phases_agree();
  first_tries_agree();
  widths_agree();
  special_arguments();
}

}  // namespace korvex::test
