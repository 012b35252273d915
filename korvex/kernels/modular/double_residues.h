// SPDX-License-Identifier: Apache-2.0
// The residues of scaled elements for every modulus, as doubles that lie as the products need them.
//
// Lines go side by side in the lanes. An element is an integer after its line's scaling; it is cut
// into digits of 28 bits next to zero once, and each modulus then takes their products with the
// powers of 2^28, and reduces the sum.
#pragma once

#include <array>
#include <cstdint>

#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/modular/elements.h"

namespace korvex::modular {

constexpr int kDoubleDigitBits = 28;
constexpr int kMostDoubleDigits = 7;
static_assert(kDoubleDigitBits * kMostDoubleDigits >= kMostBits);

// What one operand's residues are made with.
struct DoubleWeights {
  // 2^(28 i) times the operand's factor, next to zero; for each modulus.
  std::array<std::array<double, kMostDoubleDigits>, arithmetic::DoubleResidueSystem::kMostModuli>
      powers;
  int count;   // of moduli
  int digits;  // of an element
};

// For the left operand the factors are the inverses of M / p_t: so the products' residues are the
// e_t of the system. For the right one they are 1.
DoubleWeights double_weights_for(const arithmetic::DoubleResidueSystem& system, Operand operand,
                                 int bits);

// Where the residues of a chunk go. Lines are taken in vectors of kDoubleLanes; as many of them as
// a block has lie beside each other, element by element.
struct DoublePlaces {
  double* residues;  // of the first element of the chunk, of the operand's first line and modulus
  std::int64_t modulus_stride;
  std::int64_t depth;        // elements of a line from block to block
  std::int64_t line;         // first of the chunk, a multiple of kLines
  std::int64_t block_lines;  // a multiple of kDoubleLanes
};

void write_double_residues(const ElementChunk& chunk, const LineScales& scales,
                           const DoubleWeights& weights, const DoublePlaces& to);

}  // namespace korvex::modular
