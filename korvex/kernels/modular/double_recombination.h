// SPDX-License-Identifier: Apache-2.0
// From the residues of elements as doubles to their canonical limbs, one vector of columns at a
// time.
//
// Phases: the quotient q from the fractions e_t / p_t; the integer C = sum of e_t * M / p_t - q * M
// in columns of radix 2^24, carries, and two columns as a double; then as recombination.h: limbs by
// passes of two_sum, a test that they are canonical, and the long accumulator for those that are
// not. The proofs stand in docs/numerics_modular.md.
#pragma once

#include <array>
#include <cstdint>

#include "korvex/arithmetic/exact/matrix_product.h"
#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/modular/double_products.h"

namespace korvex::modular {

class DoubleRecombination {
 public:
  // The elements are integers of at most 2^bits in magnitude before they are scaled.
  DoubleRecombination(const arithmetic::DoubleResidueSystem& system, int bits);

  // One row of at most 64 columns: its first vector in the first plane, the exponents of the row
  // and of the columns, and where the limbs go.
  struct Row {
    const float* residues;
    std::int64_t plane_stride;
    int first_vector;  // within its tile
    int exponent;
    const double* column_exponents;  // up to a whole vector
    double* limbs[arithmetic::kElementLimbs];
    int columns;
  };

  // Returns, bit by bit, which of the elements lie beyond 2^bits: their residues are wrong.
  std::uint64_t write_limbs(const Row& row) const;

 private:
  friend struct RecombinedVector;
  static constexpr int kMost = arithmetic::DoubleResidueSystem::kMostModuli;
  static constexpr int kMostDoubles = 8;
  static constexpr int kTogether = 4;  // columns that are summed up at a time

  int count_;     // of moduli
  int doubles_;   // of two columns each, that hold every integer
  double limit_;  // 2^bits
  std::array<double, kMost> fractions_{};
  // Digits of M / p_t, and behind the last modulus those of M.
  std::array<std::array<std::array<double, kTogether>, kMost + 1>, 2 * kMostDoubles / kTogether>
      digits_{};
};

}  // namespace korvex::modular
