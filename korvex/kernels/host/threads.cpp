// SPDX-License-Identifier: Apache-2.0
// The host threads that share the elements of one call.
#include "korvex/kernels/host/threads.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <thread>
#include <vector>

#include "korvex/kernels/host/float_environment.h"

namespace korvex::host {

void run_ranges(std::int64_t n, int ranges,
                FunctionReference<void(int, std::int64_t, std::int64_t)> work) {
  if (ranges == 1) {
    const DefaultFloatEnvironment environment;
    work(0, 0, n);
    return;
  }
  std::vector<std::exception_ptr> failures(static_cast<std::size_t>(ranges));
  const auto run_range = [&](int range) noexcept {
    const DefaultFloatEnvironment environment;
    try {
      work(range, n / ranges * range + std::min<std::int64_t>(range, n % ranges),
           n / ranges * (range + 1) + std::min<std::int64_t>(range + 1, n % ranges));
    } catch (...) {
      failures[static_cast<std::size_t>(range)] = std::current_exception();
    }
  };
  std::vector<std::jthread> workers;
  workers.reserve(static_cast<std::size_t>(ranges));
  for (int range = 1; range < ranges; ++range) {
    try {
      workers.emplace_back(run_range, range);
    } catch (const std::exception&) {
      run_range(range);
    }
  }
  run_range(0);
  workers.clear();  // joins them
  for (const std::exception_ptr& failure : failures) {
    if (failure != nullptr) {
      std::rethrow_exception(failure);
    }
  }
}

}  // namespace korvex::host
