// SPDX-License-Identifier: Apache-2.0
// The steps of one launch: its device, the module there, the context, the grid.
#include "korvex/exact_cuda/launcher.h"

#include <algorithm>
#include <utility>

namespace korvex::exact_cuda {
namespace {

using cubin_loader::BadArgument;
using cubin_loader::CurrentContext;
using cubin_loader::DeviceFailure;
using cubin_loader::DeviceInfo;
using cubin_loader::KernelFiles;

std::string why_none_fits(const DeviceInfo& device, const KernelFiles& files) {
  return "no compiled kernels for device " + std::to_string(device.ordinal) + ", " + device.name +
         ", which is sm_" + device.capability.digits() + ": " + files.folder().string() +
         " holds " + (files.empty() ? "none" : files.list()) +
         "; build korvex where a compiler for device code is installed";
}

}  // namespace

// `korvex/exact/cubins` and `korvex/cubins`.
Launcher::Launcher(const std::filesystem::path& folder_of_exact)
    : driver_(Driver::get()),
      files_{KernelFiles(folder_of_exact), KernelFiles(folder_of_exact.parent_path().parent_path() /
                                                       folder_of_exact.filename())} {
  driver_.initialise();
  int count = 0;
  driver_.device_count(&count);
  for (int ordinal = 0; ordinal < count; ++ordinal) {
    devices_.push_back(std::make_unique<DeviceSlot>(DeviceInfo(driver_, ordinal)));
  }
}

Launcher::DeviceSlot& Launcher::slot_of(int ordinal) {
  if (ordinal < 0 || static_cast<std::size_t>(ordinal) >= devices_.size()) {
    throw BadArgument("there is no CUDA device " + std::to_string(ordinal));
  }
  return *devices_[static_cast<std::size_t>(ordinal)];
}

// Loads once a device and folder; after a failure the next launch tries again.
cubin_loader::DeviceKernels& Launcher::kernels_on(DeviceSlot& slot, KernelFolder folder) {
  const auto place = static_cast<std::size_t>(folder);
  const std::lock_guard guard(mutex_);
  if (slot.kernels[place] == nullptr) {
    const auto files = files_[place].fitting(slot.info.capability);
    if (files.empty()) {
      throw DeviceFailure(why_none_fits(slot.info, files_[place]));
    }
    auto kernels = std::make_unique<cubin_loader::DeviceKernels>(driver_, slot.info);
    kernels->load(files);
    slot.kernels[place] = std::move(kernels);
  }
  return *slot.kernels[place];
}

// As many as there is work for, and as the device has room for at a time.
unsigned Launcher::blocks_of(const Launch& launch, const DeviceSlot& slot) {
  const LaunchRow& row = *launch.row;
  if (row.per_block == 0) {
    return 1;
  }
  const std::uint64_t count = launch.values[static_cast<std::size_t>(row.counting_argument)];
  const std::uint64_t needed = (count + row.per_block - 1) / row.per_block;
  const std::uint64_t room = std::uint64_t{row.most_for_multiprocessor} *
                             static_cast<std::uint64_t>(slot.info.multiprocessors);
  const std::uint64_t most = std::min<std::uint64_t>(room, row.most);
  return static_cast<unsigned>(
      std::clamp<std::uint64_t>(needed, 1, std::max<std::uint64_t>(most, 1)));
}

void Launcher::launch(const Launch& launch) {
  cubin_loader::require_initialised_process();
  const LaunchRow& row = *launch.row;
  DeviceSlot& slot = slot_of(launch.ordinal);
  cubin_loader::DeviceKernels& kernels = kernels_on(slot, row.folder);
  CurrentContext current(driver_, kernels.context());
  auto values = launch.values;
  std::array<void*, kernels::kMostStateParameters> arguments{};
  for (std::size_t i = 0; i < values.size(); ++i) {
    arguments[i] = &values[i];
  }
  const Function function = kernels.function(row.name);
  driver_.launch(function, blocks_of(launch, slot), 1, 1, row.threads, 1, 1, 0, launch.stream,
                 arguments.data(), nullptr);
  current.leave();
}

}  // namespace korvex::exact_cuda
