// SPDX-License-Identifier: Apache-2.0
// A running sum in four limbs: each addend goes through a cascade of four two_sums, and nothing is
// rounded away; an addend that four limbs cannot take is refused, and nothing has changed then.
//
// Cost: 24 additions an addend. The cascade is the distillation of Ogita, Rump and Oishi, Accurate
// sum and dot product, 2005, cut after four steps with the residue tested instead of dropped.
#pragma once

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/canonical.h"

namespace korvex::arithmetic {

struct Accumulator4 {
  // The value is the exact sum of the limbs. Each is finite and below kLimbLimit in magnitude; they
  // are in no particular order until canonicalise() has put them in one.
  double limb[4];

  KORVEX_INLINE Accumulator4() {
    for (double& each : limb) {
      each = 0.0;
    }
  }

  // True where the value is now larger by exactly x; false, with nothing changed, where it cannot
  // be. Precondition: x is finite.
  KORVEX_INLINE bool try_add(double x) {
    const ValueAndError s0 = two_sum(limb[0], x);         // exact unless it overflows
    const ValueAndError s1 = two_sum(limb[1], s0.error);  // exact likewise
    const ValueAndError s2 = two_sum(limb[2], s1.error);
    const ValueAndError s3 = two_sum(limb[3], s2.error);
    // An overflow in any step leaves a NaN or an infinity in its sum or in the last error.
    if (!(s3.error == 0 && below_limit(s0.value) && below_limit(s1.value) &&
          below_limit(s2.value) && below_limit(s3.value))) {
      return false;
    }
    limb[0] = s0.value;
    limb[1] = s1.value;
    limb[2] = s2.value;
    limb[3] = s3.value;
    return true;
  }

 private:
  KORVEX_INLINE static bool below_limit(double x) { return x < kLimbLimit && x > -kLimbLimit; }
};

}  // namespace korvex::arithmetic
