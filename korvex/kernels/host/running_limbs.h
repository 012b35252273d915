// SPDX-License-Identifier: Apache-2.0
// Running sums as two or four doubles in any order, and the first two canonical limbs of each.
//
// A PrefixSum brings the limbs of every sum in order before it takes the next element, so each
// addition waits for all of the one before. Here an addition waits for that in each double alone;
// what is written is made of a copy. Where that does not give the limbs for sure, the PrefixSum
// takes the element.
#pragma once

#include <cstdint>
#include <functional>

#include "korvex/arithmetic/base/eft.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/kernels/host/running_blocks.h"

namespace korvex::host {

// The sum so far as two doubles in any order.
struct RunningPair {
  double high;
  double low;

  // True where the pair is now larger by exactly x; false, with nothing changed, where it is not.
  // The limit is below that of limbs by more than all errors together, so the sum of both is too.
  KORVEX_INLINE bool try_add(double x) {
    const auto upper = arithmetic::two_sum(high, x);           // exact below the limit
    const auto lower = arithmetic::two_sum(low, upper.error);  // exact likewise
    if (lower.error != 0 || !(arithmetic::absolute(upper.value) < arithmetic::kLimbLimit / 4)) {
      return false;  // NaN too
    }
    high = upper.value;
    low = lower.value;
    return true;
  }

  KORVEX_INLINE arithmetic::ValueAndError limbs() const {
    return arithmetic::two_sum(high, low);  // exact
  }
};

// The sum so far as four doubles in any order.
struct RunningFour {
  arithmetic::Accumulator4 sum;

  KORVEX_INLINE bool is_two_limbs() const { return sum.limb[2] == 0 && sum.limb[3] == 0; }

  // Writes the first two canonical limbs; false where this does not find them for sure. From the
  // smallest double on each is added to the larger ones, and once more without the largest, so the
  // sum is first + second + rest with nothing rounded but the rest. A limb is known where even
  // 1 + 2^-50 times what follows, on either side, leaves it as it is.
  KORVEX_INLINE bool limbs(arithmetic::ValueAndError& found) const {
    constexpr double kMore = 1 + 0x1p-50;
    const auto third = arithmetic::two_sum(sum.limb[2], sum.limb[3]);   // exact
    const auto second = arithmetic::two_sum(sum.limb[1], third.value);  // exact
    const auto first = arithmetic::two_sum(sum.limb[0], second.value);  // exact
    const auto lower = arithmetic::two_sum(second.error, third.error);  // exact
    const auto next = arithmetic::two_sum(first.error, lower.value);    // exact
    const double after_next =
        (arithmetic::absolute(next.error) + arithmetic::absolute(lower.error)) * kMore;
    const double after_first = (arithmetic::absolute(next.value) + after_next) * kMore;
    found = {first.value, next.value};
    const bool is_first =
        first.value + after_first == first.value && first.value - after_first == first.value;
    const bool is_next =
        next.value + after_next == next.value && next.value - after_next == next.value;
    return is_first && is_next;
  }
};

// Elements of an array of doubles, for a RunningSum.
struct SingleDoubles {
  const double* x;

  template <class Sum>
  KORVEX_INLINE bool try_add(Sum& sum, std::int64_t i) const {
    return sum.try_add(x[i]);
  }
  arithmetic::ValueAndError add_to(arithmetic::PrefixSum& sum, std::int64_t i) const {
    return sum.next(x[i]);
  }
};

class RunningSum : public arithmetic::PrefixSum {
 public:
  // out[i], out_err[i]: the limbs of the sum through x[i].
  KORVEX_COLD void scan(const double* x, std::int64_t n, double* out, double* out_err) {
    // A block that does not decide has written by then, and its elements are read once more.
    const bool is_apart = !overlap(x, out, n) && !overlap(x, out_err, n);
    std::int64_t i = 0;
    for (std::int64_t count; i < n; i += count) {
      count = n - i < RunningBlock::kBlock ? n - i : RunningBlock::kBlock;
      const std::int64_t whole = count - count % arithmetic::kHostLanes;
      if (is_apart && whole != 0 && scan_block(x + i, whole, out + i, out_err + i)) {
        count = whole;
        continue;
      }
      const auto write = [=](std::int64_t k, const arithmetic::ValueAndError& limbs) {
        out[i + k] = arithmetic::add_rn(limbs.value, 0.0);  // -0 to +0
        out_err[i + k] = arithmetic::add_rn(limbs.error, 0.0);
      };
      scan(SingleDoubles{x + i}, count, write, write);
    }
  }

  // Calls write(i, limbs) for the limbs of the sum through x[i] where these are below kLimbLimit,
  // else write_any(i, limbs).
  template <class Elements, class Write, class WriteAny>
  void scan(const Elements& x, std::int64_t count, const Write& write, const WriteAny& write_any) {
    for (std::int64_t i = 0; i < count; ++i) {
      i = is_two_limbs() ? scan_by_two(x, i, count, write) : scan_by_four(x, i, count, write);
      if (i == count) {
        return;
      }
      write_any(i, x.add_to(*this, i));
    }
  }

 private:
  static constexpr std::int64_t kLookAgain = 64;  // whether two doubles hold the sum again

  // Whether arrays of n doubles have some in common.
  static bool overlap(const double* x, const double* y, std::int64_t n) {
    return std::less<>()(x, y + n) && std::less<>()(y, x + n);
  }

  // False, with the sum as it was, where it does not go by blocks.
  KORVEX_INLINE bool scan_block(const double* x, std::int64_t count, double* out, double* out_err) {
    RunningBlock::Sum sum;
    if (wide_open_ || special_ != 0 ||
        !RunningBlock::scan(x, count, limbs_.limb, out, out_err, sum)) {
      return false;
    }
    limbs_ = arithmetic::Accumulator4();
    if (is_two_limbs() && sum.part_count == 2) {
      come_back({out[count - 1], out_err[count - 1]});
      return true;
    }
    for (const double part : sum.part) {
      add(part);
    }
    start();
    return true;
  }

  // Both return the first element that they have not taken.
  template <class Elements, class Write>
  KORVEX_INLINE std::int64_t scan_by_two(const Elements& x, std::int64_t i, std::int64_t count,
                                         const Write& write) {
    RunningPair pair = {limbs().value, limbs().error};
    for (; i < count; ++i) {
      RunningPair next = pair;
      if (!x.try_add(next, i)) {
        break;
      }
      pair = next;
      write(i, pair.limbs());
    }
    come_back(pair.limbs());
    return i;
  }

  template <class Elements, class Write>
  KORVEX_INLINE std::int64_t scan_by_four(const Elements& x, std::int64_t i, std::int64_t count,
                                          const Write& write) {
    if (wide_open_ || special_ != 0) {
      return i;
    }
    RunningFour four = {limbs_};
    for (; i < count; ++i) {
      if (i % kLookAgain == 0 && four.is_two_limbs()) {
        break;
      }
      RunningFour next = four;
      arithmetic::ValueAndError found;
      if (!x.try_add(next.sum, i) || !next.limbs(found)) {
        break;
      }
      four = next;
      write(i, found);
    }
    limbs_ = four.sum;
    return i;
  }
};

}  // namespace korvex::host
