// SPDX-License-Identifier: Apache-2.0
// Kernels of exact states on the machine.
#pragma once

#include <vector>

#include "tests/launches/state_case.h"
#include "tests/ptx/machine.h"

namespace korvex::ptx {

class MachineOfStates : public launches::StateRunner {
 public:
  explicit MachineOfStates(Machine& machine) : machine_(machine) {}

  void place(launches::StateArray& array) override;
  void launch(const kernels::StateKernelRow& kernel, const Shape& shape,
              const std::vector<std::uint64_t>& values, std::uint64_t seed) override;
  void read(launches::StateArray& array) override;
  void forget() override;

 private:
  Machine& machine_;
  std::vector<Region*> regions_;
};

}  // namespace korvex::ptx
