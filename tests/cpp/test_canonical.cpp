// SPDX-License-Identifier: Apache-2.0
// Canonical limbs: the fast way, the wide way that it falls back to, and exact bits.
#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>
#include <vector>

#include "bit_number.h"
#include "check.h"
#include "korvex/arithmetic/exact/canonical.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

using arithmetic::kCanonicalPasses;
using Limbs = std::array<double, 4>;

arithmetic::LongAccumulator workspace;  // its content does not matter between calls

bool same_bits(const Limbs& a, const double* b) {
  return std::equal(a.begin(), a.end(), b,
                    [](double x, double y) { return bits_of(x) == bits_of(y); });
}

// The fast way must come to rest by itself, and both ways must give the limbs of the definition.
void expect_canonical(const Limbs& given) {
  const std::vector<double> expected = canonical_limbs({given.begin(), given.end()}, 4);
  Limbs fast = given;
  CHECK(arithmetic::try_canonicalise(fast.data(), kCanonicalPasses));
  CHECK(same_bits(fast, expected.data()));
  Limbs wide = given;
  arithmetic::canonicalise(wide.data(), workspace, 0);
  CHECK(same_bits(wide, expected.data()));
  std::for_each(fast.begin(), fast.end(), [](double limb) { Tally::all().record(limb); });
}

void ties_below_the_first_limb() {
  expect_canonical({1, 0x1p-53, 0x1p-1074, 0});
  expect_canonical({1, 0x1p-53, -0x1p-1074, 0});
  expect_canonical({1, -0x1p-54, -0x1p-1074, 0});
  expect_canonical({0x1.0000000000001p+0, -0x1p-53, 0x1p-200, 0});  // canonical, with an odd limb
  expect_canonical({0x1.0000000000001p+0, 0x1p-53, -0x1p-200, 0});
  expect_canonical({0x1.0000000000003p+0, 0x1p-53, -0x1p-200, 0});
  expect_canonical({0x1.fffffffffffffp+0, 0x1p-53, -0x1p-107, 0});
}

void ties_below_the_second_limb() {
  expect_canonical({1, 0x1p-60, 0x1p-113, 0x1p-1074});
  expect_canonical({1, 0x1p-60, -0x1p-114, -0x1p-1074});
  expect_canonical({1, 0x1p-53, 0x1p-106, 0x1p-1074});
  expect_canonical({1, 0x1p-53, -0x1p-106, 0x1p-160});
  expect_canonical({1, -0x1p-54, -0x1p-108, -0x1p-162});
}

void zeros_and_disorder() {
  expect_canonical({0, 0, 0, 0});
  expect_canonical({-0.0, -0.0, -0.0, -0.0});
  expect_canonical({0, 0, 0, -0x1p-1074});
  expect_canonical({0x1p-1074, 0x1p-500, 1, 0x1p+500});
  expect_canonical({1, -1, 0x1p-1074, 0});
  expect_canonical({0x1p+1019, 0x1p+1019, -0x1p+1019, -0x1p+1019});
}

// All quadruples of numbers whose halves, units and ties meet: the wide way is the reference here,
// and the suite of the long accumulator has held it against exact bits.
void every_quadruple_of_meeting_numbers() {
  const double values[] = {0,        1,         -1,        0x1.0000000000001p+0,
                           0x1p-52,  -0x1p-52,  0x1p-53,   -0x1p-53,
                           0x1p-54,  -0x1p-54,  0x1p-105,  -0x1p-105,
                           0x1p-106, -0x1p-106, 0x1p-1074, -0x1p-1074};
  const std::size_t count = std::size(values);
  long unsettled = 0;
  long different = 0;
  for (std::size_t code = 0; code < count * count * count * count; ++code) {
    const Limbs given = {values[code % count], values[code / count % count],
                         values[code / count / count % count],
                         values[code / count / count / count]};
    Limbs fast = given;
    unsettled += arithmetic::try_canonicalise(fast.data(), kCanonicalPasses) ? 0 : 1;
    Limbs wide = given;
    arithmetic::canonicalise_wide(wide.data(), workspace);
    different += same_bits(fast, wide.data()) ? 0 : 1;
  }
  CHECK(unsettled == 0);
  CHECK(different == 0);
}

void random_quadruples_close_to_ties() {
  Random random(21);
  for (int i = 0; i < 300; ++i) {
    Limbs given{};
    int exponent = random.between(-500, 500);
    for (double& limb : given) {
      limb = random.below(2) == 0 ? random.with_exponent(exponent)
                                  : random.sign() * std::ldexp(1.0, exponent);
      exponent -= random.between(50, 56);
    }
    expect_canonical(given);
  }
}

void large_limbs_take_the_wide_way() {
  const double large = 0x1p+1023;
  Limbs limbs = {large, large, -large, 0x1p-1074};
  arithmetic::canonicalise(limbs.data(), workspace);
  CHECK_SAME_BITS(limbs[0], large);
  CHECK_SAME_BITS(limbs[1], 0x1p-1074);
  limbs = {large, large, large, large};
  const std::vector<double> expected = canonical_limbs({large, large, large, large}, 4);
  arithmetic::canonicalise(limbs.data(), workspace);
  CHECK(same_bits(limbs, expected.data()));
}

// What the forced fallback rests on: without passes the fast way reports failure and keeps the sum.
void without_passes_the_fast_way_gives_up() {
  Limbs limbs = {0x1p-1074, 1, 0x1p-53, 0};
  CHECK(!arithmetic::try_canonicalise(limbs.data(), 0));
  arithmetic::canonicalise_wide(limbs.data(), workspace);
  CHECK_SAME_BITS(limbs[0], 0x1.0000000000001p+0);
  CHECK_SAME_BITS(limbs[1], -0x1p-53);
  CHECK_SAME_BITS(limbs[2], 0x1p-1074);
}

}  // namespace

void test_canonical() {
  ties_below_the_first_limb();
  ties_below_the_second_limb();
  zeros_and_disorder();
  every_quadruple_of_meeting_numbers();
  random_quadruples_close_to_ties();
  large_limbs_take_the_wide_way();
  without_passes_the_fast_way_gives_up();
}

}  // namespace korvex::test
