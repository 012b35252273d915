// SPDX-License-Identifier: Apache-2.0
// Launches of the kernels of exact states on drawn data, for whatever runs device code on a host:
// several into one state, which must then be that of the host library, word for word.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "korvex/kernels/states.h"
#include "tests/launches/launch_case.h"

namespace korvex::launches {

// Memory of a device: what is written there comes back by read().
struct StateArray {
  std::string name;
  std::vector<unsigned char> bytes;
  bool is_input = false;
  std::uint64_t past_16 = 0;  // bytes that it starts after a multiple of 16
  std::uint64_t address = 0;  // set by place()
};

// Runs kernels on arrays; throws a Failure where that is not possible.
class StateRunner {
 public:
  virtual ~StateRunner() = default;
  virtual void place(StateArray& array) = 0;
  virtual void launch(const kernels::StateKernelRow& kernel, const Shape& shape,
                      const std::vector<std::uint64_t>& values, std::uint64_t seed) = 0;
  virtual void read(StateArray& array) = 0;  // and checks what lies around it
  virtual void forget() = 0;                 // all arrays
};

enum class StateData { kAnyBits, kModerate, kSpecial, kDoubles, kCount };

// One array of an addition.
struct StateOperand {
  int format = kernels::kFloat64Format;
  std::int64_t stride = 1;  // in elements
  StateData data = StateData::kModerate;
};

struct StateAddition {
  std::int64_t n = 0;
  StateOperand x;
  StateOperand y;  // of products
  int sign = 1;
  Shape shape;
  std::uint64_t seed = 0;
};

// Additions to one state, or, of the other two kernels, drawn words.
struct StateCase {
  const kernels::StateKernelRow* kernel = nullptr;
  int kind = 0;  // as in korvex/kernels/host/exact.h
  std::vector<StateAddition> additions;
  std::uint64_t seed = 0;
};

std::string name_of(const StateCase& one);
std::vector<StateCase> state_cases_of(const kernels::StateKernelRow& kernel, bool is_long,
                                      std::uint64_t seed);

// Throws a Failure where the device leaves other words or another result than the host.
void run_state_case(StateRunner& device, const korvex_exact_functions& host, const StateCase& one);

}  // namespace korvex::launches
