// SPDX-License-Identifier: Apache-2.0
// The parallel sum kernel's own code on a simulated grid, against exact bits.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "korvex/kernels/device/parallel_sum.h"
#include "simulated_grid.h"
#include "tests/cpp/bit_number.h"
#include "tests/cpp/check.h"
#include "tests/cpp/random_data.h"

namespace korvex::test {
namespace {

using kernels::BlockMemory;
using kernels::GridMemory;
using kernels::kTile;
using kernels::WarpPlan;
using Shape3 = SimulatedGrid::Shape;
using Limbs2 = std::array<double, 2>;

constexpr double kMax = std::numeric_limits<double>::max();
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr Shape3 kOneWarp = {1, 32, 1};
constexpr Shape3 kAsLaunched = {3, 256, 2};

// What a GPU has once, as long as the module is loaded.
GridMemory grid_memory;

bool is_clean(const GridMemory& grid) {
  return grid.special == 0 && grid.arrived == 0 &&
         std::all_of(std::begin(grid.digits), std::end(grid.digits),
                     [](std::int64_t digit) { return digit == 0; });
}

std::uint64_t next_seed() {
  static std::uint64_t seed = 0;
  return ++seed;
}

// The kernel on n elements from x on; shared memory starts as the last block left it, or worse.
template <class Thread = SimulatedThread, int kCarryAfter = kernels::kTilesBetweenCarries>
Limbs2 launch_on(const double* x, std::size_t n, const Shape3& shape) {
  std::vector<BlockMemory> blocks(static_cast<std::size_t>(shape.resident_blocks));
  std::memset(static_cast<void*>(blocks.data()), 0xa5, blocks.size() * sizeof(BlockMemory));
  Limbs2 out = {7.0, 7.0};
  const bool all_ended =
      SimulatedGrid::run(shape, next_seed(), [&](const SimulatedThread& thread, int slot) {
        kernels::sum_by_grid<kCarryAfter>(Thread(thread), x, &out[0], &out[1],
                                          static_cast<std::int64_t>(n),
                                          blocks[static_cast<std::size_t>(slot)], &grid_memory);
      });
  CHECK(all_ended);
  return all_ended ? out : Limbs2{7.0, 7.0};
}

Limbs2 launch(const std::vector<double>& x, const Shape3& shape) {
  return launch_on(x.data(), x.size(), shape);
}

void expect(const std::vector<double>& x, const Limbs2& expected,
            const std::vector<Shape3>& shapes = {kOneWarp, kAsLaunched}) {
  for (const Shape3& shape : shapes) {
    const Limbs2 out = launch(x, shape);
    CHECK_SAME_BITS(out[0], expected[0]);
    CHECK_SAME_BITS(out[1], expected[1]);
    CHECK(is_clean(grid_memory));
  }
}

Limbs2 exact(const std::vector<double>& x) {
  const std::vector<double> limbs = canonical_limbs(x, 2);
  return {limbs[0], limbs[1]};
}

void expect_exact(const std::vector<double>& x) { expect(x, exact(x)); }

std::vector<double> draw_shape(Random& random, int shape, std::size_t count, bool cancel) {
  return draw_many(random, static_cast<Shape>(shape), count, cancel);
}

void empty_sums_are_plus_zero() {
  expect({}, {0.0, 0.0});
  CHECK(launch_on(nullptr, 0, {5, 64, 3}) == (Limbs2{0.0, 0.0}));
  expect(std::vector<double>(1500, -0.0), {0.0, 0.0});
}

void lengths_around_the_ends_of_blocks_and_tiles() {
  Random random(61);
  for (const int border : {1, 2, 32, 64, 256, 512, 1024, 4096, 8192}) {
    for (int n = border - 1; n <= border + 1; ++n) {
      expect_exact(draw_shape(random, 0, static_cast<std::size_t>(n), false));
    }
  }
}

void every_shape_of_grid_gives_the_same_bits() {
  Random random(62);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    const std::vector<double> x = draw_shape(random, shape, 20000, shape % 2 == 1);
    expect(x, exact(x),
           {{1, 32, 1}, {1, 256, 1}, {2, 96, 2}, {7, 128, 3}, {79, 256, 2}, {90, 32, 5}});
  }
}

void order_of_the_elements_does_not_show() {
  Random random(63);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    std::vector<double> x = draw_shape(random, shape, 6000, false);
    const Limbs2 expected = exact(x);
    for (int round = 0; round < 3; ++round) {
      for (std::size_t i = x.size(); i > 1; --i) {
        std::swap(x[i - 1], x[static_cast<std::size_t>(random.below(static_cast<int>(i)))]);
      }
      expect(x, expected, {{4, 64, 2}});
    }
  }
}

