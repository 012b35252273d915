// SPDX-License-Identifier: Apache-2.0
// The plan of a matrix product by residues: costs, the choice of lines, extents of panels.
#include "korvex/kernels/host/modular_plan.h"

#include <algorithm>
#include <bit>
#include <vector>

#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/modular/products.h"

namespace korvex::host {
namespace {

using arithmetic::ResidueSystem;
using modular::kColumns;
using modular::kLines;
using modular::kQuad;

std::size_t size(std::int64_t n) { return static_cast<std::size_t>(n); }
int bits_of_count(std::int64_t n) {
  return n <= 1 ? 0 : static_cast<int>(std::bit_width(static_cast<std::uint64_t>(n - 1)));
}

// Measured by benchmarks/bench_matmul.py; only their proportions count.
constexpr double kSliceProduct = 0.75;
constexpr double kModulusProduct = 0.0042;
constexpr double kModulusElement = 0.30;  // residue of an element of an operand
constexpr double kElement = 15.0;         // of the result
constexpr double kStart = 20000.0;

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

}  // namespace

double cost_by_residues(const ProductExtents& extents, int moduli) {
  const auto m = static_cast<double>(padded(extents.m, kLines));
  const auto n = static_cast<double>(padded(extents.n, kColumns));
  const auto k = static_cast<double>(extents.k);
  return kStart + m * n * kElement +
         moduli * (m * n * k * kModulusProduct + (m + n) * k * kModulusElement);
}

double cost_by_slices(const ProductExtents& extents) {
  const auto m = static_cast<double>(extents.m);
  const auto n = static_cast<double>(extents.n);
  return m * n * static_cast<double>(extents.k) * kSliceProduct;
}

ModularPlan cheapest_plan(const ModularLines& left, const ModularLines& right,
                          const ProductExtents& extents, bool is_checked) {
  const int extra = bits_of_count(extents.k) + 2 + (is_checked ? 8 : 0);
  const std::vector<Step> rows = steps(left);
  const std::vector<Step> columns = steps(right);
  ModularPlan best;
  for (const Step& row : rows) {
    for (const Step& column : columns) {
      const int bits = row.bits + column.bits;
      const int moduli = ResidueSystem::count_for(bits + extra);
      if (moduli == 0) {
        break;
      }
      const double cost = cost_by_residues(extents, moduli) +
                          cost_by_slices({extents.m - row.lines, extents.n, extents.k}) +
                          cost_by_slices({extents.m, extents.n - column.lines, extents.k});
      if (best.moduli == 0 || cost < best.cost) {
        best = {moduli, bits + extra - 2 - (is_checked ? 8 : 0), row.bits, column.bits, cost};
      }
    }
  }
  return best;
}

// Few rows at a time, as their residues and products then stay in the caches and those of the
// columns serve for all of them; where the products do not fit into one block, all residues are
// found anew for each panel, so that large ones are better.
PanelShape panel_shape(const ProductExtents& extents, int moduli, int threads) {
  const bool is_one_block = extents.k <= modular::kDepth;
  PanelShape shape = {std::min<std::int64_t>(is_one_block ? 128 : 512, padded(extents.m, kLines)),
                      std::min<std::int64_t>(512, padded(extents.n, kColumns)),
                      is_one_block ? padded(extents.k, kQuad) : modular::kDepth / 2};
  const auto halve = [](std::int64_t& extent, std::int64_t unit) {
    extent = padded(extent / 2, unit);
  };
  while (shape.bytes(moduli) > kMostProductBytes / threads &&
         (shape.rows + shape.columns > 128 || shape.depth > 256)) {
    if (shape.depth > 256 && shape.rows + shape.columns <= 256) {
      halve(shape.depth, kQuad);
    } else if (shape.rows >= shape.columns) {
      halve(shape.rows, kLines);
    } else {
      halve(shape.columns, kColumns);
    }
  }
  return shape;
}

}  // namespace korvex::host
