// SPDX-License-Identifier: Apache-2.0
// What a product by residues does to one panel with products of bytes, which need AVX-512 VNNI.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/host/aligned_memory.h"
#include "korvex/kernels/host/modular_plan.h"
#include "korvex/kernels/modular/products.h"
#include "korvex/kernels/modular/recombination.h"
#include "korvex/kernels/modular/residues.h"

namespace korvex::host {

class ByteEngine {
 public:
  static constexpr int kTileColumns = modular::kColumns;

  // Of one thread.
  struct Memory {
    Memory(const PanelShape& shape, int moduli)
        : left(moduli * shape.left_bytes()),
          right(moduli * shape.right_bytes()),
          planes(moduli * shape.plane_bytes()),
          left_sums(static_cast<std::size_t>(moduli * shape.rows)) {}

    AlignedBytes left;
    AlignedBytes right;
    AlignedBytes planes;
    std::vector<std::int32_t> left_sums;
  };

  explicit ByteEngine(const ModularPlan& plan, const PanelShape& shape)
      : shape_(shape),
        system_(plan.moduli),
        left_weights_(modular::weights_for(system_, modular::Operand::kLeft, plan.left_bits)),
        right_weights_(modular::weights_for(system_, modular::Operand::kRight, plan.right_bits)),
        recombination_(system_, plan.bits) {}

  int moduli() const { return system_.count(); }

  // Columns whose residues are read: zeros, beyond the last.
  static std::int64_t padded_columns(std::int64_t columns) {
    return padded(columns, modular::kBlockColumns);
  }

  static void begin_left(Memory& memory) {
    std::fill(memory.left_sums.begin(), memory.left_sums.end(), 0);
  }

  // Lines from `line` of the panel on, elements from `k` of the block on.
  void write_left(const modular::ElementChunk& chunk, const modular::LineScales& scales,
                  std::int64_t line, std::int64_t k, Memory& memory) const {
    using modular::kBlockRows, modular::kQuad;
    // The lines of one block, and the others in the block behind it.
    const std::int64_t in_block = line % kBlockRows;
    const std::int64_t quad_stride = std::int64_t{kBlockRows} * kQuad;
    std::uint8_t* const bytes =
        memory.left.get() + (line - in_block) * shape_.depth + k / kQuad * quad_stride;
    modular::write_residues(chunk, scales, left_weights_, modular::Operand::kLeft,
                            {bytes + in_block * kQuad, bytes + kBlockRows * shape_.depth,
                             static_cast<int>(kBlockRows - in_block), shape_.left_bytes(),
                             quad_stride, memory.left_sums.data() + line, shape_.rows});
  }

  void write_right(const modular::ElementChunk& chunk, const modular::LineScales& scales,
                   std::int64_t line, std::int64_t k, Memory& memory) const {
    using modular::kBlockColumns, modular::kLines, modular::kQuad;
    const std::int64_t in_block = line % kBlockColumns;
    const std::int64_t quad_stride = std::int64_t{kBlockColumns} * kQuad;
    std::uint8_t* const bytes = memory.right.get() + (line - in_block) * shape_.depth +
                                in_block * kQuad + k / kQuad * quad_stride;
    modular::write_residues(chunk, scales, right_weights_, modular::Operand::kRight,
                            {bytes, bytes + std::int64_t{kLines} * kQuad, kLines,
                             shape_.right_bytes(), quad_stride, nullptr, 0});
  }

  // Adds the products of a block to those of the blocks before it.
  void multiply(std::int64_t rows, std::int64_t columns, std::int64_t depth, bool is_begun,
                Memory& memory) const {
    using modular::kBlockColumns, modular::kBlockRows, modular::kQuad;
    for (int t = 0; t < moduli(); ++t) {
      const modular::ResidueProduct residues = {memory.left.get() + t * shape_.left_bytes(),
                                                memory.right.get() + t * shape_.right_bytes(),
                                                kBlockRows * shape_.depth,
                                                kBlockColumns * shape_.depth,
                                                memory.left_sums.data() + t * shape_.rows,
                                                rows,
                                                padded_columns(columns) / kBlockColumns,
                                                padded(depth, kQuad) / kQuad,
                                                arithmetic::ResidueSystem::modulus(t)};
      modular::multiply_residues(residues, {plane(t, 0, memory), shape_.columns, is_begun});
    }
  }

  // A fault, for tests.
  void spoil(int t, std::int64_t row, std::int64_t column, int difference, Memory& memory) const {
    std::int8_t& residue = *plane(t, row * shape_.columns + column, memory);
    residue = static_cast<std::int8_t>(residue + difference);
  }

  // The limbs of one row from a column on, a multiple of kTileColumns. Returns, bit by bit, which
  // of the elements have a wrong residue.
  std::uint64_t write_limbs(std::int64_t row, std::int64_t column, int exponent,
                            const double* column_exponents, const ProductTile& tile,
                            const Memory& memory) const {
    modular::Recombination::Row to = {plane(0, row * shape_.columns + column, memory),
                                      shape_.plane_bytes(),
                                      shape_.columns,
                                      static_cast<double>(exponent),
                                      column_exponents,
                                      {tile.limbs[0], tile.limbs[1], tile.limbs[2]},
                                      static_cast<int>(tile.columns)};
    return recombination_.write_limbs(to);
  }

 private:
  std::int8_t* plane(int t, std::int64_t place, const Memory& memory) const {
    return memory.planes.numbers<std::int8_t>(t * shape_.plane_bytes() + place);
  }

  const PanelShape shape_;
  arithmetic::ResidueSystem system_;
  modular::Weights left_weights_;
  modular::Weights right_weights_;
  modular::Recombination recombination_;
};

}  // namespace korvex::host
