// SPDX-License-Identifier: Apache-2.0
// The plan of a matrix product by residues: costs, the choice of lines, extents of panels.
#include "korvex/kernels/host/modular_plan.h"

#include <algorithm>
#include <bit>
#include <vector>

#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/modular/double_products.h"
#include "korvex/kernels/modular/products.h"

namespace korvex::host {
namespace {

using modular::kLines;

std::size_t size(std::int64_t n) { return static_cast<std::size_t>(n); }
int bits_of_count(std::int64_t n) {
  return n <= 1 ? 0 : static_cast<int>(std::bit_width(static_cast<std::uint64_t>(n - 1)));
}

// Of whole products measured on one thread of a processor of 2.5 GHz (benchmarks/bench_matmul.py).
#ifdef __AVX512F__
constexpr double kSliceElement = 120;  // of the result
constexpr double kSliceProduct = 0.85;
#else
constexpr double kSliceElement = 105;
constexpr double kSliceProduct = 1.3;
#endif
constexpr double kSliceProductOfFew = 2.5;  // where columns are too few for the lanes
constexpr int kFewColumns = 8;
constexpr double kStartOfReading = 5000;
constexpr double kReadElement = 0.7;

// Less is not worth a thread, which has to start and to find residues that others find as well.
constexpr double kLeastCostOfThread = 300000;

// Elements of more bits take six slices after three.
constexpr int kBitsOfFewSlices = 150;
constexpr double kManySlicesFactor = 3;

// Bits for which there are lines, and how many lines have at most so many.
struct Step {
  int bits;
  std::int64_t lines;
};

std::vector<Step> steps(const ModularLines& lines) {
  std::vector<Step> found;
  std::int64_t sum = 0;
  for (int bits = 0; bits <= modular::kMostBits; ++bits) {
    const std::int64_t count = lines.lines_by_bits()[size(bits)];
    if (count > 0) {
      sum += count;
      found.push_back({bits, sum});
    }
  }
  return found;
}

// Few rows at a time, as their residues and products then stay in the caches and those of the
// columns serve for all of them; where the products do not fit into one block, all residues are
// found anew for each panel, so that large ones are better. One panel takes its products in short
// blocks.
PanelShape largest_panel_of_bytes(const ProductExtents& extents) {
  const bool is_one_panel = extents.m <= 144 && extents.n <= 512;
  const bool is_one_block = extents.k <= modular::kDepth;
  const std::int64_t depth = is_one_panel ? 256 : is_one_block ? modular::kDepth : 512;
  return {
      std::min<std::int64_t>(is_one_panel || is_one_block ? 144 : 480, padded(extents.m, kLines)),
      std::min<std::int64_t>(512, padded(extents.n, modular::kColumns)),
      std::min(depth, padded(extents.k, modular::kQuad)), &kByteEngine};
}

// The same for doubles. Small products take short blocks and few rows: their residues are memory
// that the system gives page by page.
PanelShape largest_panel_of_doubles(const ProductExtents& extents) {
  const bool is_small = extents.m <= 144 && extents.n <= 144;
  const std::int64_t depth = is_small ? 64 : modular::kDoubleDepth;
  return {std::min<std::int64_t>(extents.m <= 256 ? 128 : 512, padded(extents.m, kLines)),
          std::min<std::int64_t>(528, padded(extents.n, modular::kDoubleColumns)),
          std::min(depth, extents.k), &kDoubleEngine};
}

}  // namespace

const ModularEngine kByteEngine = {
    .count_for = &arithmetic::ResidueSystem::count_for,
    .check_bits = 8,
    .largest_panel = &largest_panel_of_bytes,
    .row_unit = modular::kBlockRows,
    .column_unit = modular::kColumns,
    .least_depth = 256,
    .residue_bytes = 1,
    .product_bytes = 1,
    .row_bytes = sizeof(std::int32_t),
    .fewest_rows = 4,
    .fewest_columns = modular::kBlockColumns,
    .fewest_moduli = 4,
    .start = 30000,
    .element = 8,
    .operand_element = 10,
    .modulus_element = 0.8,
    .modulus_operand_element = 0.3,
    .modulus_product = 0.0042,
};

const ModularEngine kDoubleEngine = {
    .count_for = &arithmetic::DoubleResidueSystem::count_for,
    .check_bits = 24,
    .largest_panel = &largest_panel_of_doubles,
    .row_unit = kLines,
    .column_unit = modular::kDoubleColumns,
    .least_depth = 64,
    .residue_bytes = sizeof(double),
    .product_bytes = sizeof(float),
    .row_bytes = 0,
    .fewest_rows = modular::kDoubleBlockRows,
    .fewest_columns = modular::kDoubleBlockColumns,
    .fewest_moduli = 2,
    .start = 12000,
    .element = 20,
    .operand_element = 4,
    .modulus_element = 3,
    .modulus_operand_element = 0.9,
    .modulus_product = modular::kDoubleLanes == 8 ? 0.042 : 0.065,
};

double cost_by_residues(const ModularEngine& engine, const ProductExtents& extents, int moduli) {
  const auto m = static_cast<double>(padded(extents.m, engine.fewest_rows));
  const auto n = static_cast<double>(padded(extents.n, engine.fewest_columns));
  const auto k = static_cast<double>(extents.k);
  const auto operand =
      static_cast<double>(padded(extents.m, kLines) + padded(extents.n, kLines)) * k;
  return engine.start +
         m * n * (engine.element + moduli * (engine.modulus_element + k * engine.modulus_product)) +
         operand * (engine.operand_element + moduli * engine.modulus_operand_element);
}

double cost_by_slices(const ProductExtents& extents, int bits) {
  const auto elements = static_cast<double>(extents.m) * static_cast<double>(extents.n);
  const double product = extents.n < kFewColumns ? kSliceProductOfFew : kSliceProduct;
  return elements * (kSliceElement + static_cast<double>(extents.k) * product) *
         (bits > kBitsOfFewSlices ? kManySlicesFactor : 1.0);
}

bool is_worth_reading(const ModularEngine& engine, const ProductExtents& extents) {
  constexpr int kWide = kBitsOfFewSlices + 1;
  const double reading =
      kStartOfReading + static_cast<double>((extents.m + extents.n) * extents.k) * kReadElement;
  return reading < 0.06 * cost_by_slices(extents, 0) &&
         is_worth(cost_by_residues(engine, extents, engine.fewest_moduli),
                  cost_by_slices(extents, kWide));
}

int useful_threads(double cost, int threads) {
  const double useful = std::min(cost / kLeastCostOfThread, static_cast<double>(threads));
  return useful < 1 ? 1 : static_cast<int>(useful);
}

// The widest lines are left out first.
ModularPlan cheapest_plan(const ModularEngine& engine, const ModularLines& left,
                          const ModularLines& right, const ProductExtents& extents,
                          bool is_checked) {
  constexpr int kWide = kBitsOfFewSlices + 1;  // what is left out
  const int bits_of_k = bits_of_count(extents.k);
  const int extra = bits_of_k + 2 + (is_checked ? engine.check_bits : 0);
  const std::vector<Step> rows = steps(left);
  const std::vector<Step> columns = steps(right);
  ModularPlan best;
  for (const Step& row : rows) {
    for (const Step& column : columns) {
      const int bits = row.bits + column.bits;
      const int moduli = engine.count_for(bits + extra);
      if (moduli == 0) {
        break;
      }
      const double cost = cost_by_residues(engine, extents, moduli) +
                          cost_by_slices({extents.m - row.lines, extents.n, extents.k}, kWide) +
                          cost_by_slices({extents.m, extents.n - column.lines, extents.k}, kWide);
      if (best.moduli == 0 || cost < best.cost) {
        best = {moduli, bits + bits_of_k, row.bits, column.bits, cost};
      }
    }
  }
  return best;
}

PanelShape panel_shape(const ModularEngine& engine, const ProductExtents& extents, int moduli,
                       int threads) {
  PanelShape shape = engine.largest_panel(extents);
  const auto halve = [](std::int64_t& extent, std::int64_t unit) {
    extent = padded(extent / 2, unit);
  };
  while (shape.bytes(moduli) > kMostProductBytes / threads &&
         (shape.rows + shape.columns > 128 || shape.depth > engine.least_depth)) {
    if (shape.depth > engine.least_depth && shape.rows + shape.columns <= 256) {
      halve(shape.depth, modular::kQuad);
    } else if (shape.rows >= shape.columns) {
      halve(shape.rows, kLines);
    } else {
      halve(shape.columns, engine.column_unit);
    }
  }
  return shape;
}

}  // namespace korvex::host
