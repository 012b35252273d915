// SPDX-License-Identifier: Apache-2.0
// Launches of the kernels of korvex.exact, below Python: nothing here needs the interpreter's lock.
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
#include "korvex/exact_cuda/launch_rows.h"

namespace korvex::exact_cuda {

using cubin_loader::Driver;
using cubin_loader::Function;
using cubin_loader::Stream;

struct Launch {
  const LaunchRow* row = nullptr;
  int ordinal = 0;
  Stream stream = nullptr;
  std::array<std::uint64_t, kernels::kMostStateParameters> values{};
};

class Launcher {
 public:
  // Initialises the driver and lists the folders of kernels, but loads none: that of korvex.exact,
  // and that of the kernel loader beside it. DeviceFailure if there is no driver. The object lives
  // as long as the process.
  explicit Launcher(const std::filesystem::path& folder_of_exact);
  Launcher(const Launcher&) = delete;
  Launcher& operator=(const Launcher&) = delete;

  // DeviceFailure where the device has no kernels, or the driver refuses.
  void launch(const Launch& launch);

 private:
  struct DeviceSlot {
    explicit DeviceSlot(const cubin_loader::DeviceInfo& device) : info(device) {}

    cubin_loader::DeviceInfo info;
    // Of each folder, made by the first launch there that needs it.
    std::array<std::unique_ptr<cubin_loader::DeviceKernels>, kKernelFolders> kernels;
  };

  DeviceSlot& slot_of(int ordinal);
  cubin_loader::DeviceKernels& kernels_on(DeviceSlot& slot, KernelFolder folder);
  static unsigned blocks_of(const Launch& launch, const DeviceSlot& slot);

  const Driver& driver_;
  std::array<cubin_loader::KernelFiles, kKernelFolders> files_;  // by KernelFolder
  std::vector<std::unique_ptr<DeviceSlot>> devices_;             // by ordinal
  std::mutex mutex_;  // guards what the first launch makes
};

}  // namespace korvex::exact_cuda
