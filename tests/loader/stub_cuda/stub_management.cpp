// SPDX-License-Identifier: Apache-2.0
// A stand-in for the management library, libnvidia-ml.so.1: as many devices as are set, and of
// no use until they are set.
#include <string>
#include <vector>

#define STUB_API extern "C" __attribute__((visibility("default")))

namespace {

struct Capability {
  int major;
  int minor;
};

std::vector<Capability> devices;
bool works = false;
std::string failing_call;
int initialised = 0;

constexpr int kUnknownError = 999;

int result_of(const char* call) { return failing_call == call ? kUnknownError : 0; }

}  // namespace

STUB_API int nvmlInit_v2() {
  if (!works) {
    return kUnknownError;
  }
  if (const int failed = result_of("nvmlInit_v2")) {
    return failed;
  }
  ++initialised;
  return 0;
}

STUB_API int nvmlShutdown() {
  --initialised;
  return 0;
}

STUB_API int nvmlDeviceGetCount_v2(unsigned* count) {
  *count = static_cast<unsigned>(devices.size());
  return result_of("nvmlDeviceGetCount_v2");
}

STUB_API int nvmlDeviceGetHandleByIndex_v2(unsigned index, Capability** device) {
  *device = &devices[index];
  return result_of("nvmlDeviceGetHandleByIndex_v2");
}

STUB_API int nvmlDeviceGetCudaComputeCapability(const Capability* device, int* major, int* minor) {
  *major = device->major;
  *minor = device->minor;
  return result_of("nvmlDeviceGetCudaComputeCapability");
}

// ---- what tests do with it ----

STUB_API void stub_let_management_work() { works = true; }
STUB_API void stub_add_managed_device(int major, int minor) { devices.push_back({major, minor}); }
STUB_API void stub_fail_management(const char* call) { failing_call = call; }
STUB_API int stub_management_initialised() { return initialised; }
