// SPDX-License-Identifier: Apache-2.0
// The table of contents of provenance.
#include "korvex/functions/provenance/provenance.h"

#include "korvex/functions/provenance/parts.h"

namespace korvex {

void define_provenance() {
  define_checksums();
  define_verified_result();
}

}  // namespace korvex