void arrays_between_two_pairs() {
  Random random(64);
  for (const std::size_t n : {0U, 1U, 2U, 511U, 512U, 513U, 9000U}) {
    const std::vector<double> x = draw_shape(random, 1, n + 2, false);
    for (const std::size_t offset : {0U, 1U, 2U}) {
      const auto begin = x.begin() + static_cast<std::ptrdiff_t>(offset);
      const Limbs2 expected = exact({begin, begin + static_cast<std::ptrdiff_t>(n)});
      const Limbs2 out = launch_on(x.data() + offset, n, {2, 64, 2});
      CHECK_SAME_BITS(out[0], expected[0]);
      CHECK_SAME_BITS(out[1], expected[1]);
    }
  }
}

void special_values_decide_wherever_they_stand() {
  const double nan = double_of(0x7ff8000000000000);
  for (const std::size_t place : {0U, 1U, 511U, 512U, 2047U, 2998U}) {
    std::vector<double> x(3000, 1.5);
    x[place] = kInf;
    expect(x, {kInf, 0.0});
    x[2999] = -kInf;
    expect(x, {nan, 0.0});
    x[2999] = 1.5;
    x[place] = -kInf;
    expect(x, {-kInf, 0.0});
    x[place] = double_of(0xfff8000000000001);
    expect(x, {nan, 0.0});
    const Limbs2 misaligned = launch_on(x.data() + 1, 2999, {2, 64, 2});
    CHECK_SAME_BITS(misaligned[0], place == 0 ? 2999 * 1.5 : nan);
  }
}

void overflow_saturates_limb_by_limb() {
  expect({1.7e308, 1.7e308}, {kMax, 1.7e308 - (kMax - 1.7e308)});
  expect(std::vector<double>(4, kMax), {kInf, 0.0});
  expect(std::vector<double>(9000, -kMax), {-kInf, 0.0});
  std::vector<double> many(3000, kMax);
  many.resize(6000, -kMax);
  many.push_back(0x1p-1074);
  expect(many, {0x1p-1074, 0.0});
}

// Equal elements fill slices, counts and digits to the end, and each carry with them.
void elements_of_one_exponent() {
  for (const double x :
       {0x1p-1074, 0x0.fffffffffffffp-1022, 0x1.fffffffffffffp-900, 0x1p+31, 0x1.fffffffffffffp-1,
        -0x1.fffffffffffffp+0, 0x1.8p+500, 0x1.fffffffffffffp+950, -0x1.fffffffffffffp+1013,
        0x1.fffffffffffffp+1015}) {
    expect_exact(std::vector<double>(70000, x));
  }
}

void each_exponent_alone() {
  for (int exponent = -1074; exponent < 1024; exponent += 13) {
    expect_exact(std::vector<double>(700, std::ldexp(1.0, exponent)));
  }
}

void everything_cancels() {
  Random random(65);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    expect(draw_shape(random, shape, 7000, true), {0.0, 0.0});
  }
}

// One element out of scale: the plan rises, falls again, or leaves the tile to the digits.
void an_outlier_anywhere_is_kept() {
  Random random(66);
  for (const int exponent : {-1074, -300, -100, -40, 4, 5, 6, 7, 8, 9, 60, 300, 1013, 1014, 1023}) {
    std::vector<double> x = draw_shape(random, 0, 12000, false);
    x[static_cast<std::size_t>(random.below(12000))] = std::ldexp(random.sign(), exponent);
    expect_exact(x);
  }
}

// Tiles that alternate between levels, so that every plan is wrong for the next tile.
void levels_that_change_from_tile_to_tile() {
  Random random(67);
  for (const int step : {3, 9, 47, 94, 141, 188, 400, 1900}) {
    std::vector<double> x;
    for (int tile = 0; tile < 40; ++tile) {
      for (int i = 0; i < kTile; ++i) {
        x.push_back(random.with_exponent(tile % 2 == 0 ? -950 + step : -950));
      }
    }
    expect_exact(x);
  }
}

void a_partial_sum_that_leaves_the_binade_and_returns() {
  for (const double large : {0x1p+4, 0x1p+7, 0x1p+8, 0x1p+20, 0x1p+62, 0x1p+300}) {
    std::vector<double> x(4096, 0x1.5555555555555p+0);
    for (std::size_t i = 1024; i < 1100; ++i) {
      x[i] = large;
      x[i + 200] = -large;
    }
    expect_exact(x);
  }
}

// More tiles for one warp than one plan lasts.
void counts_are_moved_on_in_time() {
  Random random(68);
  const std::size_t n = (2 * WarpPlan::kTilesOfPlan + 3) * kTile + 5;
  for (const double x : {1.0, 0x1.fffffffffffffp+6}) {
    expect_exact(std::vector<double>(n, x));
  }
  const std::vector<double> wide = draw_shape(random, 1, n, false);
  expect(wide, exact(wide), {kOneWarp});
}

