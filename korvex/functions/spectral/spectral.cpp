// SPDX-License-Identifier: Apache-2.0
// The table of contents of the spectral transforms.
#include "korvex/functions/spectral/spectral.h"

#include "korvex/functions/spectral/parts.h"

namespace korvex {

void define_spectral() {
  define_butterfly();
  define_transforms();
}

}  // namespace korvex
