// SPDX-License-Identifier: Apache-2.0
// Adds elements to the states that numbers beside them name, in any order and without sorting.
//
// A thread takes an element at a time and adds its bits to three digits of its state, by atomic
// additions of integers: these have no order, so none shows in the sums. The states are those of a
// range of the outputs; elements of others are left to other launches. Numbers that name no segment
// are counted, and nothing is added for them.
#pragma once

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/exact/exact_state.h"
#include "korvex/kernels/device/state_elements.h"
#include "korvex/kernels/device/state_sums.h"

namespace korvex::kernels {

// Numbers of segments; element i of nothing is i.
struct SegmentIds {
  const unsigned char* data;
  std::int64_t byte_stride;
  int format;

  // A negative number is a large one here.
  KORVEX_INLINE std::uint64_t at(std::int64_t i) const {
    if (data == nullptr) {
      return static_cast<std::uint64_t>(i);
    }
    const unsigned char* own = data + i * byte_stride;
    std::uint64_t raw;
    switch (bytes_of_format(format)) {
      case 1:
        raw = *own;
        break;
      case 2:
        raw = *reinterpret_cast<const std::uint16_t*>(own);
        break;
      case 4:
        raw = *reinterpret_cast<const std::uint32_t*>(own);
        break;
      default:
        raw = *reinterpret_cast<const std::uint64_t*>(own);
    }
    const int unused = 64 - 8 * bytes_of_format(format);
    return is_signed_format(format)
               ? static_cast<std::uint64_t>(static_cast<std::int64_t>(raw << unused) >> unused)
               : raw;
  }
};

// Words that describe the elements, in this order: those that SegmentWord names, the extents of the
// dimensions, and the byte strides along them. The last dimension counts fastest. The elements are
// `rows` times `inner` for each index of the dimensions before, and so are outputs with segments in
// place of rows.
class SegmentPlan {
 public:
  KORVEX_INLINE explicit SegmentPlan(const std::int64_t* words) : words_(words) {}

  KORVEX_INLINE std::int64_t rows() const { return words_[kSegmentRows]; }
  KORVEX_INLINE std::int64_t inner() const { return words_[kSegmentInner]; }
  KORVEX_INLINE std::int64_t segments() const { return words_[kSegmentCount]; }

  KORVEX_INLINE std::int64_t offset(std::int64_t element) const {
    const auto rank = static_cast<int>(words_[kSegmentRank]);
    const std::int64_t* extents = words_ + kSegmentPlanWords;
    const std::int64_t* strides = extents + rank;
    std::int64_t sum = 0;
    for (int d = rank - 1; d > 0; --d) {
      sum += element % extents[d] * strides[d];
      element /= extents[d];
    }
    return rank > 0 ? sum + element * strides[0] : 0;
  }

 private:
  const std::int64_t* words_;
};

// Adds a double to the words of a sum's state.
template <class Thread>
KORVEX_INLINE void add_to_state_of_grid(const Thread& thread, double x, std::int64_t* words) {
  if (!arithmetic::is_finite(x)) {
    const int kind = arithmetic::is_nan(x)        ? kNans
                     : arithmetic::is_negative(x) ? kMinusInfinities
                                                  : kPlusInfinities;
    thread.add_to_grid(words[arithmetic::LongAccumulator::kDigits + kind], 1);
    return;
  }
  const std::uint64_t magnitude = arithmetic::significand(x);
  const int position = arithmetic::shift(x);
  const int index = position / kDigitBits;
  const int offset = position % kDigitBits;
  const std::uint64_t low = magnitude << offset;
  const std::uint64_t parts[] = {low & kDigitMask, low >> kDigitBits,
                                 (magnitude >> 1) >> (63 - offset)};  // no shift by 64
  const std::int64_t sign = arithmetic::is_negative(x) ? -1 : 1;
  for (int i = 0; i < 3; ++i) {
    if (parts[i] != 0) {
      thread.add_to_grid(words[index + i], with_sign(static_cast<std::int64_t>(parts[i]), sign));
    }
  }
}

// States of `count` outputs from `first` on.
struct SegmentStates {
  std::int64_t* words;
  std::int64_t first;
  std::int64_t count;
  std::int64_t* wrong;  // where numbers that name no segment are counted
};

// Adds n elements from `begin` on. Preconditions: elements and ids are aligned to their size; n is
// at most 2^29, so that settled digits have room for what a launch adds.
template <class Thread>
KORVEX_HD void add_by_ids_by_grid(const Thread& thread, std::int64_t n, std::int64_t begin,
                                  const SegmentIds& ids, const SegmentPlan& plan,
                                  const StateElements& x, const SegmentStates& states) {
  constexpr int kWords = arithmetic::state_words(arithmetic::StateKind::kSum);
  const std::int64_t stride = thread.blocks() * thread.threads();
  for (std::int64_t i = thread.block() * thread.threads() + thread.index(); i < n; i += stride) {
    const std::int64_t element = begin + i;
    const std::int64_t line = element / plan.inner();  // of rows, for all that stands before
    const std::uint64_t id = ids.at(line % plan.rows());
    if (id >= static_cast<std::uint64_t>(plan.segments())) {
      thread.add_to_grid(*states.wrong, 1);
      continue;
    }
    const std::int64_t segment =
        line / plan.rows() * plan.segments() + static_cast<std::int64_t>(id);
    const std::int64_t output = segment * plan.inner() + element % plan.inner() - states.first;
    if (output < 0 || output >= states.count) {
      continue;
    }
    const StateElements own = x.moved(plan.offset(element));
    std::int64_t* words = states.words + output * kWords;
    add_to_state_of_grid(thread, own[0], words);
    if (own.is_wide()) {
      add_to_state_of_grid(thread, own.low()[0], words);
    }
  }
}

}  // namespace korvex::kernels
