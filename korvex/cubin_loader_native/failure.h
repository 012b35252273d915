// SPDX-License-Identifier: Apache-2.0
// What goes wrong below the Python layer, as a C++ exception that needs no interpreter.
#pragma once

#include <stdexcept>
#include <string>

namespace korvex::cubin_loader {

// The machine refused: no driver, no device, a driver call that failed. RuntimeError in Python.
struct DeviceFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The driver had no memory left for a call. korvex.exact makes it a MemoryError.
struct DeviceOutOfMemory : DeviceFailure {
  using DeviceFailure::DeviceFailure;
};

// The caller's arguments cannot be launched. ValueError in Python.
struct BadArgument : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace korvex::cubin_loader
