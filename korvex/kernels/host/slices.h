// SPDX-License-Identifier: Apache-2.0
// Splits a range of elements over host threads and joins what they found.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "korvex/kernels/host/host_float_environment.h"

namespace korvex::host {

// Below it a thread costs more than it saves.
constexpr std::int64_t kLeastSlice = 1 << 16;

constexpr int slice_count(std::int64_t n, int threads) {
  const std::int64_t useful = n / kLeastSlice;
  return static_cast<int>(std::max<std::int64_t>(1, std::min<std::int64_t>(useful, threads)));
}

// A part in cache lines of its own: two threads that write to one line take turns. Twice the line,
// as processors fetch lines in pairs.
template <class Part>
struct alignas(128) Slot {
  Part part;
};

// Cuts [0, n) into so many slices, calls work(begin, end, part) for each on a thread and with a
// part of its own, then join(part) for all of them on the calling thread, in order. A thread that
// the system refuses is done without: its slice runs here.
template <class Part, class Work, class Join>
void for_each_of_slices(std::int64_t n, int slices, const Work& work, const Join& join) {
  const auto slots = std::make_unique<Slot<Part>[]>(static_cast<std::size_t>(slices));
  const auto run_slice = [&](int slice) {
    const DefaultFloatEnvironment environment;
    work(n / slices * slice + std::min<std::int64_t>(slice, n % slices),
         n / slices * (slice + 1) + std::min<std::int64_t>(slice + 1, n % slices),
         slots[static_cast<std::size_t>(slice)].part);
  };
  std::vector<std::jthread> workers;
  workers.reserve(static_cast<std::size_t>(slices));
  for (int slice = 1; slice < slices; ++slice) {
    try {
      workers.emplace_back(run_slice, slice);
    } catch (const std::system_error&) {
      run_slice(slice);
    }
  }
  run_slice(0);
  workers.clear();  // joins them
  for (int slice = 0; slice < slices; ++slice) {
    join(slots[static_cast<std::size_t>(slice)].part);
  }
}

// The same for n elements, with at most `threads` slices that are worth a thread.
template <class Part, class Work, class Join>
void for_each_slice(std::int64_t n, int threads, const Work& work, const Join& join) {
  for_each_of_slices<Part>(n, slice_count(n, threads), work, join);
}

}  // namespace korvex::host
