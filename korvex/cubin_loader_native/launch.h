// SPDX-License-Identifier: Apache-2.0
// A launch as a caller asked for it, checked and below Python.
#pragma once

#include <array>
#include <cstdint>

#include "korvex/cubin_loader_native/driver.h"
#include "korvex/cubin_loader_native/parameters.h"

namespace korvex::cubin_loader {

using Extent = std::array<unsigned, 3>;

// An array argument. It is float64, contiguous and long enough: that has been checked.
struct ArrayArgument {
  const Parameter* parameter = nullptr;
  DevicePointer pointer = 0;
  std::int64_t element_count = 0;
  Stream stream = kLegacyStream;  // where the work that fills it was queued
};

struct Launch {
  int kernel = 0;  // row of the kernel table
  Extent grid{};
  Extent block{};
  bool limits_grid = false;  // to what fills the device, where the row says so
  // A pointer, an int64_t or a double each, in the order of the parameters.
  std::array<std::uint64_t, kMaxParameters> values{};
  std::array<ArrayArgument, kMaxParameters> arrays{};
  std::size_t array_count = 0;
};

}  // namespace korvex::cubin_loader
