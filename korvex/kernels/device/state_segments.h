// SPDX-License-Identifier: Apache-2.0
// Running sums of an array of any format by a whole grid, each rounded once.
//
// Phases, a launch each, as no block waits for another: each thread adds up one segment of the
// array; one block turns the sums of the segments into the sums before them; each thread goes
// through its segment once more and writes. All sums in between are exact, so the number of
// segments does not show. What the launches share is memory that the caller brings.
#pragma once

#include <new>

#include "korvex/arithmetic/exact/prefix_sums.h"
#include "korvex/kernels/device/state_results.h"

namespace korvex::kernels {

struct RunningSegment {
  arithmetic::ExactSum sum;       // of its elements; in the end room for a rounding
  arithmetic::PrefixSum running;  // of all elements before it, and then on
};
static_assert(sizeof(RunningSegment) <= kSegmentWords * sizeof(std::int64_t));

class Segments {
 public:
  KORVEX_INLINE Segments(std::int64_t elements, std::int64_t count, void* memory)
      : elements_(elements), count_(count), memory_(static_cast<RunningSegment*>(memory)) {}

  KORVEX_INLINE std::int64_t count() const { return count_; }
  KORVEX_INLINE RunningSegment& operator[](std::int64_t segment) const { return memory_[segment]; }
  KORVEX_INLINE std::int64_t begin(std::int64_t segment) const {
    const std::int64_t rest = elements_ % count_;
    return elements_ / count_ * segment + (segment < rest ? segment : rest);
  }

  // Calls visit(segment) for those of this thread, over all blocks before all threads of one.
  template <class Thread, class Visit>
  KORVEX_INLINE void for_own(const Thread& thread, const Visit& visit) const {
    const std::int64_t stride = thread.blocks() * thread.threads();
    for (std::int64_t segment = thread.index() * thread.blocks() + thread.block(); segment < count_;
         segment += stride) {
      visit(segment);
    }
  }

 private:
  std::int64_t elements_;
  std::int64_t count_;
  RunningSegment* memory_;
};

template <class Thread>
KORVEX_HD void sum_segments_by_grid(const Thread& thread, const StateElements& x,
                                    const Segments& segments) {
  segments.for_own(thread, [&](std::int64_t segment) {
    arithmetic::ExactSum& sum = *new (&segments[segment].sum) arithmetic::ExactSum;
    const std::int64_t end = segments.begin(segment + 1);
    for (std::int64_t i = segments.begin(segment); i < end; ++i) {
      const StateElements element = x + i;
      sum.add(element[0]);
      if (x.is_wide()) {
        sum.add(element.low()[0]);
      }
    }
  });
}

// Segments that one thread of the joining block takes.
struct SegmentRun {
  std::int64_t begin;
  std::int64_t end;

  template <class Thread>
  KORVEX_INLINE static SegmentRun of(const Thread& thread, const Segments& segments, int index) {
    const std::int64_t length = (segments.count() + thread.threads() - 1) / thread.threads();
    const std::int64_t begin = index * length;
    const std::int64_t end = begin + length;
    return {begin, end < segments.count() ? end : segments.count()};
  }
  KORVEX_INLINE bool is_empty() const { return begin >= end; }
  KORVEX_INLINE std::int64_t last() const { return end - 1; }
};

// The last sum of each run becomes the sum through it, by doubling distances (Hillis and Steele
// 1986). Runs that are not empty come first.
template <class Thread>
KORVEX_HD void scan_runs(const Thread& thread, const Segments& segments, const SegmentRun& own) {
  for (int distance = 1; distance < thread.threads(); distance *= 2) {
    const bool has_more = !own.is_empty() && thread.index() >= distance;
    thread.sync_block();
    if (has_more) {
      arithmetic::ExactSum& next = segments[own.last()].running;
      const SegmentRun other = SegmentRun::of(thread, segments, thread.index() - distance);
      next = segments[own.last()].sum;
      next.add(segments[other.last()].sum);
    }
    thread.sync_block();
    if (has_more) {
      segments[own.last()].sum = segments[own.last()].running;
    }
  }
  thread.sync_block();
}

// By the threads of one block: each segment gets the sum of all elements before it.
template <class Thread>
KORVEX_HD void join_segments_by_block(const Thread& thread, const Segments& segments) {
  const SegmentRun own = SegmentRun::of(thread, segments, thread.index());
  for (std::int64_t segment = own.begin + 1; segment < own.end; ++segment) {
    segments[segment].sum.add(segments[segment - 1].sum);
  }
  scan_runs(thread, segments, own);
  for (std::int64_t segment = own.begin; segment < own.end; ++segment) {
    auto& running = *new (&segments[segment].running) arithmetic::PrefixSum;
    if (own.begin > 0) {
      running.start(segments[own.begin - 1].sum);
    }
    if (segment > own.begin) {
      running.start(segments[segment - 1].sum);
    }
  }
}

// The sum so far in a format, given its first two limbs. Sums are multiples of 2^-1074, so the
// second limb is 0 only where nothing is left. Where the first limb is the largest double, it may
// stand for a sum that rounds to an infinity.
KORVEX_INLINE double rounded_running_sum(const RunningSegment& segment,
                                         const arithmetic::ValueAndError& limbs,
                                         arithmetic::ExactSum& room, int format) {
  double nearest = limbs.value;
  if (arithmetic::absolute(nearest) == arithmetic::kLargest) {
    arithmetic::ExactSum& sum = *new (&room) arithmetic::ExactSum;
    sum.add(segment.running);
    sum.round<1>(&nearest);
  }
  return rounded_once(nearest, sign_of(limbs.error), format);
}

template <class Thread>
KORVEX_HD void write_running_sums_by_grid(const Thread& thread, const StateElements& x,
                                          const Segments& segments, const ResultElements& out) {
  segments.for_own(thread, [&](std::int64_t number) {
    RunningSegment& segment = segments[number];
    const std::int64_t end = segments.begin(number + 1);
    for (std::int64_t i = segments.begin(number); i < end; ++i) {
      const StateElements element = x + i;
      arithmetic::ValueAndError limbs = segment.running.next(element[0]);
      if (x.is_wide()) {
        limbs = segment.running.next(element.low()[0]);
      }
      out.write(i, rounded_running_sum(segment, limbs, segment.sum, out.format));
    }
  });
}

}  // namespace korvex::kernels
