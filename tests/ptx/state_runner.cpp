// SPDX-License-Identifier: Apache-2.0
// Arrays of states as regions of the machine's memory.
#include "tests/ptx/state_runner.h"

#include <algorithm>

namespace korvex::ptx {

void MachineOfStates::place(launches::StateArray& array) {
  Region& region =
      machine_.add_array(array.name, array.bytes.size(), array.is_unwritten ? kUnwritten : kWritten,
                         array.is_input, array.past_16);
  std::ranges::copy(array.bytes, region.bytes.begin());
  array.address = region.base;
  regions_.push_back(&region);
}

void MachineOfStates::launch(const kernels::StateKernelRow& kernel, const Shape& shape,
                             const std::vector<std::uint64_t>& values, std::uint64_t seed) {
  machine_.launch(kernel.name, shape, values, seed, most_steps_);
}

void MachineOfStates::read(launches::StateArray& array) {
  for (const Region* region : regions_) {
    if (region->base == array.address) {
      array.bytes.assign(region->bytes.begin(), region->bytes.end());
      return;
    }
  }
}

void MachineOfStates::forget() {
  machine_.forget_arrays();
  regions_.clear();
}

}  // namespace korvex::ptx
