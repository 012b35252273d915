// SPDX-License-Identifier: Apache-2.0
// The reasons that are certain beforehand: no cupy, no driver, no kernels, no device.
#include "korvex/cubin_loader_native/availability.h"

#include <cstdlib>
#include <string_view>

#include "korvex/cpython/object.h"
#include "korvex/cubin_loader_native/device_list.h"
#include "korvex/cubin_loader_native/driver.h"

namespace korvex::cubin_loader {
namespace {

// It is looked up and not imported: the caller imports it, at a moment of its own, and should see
// what cupy itself says if that fails.
bool is_cupy_installed() {
  const Object name = text("cupy");
  const Object modules = object(PyImport_GetModuleDict());
  const Object loaded = object(PyDict_GetItemWithError(modules, name));
  if (!loaded.empty()) {
    return !is_none(loaded);
  }
  if (PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  const Object finder = checked(PyImport_ImportModule("importlib.util"));
  return !is_none(finder.get(text("find_spec")).call(name));
}

std::string why_no_driver() {
  try {
    Driver::get();
    return {};
  } catch (const DeviceFailure& failure) {
    return failure.what();
  }
}

// The driver reads this variable, and sees no device if its list is empty or starts with -1.
bool hides_all_devices(const char* visible_devices) {
  if (visible_devices == nullptr) {
    return false;
  }
  const std::string_view value = visible_devices;
  return value.empty() || value == "-1" || value.starts_with("-1,");
}

std::string why_no_device(const KernelFiles& files) {
  const char* visible_devices = std::getenv("CUDA_VISIBLE_DEVICES");
  if (hides_all_devices(visible_devices)) {
    return "no device: CUDA_VISIBLE_DEVICES is \"" + std::string(visible_devices) + "\"";
  }
  const auto devices = list_devices();
  if (!devices) {
    return {};
  }
  if (devices->empty()) {
    return "no device: the driver manages none";
  }
  std::string seen;
  for (const Capability& device : *devices) {
    if (!files.fitting(device).empty()) {
      return {};
    }
    seen += (seen.empty() ? "sm_" : ", sm_") + device.digits();
  }
  return "no compiled kernels for the devices here, which are " + seen + ": " +
         files.folder().string() + " holds " + files.list();
}

}  // namespace

std::string why_unavailable(const KernelFiles& files) {
  std::string reasons;
  const auto add = [&](const std::string& reason) {
    if (!reason.empty()) {
      reasons += (reasons.empty() ? "" : "; ") + reason;
    }
  };
  if (!is_cupy_installed()) {
    add("cupy is not installed");
  }
  const std::string no_driver = why_no_driver();
  add(no_driver);
  if (files.empty()) {
    add("no compiled kernels in " + files.folder().string());
  } else if (no_driver.empty()) {
    add(why_no_device(files));
  }
  return reasons;
}

}  // namespace korvex::cubin_loader
