// SPDX-License-Identifier: Apache-2.0
// What a product by residues does to one panel with products of doubles, which need FMA.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/host/aligned_memory.h"
#include "korvex/kernels/host/modular_plan.h"
#include "korvex/kernels/modular/double_products.h"
#include "korvex/kernels/modular/double_recombination.h"
#include "korvex/kernels/modular/double_residues.h"

namespace korvex::host {

// The members are those of ByteEngine.
class DoubleEngine {
 public:
  static constexpr int kTileColumns = modular::kDoubleColumns;

  struct Memory {
    Memory(const PanelShape& shape, int moduli)
        : left(moduli * shape.left_bytes()),
          right(moduli * shape.right_bytes()),
          planes(moduli * shape.plane_bytes()) {}

    AlignedBytes left;
    AlignedBytes right;
    AlignedBytes planes;
  };

  DoubleEngine(const ModularPlan& plan, const PanelShape& shape)
      : shape_(shape),
        system_(plan.moduli),
        left_weights_(
            modular::double_weights_for(system_, modular::Operand::kLeft, plan.left_bits)),
        right_weights_(
            modular::double_weights_for(system_, modular::Operand::kRight, plan.right_bits)),
        recombination_(system_, plan.bits) {}

  int moduli() const { return system_.count(); }

  static std::int64_t padded_columns(std::int64_t columns) {
    return padded(columns, modular::kDoubleBlockColumns);
  }

  static void begin_left(Memory&) {}

  void write_left(const modular::ElementChunk& chunk, const modular::LineScales& scales,
                  std::int64_t line, std::int64_t k, Memory& memory) const {
    write(chunk, scales, left_weights_, line, k, modular::kDoubleBlockRows,
          memory.left.numbers<double>(0), shape_.left_bytes());
  }

  void write_right(const modular::ElementChunk& chunk, const modular::LineScales& scales,
                   std::int64_t line, std::int64_t k, Memory& memory) const {
    write(chunk, scales, right_weights_, line, k, modular::kDoubleBlockColumns,
          memory.right.numbers<double>(0), shape_.right_bytes());
  }

  void multiply(std::int64_t rows, std::int64_t columns, std::int64_t depth, bool is_begun,
                Memory& memory) const {
    using modular::kDoubleBlockColumns, modular::kDoubleBlockRows;
    for (int t = 0; t < moduli(); ++t) {
      const modular::DoubleProduct product = {
          memory.left.numbers<double>(t * shape_.left_bytes()),
          memory.right.numbers<double>(t * shape_.right_bytes()),
          padded(rows, kDoubleBlockRows) / kDoubleBlockRows,
          padded_columns(columns) / kDoubleBlockColumns,
          depth,
          shape_.depth,
          arithmetic::DoubleResidueSystem::modulus(t)};
      modular::multiply_double_residues(product, {plane(t, 0, memory), tiles_of_row(), is_begun});
    }
  }

  void spoil(int t, std::int64_t row, std::int64_t column, int difference, Memory& memory) const {
    *plane(t, place(row, column), memory) += static_cast<float>(difference);
  }

  std::uint64_t write_limbs(std::int64_t row, std::int64_t column, int exponent,
                            const double* column_exponents, const ProductTile& tile,
                            const Memory& memory) const {
    modular::DoubleRecombination::Row to = {
        plane(0, place(row, column), memory),
        shape_.plane_bytes() / static_cast<std::int64_t>(sizeof(float)),
        static_cast<int>(column % modular::kDoubleBlockColumns / modular::kDoubleLanes),
        exponent,
        column_exponents,
        {tile.limbs[0], tile.limbs[1], tile.limbs[2]},
        static_cast<int>(tile.columns)};
    return recombination_.write_limbs(to);
  }

 private:
  std::int64_t tiles_of_row() const { return shape_.columns / modular::kDoubleBlockColumns; }

  std::int64_t place(std::int64_t row, std::int64_t column) const {
    using modular::kDoubleBlockColumns, modular::kDoubleBlockRows;
    const std::int64_t tile =
        row / kDoubleBlockRows * tiles_of_row() + column / kDoubleBlockColumns;
    return tile * modular::kDoubleTile + row % kDoubleBlockRows * kDoubleBlockColumns +
           column % kDoubleBlockColumns;
  }

  float* plane(int t, std::int64_t place, const Memory& memory) const {
    return memory.planes.numbers<float>(t * shape_.plane_bytes()) + place;
  }

  void write(const modular::ElementChunk& chunk, const modular::LineScales& scales,
             const modular::DoubleWeights& weights, std::int64_t line, std::int64_t k,
             std::int64_t block_lines, double* residues, std::int64_t bytes) const {
    modular::write_double_residues(
        chunk, scales, weights,
        {residues + k * block_lines, bytes / static_cast<std::int64_t>(sizeof(double)),
         shape_.depth, line, block_lines});
  }

  const PanelShape shape_;
  arithmetic::DoubleResidueSystem system_;
  modular::DoubleWeights left_weights_;
  modular::DoubleWeights right_weights_;
  modular::DoubleRecombination recombination_;
};

}  // namespace korvex::host
