// SPDX-License-Identifier: Apache-2.0
// The kernels of exact states on a simulated grid: the code of the device, run on the host.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "korvex/kernels/device/state_sums.h"
#include "tests/device_code/simulated_grid.h"

namespace korvex::kernels {

// Runs body(thread, memory of its block) in each thread; false where some do not come to an end.
template <class Memory, class Body>
bool run_on_grid(unsigned blocks, const Body& body) {
  static std::uint64_t seed = 0;
  const auto resident = std::min(blocks, 2U);
  std::vector<Memory> memories(resident);
  std::memset(static_cast<void*>(memories.data()), 0xa5, memories.size() * sizeof(Memory));
  return test::SimulatedGrid::run({blocks, kGridBlock, static_cast<int>(resident)}, ++seed,
                                  [&](const test::SimulatedThread& thread, int slot) {
                                    body(thread, memories[static_cast<std::size_t>(slot)]);
                                  });
}

template <class Sum, class Add>
bool add_on_grid(unsigned blocks, const std::uint64_t* sign_and_target, const Add& add) {
  const StateTarget state = {reinterpret_cast<std::int64_t*>(sign_and_target[1]),
                             reinterpret_cast<std::int64_t*>(sign_and_target[2]),
                             static_cast<std::int64_t>(sign_and_target[0])};
  return run_on_grid<StateBlockMemory<Sum>>(
      blocks, [&](const auto& thread, auto& block) { add(thread, state, block); });
}

// The kernel of a row of states.h, with its arguments.
inline bool run_state_kernel(int row, unsigned blocks, const std::uint64_t* values) {
  const auto n = static_cast<std::int64_t>(values[0]);
  const auto kind = static_cast<arithmetic::StateKind>(values[0]);
  auto* const words = reinterpret_cast<std::int64_t*>(values[1]);
  const auto elements = [](const std::uint64_t* from) {
    return StateElements(reinterpret_cast<const void*>(from[0]), static_cast<std::int64_t>(from[1]),
                         static_cast<int>(from[2]));
  };
  switch (row) {
    case 0:
      return add_on_grid<arithmetic::ExactSum>(
          blocks, values + 4, [&](const auto& thread, const auto& state, auto& block) {
            add_elements_by_grid(thread, elements(values + 1), n, state, block);
          });
    case 1:
      return add_on_grid<arithmetic::ExactProductSum>(
          blocks, values + 7, [&](const auto& thread, const auto& state, auto& block) {
            add_products_by_grid(thread, elements(values + 1), elements(values + 4), n, state,
                                 block);
          });
    case 2:
      return run_on_grid<StateWorkMemory>(blocks, [&](const auto& thread, auto& block) {
        settle_by_block(thread, kind, words, block);
      });
    default:
      return run_on_grid<StateWorkMemory>(blocks, [&](const auto& thread, auto& block) {
        round_by_block(thread, kind, words, values[2] != 0, static_cast<int>(values[3]),
                       reinterpret_cast<void*>(values[4]), block);
      });
  }
}

}  // namespace korvex::kernels
