// SPDX-License-Identifier: Apache-2.0
// The parallel dot kernel's own code on a simulated grid, against exact bits.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "korvex/kernels/device/parallel_dot.h"
#include "simulated_grid.h"
#include "tests/cpp/bit_number.h"
#include "tests/cpp/check.h"
#include "tests/cpp/random_data.h"

namespace korvex::test {
namespace {

using kernels::DotBlockMemory;
using kernels::DotGridMemory;
using Shape3 = SimulatedGrid::Shape;
using Limbs3 = std::array<double, 3>;
using Doubles = std::vector<double>;

constexpr double kMax = std::numeric_limits<double>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr Shape3 kOneWarp = {1, 32, 1};
constexpr Shape3 kAsLaunched = {3, 256, 2};

// What a GPU has once, as long as the module is loaded.
DotGridMemory grid_memory;

bool is_clean(const DotGridMemory& grid) {
  return grid.special == 0 && grid.arrived == 0 &&
         std::all_of(std::begin(grid.digits), std::end(grid.digits),
                     [](std::int64_t digit) { return digit == 0; });
}

Limbs3 launch(const Doubles& x, const Doubles& y, const Shape3& shape) {
  static std::uint64_t seed = 0;
  std::vector<DotBlockMemory> blocks(static_cast<std::size_t>(shape.resident_blocks));
  std::memset(static_cast<void*>(blocks.data()), 0xa5, blocks.size() * sizeof(DotBlockMemory));
  Limbs3 out = {7.0, 7.0, 7.0};
  const bool all_ended =
      SimulatedGrid::run(shape, ++seed, [&](const SimulatedThread& thread, int slot) {
        kernels::dot_by_grid(thread, x.data(), y.data(), &out[0], &out[1], &out[2],
                             static_cast<std::int64_t>(x.size()),
                             blocks[static_cast<std::size_t>(slot)], &grid_memory);
      });
  CHECK(all_ended);
  return out;
}

void expect(const Doubles& x, const Doubles& y, const Limbs3& expected,
            const std::vector<Shape3>& shapes = {kOneWarp, kAsLaunched}) {
  for (const Shape3& shape : shapes) {
    const Limbs3 out = launch(x, y, shape);
    for (std::size_t limb = 0; limb < 3; ++limb) {
      CHECK_SAME_BITS(out[limb], expected[limb]);
    }
    CHECK(is_clean(grid_memory));
  }
}

Limbs3 exact(const Doubles& x, const Doubles& y) {
  const Doubles limbs = canonical_product_limbs(x.data(), y.data(), 1, x.size(), 3);
  return {limbs[0], limbs[1], limbs[2]};
}

void expect_exact(const Doubles& x, const Doubles& y) { expect(x, y, exact(x, y)); }

Doubles draw_shape(Random& random, int shape, std::size_t count) {
  return draw_many(random, static_cast<Shape>(shape), count, false);
}

void lengths_around_the_ends_of_blocks_and_tiles() {
  Random random(81);
  expect({}, {}, {0.0, 0.0, 0.0});
  for (const int border : {1, 32, 64, 256, 512, 2048, 4096}) {
    for (int n = border - 1; n <= border + 1; ++n) {
      const auto count = static_cast<std::size_t>(n);
      const Doubles y = draw_shape(random, 0, count);
      expect_exact(draw_shape(random, 0, count), y);
    }
  }
}

void each_shape_on_every_grid() {
  Random random(82);
  for (int x_shape = 0; x_shape < static_cast<int>(Shape::kCount); ++x_shape) {
    for (int y_shape = 0; y_shape < static_cast<int>(Shape::kCount); ++y_shape) {
      const Doubles x = draw_shape(random, x_shape, 2000);
      const Doubles y = draw_shape(random, y_shape, 2000);
      expect(x, y, exact(x, y), {{1, 64, 1}, {9, 256, 3}});
    }
  }
}

void half_of_the_products_cancel_the_other_half() {
  Random random(83);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    Doubles x = draw_shape(random, shape, 1500);
    Doubles y = draw_shape(random, shape, 1500);
    for (std::size_t i = 0; i < 1500; ++i) {
      const double back = x[1499 - i];
      x.push_back(-y[1499 - i]);
      y.push_back(back);
    }
    expect(x, y, {0.0, 0.0, 0.0});
  }
}

void products_out_of_range_count_as_what_they_are() {
  expect({0x1p-600, 1}, {0x1p-600, -1}, {-1, 0.0, 0.0});
  expect({0x1p-600, 0x1p-1074}, {0x1p-475, 0x1p-1074}, {0x1p-1074, 0.0, 0.0});
  expect({0x1p+512, 0x1p+512, 1}, {0x1p+512, -0x1p+512, 1}, {1, 0.0, 0.0});
  expect({kMax}, {2}, {kMax, kMax, 0.0});
  expect({kMax}, {4}, {kInf, 0.0, 0.0});
  expect(Doubles(5000, -kMax), Doubles(5000, kMax), {-kInf, 0.0, 0.0});
}

void special_factors_decide_wherever_they_stand() {
  const double nan = double_of(0x7ff8000000000000);
  for (const std::size_t place : {0U, 255U, 2000U}) {
    Doubles x(3000, 1.5);
    Doubles y(3000, -2.0);
    x[place] = kInf;
    expect(x, y, {-kInf, 0.0, 0.0});
    y[place] = -0.0;
    expect(x, y, {nan, 0.0, 0.0});
    y[place] = 1;
    x[2999] = kInf;
    expect(x, y, {nan, 0.0, 0.0});
    x[2999] = 0;
    y[place] = double_of(0xfff8000000000001);
    expect(x, y, {nan, 0.0, 0.0});
  }
}

// Equal products fill slices and digits to the end, and each carry with them.
void products_of_one_exponent() {
  for (const double x : {1.0, 0x1.fffffffffffffp+0, 0x1.fffffffffffffp+500, 0x1.fffffffffffffp-479,
                         0x1.fffffffffffffp-540, 0x1.fffffffffffffp+1000}) {
    expect_exact(Doubles(20000, x), Doubles(20000, -x));
  }
}

void any_schedule_gives_the_same_bits() {
  Random random(84);
  Doubles x = draw_shape(random, 1, 6000);
  const Doubles y = draw_shape(random, 1, 6000);
  x[3000] = 0x1p-1000;
  for (int round = 0; round < 20; ++round) {
    expect(x, y, exact(x, y),
           {{1 + random.below(25), 32 * random.between(1, 8), random.between(1, 4)}});
  }
}

int run() {
  lengths_around_the_ends_of_blocks_and_tiles();
  each_shape_on_every_grid();
  half_of_the_products_cancel_the_other_half();
  products_out_of_range_count_as_what_they_are();
  special_factors_decide_wherever_they_stand();
  products_of_one_exponent();
  any_schedule_gives_the_same_bits();
  return Tally::all().finish();
}

}  // namespace
}  // namespace korvex::test

int main() { return korvex::test::run(); }
