// SPDX-License-Identifier: Apache-2.0
// The matrix product by residues: products of bytes for a few dozen moduli, or of doubles for
// several, and each element from its residues, with the same limbs as every other way.
#pragma once

#include <cstdint>

#include "korvex/kernels/host/matrix_product.h"

namespace korvex::host {

// A residue that a test changes, to see that the redundant modulus finds it.
struct PlantedFault {
  std::int64_t row, column;
  int modulus;     // which
  int difference;  // added to the residue
};

// kBest: products of bytes where the processor has them, else of doubles.
enum class EngineChoice { kBest, kBytes, kDoubles };

struct ModularOptions {
  EngineChoice engine = EngineChoice::kBest;
  // Takes every line that residues can hold, however small the product is.
  bool is_wanted = false;
  // One modulus more than needed: an element with a wrong residue is found, and summed anew.
  bool is_checked = false;
  int threads = 1;
  const PlantedFault* faults = nullptr;
  int fault_count = 0;
};

struct ModularOutcome {
  bool is_done = false;    // false: nothing was written
  std::int64_t found = 0;  // elements with a wrong residue; only where they are looked for
  int moduli = 0;
};

// Writes all elements, where the processor can and where it is the faster way. Elements of lines
// that are not finite, or too wide for the others, are written twice, the second time by slices.
ModularOutcome multiply_by_residues(const MatrixProduct& product, const ProductSink& sink,
                                    const ModularOptions& options);

}  // namespace korvex::host
