// SPDX-License-Identifier: Apache-2.0
// Kernels of exact states on the machine.
#pragma once

#include <vector>

#include "tests/launches/state_case.h"
#include "tests/ptx/machine.h"

namespace korvex::ptx {

class MachineOfStates : public launches::StateRunner {
 public:
  // most_steps: of a launch.
  explicit MachineOfStates(Machine& machine, std::uint64_t most_steps = 400'000'000)
      : machine_(machine), most_steps_(most_steps) {}

  void place(launches::StateArray& array) override;
  void launch(const kernels::StateKernelRow& kernel, const Shape& shape,
              const std::vector<std::uint64_t>& values, std::uint64_t seed) override;
  void read(launches::StateArray& array) override;
  void forget() override;

 private:
  Machine& machine_;
  std::uint64_t most_steps_;
  std::vector<Region*> regions_;
};

}  // namespace korvex::ptx
