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

#include "korvex/kernels/host/byte_engine.h"
#include "korvex/kernels/host/double_engine.h"
#include "korvex/kernels/host/modular_lines.h"
#include "korvex/kernels/host/modular_plan.h"
#include "korvex/kernels/host/some_lines.h"
#include "korvex/kernels/host/threads.h"
#include "korvex/kernels/modular/double_lanes.h"
#include "korvex/kernels/modular/instructions.h"

namespace korvex::host {
namespace {

using modular::kLines;

// ---- Memory of one thread

template <class Engine>
struct Workspace {
  Workspace(const PanelShape& shape, int moduli) : memory(shape, moduli) {}

  alignas(64) double column_exponents[Engine::kTileColumns];
  modular::ElementChunk chunk;
  alignas(64) double limbs[arithmetic::kElementLimbs][kLines * Engine::kTileColumns];
  typename Engine::Memory memory;
  std::int64_t found = 0;
};

// ---- The product

struct Range {
  std::int64_t begin, end;

  std::int64_t count() const { return end - begin; }
};

template <class Engine>
class ModularProduct {
 public:
  ModularProduct(const MatrixProduct& product, const ProductSink& sink, const ModularLines& left,
                 const ModularLines& right, const ModularPlan& plan, const PanelShape& shape,
                 const ModularOptions& options)
      : product_(product),
        sink_(sink),
        left_(left),
        right_(right),
        options_(options),
        shape_(shape),
        engine_(plan, shape) {}

  // Elements of a rectangle. Returns how many wrong ones were found.
  std::int64_t run(const Range& rows, const Range& columns) const {
    Work work(shape_, engine_.moduli());
    for (std::int64_t column = columns.begin; column < columns.end; column += shape_.columns) {
      for (std::int64_t row = rows.begin; row < rows.end; row += shape_.rows) {
        run_panel({row, std::min(rows.end, row + shape_.rows)},
                  {column, std::min(columns.end, column + shape_.columns)}, row == rows.begin,
                  work);
      }
    }
    return work.found;
  }

 private:
  using Work = Workspace<Engine>;

  // Where one block holds all products, the columns' residues serve for all panels of rows.
  void run_panel(const Range& rows, const Range& columns, bool is_first_of_columns,
                 Work& work) const {
    for (std::int64_t k = 0; k < product_.k; k += shape_.depth) {
      const std::int64_t depth = std::min(shape_.depth, product_.k - k);
      engine_.begin_left(work.memory);
      for (std::int64_t row = 0; row < rows.count(); row += kLines) {
        write_lines<modular::Operand::kLeft>(rows.begin, row, k, depth, work);
      }
      if (product_.k > shape_.depth || is_first_of_columns) {
        const std::int64_t padded = Engine::padded_columns(columns.count());
        for (std::int64_t column = 0; column < padded; column += kLines) {
          write_lines<modular::Operand::kRight>(columns.begin, column, k, depth, work);
        }
      }
      engine_.multiply(rows.count(), columns.count(), depth, k > 0, work.memory);
    }
    spoil(rows, columns, work);
    write_limbs(rows, columns, work);
  }

  // The residues of kLines lines of a block, from line `offset` of the panel on.
  template <modular::Operand kOperand>
  void write_lines(std::int64_t first, std::int64_t offset, std::int64_t k, std::int64_t depth,
                   Work& work) const {
    const ModularLines& lines = kOperand == modular::Operand::kLeft ? left_ : right_;
    const modular::LineScales scales = lines.scales(first + offset);
    for (std::int64_t done = 0; done < depth; done += modular::kChunk) {
      const std::int64_t count = std::min<std::int64_t>(modular::kChunk, depth - done);
      lines.read(first + offset, k + done, count, work.chunk);
      if constexpr (kOperand == modular::Operand::kLeft) {
        engine_.write_left(work.chunk, scales, offset, done, work.memory);
      } else {
        engine_.write_right(work.chunk, scales, offset, done, work.memory);
      }
    }
  }

  void spoil(const Range& rows, const Range& columns, Work& work) const {
    for (int i = 0; i < options_.fault_count; ++i) {
      const PlantedFault& fault = options_.faults[i];
      if (fault.row >= rows.begin && fault.row < rows.end && fault.column >= columns.begin &&
          fault.column < columns.end && fault.modulus < engine_.moduli()) {
        engine_.spoil(fault.modulus, fault.row - rows.begin, fault.column - columns.begin,
                      fault.difference, work.memory);
      }
    }
  }

