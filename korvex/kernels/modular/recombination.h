// SPDX-License-Identifier: Apache-2.0
// From the residues of elements to their canonical limbs, sixty-four columns of a row at a time.
//
// Phases: the quotient q from the fractions e_t / p_t; the digits of the integer C = sum of e_t * M
// / p_t - q * M, in columns of radix 256, again as products of bytes; carries, and six columns at a
// time as a double, next to zero; limbs by passes of two_sum, with a test that they are canonical.
// Elements that fail it, and those whose limbs would under- or overflow, are rounded one by one in
// a long accumulator. The proofs stand in docs/numerics_modular.md.
#pragma once

#include <array>
#include <cstdint>

#include "korvex/arithmetic/exact/matrix_product.h"
#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/modular/products.h"

namespace korvex::modular {

class Recombination {
 public:
  // The elements are integers of at most 2^bits in magnitude before they are scaled.
  Recombination(const arithmetic::ResidueSystem& system, int bits);

  // One row of a block of columns: where its bytes lie in the first plane, the exponents of the row
  // and of the columns, where the limbs go and how many of them are wanted.
  struct Row {
    const std::int8_t* bytes;
    std::int64_t plane_stride;
    std::int64_t row_stride;  // to the bytes of the row that is likely the next
    double exponent;
    const double* column_exponents;
    double* limbs[arithmetic::kElementLimbs];
    int columns;
  };

  // Returns, bit by bit, which of the elements lie beyond 2^bits: their residues are wrong.
  std::uint64_t write_limbs(const Row& row) const;

  static constexpr int kDigitsOfDouble = 6;  // of radix 256

 private:
  friend struct RecombinedRow;
  static constexpr int kMostGroups = arithmetic::ResidueSystem::kMostModuli / kQuad;
  static constexpr int kMostDoubles = 7;

  int count_;     // of moduli
  int groups_;    // of four of them
  int doubles_;   // of 48 bits that hold every integer
  double limit_;  // 2^bits
  // Bytes of 2^16 / p_t, upper and lower, and digits of M / p_t; four moduli a word. What follows
  // the last group is the digit of M, to be multiplied by -q. Digits above those of M are zeros.
  std::array<std::array<std::uint32_t, kMostGroups>, 2> fractions_{};
  std::array<std::array<std::array<std::uint32_t, kDigitsOfDouble>, kMostGroups + 1>, kMostDoubles>
      digits_{};
};

}  // namespace korvex::modular
