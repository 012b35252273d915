// SPDX-License-Identifier: Apache-2.0
// Sums of three doubles, in the lanes of a register or one of all lanes. The first two are exact,
// but for what the third takes; that one is rounded.
#pragma once

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/kernels/host/lanes.h"

namespace korvex::host {

template <class Value>
struct TripleSum {
  Value total = Value(0.0);
  Value rest = Value(0.0);
  Value last = Value(0.0);

  KORVEX_INLINE void add(Value value) {
    const auto next = arithmetic::two_sum(total, value);  // exact
    total = next.value;
    add_rest(next.error);
  }
  KORVEX_INLINE void add_rest(Value value) {
    const auto next = arithmetic::two_sum(rest, value);  // exact
    rest = next.value;
    last = arithmetic::add_rn(last, next.error);  // rounded
  }
  KORVEX_INLINE void add(const TripleSum& other) {
    add(other.total);
    add_rest(other.rest);
    last += other.last;
  }
};

using LaneSums = TripleSum<arithmetic::HostLanes::Value>;

KORVEX_COLD inline void add_lanes(const LaneSums& lanes, TripleSum<double>& sum) {
  for (int lane = 0; lane < arithmetic::kHostLanes; ++lane) {
    sum.add(TripleSum<double>{arithmetic::lane(lanes.total, lane),
                              arithmetic::lane(lanes.rest, lane),
                              arithmetic::lane(lanes.last, lane)});
  }
}

// Off by 2^-105 of the sum, besides what the last part has lost.
KORVEX_COLD inline arithmetic::ValueAndError as_pair(const TripleSum<double>& sum) {
  const auto upper = arithmetic::two_sum(sum.total, sum.rest);     // exact
  const double lower = arithmetic::add_rn(upper.error, sum.last);  // rounded
  return arithmetic::two_sum(upper.value, lower);                  // exact
}

}  // namespace korvex::host
