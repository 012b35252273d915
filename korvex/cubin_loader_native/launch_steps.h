// SPDX-License-Identifier: Apache-2.0
// What a launch becomes for the driver: kernels one after another, with grid, block and the memory
// that each needs.
#pragma once

#include <array>
#include <optional>
#include <string_view>

#include "korvex/cubin_loader_native/device_kernels.h"
#include "korvex/cubin_loader_native/launch.h"
#include "korvex/kernels/whole_device.h"

namespace korvex::cubin_loader {

// Where kernels of one thread or one block run, as the user has chosen.
enum class LaunchChoice {
  kAsAsked,  // there
  kDevice,   // on the whole device, by the launches of kWholeDeviceTable
};

// Of one of the words "as-asked" and "device"; nothing for any other.
std::optional<LaunchChoice> read_choice(std::string_view word);

struct Step {
  const char* kernel = nullptr;     // its name in the file
  const char* workspace = nullptr;  // static memory to be cleared before; null: none
  Extent grid{};
  Extent block{};
};

struct Steps {
  std::array<Step, kernels::kMostWholeDeviceLaunches> items;
  std::size_t count = 0;

  const Step* begin() const { return items.data(); }
  const Step* end() const { return items.data() + count; }
};

// The launch on a device. As asked, it has the grid that was asked for, without blocks that would
// do no work where the launch limits its grid; whatever was asked for, the whole device has as many
// blocks as it has room for and as there are elements for.
Steps steps_of(const Launch& launch, const DeviceInfo& device, LaunchChoice choice);

}  // namespace korvex::cubin_loader
