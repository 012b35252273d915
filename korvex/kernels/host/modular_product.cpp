// SPDX-License-Identifier: Apache-2.0
// The matrix product by residues: panels of the output for the threads, and within a panel one
// modulus at a time.
//
// Phases: the extents of all lines; the choice of the lines that take part and of the moduli; then
// for each panel of rows and columns the residues of both operands, a block of kDepth products
// deep, the products for one modulus after the other, and at last the limbs, tile by tile. Lines
// that take no part count as zeros here, and are multiplied by slices at the end. What the memory
// holds is bounded, whatever the extents: residues of a panel, and its reduced products, of all
// moduli.
#include "korvex/kernels/host/modular_product.h"

#include <algorithm>
#include <bit>
#include <memory>
#include <new>
#include <vector>

#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/host/modular_lines.h"
#include "korvex/kernels/host/modular_plan.h"
#include "korvex/kernels/host/some_lines.h"
#include "korvex/kernels/host/threads.h"
#include "korvex/kernels/modular/instructions.h"
#include "korvex/kernels/modular/products.h"
#include "korvex/kernels/modular/recombination.h"

namespace korvex::host {
namespace {

using arithmetic::ResidueSystem;
using modular::kBlockColumns;
using modular::kBlockRows;
using modular::kColumns;
using modular::kLines;
using modular::kQuad;
using modular::Operand;

std::size_t size(std::int64_t n) { return static_cast<std::size_t>(n); }

// ---- Memory of one thread

class AlignedBytes {
 public:
  explicit AlignedBytes(std::int64_t count)
      : bytes_(static_cast<std::uint8_t*>(::operator new(size(count), kAlignment))) {}
  std::uint8_t* get() const { return bytes_.get(); }

 private:
  static constexpr std::align_val_t kAlignment{64};
  struct Delete {
    void operator()(std::uint8_t* bytes) const { ::operator delete(bytes, kAlignment); }
  };
  std::unique_ptr<std::uint8_t, Delete> bytes_;
};

struct Workspace {
  Workspace(const PanelShape& shape, int moduli)
      : left(moduli * shape.left_bytes()),
        right(moduli * shape.right_bytes()),
        planes(moduli * shape.plane_bytes()),
        left_sums(size(moduli * shape.rows)) {}

  alignas(64) double column_exponents[kColumns];
  modular::ElementChunk chunk;
  alignas(64) double limbs[arithmetic::kElementLimbs][kLines * kColumns];
  AlignedBytes left;
  AlignedBytes right;
  AlignedBytes planes;
  std::int64_t found = 0;
  std::vector<std::int32_t> left_sums;
};

// ---- The product

class ModularProduct {
 public:
  ModularProduct(const MatrixProduct& product, const ProductSink& sink, const ModularLines& left,
                 const ModularLines& right, const ModularPlan& plan, const ModularOptions& options)
      : product_(product),
        sink_(sink),
        left_(left),
        right_(right),
        options_(options),
        system_(plan.moduli),
        left_weights_(modular::weights_for(system_, Operand::kLeft, plan.left_bits)),
        right_weights_(modular::weights_for(system_, Operand::kRight, plan.right_bits)),
        recombination_(system_, plan.bits) {}

  struct Range {
    std::int64_t begin, end;
  };

  // Elements of a rectangle. Returns how many wrong ones were found.
  std::int64_t run(const Range& rows, const Range& columns, const PanelShape& shape) const {
    Workspace work(shape, system_.count());
    for (std::int64_t column = columns.begin; column < columns.end; column += shape.columns) {
      for (std::int64_t row = rows.begin; row < rows.end; row += shape.rows) {
        run_panel({row, std::min(rows.end, row + shape.rows)},
                  {column, std::min(columns.end, column + shape.columns)}, row == rows.begin, shape,
                  work);
      }
    }
    return work.found;
  }

 private:
  // Where one block holds all products, the columns' residues serve for all panels of rows.
  void run_panel(const Range& rows, const Range& columns, bool is_first_of_columns,
                 const PanelShape& shape, Workspace& work) const {
    for (std::int64_t k = 0; k < product_.k; k += shape.depth) {
      const std::int64_t depth = std::min(shape.depth, product_.k - k);
      write_left(rows, k, depth, shape, work);
      if (product_.k > shape.depth || is_first_of_columns) {
        write_right(columns, k, depth, shape, work);
      }
      multiply(rows, columns, k, depth, shape, work);
    }
    spoil(rows, columns, shape, work);
    write_limbs(rows, columns, shape, work);
  }

