// SPDX-License-Identifier: Apache-2.0
// The steps of one launch: its device, the module there, the context, the stream.
#include "korvex/cubin_loader_native/launcher.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

namespace korvex::cubin_loader {

Launcher::Launcher(std::filesystem::path folder, LaunchChoice choice)
    : driver_(Driver::get()), process_(getpid()), choice_(choice), files_(std::move(folder)) {
  driver_.initialise();
  int count = 0;
  driver_.device_count(&count);
  for (int ordinal = 0; ordinal < count; ++ordinal) {
    const DeviceInfo info(driver_, ordinal);
    devices_.push_back(std::make_unique<DeviceSlot>(info, files_.fitting(info.capability)));
  }
  if (devices_.empty()) {
    throw DeviceFailure("no CUDA device is visible to this process");
  }
  first_ = choose_first();
}

Launcher::~Launcher() {
  // In a forked child the contexts are the parent's, and no driver call works.
  if (process_ == getpid()) {
    return;
  }
  for (auto& slot : devices_) {
    static_cast<void>(slot->kernels.release());
  }
}

std::size_t Launcher::current_ordinal() const {
  Context context = nullptr;
  driver_.context_current(&context);
  if (context == nullptr) {
    return 0;
  }
  Device device = 0;
  driver_.context_device(&device);
  const auto slot = std::ranges::find_if(
      devices_, [&](const auto& candidate) { return candidate->info.handle == device; });
  return slot == devices_.end() ? 0 : static_cast<std::size_t>(slot - devices_.begin());
}

std::size_t Launcher::choose_first() const {
  const std::size_t current = current_ordinal();
  if (!devices_[current]->files.empty()) {
    return current;
  }
  const auto fits = [](const auto& slot) { return !slot->files.empty(); };
  const auto first = std::ranges::find_if(devices_, fits);
  if (first == devices_.end()) {
    throw DeviceFailure(why_none_fits(devices_[current]->info));
  }
  return static_cast<std::size_t>(first - devices_.begin());
}

std::filesystem::path Launcher::first_path() {
  const std::lock_guard guard(mutex_);
  return devices_[first_]->files.front().path;
}

std::string Launcher::why_none_fits(const DeviceInfo& device) const {
  const std::string held = files_.empty() ? "none" : files_.list();
  return "no compiled kernels for device " + std::to_string(device.ordinal) + ", " + device.name +
         ", which is sm_" + device.capability.digits() + ": " + files_.folder().string() +
         " holds " + held;
}

void Launcher::launch(const Launch& launch) {
  require_initialised_process();
  DeviceSlot& slot = *devices_[device_of(launch)];
  DeviceKernels& kernels = kernels_on(slot);
  CurrentContext current(driver_, kernels.context());
  wait_for_producers(launch);
  try {
    enqueue(launch, slot.info, kernels);
  } catch (const DeviceFailure&) {
    // What was queued before the failure is over before the caller lets go of the arrays.
    driver_.stream_synchronize.attempt(kLegacyStream);
    throw;
  }
  // The caller waits on the null stream of its own current device only.
  if (current.is_pushed()) {
    driver_.stream_synchronize(kLegacyStream);
  }
  current.leave();
}

// Without an element anywhere no memory is touched, and any device will do.
std::size_t Launcher::device_of(const Launch& launch) const {
  const ArrayArgument* first = nullptr;
  int ordinal = 0;
  for (std::size_t i = 0; i < launch.array_count; ++i) {
    const ArrayArgument& array = launch.arrays[i];
    if (array.element_count == 0) {
      continue;
    }
    const int own_ordinal = ordinal_of(array);
    if (first == nullptr) {
      first = &array;
      ordinal = own_ordinal;
    } else if (own_ordinal != ordinal) {
      throw BadArgument("'" + std::string(first->parameter->name.c_str()) + "' is on device " +
                        std::to_string(ordinal) + " and '" +
                        std::string(array.parameter->name.c_str()) + "' on device " +
                        std::to_string(own_ordinal) +
                        ": all arrays of a launch must be on one device");
    }
  }
  if (first != nullptr) {
    return static_cast<std::size_t>(ordinal);
  }
  const std::size_t current = current_ordinal();
  return devices_[current]->files.empty() ? first_ : current;
}

int Launcher::ordinal_of(const ArrayArgument& array) const {
  unsigned memory_type = 0;
  int ordinal = -1;
  PointerAttribute attributes[] = {kPointerMemoryType, kPointerDeviceOrdinal};
  void* values[] = {&memory_type, &ordinal};
  // Of memory that the driver does not know this succeeds and leaves a type that is none.
  driver_.pointer_attributes(2, attributes, values, array.pointer);
  if (memory_type != kMemoryTypeDevice || ordinal < 0 ||
      static_cast<std::size_t>(ordinal) >= devices_.size()) {
    throw BadArgument("'" + std::string(array.parameter->name.c_str()) +
                      "' is not in the memory of a CUDA device");
  }
  return ordinal;
}

DeviceKernels& Launcher::kernels_on(DeviceSlot& slot) {
  const std::lock_guard guard(mutex_);
  if (slot.kernels == nullptr) {
    if (slot.files.empty()) {
      throw DeviceFailure(why_none_fits(slot.info));
    }
    auto kernels = std::make_unique<DeviceKernels>(driver_, slot.info);
    const std::size_t refused = kernels->load(slot.files);
    slot.files.erase(slot.files.begin(), slot.files.begin() + static_cast<std::ptrdiff_t>(refused));
    slot.kernels = std::move(kernels);
  }
  return *slot.kernels;
}

// An array that names another stream than the null stream may still be being filled there, and the
// null stream does not wait for streams that were made non-blocking.
void Launcher::wait_for_producers(const Launch& launch) const {
  Stream waited_for = kLegacyStream;
  for (std::size_t i = 0; i < launch.array_count; ++i) {
    const Stream stream = launch.arrays[i].stream;
    if (stream == kLegacyStream || stream == waited_for) {
      continue;
    }
    driver_.stream_synchronize(stream);
    waited_for = stream;
  }
}

void Launcher::enqueue(const Launch& launch, const DeviceInfo& device,
                       DeviceKernels& kernels) const {
  auto values = launch.values;
  std::array<void*, kMaxParameters> arguments{};
  for (std::size_t i = 0; i < values.size(); ++i) {
    arguments[i] = &values[i];
  }
  const Steps steps = steps_of(launch, device, choice_);
  const std::lock_guard guard(kernels.queue());
  for (const Step& step : steps) {
    enqueue(step, arguments.data(), kernels);
  }
}

void Launcher::enqueue(const Step& step, void** arguments, DeviceKernels& kernels) const {
  const Function function = kernels.function(step.kernel);
  if (step.workspace != nullptr) {
    const Workspace workspace = kernels.workspace(step.workspace);
    driver_.memory_set(workspace.address, 0, workspace.bytes, kLegacyStream);
  }
  driver_.launch(function, step.grid[0], step.grid[1], step.grid[2], step.block[0], step.block[1],
                 step.block[2], 0, kLegacyStream, arguments, nullptr);
}

}  // namespace korvex::cubin_loader