  void write_limbs(const Range& rows, const Range& columns, Work& work) const {
    constexpr std::int64_t kTileColumns = Engine::kTileColumns;
    for (std::int64_t column = columns.begin; column < columns.end; column += kTileColumns) {
      const std::int64_t width = std::min(kTileColumns, columns.end - column);
      std::fill(std::begin(work.column_exponents), std::end(work.column_exponents), 0.0);
      for (std::int64_t j = 0; j < width; ++j) {
        work.column_exponents[j] = right_.exponent(column + j);
      }
      for (std::int64_t row = rows.begin; row < rows.end; row += kLines) {
        ProductTile tile = {row,   std::min<std::int64_t>(kLines, rows.end - row), column,
                            width, {work.limbs[0], work.limbs[1], work.limbs[2]},  kTileColumns};
        sink_.place(tile);
        for (std::int64_t i = 0; i < tile.rows; ++i) {
          write_row(tile, i, row - rows.begin + i, column - columns.begin, work);
        }
        sink_.take(tile);
      }
    }
  }

  // Row i of the tile, whose residues lie at a row and a column of the panel.
  void write_row(const ProductTile& tile, std::int64_t i, std::int64_t row, std::int64_t column,
                 Work& work) const {
    ProductTile one_row = tile;
    for (double*& limb : one_row.limbs) {
      limb += i * tile.row_stride;
    }
    const std::uint64_t wrong = engine_.write_limbs(row, column, left_.exponent(tile.first_row + i),
                                                    work.column_exponents, one_row, work.memory);
    if (options_.is_checked && wrong != 0) {
      sum_anew(tile, i, wrong, work);
    }
  }

  void sum_anew(const ProductTile& tile, std::int64_t row, std::uint64_t columns,
                Work& work) const {
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
  const PanelShape shape_;
  Engine engine_;
};

template <class Engine>
std::int64_t run_on_threads(const MatrixProduct& product, const ProductSink& sink,
                            const ModularLines& left, const ModularLines& right,
                            const ModularPlan& plan, const ModularEngine& engine, int threads,
                            const ModularOptions& options) {
  const bool is_by_rows = product.m >= product.n;
  const std::int64_t unit = is_by_rows ? kLines : engine.column_unit;
  const std::int64_t blocks = padded(is_by_rows ? product.m : product.n, unit) / unit;
  const PanelShape shape = panel_shape(engine, {product.m, product.n, product.k}, plan.moduli,
                                       static_cast<int>(std::min<std::int64_t>(blocks, threads)));
  const auto ranges =
      static_cast<int>(std::min<std::int64_t>({blocks, threads, shape.most_ranges(plan.moduli)}));
  const ModularProduct<Engine> modular(product, sink, left, right, plan, shape, options);
  std::int64_t found = 0;
  for_each_of_ranges<std::int64_t>(
      blocks, ranges,
      [&](std::int64_t begin, std::int64_t end, std::int64_t& found_here) {
        const Range range = {begin * unit,
                             std::min(end * unit, is_by_rows ? product.m : product.n)};
        const Range rows = {0, product.m};
        const Range columns = {0, product.n};
        found_here = modular.run(is_by_rows ? range : rows, is_by_rows ? columns : range);
      },
      [&found](std::int64_t found_there) { found += found_there; });
  return found;
}

// Null where neither the processor nor the library has one that suits.
const ModularEngine* engine_for(EngineChoice choice) {
  if (choice != EngineChoice::kDoubles && modular::can_run()) {
    return &kByteEngine;
  }
  return choice != EngineChoice::kBytes && modular::can_run_doubles() ? &kDoubleEngine : nullptr;
}

}  // namespace

ModularOutcome multiply_by_residues(const MatrixProduct& product, const ProductSink& sink,
                                    const ModularOptions& options) {
  const ProductExtents extents = {product.m, product.n, product.k};
  const ModularEngine* const engine = engine_for(options.engine);
  if (engine == nullptr || product.m <= 0 || product.n <= 0 || product.k <= 0 ||
      (!options.is_wanted && !is_worth_reading(*engine, extents))) {
    return {};
  }
  ModularLines left(product.a, product.m, product.k);
  ModularLines right(product.b, product.n, product.k);
  const ModularPlan plan = cheapest_plan(*engine, left, right, extents, options.is_checked);
  if (plan.moduli == 0 ||
      (!options.is_wanted &&
       !is_worth(plan.cost, cost_by_slices(extents, plan.left_bits + plan.right_bits)))) {
    return {};
  }
  left.set_most_bits(plan.left_bits);
  right.set_most_bits(plan.right_bits);
  const int threads =
      options.is_wanted ? std::max(1, options.threads) : useful_threads(plan.cost, options.threads);
  const auto run =
      engine == &kByteEngine ? &run_on_threads<ByteEngine> : &run_on_threads<DoubleEngine>;
  const std::int64_t found = run(product, sink, left, right, plan, *engine, threads, options);
  multiply_some_lines(product, sink, left.left_out(), right.left_out(), options.threads);
  return {true, found, plan.moduli};
}

}  // namespace korvex::host
