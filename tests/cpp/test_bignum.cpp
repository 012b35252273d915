// SPDX-License-Identifier: Apache-2.0
// Natural numbers and fixed point against plain 128-bit integers, and the one rounding of a big
// number against exact bits.
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "bit_number.h"
#include "check.h"
#include "korvex/arithmetic/bignum/fixed.h"
#include "korvex/arithmetic/bignum/long_accumulator.h"
#include "korvex/arithmetic/bignum/natural.h"
#include "korvex/arithmetic/bignum/truncated_float.h"
#include "korvex/arithmetic/elementary/rms_norm.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

using namespace arithmetic;
__extension__ using Integer = unsigned __int128;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kTiny = 0x1p-1074;

std::uint64_t random_bits(Random& random) { return random.bits(); }

Natural<2> natural_of(Integer value) {
  return {{static_cast<std::uint64_t>(value), static_cast<std::uint64_t>(value >> 64)}};
}

Integer integer_of(const Natural<2>& a) {
  return static_cast<Integer>(a.word[1]) << 64 | a.word[0];
}

// Of any length up to 128 bits, words of zeros and of ones among them.
Integer random_integer(Random& random) {
  const std::uint64_t upper = random_bits(random);
  Integer value = static_cast<Integer>(upper) << 64 | random_bits(random);
  if (random.below(8) == 0) {
    value |= ~std::uint64_t{0};
  }
  if (random.below(8) == 0) {
    value &= ~Integer{0} << 64;
  }
  return value >> random.below(128);
}

// ---- natural numbers ----

void naturals_agree_with_integers() {
  Random random(71);
  for (int i = 0; i < 3000; ++i) {
    const Integer a = random_integer(random);
    const Integer b = random_integer(random);
    Natural<2> in_place = natural_of(a);
    add(in_place, natural_of(b), in_place);
    CHECK(integer_of(in_place) == a + b);
    CHECK(integer_of(natural_of(a) + natural_of(b)) == a + b);
    subtract(natural_of(b), in_place, in_place);  // modulo 2^128
    CHECK(integer_of(in_place) == Integer{0} - a);
    CHECK(integer_of(natural_of(a > b ? a : b) - natural_of(a > b ? b : a)) ==
          (a > b ? a - b : b - a));
    CHECK((natural_of(a) < natural_of(b)) == (a < b));
    CHECK(is_zero(natural_of(a)) == (a == 0));
    CHECK(a == 0 ? highest_bit(natural_of(a)) == -1 : (a >> highest_bit(natural_of(a))) == 1);
    CHECK(natural_of(a).size() == (a == 0 ? 0 : a >> 64 == 0 ? 1 : 2));
  }
}

void shifts_and_bits_agree_with_integers() {
  Random random(79);
  for (int i = 0; i < 3000; ++i) {
    const Integer a = random_integer(random);
    const int shift = random.below(300) - 150;
    const Integer shifted = shift >= 128 || shift <= -128 ? 0
                            : shift >= 0                  ? a >> shift
                                                          : a << -shift;
    CHECK(integer_of(shifted_down<2>(natural_of(a), shift)) == shifted);
    CHECK(bits_from(natural_of(a), shift) == static_cast<std::uint64_t>(shifted));
    CHECK(bit_at(natural_of(a), shift) == ((shifted & 1) != 0));
    const bool is_multiple = shift <= 0 || a == 0 || (shift < 128 && shifted << shift == a);
    CHECK(any_below(natural_of(a), shift) == !is_multiple);
    Natural<2> up = natural_of(a);
    const int count = random.below(63) + 1;
    shift_up(up, count);
    CHECK(integer_of(up) == a << count);
  }
}

void products_and_quotients_agree_with_integers() {
  Random random(80);
  for (int i = 0; i < 3000; ++i) {
    const Integer a = random_integer(random);
    const std::uint64_t bits = random_bits(random);
    const std::uint64_t factor = bits >> random.below(64);
    CHECK(integer_of(natural_of(a) * factor) == a * factor);
    Natural<3> product;
    multiply(natural_of(a), factor, product);
    const Integer upper = (a >> 64) * factor + (((a & ~std::uint64_t{0}) * factor) >> 64);
    CHECK(product.word[0] == static_cast<std::uint64_t>(a) * factor);
    CHECK(product.word[1] == static_cast<std::uint64_t>(upper));
    CHECK(product.word[2] == static_cast<std::uint64_t>(upper >> 64));
    const auto half = static_cast<std::uint64_t>(a);
    Natural<3> half_squared;
    square(Natural<1>{{half}}, half_squared);
    CHECK(shifted_down<1>(half_squared, 0).word[0] == half * half);
    CHECK(bits_from(half_squared, 64) == static_cast<std::uint64_t>(Integer{half} * half >> 64));
    CHECK(half_squared.word[2] == 0);
    const auto short_divisor = static_cast<std::uint32_t>(random_bits(random) >> 32) | 1;
    CHECK(integer_of(natural_of(a) / short_divisor) == a / short_divisor);
    for (const std::uint64_t divisor : {std::uint64_t{short_divisor}, (factor >> 1) | 1}) {
      Natural<2> quotient = natural_of(a);
      CHECK(divide(quotient, divisor) == (a % divisor != 0));
      CHECK(integer_of(quotient) == a / divisor);
    }
  }
}

