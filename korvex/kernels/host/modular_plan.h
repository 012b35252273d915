// SPDX-License-Identifier: Apache-2.0
// What a matrix product by residues is planned from: what it costs beside the one by slices, how
// many moduli it takes, which lines are left out, and how much of it is in memory at a time. What
// differs from engine to engine stands in a table of two rows.
#pragma once

#include <algorithm>
#include <cstdint>

#include "korvex/kernels/host/modular_lines.h"

namespace korvex::host {

struct ProductExtents {
  std::int64_t m, n, k;
};

constexpr std::int64_t padded(std::int64_t n, std::int64_t unit) {
  return (n + unit - 1) / unit * unit;
}

struct PanelShape;

// What plans know of an engine.
struct ModularEngine {
  int (*count_for)(int bits);  // moduli whose product is at least 2^bits; 0: there are not so many
  int check_bits;              // a modulus has at most: what a redundant one adds

  PanelShape (*largest_panel)(const ProductExtents& extents);
  std::int64_t row_unit;  // of the left operand's residues
  std::int64_t column_unit;
  std::int64_t least_depth;
  std::int64_t residue_bytes;
  std::int64_t product_bytes;  // of a reduced product
  std::int64_t row_bytes;      // that go with a row of the left operand

  // Nanoseconds of one thread, and what the extents are padded to.
  std::int64_t fewest_rows;
  std::int64_t fewest_columns;
  int fewest_moduli;  // of integers, say
  double start;
  double element;  // of the result
  double operand_element;
  double modulus_element;  // the same for each modulus
  double modulus_operand_element;
  double modulus_product;
};

extern const ModularEngine kByteEngine;
extern const ModularEngine kDoubleEngine;

// In nanoseconds of one thread, roughly; between ways only the proportions count. bits: of the
// products of elements, from the highest to the lowest.
double cost_by_residues(const ModularEngine& engine, const ProductExtents& extents, int moduli);
double cost_by_slices(const ProductExtents& extents, int bits);

// By residues only where that is faster beyond doubt: costs are estimates.
inline bool is_worth(double by_residues, double by_slices) { return by_residues < 0.8 * by_slices; }

// Whether the elements are to be read for a plan at all: where that costs more than a few percent
// of a product by slices, or no plan can be worth it, they are not.
bool is_worth_reading(const ModularEngine& engine, const ProductExtents& extents);

struct ModularPlan {
  int moduli = 0;     // 0: no lines that moduli can hold
  int bits = 0;       // of the integers that elements are made from
  int left_bits = 0;  // of the elements of the operands, at most
  int right_bits = 0;
  double cost = 0;
};

// Of all ways to leave out the widest lines, the cheapest. The product of the moduli is at least
// four times the largest integer, and where it is checked the largest modulus times that.
ModularPlan cheapest_plan(const ModularEngine& engine, const ModularLines& left,
                          const ModularLines& right, const ProductExtents& extents,
                          bool is_checked);

// How many of the threads work of this cost is worth: one at least.
int useful_threads(double cost, int threads);

// Residues and reduced products of all threads together. What stands on their stacks, or for each
// line, comes on top: 64 KiB a thread and four bytes a line.
constexpr std::int64_t kMostProductBytes = std::int64_t{60} << 20;

// How many lines of either operand, and how many of their elements, are taken at a time.
struct PanelShape {
  std::int64_t rows, columns, depth;
  const ModularEngine* engine;

  std::int64_t plane_bytes() const { return rows * columns * engine->product_bytes + 64; }
  std::int64_t left_bytes() const {
    return padded(rows, engine->row_unit) * depth * engine->residue_bytes + 64;
  }
  std::int64_t right_bytes() const { return columns * depth * engine->residue_bytes + 64; }
  // Of a thread.
  std::int64_t bytes(int moduli) const {
    return moduli * (plane_bytes() + left_bytes() + right_bytes() + rows * engine->row_bytes);
  }

  // How many threads may work at a time.
  std::int64_t most_ranges(int moduli) const {
    return std::max<std::int64_t>(1, kMostProductBytes / bytes(moduli));
  }
};

PanelShape panel_shape(const ModularEngine& engine, const ProductExtents& extents, int moduli,
                       int threads);

}  // namespace korvex::host
