// SPDX-License-Identifier: Apache-2.0
// The residues of scaled elements for every modulus, as bytes that lie as the products need them.
//
// Sixteen lines, rows of the left operand or columns of the right one, go side by side. An element
// is an integer after its line's scaling; its magnitude is cut into digits of 32 bits once, and
// each modulus then takes a product of its bytes with those of the powers of 256, and reduces that.
#pragma once

#include <array>
#include <cstdint>

#include "korvex/arithmetic/exact/residue_system.h"
#include "korvex/kernels/modular/elements.h"

namespace korvex::modular {

constexpr int kMostDwords = 6;  // digits of an element
static_assert(32 * kMostDwords >= kMostBits);
constexpr std::int64_t kDepth = 1024;  // elements of a line in one block, at most
constexpr int kQuad = 4;               // elements of a line that lie together

// What one operand's residues are made with.
struct Weights {
  // The bytes of 256^i times the operand's factor, next to zero, four a word; for each modulus.
  std::array<std::array<std::uint32_t, kMostDwords>, arithmetic::ResidueSystem::kMostModuli> powers;
  int count;   // of moduli
  int dwords;  // digits of an element
};

// For the left operand the factors are the inverses of M / p_t: so the products' residues are the
// e_t of ResidueSystem. For the right one they are 1.
Weights weights_for(const arithmetic::ResidueSystem& system, Operand operand, int bits);

// Where the residues of a chunk go: quad q of modulus t to bytes + t * modulus_stride +
// q * quad_stride, four bytes a line, and those of the last lines to `rest` likewise.
struct ResiduePlaces {
  std::uint8_t* bytes;
  std::uint8_t* rest;  // of line `lines`
  int lines;           // that go to `bytes`: kLines where there is no rest
  std::int64_t modulus_stride;
  std::int64_t quad_stride;
  // Of the left operand: the sums of the residues over a line, for each modulus sixteen, to which
  // those of the chunk are added.
  std::int32_t* sums;
  std::int64_t sums_stride;
};

// Of the right operand each byte is the residue plus 128.
void write_residues(const ElementChunk& chunk, const LineScales& scales, const Weights& weights,
                    Operand operand, const ResiduePlaces& to);

}  // namespace korvex::modular