  void write_left(const Range& rows, std::int64_t k, std::int64_t depth, const PanelShape& shape,
                  Workspace& work) const {
    std::fill(work.left_sums.begin(), work.left_sums.end(), 0);
    for (std::int64_t row = rows.begin; row < rows.end; row += kLines) {
      const std::int64_t offset = row - rows.begin;
      // The lines of one block, and the others in the block behind it.
      const std::int64_t block = offset / kBlockRows;
      const std::int64_t in_block = offset % kBlockRows;
      std::uint8_t* const bytes = work.left.get() + block * kBlockRows * shape.depth;
      write_lines(left_, row, k, depth, left_weights_, Operand::kLeft,
                  {bytes + in_block * kQuad, bytes + kBlockRows * shape.depth,
                   static_cast<int>(kBlockRows - in_block), shape.left_bytes(),
                   std::int64_t{kBlockRows} * kQuad, work.left_sums.data() + offset, shape.rows},
                  work);
    }
  }

  void write_right(const Range& columns, std::int64_t k, std::int64_t depth,
                   const PanelShape& shape, Workspace& work) const {
    for (std::int64_t column = columns.begin; column < padded_end(columns); column += kLines) {
      const std::int64_t offset = column - columns.begin;
      std::uint8_t* const bytes = work.right.get() +
                                  offset / kBlockColumns * kBlockColumns * shape.depth +
                                  offset % kBlockColumns * kQuad;
      write_lines(right_, column, k, depth, right_weights_, Operand::kRight,
                  {bytes, bytes + std::int64_t{kLines} * kQuad, kLines, shape.right_bytes(),
                   std::int64_t{kBlockColumns} * kQuad, nullptr, 0},
                  work);
    }
  }

  static std::int64_t padded_end(const Range& columns) {
    return columns.begin + padded(columns.end - columns.begin, kBlockColumns);
  }

  static void write_lines(const ModularLines& lines, std::int64_t first, std::int64_t k,
                          std::int64_t depth, const modular::Weights& weights, Operand operand,
                          const modular::ResiduePlaces& to, Workspace& work) {
    const modular::LineScales scales = lines.scales(first);
    for (std::int64_t done = 0; done < depth; done += modular::kChunk) {
      const std::int64_t count = std::min<std::int64_t>(modular::kChunk, depth - done);
      lines.read(first, k + done, count, work.chunk);
      modular::ResiduePlaces places = to;
      places.bytes += done / kQuad * to.quad_stride;
      places.rest += done / kQuad * to.quad_stride;
      modular::write_residues(work.chunk, scales, weights, operand, places);
    }
  }

  void multiply(const Range& rows, const Range& columns, std::int64_t k, std::int64_t depth,
                const PanelShape& shape, Workspace& work) const {
    for (int t = 0; t < system_.count(); ++t) {
      const modular::ResidueProduct residues = {
          work.left.get() + t * shape.left_bytes(),
          work.right.get() + t * shape.right_bytes(),
          kBlockRows * shape.depth,
          kBlockColumns * shape.depth,
          work.left_sums.data() + t * shape.rows,
          rows.end - rows.begin,
          padded(columns.end - columns.begin, kBlockColumns) / kBlockColumns,
          padded(depth, kQuad) / kQuad,
          ResidueSystem::modulus(t)};
      modular::multiply_residues(residues, {plane(t, shape, work), shape.columns, k > 0});
    }
  }

  static std::int8_t* plane(int t, const PanelShape& shape, const Workspace& work) {
    return reinterpret_cast<std::int8_t*>(work.planes.get()) + t * shape.plane_bytes();
  }

  void spoil(const Range& rows, const Range& columns, const PanelShape& shape,
             const Workspace& work) const {
    for (int i = 0; i < options_.fault_count; ++i) {
      const PlantedFault& fault = options_.faults[i];
      if (fault.row >= rows.begin && fault.row < rows.end && fault.column >= columns.begin &&
          fault.column < columns.end && fault.modulus < system_.count()) {
        std::int8_t& residue =
            plane(fault.modulus, shape,
                  work)[(fault.row - rows.begin) * shape.columns + fault.column - columns.begin];
        residue = static_cast<std::int8_t>(residue + fault.difference);
      }
    }
  }

  void write_limbs(const Range& rows, const Range& columns, const PanelShape& shape,
                   Workspace& work) const {
    for (std::int64_t column = columns.begin; column < columns.end; column += kColumns) {
      const std::int64_t width = std::min<std::int64_t>(kColumns, columns.end - column);
      std::fill(std::begin(work.column_exponents), std::end(work.column_exponents), 0.0);
      for (std::int64_t j = 0; j < width; ++j) {
        work.column_exponents[j] = right_.exponent(column + j);
      }
      for (std::int64_t row = rows.begin; row < rows.end; row += kLines) {
        ProductTile tile = {row,   std::min<std::int64_t>(kLines, rows.end - row), column,
                            width, {work.limbs[0], work.limbs[1], work.limbs[2]},  kColumns};
        sink_.place(tile);
        write_tile(
            tile,
            plane(0, shape, work) + (row - rows.begin) * shape.columns + column - columns.begin,
            shape, work);
        sink_.take(tile);
      }
    }
  }