// (a + b)^2 = a^2 + 2 a b + b^2 with b a word.
void squares_of_many_words_add_up() {
  Random random(83);
  for (int i = 0; i < 200; ++i) {
    Natural<8> a{};
    for (int k = 0; k < random.below(8); ++k) {
      a.word[k] = random_bits(random);
    }
    const std::uint64_t b = random_bits(random);
    Natural<17> whole{}, of_a{}, cross{}, of_b{};
    square(a + Natural<8>{{b}}, whole);
    square(a, of_a);
    square(Natural<1>{{b}}, of_b);
    multiply(a, b, cross);
    shift_up(cross, 1);
    CHECK(is_zero(of_a + cross + of_b - whole));
  }
}

void square_roots_are_whole_and_say_what_is_left() {
  Random random(84);
  for (int i = 0; i < 2000; ++i) {
    const Integer a = random_integer(random);
    Natural<2> root;
    const bool is_exact = square_root(natural_of(a), 0, root);
    const auto r = static_cast<std::uint64_t>(integer_of(root));
    CHECK(root.word[1] == 0 && Integer{r} * r <= a);
    CHECK(r == ~std::uint64_t{0} || Integer{r + 1} * (r + 1) > a);
    CHECK(is_exact == (Integer{r} * r == a));
    CHECK(square_root(natural_of(Integer{r} * r), 0, root) && root.word[0] == r);
  }
}

// ---- the one rounding ----

void big_numbers_divide_and_round() {
  Natural<3> number{{0, 7}};  // 7 * 2^64
  CHECK(divide(number, 3));
  CHECK(bits_from(number, 0) == 0x5555555555555555 && bits_from(number, 64) == 2);
  CHECK(divide(number, (std::uint64_t{1} << 63) - 1));
  CHECK(bits_from(number, 0) == 4 && highest_bit(number) == 2);
  CHECK_SAME_BITS(nearest(number, -1074, false), 4 * kTiny);
  CHECK_SAME_BITS(nearest(number, -1077, false), 0.0);   // a tie
  CHECK_SAME_BITS(nearest(number, -1077, true), kTiny);  // beyond it
  CHECK_SAME_BITS(nearest(number, 1021, true), 0x1p+1023);
  CHECK_SAME_BITS(nearest(number, 1022, false), kInf);
  number = {{(std::uint64_t{1} << 54) - 1}};
  CHECK_SAME_BITS(nearest(number, 1024 - 54, false), kInf);
  CHECK_SAME_BITS(nearest(number, 0, false), 0x1p+54);
}

// Any bits, in units of 2^-1074 and as they lie in a long accumulator.
void rounding_agrees_with_exact_bits() {
  Random random(85);
  for (int i = 0; i < 1000; ++i) {
    const double upper = std::fabs(random.any_finite());
    const double lower = std::fabs(random.any_finite());
    BitNumber bits;
    LongAccumulator sum;
    sum.clear();
    for (const double x : {upper, lower, std::ldexp(upper, -53), std::ldexp(upper, -106)}) {
      bits.add(x);
      sum.add(x);
    }
    LongAccumulator::Magnitude magnitude;
    CHECK(!sum.magnitude(magnitude));
    CHECK_SAME_BITS(nearest(magnitude, kUnitExponent, false), bits.rounded());
    CHECK(sum.settle_to_read());
    CHECK_SAME_BITS(nearest(sum, kUnitExponent, false), bits.rounded());
    sum.add(-4.0);
    sum.add(-kTiny);
    bits.add(-4.0);
    bits.add(-kTiny);
    const bool is_negative = sum.magnitude(magnitude);
    CHECK_SAME_BITS(with_sign(nearest(magnitude, kUnitExponent, false), is_negative),
                    bits.rounded());
  }
}

// ---- what drops words ----

// While nothing was dropped it is the exact product; afterwards too small, by no more than it says.
void a_truncated_float_brackets_the_product() {
  Random random(86);
  for (int i = 0; i < 100; ++i) {
    TruncatedFloat<3> narrow;
    TruncatedFloat<40> exact;
    TruncatedFloat<3> halves[2];
    for (int k = 0; k < 30; ++k) {
      const double x = random.with_exponent(random.between(-60, 60));
      narrow.multiply(x);
      exact.multiply(x);
      halves[k % 2].multiply(x);
    }
    halves[0].multiply(halves[1]);
    CHECK(exact.dropped == 0);
    for (const TruncatedFloat<3>& part : {narrow, halves[0]}) {
      CHECK(part.dropped > 0);
      const auto position = static_cast<int>(part.exponent - exact.exponent);
      const Natural<4> lower = shifted_down<4>(part, 0);
      const Natural<4> upper = shifted_down<4>(exact, position);  // rounded down
      CHECK(!(upper < lower));
      // Below 2^64 units each: see write_product_limbs.
      const Natural<4> bound{{0, 2 * static_cast<std::uint64_t>(part.dropped)}};
      CHECK(upper - lower < bound);
    }
  }
}

