// SPDX-License-Identifier: Apache-2.0
// The matrix product by residues: the same limbs as by slices, for every kind of line, and wrong
// residues found. Once for each engine that the library and the processor have: products of bytes,
// products of doubles.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

#include "check.h"
#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/host/modular_plan.h"
#include "korvex/kernels/host/modular_product.h"
#include "korvex/kernels/modular/double_products.h"
#include "korvex/kernels/modular/instructions.h"
#include "korvex/kernels/modular/products.h"
#include "product_checks.h"
#include "random_data.h"

namespace korvex::test {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

// The engine under test.
struct Engine {
  const char* name;
  host::EngineChoice choice;
  const host::ModularEngine& table;
  int fewest_moduli_of_doubles;  // of N(0,1), say
  int most_moduli_of_doubles;
  int largest_difference;  // of a residue, that stays one
};

constexpr Engine kBytes = {"bytes", host::EngineChoice::kBytes, host::kByteEngine, 15, 20, 14};
constexpr Engine kDoubles = {"doubles", host::EngineChoice::kDoubles, host::kDoubleEngine, 5, 7,
                             4000000};
const Engine* engine = &kBytes;

struct ModularResult {
  ProductLimbs limbs;
  host::ModularOutcome outcome;
};

class MatricesInMemory {
 public:
  explicit MatricesInMemory(const Matrices& matrices)
      : k_(static_cast<std::int64_t>(matrices.k)),
        n_(static_cast<std::int64_t>(matrices.n)),
        a_(matrices.a.data(), k_, 1),
        b_(matrices.b.data(), 1, n_),
        product{a_, b_, static_cast<std::int64_t>(matrices.m), n_, k_} {}

 private:
  std::int64_t k_;
  std::int64_t n_;
  host::FactorInMemory a_;
  host::FactorInMemory b_;

