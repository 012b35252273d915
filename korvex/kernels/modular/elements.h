// SPDX-License-Identifier: Apache-2.0
// Elements of an operand on their way to residues: pieces of sixteen lines, side by side.
#pragma once

#include <cstdint>

namespace korvex::modular {

constexpr int kLines = 16;      // side by side
constexpr int kChunk = 64;      // elements of a line that are taken at a time
constexpr int kMostBits = 192;  // of an element after scaling

enum class Operand { kLeft, kRight };

// How sixteen lines are scaled: element * 2^minus_exponent is an integer below 2^kMostBits. Lines
// that are not in the mask count as zeros.
struct LineScales {
  alignas(64) double minus_exponent[kLines];
  std::uint16_t mask;
};

// A chunk of sixteen lines: x[i][line]. Those beyond `count` are zeros, up to a whole quad.
struct ElementChunk {
  alignas(64) double x[kChunk][kLines];
  int count;
};

// Writes the elements i, ..., i + 7 of eight lines: element i of line j is lines[j][i].
void transpose_eight(const double* const (&lines)[8], int i, ElementChunk& chunk, int first_line);

}  // namespace korvex::modular
