// SPDX-License-Identifier: Apache-2.0
// Lanes of a host register against one double: the tries of exp, log, sigmoid and tanh give
// each lane what they give its argument alone, whatever stands in the other lanes; and each float16
// is read as the same double by lanes and alone.
#include <cmath>
#include <cstdint>
#include <limits>

#include "check.h"
#include "korvex/arithmetic/elementary/logarithm.h"
#include "korvex/arithmetic/elementary/logistic.h"
#include "korvex/kernels/host/formats.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/quick_lanes.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

using namespace arithmetic;

constexpr double kInf = std::numeric_limits<double>::infinity();

constexpr double kUnusual[] = {
    0.0,     -0.0,   kInf,   -kInf,    0x1p-1074, -0x1p-1074, 0x1p-1022, 0x1.fffffffffffffp-1023,
    708.0,   -708.0, 709.79, -745.2,   1e300,     -1e300,     1.0,       -1.0,
    0x1p-27, 38.0,   19.07,  -19.0625, 40.0,      0x1p-60,    kLargest,  -kLargest};

double random_argument(Random& random) {
  std::uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) {
    bits = bits << 8 | static_cast<std::uint64_t>(random.below(256));
  }
  switch (random.below(5)) {
    case 0:
      return from_bits(bits);
    case 1:
      return kUnusual[random.below(static_cast<int>(sizeof kUnusual / sizeof kUnusual[0]))];
    case 2:
      return canonical_nan();
    default:
      return std::ldexp(static_cast<double>(bits >> 11) * 0x1p-53 - 0.25, random.below(40) - 28);
  }
}

// As many as every register has lanes for, so that all builds check the same.
constexpr int kGroup = 8;
static_assert(kGroup % kHostLanes == 0);

struct Group {
  double x[kGroup];
  explicit Group(Random& random) {
    for (double& value : x) {
      value = random_argument(random);
    }
  }
};

template <class LanesTry, class Try>
int decided_lanes(const Group& group, const LanesTry& lanes_try, const Try& try_one) {
  int decided = 0;
  for (int i = 0; i < kGroup; i += kHostLanes) {
    const RoundedOf<HostDoubles> lanes = lanes_try(HostLanes::load(group.x + i));
    double stored[kHostLanes];
    HostLanes::store(stored, lanes.value);
    bool all_decided = true;
    for (int j = 0; j < kHostLanes; ++j) {
      const Rounded one = try_one(group.x[i + j]);
      CHECK(lane(lanes.is_decided, j) == one.is_decided);
      // Not recorded: without FMA others are decided.
      CHECK(!one.is_decided || bits_of(stored[j]) == bits_of(one.value));
      all_decided = all_decided && one.is_decided;
      decided += one.is_decided ? 1 : 0;
    }
    CHECK(all(lanes.is_decided) == all_decided);
  }
  return decided;
}

void first_tries_agree_in_all_lanes() {
  Random random(79);
  constexpr int kRounds = 20000;
  int decided[7] = {};
  for (int round = 0; round < kRounds; ++round) {
    const Group group(random);
    decided[0] += decided_lanes(group, quick_exponential<HostDoubles>, quick_exponential<double>);
    decided[1] += decided_lanes(group, quick_logarithm<HostDoubles>, quick_logarithm<double>);
    decided[2] += decided_lanes(group, quick_sigmoid<HostDoubles>, quick_sigmoid<double>);
    decided[3] += decided_lanes(group, try_tanh<HostDoubles>, try_tanh<double>);
    decided[4] += decided_lanes(group, quick_tanh<HostDoubles>, quick_tanh<double>);
    decided[5] += decided_lanes(group, any_exponential<HostDoubles>, any_exponential<double>);
    decided[6] += decided_lanes(group, any_logarithm<HostDoubles>, any_logarithm<double>);
    decided_lanes(group, any_sigmoid<HostDoubles>, any_sigmoid<double>);
  }
  for (const int count : decided) {
    CHECK(count > kRounds * kGroup / 4);
    CHECK(count < kRounds * kGroup);
  }
}

void operations_agree_in_all_lanes() {
  Random random(80);
  for (int round = 0; round < 5000; ++round) {
    const Group left(random);
    const Group right(random);
    for (int i = 0; i < kGroup; i += kHostLanes) {
      const double* x = left.x + i;
      const double* y = right.x + i;
      const HostDoubles a = HostLanes::load(x);
      const HostDoubles b = HostLanes::load(y);
      const HostDoubles with_sign = with_sign_of(b, absolute(a));
      const HostDoubles less = lesser(a, b);
      const HostDoubles chosen = selected(a >= b, a, b);
      const auto is_equal = a == b;
      for (int j = 0; j < kHostLanes; ++j) {
        CHECK_SAME_BITS(lane(with_sign, j), std::copysign(x[j], y[j]));
        CHECK_SAME_BITS(lane(less, j), x[j] < y[j] ? x[j] : y[j]);
        CHECK_SAME_BITS(lane(chosen, j), x[j] >= y[j] ? x[j] : y[j]);
        CHECK(lane(is_equal, j) == (x[j] == y[j]));
      }
    }
  }
}

// All NaNs count as one: a sum takes note of a NaN, not of its payload.
void every_float16_is_read_alike() {
  for (int first = 0; first < 0x10000; first += kHostLanes) {
    std::uint16_t halves[kHostLanes];
    for (int j = 0; j < kHostLanes; ++j) {
      halves[j] = static_cast<std::uint16_t>(first + j);
    }
    const HostDoubles values = host::Float16Format::load(halves);
    bool is_same = true;
    for (int j = 0; j < kHostLanes; ++j) {
      const double one = host::Float16Format::high(halves[j]);
      const double other = lane(values, j);
      is_same = is_same && (std::isnan(one) ? std::isnan(other) : to_bits(one) == to_bits(other));
    }
    CHECK(is_same);
  }
}

}  // namespace

void test_host_doubles() {
  first_tries_agree_in_all_lanes();
  operations_agree_in_all_lanes();
  every_float16_is_read_alike();
}

}  // namespace korvex::test