 public:
  const host::MatrixProduct product;
};

ProductLimbs untouched(const Matrices& matrices) {
  ProductLimbs out;
  for (auto& limb : out.limb) {
    limb.assign(matrices.m * matrices.n + 1, 7.0);
  }
  return out;
}

host::LimbArrays arrays_of(ProductLimbs& limbs, const Matrices& matrices) {
  return {{limbs.limb[0].data(), limbs.limb[1].data(), limbs.limb[2].data()},
          static_cast<std::int64_t>(matrices.n)};
}

ProductLimbs by_slices(const Matrices& matrices) {
  ProductLimbs out = untouched(matrices);
  const MatricesInMemory in_memory(matrices);
  host::multiply_by_slices(in_memory.product, arrays_of(out, matrices), 1);
  return out;
}

ModularResult by_residues(const Matrices& matrices, host::ModularOptions options = {}) {
  ModularResult result = {untouched(matrices), {}};
  const MatricesInMemory in_memory(matrices);
  options.is_wanted = true;
  options.engine = engine->choice;
  result.outcome =
      host::multiply_by_residues(in_memory.product, arrays_of(result.limbs, matrices), options);
  return result;
}

bool are_same(const ProductLimbs& x, const ProductLimbs& y) {
  bool same = true;
  for (int limb = 0; limb < 3; ++limb) {
    same = same && same_limbs(x.limb[limb], y.limb[limb]);
  }
  return same;
}

// Returns how many moduli were taken.
int expect_same(const Matrices& matrices) {
  const ModularResult result = by_residues(matrices);
  CHECK(result.outcome.is_done);
  CHECK(are_same(result.limbs, by_slices(matrices)));
  return result.outcome.moduli;
}

// The same where some lines can be taken; where none can, nothing is written.
void expect_same_or_nothing(const Matrices& matrices) {
  const ModularResult result = by_residues(matrices);
  CHECK(are_same(result.limbs, result.outcome.is_done ? by_slices(matrices) : untouched(matrices)));
}

Matrices draw_matrices(Random& random, Shape shape, std::size_t m, std::size_t n, std::size_t k) {
  return {m, n, k, draw_many(random, shape, m * k, false), draw_many(random, shape, k * n, false)};
}

Matrices constant_matrices(std::size_t m, std::size_t n, std::size_t k, double a, double b) {
  return {m, n, k, std::vector<double>(m * k, a), std::vector<double>(k * n, b)};
}

// ---- One modulus

struct ResidueMatrices {
  std::vector<std::uint8_t> left, right;
  std::vector<std::int32_t> sums;
};

constexpr std::size_t kRows = 16;
constexpr std::size_t kColumns = 64;
constexpr std::size_t kRowsOfBlock = modular::kBlockRows;
constexpr std::size_t kColumnsOfBlock = modular::kBlockColumns;

// Bytes in blocks, from residues row by row and column by column.
ResidueMatrices blocked(const std::vector<int>& a, const std::vector<int>& b, std::size_t quads) {
  const std::size_t k = 4 * quads;
  ResidueMatrices blocks = {std::vector<std::uint8_t>(2 * kRowsOfBlock * k),
                            std::vector<std::uint8_t>(kColumns * k),
                            std::vector<std::int32_t>(kRows)};
  const auto place = [k](std::size_t line, std::size_t i, std::size_t lines_of_block) {
    return line / lines_of_block * lines_of_block * k + i / 4 * 4 * lines_of_block +
           line % lines_of_block * 4 + i % 4;
  };
  for (std::size_t i = 0; i < k; ++i) {
    for (std::size_t row = 0; row < kRows; ++row) {
      blocks.left[place(row, i, kRowsOfBlock)] = static_cast<std::uint8_t>(a[row * k + i] & 255);
      blocks.sums[row] += a[row * k + i];
    }
    for (std::size_t column = 0; column < kColumns; ++column) {
      blocks.right[place(column, i, kColumnsOfBlock)] =
          static_cast<std::uint8_t>(b[column * k + i] + 128);
    }
  }
  return blocks;
}

// Checks every element of so many rows: congruent, and small.
void expect_congruent(const std::vector<int>& a, const std::vector<int>& b, std::size_t quads,
                      int modulus, std::size_t rows = kRows) {
  const std::size_t k = 4 * quads;
  const ResidueMatrices blocks = blocked(a, b, quads);
  // The blocks are aligned as the kernels need them.
  struct alignas(64) Line {
    std::uint8_t byte[64];
  };
  std::vector<Line> left(blocks.left.size() / 64 + 1);
  std::vector<Line> right(blocks.right.size() / 64);
  std::vector<Line> plane(kRows);
  std::copy(blocks.left.begin(), blocks.left.end(), left.front().byte);
  std::copy(blocks.right.begin(), blocks.right.end(), right.front().byte);
  const modular::ResidueProduct product = {left.front().byte,
                                           right.front().byte,
                                           static_cast<std::int64_t>(kRowsOfBlock * k),
                                           static_cast<std::int64_t>(kColumnsOfBlock * k),
                                           blocks.sums.data(),
                                           static_cast<std::int64_t>(rows),
                                           kColumns / kColumnsOfBlock,
                                           static_cast<std::int64_t>(quads),
                                           modulus};
  auto* bytes = reinterpret_cast<std::int8_t*>(plane.front().byte);
  modular::multiply_residues(product, {bytes, kColumns, false});
  modular::multiply_residues(product, {bytes, kColumns, true});
  bool is_right = true;
  for (std::size_t row = 0; row < rows; ++row) {
    for (std::size_t column = 0; column < kColumns; ++column) {
      std::int64_t expected = 0;
      for (std::size_t i = 0; i < k; ++i) {
        expected += std::int64_t{2} * a[row * k + i] * b[column * k + i];
      }
      // NOLINTNEXTLINE(bugprone-signed-char-misuse): a number with a sign
      const int found = bytes[row * kColumns + column];
      is_right =
          is_right && (found - expected) % modulus == 0 && std::abs(found) <= modulus / 2 + 1;
    }
  }
  CHECK(is_right);
}

// The largest sums: they stay within 2^24 after the correction, and are reduced as all others.
void products_of_the_largest_residues() {
  for (const int p : arithmetic::ResidueSystem::kModuli) {
    const int largest = p / 2 + 1;
    const std::size_t quads = modular::kDepth / 4;
    const std::vector<int> high(quads * 64 * 4, largest);
    const std::vector<int> low(quads * 64 * 4, -largest);
    expect_congruent(high, high, quads, p);
    expect_congruent(low, high, quads, p);
    expect_congruent(low, low, quads, p);
  }
}

// Residues as doubles in blocks, of so many lines each, from those line by line.
std::vector<double> blocked_doubles(const std::vector<int>& x, std::size_t depth,
                                    std::size_t lines) {
  std::vector<double> blocks(x.size());
  for (std::size_t i = 0; i < x.size(); ++i) {
    const std::size_t line = i / depth;
    blocks[line / lines * lines * depth + i % depth * lines + line % lines] = x[i];
  }
  return blocks;
}

// Checks every element of two blocks of rows and two of columns, of twice the products.
void expect_congruent_doubles(const std::vector<int>& a, const std::vector<int>& b, int modulus) {
  constexpr std::size_t kRowsOfTile = modular::kDoubleBlockRows;
  constexpr std::size_t kColumnsOfTile = modular::kDoubleBlockColumns;
  const std::size_t depth = a.size() / (2 * kRowsOfTile);
  const std::vector<double> left = blocked_doubles(a, depth, kRowsOfTile);
  const std::vector<double> right = blocked_doubles(b, depth, kColumnsOfTile);
  std::vector<float> plane(std::size_t{4} * modular::kDoubleTile, 7.0F);
  const modular::DoubleProduct product = {left.data(),
                                          right.data(),
                                          2,
                                          2,
                                          static_cast<std::int64_t>(depth),
                                          static_cast<std::int64_t>(depth),
                                          modulus};
  modular::multiply_double_residues(product, {plane.data(), 2, false});
  modular::multiply_double_residues(product, {plane.data(), 2, true});
  bool is_right = true;
  for (std::size_t row = 0; row < 2 * kRowsOfTile; ++row) {
    for (std::size_t column = 0; column < 2 * kColumnsOfTile; ++column) {
      std::int64_t expected = 0;
      for (std::size_t k = 0; k < depth; ++k) {
        expected += std::int64_t{2} * a[row * depth + k] * b[column * depth + k];
      }
      const std::size_t tile = row / kRowsOfTile * 2 + column / kColumnsOfTile;
      const auto found = static_cast<std::int64_t>(
          plane[tile * modular::kDoubleTile + row % kRowsOfTile * kColumnsOfTile +
                column % kColumnsOfTile]);
      is_right =
          is_right && (found - expected) % modulus == 0 && std::abs(found) <= modulus / 2 + 1;
    }
  }
  CHECK(is_right);
}

// The largest sums reach 2^53 as nearly as the moduli let them; random ones at any depth.
void products_of_double_residues() {
  Random random(116);
  for (const int p : arithmetic::DoubleResidueSystem::kModuli) {
    const int largest = p / 2 + 1;
    for (const std::int64_t depth : {std::int64_t{1}, std::int64_t{77}, modular::kDoubleDepth}) {
      const auto k = static_cast<std::size_t>(2 * depth);
      std::vector<int> a(k * modular::kDoubleBlockRows, largest);
      std::vector<int> b(k * modular::kDoubleBlockColumns, largest);
      expect_congruent_doubles(a, b, p);
      std::fill(b.begin(), b.end(), -largest);
      expect_congruent_doubles(a, b, p);
      std::generate(a.begin(), a.end(), [&] { return random.between(-largest, largest); });
      std::generate(b.begin(), b.end(), [&] { return random.between(-largest, largest); });
      expect_congruent_doubles(a, b, p);
    }
  }
}

void products_of_random_residues() {
  Random random(101);
  for (const int p : arithmetic::ResidueSystem::kModuli) {
    for (const std::size_t quads : {1U, 2U, 77U}) {
      std::vector<int> a(quads * 16 * 4);
      std::vector<int> b(quads * 64 * 4);
      std::generate(a.begin(), a.end(), [&] { return random.between(-p / 2 - 1, p / 2 + 1); });
      std::generate(b.begin(), b.end(), [&] { return random.between(-p / 2 - 1, p / 2 + 1); });
      for (const std::size_t rows : {1U, 4U, 5U, 8U, 9U, 12U, 13U, 16U}) {
        expect_congruent(a, b, quads, p, rows);
      }
    }
  }
}

template <class System>
void systems_bring_their_constants() {
  for (int count = 1; count <= System::kMostModuli; ++count) {
    const System system(count);
    for (int t = 0; t < count; ++t) {
      const std::int64_t modulus = system.modulus(t);
      std::int64_t residue = 0;
      for (int place = System::kDigits - 1; place >= 0; --place) {
        residue = ((residue << System::kDigitBits) + system.quotient_digit(t, place)) % modulus;
      }
      CHECK(system.inverse(t) > 0 && residue * system.inverse(t) % modulus == 1);
    }
    CHECK(System::count_for(System::kBitsOfModuli[static_cast<std::size_t>(count - 1)]) == count);
  }
}

// ---- Whole products

void sizes_around_the_borders_of_blocks() {
  Random random(102);
  for (const std::size_t m :
       {1U, 4U, 5U, 6U, 8U, 9U, 11U, 12U, 13U, 15U, 16U, 17U, 24U, 29U, 36U, 129U, 145U}) {
    for (const std::size_t n : {1U, 7U, 31U, 32U, 33U, 63U, 64U, 65U, 130U}) {
      for (const std::size_t k : {1U, 3U, 4U, 5U, 64U, 66U}) {
        expect_same(draw_matrices(random, Shape::kNarrow, m, n, k));
      }
    }
  }
  expect_same(draw_matrices(random, Shape::kNarrow, 20, 600, 30));
  expect_same(draw_matrices(random, Shape::kNarrow, 600, 20, 30));
  // Blocks of products, in several panels.
  for (const std::size_t k : {255U, 256U, 257U, 511U, 513U}) {
    expect_same(draw_matrices(random, Shape::kNarrow, 530, 23, k));
    expect_same(draw_matrices(random, Shape::kNarrow, 23, 550, k));
  }
}

void each_shape_of_data() {
  Random random(103);
  for (int shape = 0; shape < static_cast<int>(Shape::kCount); ++shape) {
    for (const std::size_t k : {1U, 40U, 200U}) {
      expect_same_or_nothing(draw_matrices(random, static_cast<Shape>(shape), 21, 70, k));
    }
  }
}

// Exponents of every width up to what the moduli hold and beyond, over the whole range of doubles.
void exponents_over_the_whole_range() {
  Random random(104);
  for (int repeat = 0; repeat < 150; ++repeat) {
    const int width = random.between(0, 170);
    const int a_low = random.between(-1074, 1023 - width);
    const int b_low = random.between(-1074, 1023 - width);
    Matrices matrices = constant_matrices(9, 20, 33, 0, 0);
    std::generate(matrices.a.begin(), matrices.a.end(),
                  [&] { return random.with_exponent(random.between(a_low, a_low + width)); });
    std::generate(matrices.b.begin(), matrices.b.end(),
                  [&] { return random.with_exponent(random.between(b_low, b_low + width)); });
    expect_same_or_nothing(matrices);
  }
}

// The second half of each row and column takes back the first, up to one small part.
void sums_that_cancel() {
  Random random(105);
  for (const Shape shape : {Shape::kNarrow, Shape::kPowers, Shape::kIntegers}) {
    Matrices matrices = draw_matrices(random, shape, 33, 65, 90);
    for (std::size_t k = 0; k < 45; ++k) {
      for (std::size_t i = 0; i < 33; ++i) {
        matrices.a[i * 90 + 45 + k] = -matrices.a[i * 90 + k];
      }
      for (std::size_t j = 0; j < 65; ++j) {
        matrices.b[(45 + k) * 65 + j] = matrices.b[k * 65 + j];
      }
    }
    expect_same(matrices);
    matrices.a[7] += 0x1p-30;
    matrices.b[7] *= 1 + 0x1p-40;
    expect_same(matrices);
  }
}

// Elements 1 + s * 2^-53 + t * 2^-106 + ...: midpoints of two doubles in every limb.
void ties_in_every_limb() {
  for (const double second : {0x1p-53, -0x1p-53, 0x1p-54, -0x1p-54, 3 * 0x1p-53, 0.0}) {
    for (const double third : {0x1p-106, -0x1p-106, 0x1p-107, -0x1p-107, 0x1p-140, 0.0}) {
      for (const double fourth : {0x1p-159, -0x1p-159, 0x1p-160, -0x1p-165, 0.0}) {
        for (const double first : {1.0, 1 + 0x1p-52, -1.0, 2 - 0x1p-52}) {
          Matrices matrices = constant_matrices(17, 8, 4, 0, 1);
          for (std::size_t i = 0; i < 17; ++i) {
            const double parts[4] = {first, second, third, fourth};
            std::copy(parts, parts + 4, matrices.a.begin() + static_cast<std::ptrdiff_t>(4 * i));
          }
          expect_same(matrices);
        }
      }
    }
  }
}

// Elements that are sums of digits of radix 2^48 from one product each, at the borders of digits:
// the doubles that the recombination begins with, whatever they cancel to.
void digits_at_their_borders() {
  Random random(115);
  constexpr double kUnit = 0x1p+48;
  const double digits[] = {-0x1p+47, 1 - 0x1p+47, 0x1p+47 - 1, 0x1p+47, -1, 0, 1, 2, -0x1p+46};
  Matrices matrices = constant_matrices(40, 33, 6, 0, 1);
  for (std::size_t column = 0; column < 33; ++column) {
    for (std::size_t k = 3; k < 6; ++k) {
      matrices.b[k * 33 + column] = column % 2 == 0 ? kUnit * kUnit * kUnit : -kUnit * kUnit;
    }
  }
  for (int repeat = 0; repeat < 100; ++repeat) {
    for (std::size_t i = 0; i < matrices.a.size(); ++i) {
      const double unit = i % 3 == 0 ? 1 : i % 3 == 1 ? kUnit : kUnit * kUnit;
      matrices.a[i] = digits[random.below(9)] * unit;
    }
    expect_same(matrices);
  }
}

void integers_take_few_moduli() {
  Random random(106);
  const int integers = expect_same(draw_matrices(random, Shape::kIntegers, 40, 70, 100));
  const int doubles = expect_same(draw_matrices(random, Shape::kNarrow, 40, 70, 100));
  CHECK(integers >= 1 && integers <= engine->table.fewest_moduli + 1);
  CHECK(doubles >= engine->fewest_moduli_of_doubles && doubles <= engine->most_moduli_of_doubles);
}

void zeros_give_plus_zero() {
  Random random(107);
  expect_same(constant_matrices(17, 65, 5, 0.0, 0.0));
  expect_same(constant_matrices(17, 65, 5, -0.0, 1.0));
  Matrices matrices = draw_matrices(random, Shape::kNarrow, 20, 70, 30);
  std::fill(matrices.a.begin() + 30, matrices.a.begin() + 60, -0.0);
  for (std::size_t k = 0; k < 30; ++k) {
    matrices.b[k * 70 + 69] = 0.0;
  }
  expect_same(matrices);
}

// A row or a column of the kind leaves the moduli of all others as they are.
void wild_lines_leave_others_alone() {
  Random random(108);
  const Matrices tame = draw_matrices(random, Shape::kNarrow, 100, 130, 64);
  const int moduli = expect_same(tame);
  for (const double wild : {kInf, -kInf, kNan, 1e300, 0x1p-1074, 0x1p+506, 0x1p-1022}) {
    Matrices matrices = tame;
    matrices.a[37 * 64 + 5] = wild;
    CHECK(expect_same(matrices) == moduli);
    matrices = tame;
    matrices.b[std::size_t{5} * 130 + 129] = wild;
    CHECK(expect_same(matrices) == moduli);
    matrices.a[37 * 64 + 6] = -wild;
    matrices.a[99 * 64 + 63] = 0;
    CHECK(expect_same(matrices) == moduli);
  }
}

void only_wild_lines_are_left_to_slices() {
  const Matrices matrices = constant_matrices(20, 70, 3, kNan, 1.0);
  const ModularResult result = by_residues(matrices);
  CHECK(!result.outcome.is_done && result.outcome.found == 0 && result.outcome.moduli == 0);
  expect_same_or_nothing(matrices);
}

// Rows of short and of full integers at the borders of blocks and of sums.
void depths_at_every_border() {
  for (const std::size_t k : {1023U, 1024U, 1025U, 65535U, 65536U, 65537U, 131071U, 131072U}) {
    Random random(109);
    expect_same(draw_matrices(random, Shape::kNarrow, 3, 9, k));
    expect_same(constant_matrices(2, 9, k, 125.0, -125.0));
    expect_same(constant_matrices(2, 9, k, 0x1.fffffffffffffp+0, 0x1.fffffffffffffp+1));
  }
}

// Beyond the longest element for slices, which then adds product by product.
void depths_beyond_the_slices() {
  for (const std::size_t k : {131073U, 262145U}) {
    Random random(110);
    expect_same(draw_matrices(random, Shape::kNarrow, 2, 3, k));
    expect_same(constant_matrices(1, 3, k, 0x1.fffffffffffffp+0, -0x1.fffffffffffffp+1));
  }
}

// Rows of elements down to 2^-944 that meet columns where products fall below 2^-970 and below the
// smallest double; so do limbs, which are rounded there.
void products_near_the_smallest_double() {
  Random random(111);
  for (const int lowest : {-944, -960, -1000, -1022, -1074}) {
    for (const int column : {-20, -60, -100, -140, -200}) {
      Matrices matrices = constant_matrices(18, 66, 12, 0, 0);
      std::generate(matrices.a.begin(), matrices.a.end(), [&] {
        return random.with_exponent(random.between(std::max(lowest, -1022), lowest + 60));
      });
      std::generate(matrices.b.begin(), matrices.b.end(),
                    [&] { return random.with_exponent(random.between(column, column + 30)); });
      expect_same(matrices);
    }
  }
}

// Products of 2^1010, so many that their sum overflows, or one limb of it.
void sums_near_overflow() {
  for (const std::size_t k : {8191U, 8192U, 16384U, 16385U}) {
    Matrices matrices = constant_matrices(2, 3, k, 0x1p+504, 0x1p+504);
    expect_same(matrices);
    matrices.a[0] = 0x1p+460;
    matrices.a[1] = -0x1p+460;
    expect_same(matrices);
    expect_same(constant_matrices(2, 3, k, 0x1.fffffffffffffp+504, -0x1.fffffffffffffp+504));
  }
}

void any_number_of_threads_gives_the_same_bits() {
  Random random(112);
  for (const auto& [m, n] : {std::array<std::size_t, 2>{150, 90}, {90, 300}}) {
    Matrices matrices = draw_matrices(random, Shape::kNarrow, m, n, 200);
    matrices.a[777] = 1e200;
    const ProductLimbs expected = by_slices(matrices);
    for (const int threads : {1, 2, 3, 16}) {
      host::ModularOptions options;
      options.threads = threads;
      CHECK(are_same(by_residues(matrices, options).limbs, expected));
    }
  }
}

// ---- Plans

// Lines of one kind all take part; one wild row is left out, and costs what slices take for it.
void plans_cost_what_they_take() {
  const host::ProductExtents extents = {100, 130, 64};
  Matrices matrices = constant_matrices(100, 130, 64, 1, 1);
  const MatricesInMemory in_memory(matrices);
  const host::ModularLines left(in_memory.product.a, 100, 64);
  const host::ModularLines right(in_memory.product.b, 130, 64);
  const host::ModularPlan tame = host::cheapest_plan(engine->table, left, right, extents, false);
  CHECK(tame.left_bits == 1 && tame.right_bits == 1 && tame.bits == 2 + 6);
  CHECK(tame.moduli == engine->table.count_for(2 + 6 + 2));
  CHECK(tame.cost == host::cost_by_residues(engine->table, extents, tame.moduli));

  matrices.a[448] = 0x1p-100;  // of row 7
  const MatricesInMemory with_wild_row(matrices);
  const host::ModularLines wild_left(with_wild_row.product.a, 100, 64);
  const host::ModularPlan wild =
      host::cheapest_plan(engine->table, wild_left, right, extents, false);
  CHECK(wild.left_bits == 1 && wild.moduli == tame.moduli);
  CHECK(wild.cost == tame.cost + host::cost_by_slices({1, 130, 64}, 200));
}

void residues_are_taken_where_they_are_faster_beyond_doubt() {
  CHECK(host::is_worth(0.79, 1.0) && !host::is_worth(0.81, 1.0));
  CHECK(host::is_worth(790, 1000) && !host::is_worth(810, 1000));
}

// Small products leave threads alone that would cost more to start than they take over.
void threads_start_where_there_is_work_for_them() {
  CHECK(host::useful_threads(0, 8) == 1 && host::useful_threads(599999, 8) == 1);
  CHECK(host::useful_threads(600000, 8) == 2 && host::useful_threads(600000, 1) == 1);
  CHECK(host::useful_threads(899999, 8) == 2 && host::useful_threads(1e30, 8) == 8);
  CHECK(host::useful_threads(1e30, 0) == 1 && host::useful_threads(1e30, -1) == 1);
  CHECK(host::useful_threads(host::cost_by_residues(host::kByteEngine, {64, 64, 64}, 18), 2) == 1);
  CHECK(host::useful_threads(host::cost_by_residues(host::kByteEngine, {128, 128, 128}, 19), 2) ==
        2);
}

// Nobody asked for residues, and one product is not worth reading it twice.
void small_products_are_left_to_slices() {
  const Matrices matrices = constant_matrices(2, 2, 2, 1.0, 1.0);
  const MatricesInMemory in_memory(matrices);
  ProductLimbs limbs = untouched(matrices);
  CHECK(!host::multiply_by_residues(in_memory.product, arrays_of(limbs, matrices), {}).is_done);
  CHECK(are_same(limbs, untouched(matrices)));
}

// ---- Wrong residues

void expect_found(const Matrices& matrices, const ProductLimbs& expected,
                  const host::PlantedFault& fault) {
  host::ModularOptions options;
  options.is_checked = true;
  options.faults = &fault;
  options.fault_count = 1;
  const ModularResult checked = by_residues(matrices, options);
  CHECK(checked.outcome.found == 1);
  CHECK(are_same(checked.limbs, expected));
}

void one_wrong_residue_is_found_and_repaired() {
  Random random(113);
  for (const Shape shape : {Shape::kNarrow, Shape::kIntegers, Shape::kPowers}) {
    const Matrices matrices = draw_matrices(random, shape, 20, 70, 50);
    const ProductLimbs expected = by_slices(matrices);
    host::ModularOptions options;
    options.is_checked = true;
    const ModularResult clean = by_residues(matrices, options);
    CHECK(clean.outcome.found == 0);
    CHECK(are_same(clean.limbs, expected));
    CHECK(clean.outcome.moduli > by_residues(matrices).outcome.moduli);
    for (int modulus = 0; modulus < clean.outcome.moduli; ++modulus) {
      for (const int difference :
           {1, -1, 3, engine->largest_difference, -engine->largest_difference}) {
        expect_found(matrices, expected, {random.below(20), random.below(70), modulus, difference});
      }
    }
  }
}

// In the first panel, at its borders, and in those beside and below it.
void wrong_residues_are_found_in_every_panel() {
  Random random(117);
  const Matrices matrices = draw_matrices(random, Shape::kNarrow, 530, 600, 5);
  const ProductLimbs expected = by_slices(matrices);
  for (const std::int64_t row : {0, 143, 144, 511, 512, 529}) {
    for (const std::int64_t column : {0, 511, 512, 527, 528, 599}) {
      expect_found(matrices, expected, {row, column, 1, 1});
    }
  }
}

// The control: without the redundant modulus the same fault shows in the limbs.
void one_wrong_residue_shows_where_nobody_looks() {
  Random random(114);
  const Matrices matrices = draw_matrices(random, Shape::kNarrow, 20, 70, 50);
  const host::PlantedFault fault = {3, 65, 2, 1};
  host::ModularOptions options;
  options.faults = &fault;
  options.fault_count = 1;
  const ModularResult result = by_residues(matrices, options);
  CHECK(result.outcome.found == 0);
  CHECK(!are_same(result.limbs, by_slices(matrices)));
}

// ---- Memory

void panels_stay_within_their_memory() {
  CHECK(host::kMostProductBytes == std::int64_t{60} << 20);
  const int most = engine->table.residue_bytes == 1 ? 48 : 15;
  for (const int moduli : {1, most / 2, most}) {
    for (const int threads : {1, 2, 7, 16, 64, 256}) {
      for (const std::int64_t extent : {1, 64, 1000, 100000}) {
        const host::PanelShape shape =
            host::panel_shape(engine->table, {extent, extent, 10 * extent}, moduli, threads);
        const std::int64_t ranges = std::min<std::int64_t>(threads, shape.most_ranges(moduli));
        CHECK(ranges * shape.bytes(moduli) <= host::kMostProductBytes);
        const std::int64_t of_modulus = shape.plane_bytes() + shape.left_bytes() +
                                        shape.right_bytes() + shape.rows * engine->table.row_bytes;
        CHECK(shape.bytes(moduli) == moduli * of_modulus);
        CHECK(ranges >= std::min(threads, 28));
      }
    }
  }
}

void run(const Engine& under_test) {
  engine = &under_test;
  std::printf("products of %s\n", engine->name);
  sizes_around_the_borders_of_blocks();
  each_shape_of_data();
  exponents_over_the_whole_range();
  sums_that_cancel();
  ties_in_every_limb();
  digits_at_their_borders();
  integers_take_few_moduli();
  zeros_give_plus_zero();
  wild_lines_leave_others_alone();
  only_wild_lines_are_left_to_slices();
  depths_at_every_border();
  depths_beyond_the_slices();
  products_near_the_smallest_double();
  sums_near_overflow();
  any_number_of_threads_gives_the_same_bits();
  plans_cost_what_they_take();
  one_wrong_residue_is_found_and_repaired();
  wrong_residues_are_found_in_every_panel();
  one_wrong_residue_shows_where_nobody_looks();
  panels_stay_within_their_memory();
}

}  // namespace

int test_modular_product() {
  systems_bring_their_constants<arithmetic::ResidueSystem>();
  systems_bring_their_constants<arithmetic::DoubleResidueSystem>();
  residues_are_taken_where_they_are_faster_beyond_doubt();
  threads_start_where_there_is_work_for_them();
  small_products_are_left_to_slices();
  if (modular::can_run()) {
    products_of_the_largest_residues();
    products_of_random_residues();
    run(kBytes);
  } else {
    std::printf("no products of bytes here\n");
  }
  if (modular::can_run_doubles()) {
    products_of_double_residues();
    run(kDoubles);
  }
  return Tally::all().finish();
}

}  // namespace korvex::test

int main() { return korvex::test::test_modular_product(); }
