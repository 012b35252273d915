// SPDX-License-Identifier: Apache-2.0
// Launches of the kernels of exact states, below Python: nothing here needs the interpreter's lock.
//
// A launch goes to the device and the stream that the caller names, in that device's primary
// context, and is left running there: what orders it with other work is that stream. The thread's
// context stack is afterwards what it was.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "korvex/cubin_loader_native/context.h"
#include "korvex/cubin_loader_native/device_kernels.h"
#include "korvex/cubin_loader_native/kernel_files.h"
#include "korvex/kernels/states.h"

namespace korvex::exact_cuda {

using cubin_loader::Driver;
using cubin_loader::Function;
using cubin_loader::Stream;

struct StateLaunch {
  int kernel = 0;  // row of kStateKernels
  int ordinal = 0;
  Stream stream = nullptr;
  std::array<std::uint64_t, kernels::kMostStateParameters> values{};
};

class StateLauncher {
 public:
  // Initialises the driver and chooses a file of the folder for each device, but loads none.
  // DeviceFailure if there is no driver. The object lives as long as the process.
  explicit StateLauncher(std::filesystem::path folder);
  StateLauncher(const StateLauncher&) = delete;
  StateLauncher& operator=(const StateLauncher&) = delete;

  // DeviceFailure where the device has no kernels, or the driver refuses.
  void launch(const StateLaunch& launch);

 private:
  struct DeviceSlot {
    explicit DeviceSlot(const cubin_loader::DeviceInfo& device) : info(device) {}

    cubin_loader::DeviceInfo info;
    std::unique_ptr<cubin_loader::DeviceKernels> kernels;  // made by the first launch there
  };

  DeviceSlot& slot_of(int ordinal);
  cubin_loader::DeviceKernels& kernels_on(DeviceSlot& slot);
  std::string why_none_fits(const DeviceSlot& slot) const;
  static unsigned blocks_of(const StateLaunch& launch, const DeviceSlot& slot);

  const Driver& driver_;
  cubin_loader::KernelFiles files_;
  std::vector<std::unique_ptr<DeviceSlot>> devices_;  // by ordinal
  std::mutex mutex_;                                  // guards what the first launch makes
};

}  // namespace korvex::exact_cuda
