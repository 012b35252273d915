// SPDX-License-Identifier: Apache-2.0
// Opening and initialising the driver, and the texts of its errors.
#include "korvex/cubin_loader_native/driver.h"

#include <unistd.h>

#include <atomic>

namespace korvex::cubin_loader {
namespace {

std::atomic<std::int64_t> initialised_in{-1};

}  // namespace

void throw_failed_call(const char* name, Result result) {
  const Driver& driver = Driver::get();
  const char* error = nullptr;
  const char* meaning = nullptr;
  std::string text = std::string(name) + " failed: ";
  if (driver.get_error_name.attempt(result, &error) != kSuccess || error == nullptr) {
    throw DeviceFailure(text + "error " + std::to_string(result));
  }
  text += error;
  if (driver.get_error_string.attempt(result, &meaning) == kSuccess && meaning != nullptr) {
    text += std::string(" (") + meaning + ")";
  }
  if (result == kOutOfMemory) {
    throw DeviceOutOfMemory(text);
  }
  throw DeviceFailure(text);
}

Driver::Driver() {
  if (!library_.is_open()) {
    throw DeviceFailure("no NVIDIA driver: " + library_.error());
  }
}

const Driver& Driver::get() {
  // Not constructed if the constructor throws: the next call tries again.
  static const Driver driver;
  return driver;
}

void Driver::initialise() const {
  require_initialised_process();
  init(0);
  initialised_in = getpid();
}

void require_initialised_process() {
  if (initialised_in == -1 || initialised_in == getpid()) {
    return;
  }
  throw DeviceFailure(
      "CUDA was initialised before this process was forked, and does not work in a forked child: "
      "start processes with the \"spawn\" method of multiprocessing");
}

}  // namespace korvex::cubin_loader
