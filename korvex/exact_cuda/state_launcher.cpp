// SPDX-License-Identifier: Apache-2.0
// The steps of one launch: its device, the module there, the context, the grid.
#include "korvex/exact_cuda/state_launcher.h"

#include <algorithm>
#include <utility>

namespace korvex::exact_cuda {

using cubin_loader::BadArgument;
using cubin_loader::CurrentContext;
using cubin_loader::DeviceFailure;
using cubin_loader::DeviceInfo;
using kernels::kStateKernels;
using kernels::StateKernelRow;

StateLauncher::StateLauncher(std::filesystem::path folder)
    : driver_(Driver::get()), files_(std::move(folder)) {
  driver_.initialise();
  int count = 0;
  driver_.device_count(&count);
  for (int ordinal = 0; ordinal < count; ++ordinal) {
    devices_.push_back(std::make_unique<DeviceSlot>(DeviceInfo(driver_, ordinal)));
  }
}

StateLauncher::DeviceSlot& StateLauncher::slot_of(int ordinal) {
  if (ordinal < 0 || static_cast<std::size_t>(ordinal) >= devices_.size()) {
    throw BadArgument("there is no CUDA device " + std::to_string(ordinal));
  }
  return *devices_[static_cast<std::size_t>(ordinal)];
}

std::string StateLauncher::why_none_fits(const DeviceSlot& slot) const {
  const DeviceInfo& device = slot.info;
  return "no compiled kernels for device " + std::to_string(device.ordinal) + ", " + device.name +
         ", which is sm_" + device.capability.digits() + ": " + files_.folder().string() +
         " holds " + (files_.empty() ? "none" : files_.list()) +
         "; build korvex where a compiler for device code is installed";
}

// Loads once a device; after a failure the next launch tries again.
cubin_loader::DeviceKernels& StateLauncher::kernels_on(DeviceSlot& slot) {
  const std::lock_guard guard(mutex_);
  if (slot.kernels == nullptr) {
    const auto files = files_.fitting(slot.info.capability);
    if (files.empty()) {
      throw DeviceFailure(why_none_fits(slot));
    }
    auto kernels = std::make_unique<cubin_loader::DeviceKernels>(driver_, slot.info);
    kernels->load(files);
    slot.kernels = std::move(kernels);
  }
  return *slot.kernels;
}

// As many as there are elements for, and as the device has room for at a time.
unsigned StateLauncher::blocks_of(const StateLaunch& launch, const DeviceSlot& slot) {
  const StateKernelRow& row = kStateKernels[launch.kernel];
  if (row.elements_per_block == 0) {
    return 1;
  }
  const std::uint64_t elements = launch.values[0];
  const std::uint64_t needed = (elements + row.elements_per_block - 1) / row.elements_per_block;
  const std::uint64_t room = std::uint64_t{row.blocks_per_multiprocessor} *
                             static_cast<std::uint64_t>(slot.info.multiprocessors);
  const std::uint64_t most = std::min<std::uint64_t>(room, kernels::kMostStateBlocks);
  return static_cast<unsigned>(
      std::clamp<std::uint64_t>(needed, 1, std::max<std::uint64_t>(most, 1)));
}

void StateLauncher::launch(const StateLaunch& launch) {
  cubin_loader::require_initialised_process();
  DeviceSlot& slot = slot_of(launch.ordinal);
  cubin_loader::DeviceKernels& kernels = kernels_on(slot);
  CurrentContext current(driver_, kernels.context());
  auto values = launch.values;
  std::array<void*, kernels::kMostStateParameters> arguments{};
  for (std::size_t i = 0; i < values.size(); ++i) {
    arguments[i] = &values[i];
  }
  const Function function = kernels.function(kStateKernels[launch.kernel].name);
  driver_.launch(function, blocks_of(launch, slot), 1, 1, korvex::kernels::kGridBlock, 1, 1, 0,
                 launch.stream, arguments.data(), nullptr);
  current.leave();
}

}  // namespace korvex::exact_cuda