  void write_tile(const ProductTile& tile, const std::int8_t* bytes, const PanelShape& shape,
                  Workspace& work) const {
    for (std::int64_t i = 0; i < tile.rows; ++i) {
      modular::Recombination::Row row = {bytes + i * shape.columns,
                                         shape.plane_bytes(),
                                         shape.columns,
                                         static_cast<double>(left_.exponent(tile.first_row + i)),
                                         work.column_exponents,
                                         {},
                                         static_cast<int>(tile.columns)};
      for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
        row.limbs[limb] = tile.limbs[limb] + i * tile.row_stride;
      }
      const std::uint64_t wrong = recombination_.write_limbs(row);
      if (options_.is_checked && wrong != 0) {
        sum_anew(tile, i, wrong, work);
      }
    }
  }

  void sum_anew(const ProductTile& tile, std::int64_t row, std::uint64_t columns,
                Workspace& work) const {
    for (; columns != 0; columns &= columns - 1) {
      const int column = std::countr_zero(columns);
      arithmetic::ExactProductSum sum;
      add_element(product_, tile.first_row + row, tile.first_column + column, sum);
      double limbs[arithmetic::kElementLimbs];
      sum.round<arithmetic::kElementLimbs>(limbs);
      for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
        tile.limbs[limb][row * tile.row_stride + column] = limbs[limb];
      }
      ++work.found;
    }
  }

  const MatrixProduct& product_;
  const ProductSink& sink_;
  const ModularLines& left_;
  const ModularLines& right_;
  const ModularOptions& options_;
  ResidueSystem system_;
  modular::Weights left_weights_;
  modular::Weights right_weights_;
  modular::Recombination recombination_;
};

std::int64_t run_on_threads(const ModularProduct& modular, const ProductExtents& extents,
                            int moduli, int threads) {
  const bool is_by_rows = extents.m >= extents.n;
  const std::int64_t unit = is_by_rows ? kLines : kColumns;
  const std::int64_t blocks = padded(is_by_rows ? extents.m : extents.n, unit) / unit;
  const PanelShape shape =
      panel_shape(extents, moduli, static_cast<int>(std::min<std::int64_t>(blocks, threads)));
  const auto ranges =
      static_cast<int>(std::min<std::int64_t>({blocks, threads, shape.most_ranges(moduli)}));
  std::int64_t found = 0;
  for_each_of_ranges<std::int64_t>(
      blocks, ranges,
      [&](std::int64_t begin, std::int64_t end, std::int64_t& found_here) {
        const ModularProduct::Range range = {
            begin * unit, std::min(end * unit, is_by_rows ? extents.m : extents.n)};
        const ModularProduct::Range rows = {0, extents.m};
        const ModularProduct::Range columns = {0, extents.n};
        found_here = modular.run(is_by_rows ? range : rows, is_by_rows ? columns : range, shape);
      },
      [&found](std::int64_t found_there) { found += found_there; });
  return found;
}

}  // namespace

ModularOutcome multiply_by_residues(const MatrixProduct& product, const ProductSink& sink,
                                    const ModularOptions& options) {
  const ProductExtents extents = {product.m, product.n, product.k};
  if (!modular::can_run() || product.m <= 0 || product.n <= 0 || product.k <= 0 ||
      (!options.is_wanted && !is_worth_reading(extents))) {
    return {};
  }
  ModularLines left(product.a, product.m, product.k);
  ModularLines right(product.b, product.n, product.k);
  const ModularPlan plan = cheapest_plan(left, right, extents, options.is_checked);
  if (plan.moduli == 0 ||
      (!options.is_wanted &&
       !is_worth(plan.cost, cost_by_slices(extents, plan.left_bits + plan.right_bits)))) {
    return {};
  }
  left.set_most_bits(plan.left_bits);
  right.set_most_bits(plan.right_bits);
  const ModularProduct modular(product, sink, left, right, plan, options);
  const int threads =
      options.is_wanted ? std::max(1, options.threads) : useful_threads(plan.cost, options.threads);
  const std::int64_t found = run_on_threads(modular, extents, plan.moduli, threads);
  multiply_some_lines(product, sink, left.left_out(), right.left_out(), options.threads);
  return {true, found, plan.moduli};
}

}  // namespace korvex::host
