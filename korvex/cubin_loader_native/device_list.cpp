// SPDX-License-Identifier: Apache-2.0
// Asking the management library, NVML, which is installed with the driver.
#include "korvex/cubin_loader_native/device_list.h"

#include "korvex/cubin_loader_native/shared_library.h"

namespace korvex::cubin_loader {
namespace {

using ManagedDevice = struct OpaqueManagedDevice*;
constexpr int kManagementSuccess = 0;

struct ManagementFunctions {
  int (*init)() = nullptr;
  int (*shutdown)() = nullptr;
  int (*device_count)(unsigned* count) = nullptr;
  int (*device_by_index)(unsigned index, ManagedDevice*) = nullptr;
  int (*device_capability)(ManagedDevice, int* major, int* minor) = nullptr;

  bool find_in(const SharedLibrary& library) {
    return library.is_open() && library.find("nvmlInit_v2", init) &&
           library.find("nvmlShutdown", shutdown) &&
           library.find("nvmlDeviceGetCount_v2", device_count) &&
           library.find("nvmlDeviceGetHandleByIndex_v2", device_by_index) &&
           library.find("nvmlDeviceGetCudaComputeCapability", device_capability);
  }
};

std::optional<std::vector<Capability>> read_devices(const ManagementFunctions& management) {
  unsigned count = 0;
  if (management.device_count(&count) != kManagementSuccess) {
    return {};
  }
  std::vector<Capability> devices;
  for (unsigned index = 0; index < count; ++index) {
    ManagedDevice device = nullptr;
    Capability capability;
    if (management.device_by_index(index, &device) != kManagementSuccess) {
      return {};
    }
    if (management.device_capability(device, &capability.major, &capability.minor) !=
        kManagementSuccess) {
      return {};
    }
    devices.push_back(capability);
  }
  return devices;
}

}  // namespace

std::optional<std::vector<Capability>> list_devices() {
  const SharedLibrary library("libnvidia-ml.so.1");
  ManagementFunctions management;
  if (!management.find_in(library)) {
    return {};
  }
  // An error here is no proof that CUDA does not work: the driver itself will say.
  if (management.init() != kManagementSuccess) {
    return {};
  }
  const auto devices = read_devices(management);
  management.shutdown();
  return devices;
}

}  // namespace korvex::cubin_loader
