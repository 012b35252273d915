// SPDX-License-Identifier: Apache-2.0
// The kernels of exact states on a simulated grid: the code of the device, run on the host.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "korvex/kernels/device/state_axes.h"
#include "korvex/kernels/device/state_columns.h"
#include "korvex/kernels/device/state_functions.h"
#include "korvex/kernels/device/state_ids.h"
#include "korvex/kernels/device/state_products.h"
#include "korvex/kernels/device/state_segments.h"
#include "korvex/kernels/device/state_sums.h"
#include "korvex/kernels/device/state_vectors.h"
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

struct NoMemory {};

// Kernels of products and running sums.
inline bool run_array_kernel(int row, unsigned blocks, const std::uint64_t* values,
                             const StateElements& elements) {
  const auto number = [values](int i) { return static_cast<std::int64_t>(values[i]); };
  const auto pointer = [values](int i) { return reinterpret_cast<void*>(values[i]); };
  const Segments segments(number(2), number(0), pointer(1));
  switch (row) {
    case 4:
      return run_on_grid<NoMemory>(blocks, [&](const auto& thread, NoMemory&) {
        widen_by_grid(thread, elements, number(0), static_cast<int>(number(4)), number(5),
                      number(6), static_cast<double*>(pointer(7)));
      });
    case 5: {
      using Memory = MatrixTile<test::SimulatedThread, RoundedResults>::Memory;
      const Factors factors{static_cast<const double*>(pointer(2)),
                            static_cast<const double*>(pointer(3)), number(4), number(5),
                            number(6)};
      const RoundedResults results{{pointer(7), number(8), static_cast<int>(number(9))}};
      return run_on_grid<Memory>(blocks, [&](const auto& thread, Memory& block) {
        multiply_by_grid(thread, number(0), static_cast<int>(number(1)), factors, results, block);
      });
    }
    case 6:
      return run_on_grid<NoMemory>(blocks, [&](const auto& thread, NoMemory&) {
        sum_segments_by_grid(thread, elements, segments);
      });
    case 7:
      return run_on_grid<NoMemory>(
          blocks, [&](const auto& thread, NoMemory&) { join_segments_by_block(thread, segments); });
    default:
      return run_on_grid<NoMemory>(blocks, [&](const auto& thread, NoMemory&) {
        write_running_sums_by_grid(thread, elements, segments,
                                   {pointer(6), number(7), static_cast<int>(number(8))});
      });
  }
}

struct FunctionMemories {
  FunctionMemory of_worker[kFunctionWorkers];
};

// Kernels of many states.
inline bool run_kernel_of_many(int row, unsigned blocks, const std::uint64_t* values) {
  const auto number = [values](int i) { return static_cast<std::int64_t>(values[i]); };
  const auto format = [values](int i) { return static_cast<int>(values[i]); };
  const auto pointer = [values](int i) { return reinterpret_cast<void*>(values[i]); };
  const auto words = [values](int i) { return reinterpret_cast<std::int64_t*>(values[i]); };
  switch (row) {
    case 9:
      return run_on_grid<TeamMemory<arithmetic::ExactSum>>(
          blocks, [&](const auto& thread, auto& block) {
            add_axes_by_grid(thread, number(0), number(1), AxisPlan(words(2)),
                             {pointer(3), format(4), 0}, {words(5), words(7), number(6), 1}, block);
          });
    case 10:
      return run_on_grid<TeamMemory<arithmetic::ExactProductSum>>(
          blocks, [&](const auto& thread, auto& block) {
            multiply_axes_by_grid(thread, number(0), number(1), AxisPlan(words(2)),
                                  {pointer(3), format(4), 0}, {pointer(5), format(6), 1},
                                  {words(8), words(10), number(9), number(7)}, block);
          });
    case 11:
      return run_on_grid<NoMemory>(blocks, [&](const auto& thread, NoMemory&) {
        const SegmentIds ids{static_cast<const unsigned char*>(pointer(2)), number(3), format(4)};
        add_by_ids_by_grid(thread, number(0), number(1), ids, SegmentPlan(words(5)),
                           StateElements(pointer(6), 0, format(7)),
                           {words(8), number(9), number(10), words(11)});
      });
    case 13:
      return run_on_grid<ColumnMemory>(blocks, [&](const auto& thread, auto& block) {
        sum_columns_by_grid(thread, number(0), AxisPlan(words(1)), {pointer(2), format(3), 0},
                            {format(4), number(5)}, {pointer(6), number(7), format(8)}, block);
      });
    case 14:
      return run_on_grid<NoMemory>(blocks, [&](const auto& thread, NoMemory&) {
        write_running_axes_by_grid(thread, number(0), {number(1), pointer(2)}, AxisPlan(words(3)),
                                   {pointer(4), format(5), 0}, {pointer(6), format(7)});
      });
    default:
      return run_on_grid<FunctionMemories>(blocks, [&](const auto& thread, auto& block) {
        round_states_by_grid(thread, number(0), words(1),
                             {format(2), number(3), values[4], values[5]},
                             {pointer(6), number(7), format(8)}, block.of_worker);
      });
  }
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
    case 3:
      return run_on_grid<StateWorkMemory>(blocks, [&](const auto& thread, auto& block) {
        round_by_block(thread, kind, words, values[2] != 0, static_cast<int>(values[3]),
                       reinterpret_cast<void*>(values[4]), block);
      });
    case 9:
    case 10:
    case 11:
    case 12:
    case 13:
    case 14:
      return run_kernel_of_many(row, blocks, values);
    default:
      return run_array_kernel(row, blocks, values, elements(values + (row == 4 ? 1 : 3)));
  }
}

}  // namespace korvex::kernels
