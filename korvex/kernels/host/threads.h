// SPDX-License-Identifier: Apache-2.0
// Cuts elements into neighbouring ranges, one for each host thread, and joins what they found.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>

#include "korvex/kernels/host/function_reference.h"

namespace korvex::host {

// A range of fewer elements is not worth a thread.
constexpr std::int64_t kLeastRange = 1 << 16;

constexpr int range_count(std::int64_t n, int threads) {
  const std::int64_t useful = n / kLeastRange;
  return static_cast<int>(std::max<std::int64_t>(1, std::min<std::int64_t>(useful, threads)));
}

// A part in cache lines of its own: two threads that write to one line take turns. Twice the line,
// as processors fetch lines in pairs.
template <class Part>
struct alignas(128) Slot {
  Part part;
};

// Cuts [0, n) into so many ranges and calls work(range, begin, end) for each on a thread. A range
// whose thread cannot start, for want of threads or of memory, runs on the calling thread. What a
// range throws is thrown here once all threads have ended, that of the first of several: an
// exception that left a thread would end the process.
void run_ranges(std::int64_t n, int ranges,
                FunctionReference<void(int, std::int64_t, std::int64_t)> work);

// The same for work(begin, end, part), each with a part of its own; then calls join(part) for all
// of them on the calling thread, in order.
template <class Part, class Work, class Join>
void for_each_of_ranges(std::int64_t n, int ranges, const Work& work, const Join& join) {
  const auto slots = std::make_unique<Slot<Part>[]>(static_cast<std::size_t>(ranges));
  run_ranges(n, ranges, [&](int range, std::int64_t begin, std::int64_t end) {
    work(begin, end, slots[static_cast<std::size_t>(range)].part);
  });
  for (int range = 0; range < ranges; ++range) {
    join(slots[static_cast<std::size_t>(range)].part);
  }
}

// The same for n elements, with at most `threads` ranges that are worth a thread.
template <class Part, class Work, class Join>
void for_each_range(std::int64_t n, int threads, const Work& work, const Join& join) {
  for_each_of_ranges<Part>(n, range_count(n, threads), work, join);
}

// The same for work(begin, end) that leaves nothing to join.
template <class Work>
void for_each_range(std::int64_t n, int threads, const Work& work) {
  struct Nothing {};
  for_each_range<Nothing>(
      n, threads, [&work](std::int64_t begin, std::int64_t end, Nothing&) { work(begin, end); },
      [](const Nothing&) {});
}

}  // namespace korvex::host
