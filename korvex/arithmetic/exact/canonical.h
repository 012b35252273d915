// SPDX-License-Identifier: Apache-2.0
// The canonical limbs of four doubles: l0 = RN(S), l1 = RN(S - l0), and so on, S their exact sum.
//
// Phases, in order: order the limbs by two_sum passes until none changes; settle the tie that can
// hide below l0; the same for the three limbs after it; l2 and l3 then are canonical already. The
// proof stands in docs/numerics_sum.md. Where the passes do not come to rest, or where a limb is
// large enough to overflow on the way, the long accumulator rounds instead: the limbs are the same.
#pragma once

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/bignum/long_accumulator.h"

namespace korvex::arithmetic {

constexpr int kCanonicalPasses = 12;
// Below it no sum of four limbs, and no step of a two_sum on them, overflows.
constexpr double kLimbLimit = 0x1p+1020;

// Passes of two_sum from the last limb up to limb `first`, until limb[i] = RN(limb[i] + limb[i +
// 1]) for each i from first on. False where max_passes were not enough. The sum never changes.
KORVEX_INLINE bool order_limbs(double* limb, int first, int max_passes) {
  for (int pass = 0; pass < max_passes; ++pass) {
    bool changed = false;
    for (int i = 2; i >= first; --i) {
      const ValueAndError upper = two_sum(limb[i], limb[i + 1]);  // exact
      changed = changed || upper.value != limb[i] || upper.error != limb[i + 1];
      limb[i] = upper.value;
      limb[i + 1] = upper.error;
    }
    if (!changed) {
      return true;
    }
  }
  return false;
}

// Precondition: limb[i] = RN(limb[i] + limb[i + 1]) holds for i and i + 1. Where limb[i + 1] is
// exactly half the way to a neighbour of limb[i], the sign of what follows decides between the two.
// Asking whether RN(limb[i] + limb[i + 1]) moves would be wrong: limb[i] may be the odd one.
KORVEX_INLINE void settle_tie(double* limb, int i) {
  const double next = limb[i + 1];
  const double rest = limb[i + 2];
  if (rest == 0 || is_negative(rest) != is_negative(next)) {
    return;
  }
  const double neighbour = add_rn(limb[i], 2 * next);
  const double distance = sub_rn(neighbour, limb[i]);  // exact: adjacent, or equal
  if (neighbour != limb[i] && distance == 2 * next) {
    limb[i] = neighbour;
    limb[i + 1] = -next;
  }
}

// False where the limbs are not canonical afterwards; their sum is unchanged even then.
KORVEX_INLINE bool try_canonicalise(double* limb, int max_passes) {
  if (!order_limbs(limb, 0, max_passes)) {
    return false;
  }
  settle_tie(limb, 0);
  if (!order_limbs(limb, 1, max_passes)) {
    return false;
  }
  settle_tie(limb, 1);
  const ValueAndError last = two_sum(limb[2], limb[3]);  // exact
  limb[2] = last.value;
  limb[3] = last.error;
  for (int i = 0; i < 4; ++i) {
    limb[i] = add_rn(limb[i], 0.0);  // -0 to +0, all else unchanged
  }
  return true;
}

// By way of `wide`, whatever it held: on a device it lies in static memory, or in a block's.
KORVEX_COLD inline void canonicalise_wide(double* limb, LongAccumulator& wide) {
  wide.clear();
  for (int i = 0; i < 4; ++i) {
    wide.add(limb[i]);
  }
  wide.round(limb, 4);
}

// Precondition: four finite limbs. False where the fast way does not settle them: then they are not
// canonical, and their sum is unchanged.
KORVEX_COLD inline bool canonicalise_fast(double* limb, int max_passes = kCanonicalPasses) {
  bool small = true;
  for (int i = 0; i < 4; ++i) {
    small = small && limb[i] < kLimbLimit && limb[i] > -kLimbLimit;
  }
  return small && try_canonicalise(limb, max_passes);
}

// The same, with the wide way where the fast one does not settle them; both give the same bits.
KORVEX_COLD inline void canonicalise(double* limb, LongAccumulator& wide,
                                     int max_passes = kCanonicalPasses) {
  if (!canonicalise_fast(limb, max_passes)) {
    canonicalise_wide(limb, wide);
  }
}

}  // namespace korvex::arithmetic
