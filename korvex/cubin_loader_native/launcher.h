// SPDX-License-Identifier: Apache-2.0
// Launches on any device of the process, below Python: nothing here needs the interpreter's lock.
//
// A launch goes to the device that its arrays are on, in that device's primary context, on the
// legacy null stream. On the thread's current device it is left running, for the caller to wait on
// that stream; on another one it has finished when the call returns. Either way the thread's
// context stack is afterwards what it was.
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "korvex/cubin_loader_native/device_kernels.h"
#include "korvex/cubin_loader_native/launch.h"
#include "korvex/cubin_loader_native/launch_steps.h"

namespace korvex::cubin_loader {

class Launcher {
 public:
  // Initialises the driver and chooses a file for each device, but loads none: a context takes
  // memory of a device that this process may never use. DeviceFailure if no kernel can be launched
  // on any device.
  Launcher(std::filesystem::path folder, LaunchChoice choice);
  ~Launcher();
  Launcher(const Launcher&) = delete;
  Launcher& operator=(const Launcher&) = delete;

  // The current device if it has a fitting file, else the first that has.
  const DeviceInfo& first_device() const { return devices_[first_]->info; }
  // The file whose kernels run there; before the first launch, the one to be tried first.
  std::filesystem::path first_path();

  void launch(const Launch& launch);

 private:
  struct DeviceSlot {
    DeviceInfo info;
    std::vector<KernelFile> files;  // that fit, the best first; those refused are taken out
    std::unique_ptr<DeviceKernels> kernels;  // made by the first launch on the device
    // For make_unique, as clang before 16 makes no aggregates in parentheses.
    DeviceSlot(DeviceInfo device, std::vector<KernelFile> fitting)
        : info(std::move(device)), files(std::move(fitting)) {}
  };

  std::size_t current_ordinal() const;
  std::size_t choose_first() const;
  std::string why_none_fits(const DeviceInfo& device) const;
  std::size_t device_of(const Launch& launch) const;
  int ordinal_of(const ArrayArgument& array) const;
  DeviceKernels& kernels_on(DeviceSlot& slot);
  void wait_for_producers(const Launch& launch) const;
  void enqueue(const Launch& launch, const DeviceInfo& device, DeviceKernels& kernels) const;
  void enqueue(const Step& step, void** arguments, DeviceKernels& kernels) const;

  const Driver& driver_;
  pid_t process_;  // the one whose contexts these are
  LaunchChoice choice_;
  KernelFiles files_;
  std::vector<std::unique_ptr<DeviceSlot>> devices_;  // by ordinal, never empty
  std::size_t first_ = 0;
  std::mutex mutex_;  // guards the making of DeviceSlot::kernels, and files from then on
};

}  // namespace korvex::cubin_loader
