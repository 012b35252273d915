// SPDX-License-Identifier: Apache-2.0
// The matrix product, element by element and in tiles on the host, against exact bits.
#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "bit_number.h"
#include "check.h"
#include "product_checks.h"
#include "random_data.h"
#include "suites.h"

namespace korvex::test {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

Matrices draw_matrices(Random& random, Shape shape, std::size_t m, std::size_t n, std::size_t k) {
  return {m, n, k, draw_many(random, shape, m * k, false), draw_many(random, shape, k * n, false)};
}

bool is_element(const Matrices& matrices, const ProductLimbs& product, std::size_t i, std::size_t j,
                const std::vector<double>& expected) {
  const std::size_t place = i * matrices.n + j;
  const Limbs3 tiled = {product.limb[0][place], product.limb[1][place], product.limb[2][place]};
  return same_limbs(tiled, expected) && same_limbs(element_of(matrices, i, j), expected);
}

std::vector<double> exact_element(const Matrices& matrices, std::size_t i, std::size_t j) {
  return canonical_product_limbs(matrices.a.data() + i * matrices.k, matrices.b.data() + j,
                                 matrices.n, matrices.k, 3);
}

// Elements that are looked at: all of small products, some of larger ones.
void expect_exact(const Matrices& matrices) {
  const ProductLimbs product = multiply(matrices, 1);
  const std::size_t step = 1 + matrices.m * matrices.n * matrices.k / 20000;
  for (std::size_t place = 0; place < matrices.m * matrices.n; place += step) {
    const std::size_t i = place / matrices.n;
    const std::size_t j = place % matrices.n;
    CHECK(is_element(matrices, product, i, j, exact_element(matrices, i, j)));
    Tally::all().record(product.limb[2][place]);
  }
  for (const auto& limb : product.limb) {
    CHECK(limb[matrices.m * matrices.n] == 7.0);  // nothing is written beyond the end
  }
}

void sizes_around_the_borders_of_tiles() {
  Random random(61);
  for (const std::size_t m : {1U, 2U, 63U, 64U, 65U}) {
    for (const std::size_t n : {1U, 2U, 3U, 4U, 7U, 8U, 9U, 16U, 17U}) {
      for (const std::size_t k : {0U, 1U, 2U, 5U}) {
        expect_exact(draw_matrices(random, Shape::kNarrow, m, n, k));
      }
    }
  }
  for (const std::size_t k : {127U, 128U, 129U, 256U, 1025U}) {
    expect_exact(draw_matrices(random, Shape::kNarrow, 3, 5, k));
    expect_exact(draw_matrices(random, Shape::kWide, 5, 1, k));
  }
}

void each_shape_is_exact() {
  Random random(62);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    expect_exact(draw_matrices(random, static_cast<Shape>(shape), 11, 13, 150));
    expect_exact(draw_matrices(random, static_cast<Shape>(shape), 4, 2, 50));
  }
}

void no_products_give_plus_zero() {
  const Matrices matrices = {3, 5, 0, {}, {}};
  const ProductLimbs product = multiply(matrices, 2);
  for (std::size_t place = 0; place < 15; ++place) {
    CHECK(is_element(matrices, product, place / 5, place % 5, {0.0, 0.0, 0.0}));
  }
}

void small_parts_are_kept() {
  const Matrices matrices = {1, 8, 3, {1, 0x1p-53, 0x1p-120}, std::vector<double>(24, 1.0)};
  const ProductLimbs product = multiply(matrices, 1);
  for (std::size_t j = 0; j < 8; ++j) {
    CHECK(is_element(matrices, product, 0, j, {1 + 0x1p-52, -0x1p-53, 0x1p-120}));
  }
}

// Row 2 of a holds 1e300 and 1e-300, and so does column 4 of b, the other way round.
void a_wild_row_meets_a_matching_column() {
  Random random(63);
  Matrices matrices = draw_matrices(random, Shape::kNarrow, 6, 9, 40);
  matrices.a[2 * 40 + 7] = 1e300;
  matrices.a[2 * 40 + 8] = 1e-300;
  matrices.b[7 * 9 + 4] = 1e-300;
  matrices.b[8 * 9 + 4] = 1e300;
  expect_exact(matrices);
}

