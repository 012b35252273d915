// SPDX-License-Identifier: Apache-2.0
// Drawn arrays of any number format, for a device and for the host library.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tests/cpp/random_data.h"
#include "tests/launches/host_library.h"
#include "tests/launches/state_case.h"

namespace korvex::launches {

inline constexpr int kFormats = kernels::kFloat64Format + 1;
inline constexpr std::int64_t kBytes[kFormats] = {1, 1, 2, 4, 8, 1, 2, 4, 8, 2, 2, 4, 8};

const kernels::StateKernelRow& kernel_named(std::string_view name);

struct DrawnOperand {
  StateArray array;
  std::int64_t first = 0;  // byte of element 0
  std::int64_t byte_stride = 0;
};

DrawnOperand draw_operand(test::Random& random, const StateOperand& operand, std::int64_t n,
                          const char* name);

// The bits that a result array gets for a value of its format.
std::uint64_t bits_of(double value, int format);

void require(bool holds, const std::string& text);

}  // namespace korvex::launches