// Digits of either sign, settled after every second tile instead of once in many.
void carries_within_a_warp_change_nothing() {
  Random random(71);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    const std::vector<double> x = draw_shape(random, shape, 9000, false);
    const Limbs2 out = launch_on<SimulatedThread, 2>(x.data(), x.size(), {2, 64, 2});
    CHECK(out == exact(x) && is_clean(grid_memory));
  }
  const std::vector<double> huge(9000, -0x1.fffffffffffffp+1020);
  CHECK((launch_on<SimulatedThread, 2>(huge.data(), 9000, kOneWarp)) == exact(huge));
}

void a_second_launch_finds_no_trace_of_the_first() {
  Random random(69);
  const std::vector<double> first = draw_shape(random, 2, 5000, false);
  const std::vector<double> second = draw_shape(random, 0, 5000, false);
  const Shape3 shape = {20, 256, 3};
  const Limbs2 of_first = launch(first, shape);
  const Limbs2 of_second = launch(second, shape);
  CHECK(launch(first, shape) == of_first && of_first == exact(first));
  CHECK(launch(second, shape) == of_second && of_second == exact(second));
}

void any_schedule_gives_the_same_bits() {
  Random random(70);
  const std::vector<double> x = draw_shape(random, 1, 10000, false);
  for (int round = 0; round < 30; ++round) {
    expect(x, exact(x), {{1 + random.below(25), 32 * random.between(1, 8), random.between(1, 4)}});
  }
}

// Controls: the simulation must notice what would go wrong on a GPU.

// Votes that only the own lane takes part in.
class ThreadThatDoesNotVote : public SimulatedThread {
 public:
  explicit ThreadThatDoesNotVote(const SimulatedThread& thread) : SimulatedThread(thread) {}
  bool any(bool condition) const { return condition; }
};

// Blocks that all think they are the last.
class ThreadThatDoesNotCount : public SimulatedThread {
 public:
  explicit ThreadThatDoesNotCount(const SimulatedThread& thread) : SimulatedThread(thread) {}
  std::int64_t blocks() const { return 1; }
};

void a_lane_on_its_own_is_noticed() {
  std::vector<double> x(3000, 1.0);
  x[700] = 0x1p+60;
  std::vector<BlockMemory> blocks(1);
  Limbs2 out{};
  const bool all_ended =
      SimulatedGrid::run(kOneWarp, 1, [&](const SimulatedThread& thread, int slot) {
        kernels::sum_by_grid(ThreadThatDoesNotVote(thread), x.data(), &out[0], &out[1], 3000,
                             blocks[static_cast<std::size_t>(slot)], &grid_memory);
      });
  CHECK(!all_ended);
  grid_memory = GridMemory();
}

// Where the block with the elements happens to come last, nothing is wrong: so more than one try.
void a_block_that_does_not_wait_is_noticed() {
  const std::vector<double> x(3000, 1.0);
  int noticed = 0;
  for (int round = 0; round < 20; ++round) {
    const Limbs2 out = launch_on<ThreadThatDoesNotCount>(x.data(), x.size(), kAsLaunched);
    noticed += out[0] != 3000.0 || !is_clean(grid_memory) ? 1 : 0;
    grid_memory = GridMemory();
  }
  CHECK(noticed > 0);
}

// What a launch that was cut short leaves shows in the next one, unless the loader clears it.
void memory_that_was_not_cleared_is_noticed() {
  const std::vector<double> x(3000, 1.0);
  grid_memory.digits[34] = 1;  // 2^14
  CHECK(launch(x, kAsLaunched)[0] != 3000.0);
  CHECK(is_clean(grid_memory));
  grid_memory.arrived = 1;
  CHECK(launch(x, kAsLaunched)[0] != 3000.0 || !is_clean(grid_memory));
  grid_memory = GridMemory();
  CHECK(launch(x, kAsLaunched)[0] == 3000.0);
}

int run() {
  empty_sums_are_plus_zero();
  lengths_around_the_ends_of_blocks_and_tiles();
  every_shape_of_grid_gives_the_same_bits();
  order_of_the_elements_does_not_show();
  arrays_between_two_pairs();
  special_values_decide_wherever_they_stand();
  overflow_saturates_limb_by_limb();
  elements_of_one_exponent();
  each_exponent_alone();
  everything_cancels();
  an_outlier_anywhere_is_kept();
  levels_that_change_from_tile_to_tile();
  a_partial_sum_that_leaves_the_binade_and_returns();
  counts_are_moved_on_in_time();
  carries_within_a_warp_change_nothing();
  a_second_launch_finds_no_trace_of_the_first();
  any_schedule_gives_the_same_bits();
  a_lane_on_its_own_is_noticed();
  a_block_that_does_not_wait_is_noticed();
  memory_that_was_not_cleared_is_noticed();
  return Tally::all().finish();
}

}  // namespace
}  // namespace korvex::test

int main() { return korvex::test::run(); }
