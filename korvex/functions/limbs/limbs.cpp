// SPDX-License-Identifier: Apache-2.0
// The table of contents of the limb functions.
#include "korvex/functions/limbs/limbs.h"

#include "korvex/functions/limbs/parts.h"

namespace korvex {

void define_limb_algebra() {
  define_error_free_transforms();
  define_limb_operands();
}

}  // namespace korvex