// ---- fixed point ----

// Three words hold the product of two numbers with one fractional word each, exactly.
void products_lose_less_than_their_words() {
  Random random(72);
  for (int i = 0; i < 3000; ++i) {
    const std::uint64_t a = random_bits(random);
    const std::uint64_t b = random_bits(random);
    const Fixed<3> product = fixed_product(Fixed<3>{{0, a}}, Fixed<3>{{0, b}});
    const Integer exact = static_cast<Integer>(a) * b;
    CHECK((static_cast<Integer>(product.word[1]) << 64 | product.word[0]) == exact);
    CHECK(product.word[2] == 0);
    // In two words the lower half is cut off.
    const Fixed<2> cut = fixed_product(natural_of(a), natural_of(b));
    CHECK(static_cast<std::uint64_t>(exact >> 64) - cut.word[0] <= 2 && cut.word[1] == 0);
  }
}

void quotients_are_cut_to_units() {
  Random random(73);
  for (int i = 0; i < 2000; ++i) {
    const std::uint64_t a = random_bits(random) >> 2 | std::uint64_t{1} << 61;
    const std::uint64_t b = random_bits(random) >> 2 | std::uint64_t{1} << 61;
    const Fixed<2> unit =
        fixed_quotient(shifted_down<2>(natural_of(a), -2), shifted_down<2>(natural_of(b), -2));
    CHECK(integer_of(unit) == (static_cast<Integer>(a) << 64) / b);
  }
}

void square_roots_are_cut_to_units() {
  Random random(74);
  for (int i = 0; i < 40; ++i) {
    RootFixed a;
    for (auto& word : a.word) {
      word = random_bits(random);
    }
    a.word[kRootWords - 1] = static_cast<std::uint64_t>(random.below(3)) + 1;
    RootFixed root;
    fixed_square_root(a, root);
    const RootFixed square = fixed_product(root, root);  // too small by fewer than 9 units
    CHECK(!(a < square));
    CHECK(highest_bit(a - square) < 6);
  }
  for (const std::uint64_t k : {1u, 2u, 3u}) {
    RootFixed root;
    fixed_square_root(fixed_from<kRootWords>(k * k, -2), root);
    CHECK(is_zero(root - fixed_from<kRootWords>(k, -1)));
  }
}

// One bit that differs from that of half a gap decides, whatever follows it.
void one_bit_decides_a_rounding() {
  const Fixed<5> one = fixed_from<5>(1, 0);
  for (int position = 54; position <= 256 - 25; ++position) {  // down to the last that counts
    const Fixed<5> little = fixed_from<5>(1, -position);
    CHECK(rounded(one + little, 0, 24).is_decided);
    if (position < 256 - 25) {
      CHECK(rounded(one + fixed_from<5>(1, -53) - little, 0, 24).is_decided);
    }
  }
}

void inverse_roots_of_what_is_no_positive_number() {
  const auto special = [](double eps, bool any_nan, bool any_infinite) {
    ProductAccumulator squares;
    squares.clear();
    return inverse_root(squares, any_nan, any_infinite, 3, eps).special;
  };
  const double nan = canonical_nan();
  CHECK_SAME_BITS(special(0, false, false), kInf);
  CHECK_SAME_BITS(special(1, false, false), 1);
  CHECK_SAME_BITS(special(-1, false, false), nan);
  CHECK_SAME_BITS(special(kInf, false, false), 0.0);
  CHECK_SAME_BITS(special(1, false, true), 0.0);
  for (const bool any_infinite : {false, true}) {
    CHECK_SAME_BITS(special(1, true, any_infinite), nan);
    CHECK_SAME_BITS(special(nan, false, any_infinite), nan);
    CHECK_SAME_BITS(special(-kInf, false, any_infinite), nan);
  }
}

// A double made of fixed point and back is the same.
void rounding_gives_back_doubles_and_finds_midpoints() {
  Random random(75);
  for (int i = 0; i < 2000; ++i) {
    const std::uint64_t bits = random_bits(random);
    const double x = std::ldexp(1.0 + static_cast<double>(bits >> 12) * 0x1p-52, -random.below(60));
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
    if (small.is_decided) {
      CHECK_SAME_BITS(small.value, std::ldexp(x, down));
    }
  }
}

}  // namespace

void test_bignum() {
  naturals_agree_with_integers();
  shifts_and_bits_agree_with_integers();
  products_and_quotients_agree_with_integers();
  squares_of_many_words_add_up();
  square_roots_are_whole_and_say_what_is_left();
  big_numbers_divide_and_round();
  rounding_agrees_with_exact_bits();
  a_truncated_float_brackets_the_product();
  products_lose_less_than_their_words();
  quotients_are_cut_to_units();
  square_roots_are_cut_to_units();
  one_bit_decides_a_rounding();
  inverse_roots_of_what_is_no_positive_number();
  rounding_gives_back_doubles_and_finds_midpoints();
}

}  // namespace korvex::test