void an_infinity_in_one_row_leaves_other_rows_alone() {
  Random random(64);
  Matrices matrices = draw_matrices(random, Shape::kNarrow, 70, 10, 30);
  matrices.a[65 * 30 + 3] = -kInf;
  matrices.b[29 * 10 + 9] = kInf;
  const ProductLimbs product = multiply(matrices, 1);
  const double nan = double_of(0x7ff8000000000000);
  for (std::size_t i = 0; i < 70; ++i) {
    for (std::size_t j = 0; j < 10; ++j) {
      if (i == 65) {
        const double sign = matrices.b[std::size_t{3} * 10 + j] > 0 ? -1 : 1;
        const bool meets = j == 9 && sign * matrices.a[65 * 30 + 29] < 0;
        CHECK(is_element(matrices, product, i, j, {meets ? nan : sign * kInf, 0.0, 0.0}));
      } else if (j == 9) {
        const double sign = matrices.a[i * 30 + 29] > 0 ? 1 : -1;
        CHECK(is_element(matrices, product, i, j, {sign * kInf, 0.0, 0.0}));
      } else {
        CHECK(is_element(matrices, product, i, j, exact_element(matrices, i, j)));
      }
    }
  }
}

void a_zero_makes_an_infinity_nan() {
  Matrices matrices = {2, 8, 2, {kInf, 1, 2, 3}, std::vector<double>(16, 0.0)};
  const ProductLimbs product = multiply(matrices, 1);
  CHECK(is_element(matrices, product, 0, 3, {double_of(0x7ff8000000000000), 0.0, 0.0}));
  CHECK(is_element(matrices, product, 1, 3, {0.0, 0.0, 0.0}));
}

// Equal products of one sign: the slices and the counts of their units grow as fast as they can.
// The sum of those at 2^506 overflows, though none of their slices would.
void equal_products_over_many_chunks() {
  for (const double x : {0x1.fffffffffffffp+0, 0x1.fffffffffffffp+494, 0x1.fffffffffffffp+505,
                         0x1.fffffffffffffp+506, 0x1.fffffffffffffp+511, 0x1.fffffffffffffp-470}) {
    expect_exact({1, 4, 3000, std::vector<double>(3000, x), std::vector<double>(12000, -x)});
  }
}

// The errors of the small products are half of the smallest double, so no double holds them; both
// together are one. The large products only widen the element to six slices, and cancel.
void errors_that_no_double_holds_are_kept() {
  const double x = (1 + 0x1p-52) * 0x1p-485;
  const double y = (1 + 0x1p-52) * 0x1p-486;
  Matrices matrices = {1, 4, 4, {0x1p-400, -0x1p-400, x, x}, std::vector<double>(16, 0x1p-400)};
  std::fill(matrices.b.begin() + 8, matrices.b.end(), y);
  const ProductLimbs product = multiply(matrices, 1);
  CHECK(is_element(matrices, product, 0, 0, {(1 + 0x1p-51) * 0x1p-970, 0x1p-1074, 0.0}));
  expect_exact(matrices);
}

// Beyond the longest element for slices.
void a_long_element_is_exact() {
  const std::size_t k = static_cast<std::size_t>(arithmetic::kLongestElement) + 1;
  Matrices matrices = {1, 4, k, std::vector<double>(k, 3.0), std::vector<double>(4 * k, 0x1p-30)};
  matrices.a[k - 1] = 0x1p-400;
  matrices.b[4 * k - 1] = -1.0;
  const ProductLimbs product = multiply(matrices, 1);
  const double most = std::ldexp(3.0 * static_cast<double>(k - 1), -30);
  CHECK(is_element(matrices, product, 0, 0, {most, 0x1p-430, 0.0}));
  CHECK(is_element(matrices, product, 0, 3, {most, -0x1p-400, 0.0}));
}

void any_number_of_threads_gives_the_same_bits() {
  Random random(65);
  Matrices matrices = draw_matrices(random, Shape::kNarrow, 150, 70, 200);
  matrices.a[777] = 1e200;
  const ProductLimbs one = multiply(matrices, 1);
  for (const int threads : {2, 3, 16}) {
    const ProductLimbs many = multiply(matrices, threads);
    for (int limb = 0; limb < 3; ++limb) {
      CHECK(same_limbs(many.limb[limb], one.limb[limb]));
    }
  }
}

}  // namespace

void test_matrix_product() {
  sizes_around_the_borders_of_tiles();
  each_shape_is_exact();
  no_products_give_plus_zero();
  small_parts_are_kept();
  a_wild_row_meets_a_matching_column();
  an_infinity_in_one_row_leaves_other_rows_alone();
  a_zero_makes_an_infinity_nan();
  equal_products_over_many_chunks();
  errors_that_no_double_holds_are_kept();
  a_long_element_is_exact();
  any_number_of_threads_gives_the_same_bits();
}

}  // namespace korvex::test
