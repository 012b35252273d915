// SPDX-License-Identifier: Apache-2.0
// Launches of the kernels of exact states on drawn data, for whatever runs device code on a host:
// several into one state, which must then be that of the host library, word for word; those of one
// matrix product or running sum (array_cases.h) and of many states (many_cases.h), whose results
// must be the host library's.
#pragma once

#include <cstdint>
#include <optional>
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
  bool is_unwritten = false;  // junk, until a launch writes it
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

enum class StateData {
  kAnyBits,
  kModerate,
  kSpecial,
  kDoubles,  // of the shapes of random_data.h
  kLarge,    // doubles whose sums are around the largest
  kTies,     // doubles between two numbers of narrow formats, and some below all of these
  kCount
};

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

// A product of two matrices, or, without b, running sums of a vector.
struct ArrayCase {
  std::int64_t rows = 1;
  std::int64_t columns = 1;
  std::int64_t depth = 0;
  StateOperand a;
  StateOperand b;
  int format = kernels::kFloat64Format;  // of the result
  int width = 16;                        // of a tile
  std::int64_t step = 1;
  std::int64_t segments = 1;
  Shape shape;
};

// What is done with an array of some dimensions.
enum class ManyWay {
  kAxes,     // reductions by states
  kColumns,  // by a thread for each output
  kIds,      // sums by segment
  kRunning,  // running sums of vectors
};

// Reductions along some dimensions, sums by segment, running sums. Shapes and layouts are drawn by
// the seed.
struct ManyCase {
  ManyWay way = ManyWay::kAxes;
  int function = kernels::kTotalFunction;
  StateOperand a;
  StateOperand b;                        // of dot products
  int pairs = 1;                         // of those: the products of the second are taken away
  int format = kernels::kFloat64Format;  // of the result
  Shape shape;
};

// Additions to one state; of the kernels that settle and round, drawn words; of the others arrays.
struct StateCase {
  const kernels::StateKernelRow* kernel = nullptr;
  int kind = 0;  // as in korvex/kernels/host/exact.h
  std::vector<StateAddition> additions;
  std::uint64_t seed = 0;
  std::optional<ArrayCase> arrays = std::nullopt;
  std::optional<ManyCase> many = std::nullopt;
};

std::string name_of(const StateCase& one);
std::vector<StateCase> state_cases_of(const kernels::StateKernelRow& kernel, bool is_long,
                                      std::uint64_t seed);

// Throws a Failure where the device leaves other words or another result than the host.
void run_state_case(StateRunner& device, const korvex_exact_functions& host, const StateCase& one);

}  // namespace korvex::launches
