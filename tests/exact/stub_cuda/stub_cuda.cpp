// SPDX-License-Identifier: Apache-2.0
// A stand-in for the CUDA driver, libcuda.so.1, for launches of korvex.exact: two devices in host
// memory, streams of any name, and a log of what was called.
//
// A launch only queues; it runs when its stream is waited for, by the code of the device on a
// simulated grid. Functions that the driver's table names and korvex.exact does not call are in
// other_functions.inc, which the build writes: each fails.
#include <cstdint>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "korvex/exact_cuda/launch_rows.h"
#include "tests/exact/stub_cuda/map_kernels.h"
#include "tests/exact/stub_cuda/state_kernels.h"

#define STUB_API extern "C" __attribute__((visibility("default")))

STUB_API int stub_not_called() { return 801; }
#if __has_include("other_functions.inc")  // the analyser has none
#include "other_functions.inc"
#endif

namespace {

using korvex::exact_cuda::KernelFolder;
using korvex::exact_cuda::kLaunchRows;

constexpr int kDevices = 2;
constexpr int kInvalidValue = 1;
constexpr int kNotFound = 500;
constexpr int kLaunchFailed = 719;

// A module is its device and its folder, a function its row and its module.
constexpr int kFolderFactor = 10;
constexpr int kModuleFactor = 100;

struct Queued {
  int row;
  unsigned blocks;
  std::vector<std::uint64_t> values;
};

struct Driver {
  std::map<std::pair<int, std::uint64_t>, std::vector<Queued>> streams;  // by device and name
  std::vector<int> contexts;                                             // pushed: devices
  std::map<std::string, int> failures;
  std::string log;
  std::string taken;
};
Driver driver;

template <class... Words>
int enter(const char* call, const Words&... words) {
  std::ostringstream line;
  line << call;
  ((line << ' ' << words), ...);
  driver.log += line.str() + '\n';
  const auto failure = driver.failures.find(call);
  return failure == driver.failures.end() ? 0 : failure->second;
}

// Numbers above 0.
void* handle(int number) { return reinterpret_cast<void*>(static_cast<std::intptr_t>(number + 1)); }
int number(const void* handle) {
  return static_cast<int>(reinterpret_cast<std::intptr_t>(handle)) - 1;
}

}  // namespace

// ---- the driver's functions ----

STUB_API int cuInit(unsigned /*flags*/) { return enter("cuInit"); }
STUB_API int cuGetErrorName(int result, const char** text) {
  *text = result == 2 ? "CUDA_ERROR_OUT_OF_MEMORY" : "CUDA_ERROR_STUB";
  return 0;
}
STUB_API int cuGetErrorString(int /*result*/, const char** text) {
  *text = nullptr;
  return kInvalidValue;
}
STUB_API int cuDeviceGetCount(int* count) {
  *count = kDevices;
  return enter("cuDeviceGetCount");
}
STUB_API int cuDeviceGet(int* device, int ordinal) {
  *device = ordinal;
  return 0;
}
STUB_API int cuDeviceGetName(char* text, int bytes, int device) {
  std::snprintf(text, static_cast<std::size_t>(bytes), "Stub device %d", device);
  return 0;
}
STUB_API int cuDeviceGetAttribute(int* value, int attribute, int device) {
  *value = attribute == 16 ? 3 - device : attribute == 75 ? 9 - device : 0;
  return 0;
}
STUB_API int cuDevicePrimaryCtxRetain(void** context, int device) {
  *context = handle(device);
  return enter("cuDevicePrimaryCtxRetain", device);
}
STUB_API int cuDevicePrimaryCtxRelease_v2(int device) {
  return enter("cuDevicePrimaryCtxRelease_v2", device);
}
STUB_API int cuCtxGetCurrent(void** context) {
  *context = driver.contexts.empty() ? nullptr : handle(driver.contexts.back());
  return 0;
}
STUB_API int cuCtxPushCurrent_v2(void* context) {
  driver.contexts.push_back(number(context));
  return enter("cuCtxPushCurrent_v2", number(context));
}
STUB_API int cuCtxPopCurrent_v2(void** context) {
  *context = handle(driver.contexts.back());
  driver.contexts.pop_back();
  return enter("cuCtxPopCurrent_v2");
}
STUB_API int cuModuleLoadDataEx(void** module, const void* image, unsigned /*count*/,
                                int* /*options*/, void** /*values*/) {
  const std::string_view text(static_cast<const char*>(image));
  const auto folder = text.starts_with("table") ? KernelFolder::kTable : KernelFolder::kStates;
  *module = handle(driver.contexts.back() + kFolderFactor * static_cast<int>(folder));
  return enter("cuModuleLoadDataEx", static_cast<const char*>(image));
}
STUB_API int cuModuleUnload(void* /*module*/) { return enter("cuModuleUnload"); }
STUB_API int cuModuleGetFunction(void** function, void* module, const char* name) {
  for (std::size_t row = 0; row < kLaunchRows.size(); ++row) {
    if (kLaunchRows[row].name == std::string_view(name) &&
        static_cast<int>(kLaunchRows[row].folder) == number(module) / kFolderFactor) {
      *function = handle(static_cast<int>(row) + kModuleFactor * number(module));
      return enter("cuModuleGetFunction", name);
    }
  }
  return kNotFound;
}
STUB_API int cuLaunchKernel(void* function, unsigned grid_x, unsigned grid_y, unsigned grid_z,
                            unsigned block_x, unsigned block_y, unsigned block_z, unsigned shared,
                            void* stream, void** arguments, void** extra) {
  const int row = number(function) % kModuleFactor;
  const int device = number(function) / kModuleFactor % kFolderFactor;
  const auto& kernel = kLaunchRows[static_cast<std::size_t>(row)];
  const auto name = reinterpret_cast<std::uintptr_t>(stream);
  if (const int failed = enter("cuLaunchKernel", kernel.name, "device", device, "stream", name,
                               "blocks", grid_x)) {
    return failed;
  }
  if (driver.contexts.empty() || driver.contexts.back() != device || grid_x == 0 || grid_y != 1 ||
      grid_z != 1 || block_x != kernel.threads || block_y != 1 || block_z != 1 || shared != 0 ||
      extra != nullptr) {
    return kInvalidValue;
  }
  Queued launch{row, grid_x, {}};
  for (int i = 0; i < kernel.parameter_count; ++i) {
    launch.values.push_back(*static_cast<const std::uint64_t*>(arguments[i]));
  }
  driver.streams[{device, name}].push_back(launch);
  return 0;
}

// ---- what tests do with it ----

// Runs what is queued in one stream of a device.
STUB_API int stub_settle(int device, std::uint64_t stream) {
  const auto queued = std::exchange(driver.streams[{device, stream}], {});
  for (const Queued& launch : queued) {
    const auto& row = kLaunchRows[static_cast<std::size_t>(launch.row)];
    const bool is_done =
        row.folder == KernelFolder::kTable
            ? korvex::kernels::run_map_kernel(row.name, launch.blocks, launch.values.data())
            : korvex::kernels::run_state_kernel(launch.row, launch.blocks, launch.values.data());
    if (!is_done) {
      return kLaunchFailed;
    }
  }
  return 0;
}
// The same where the host waits for that, as a library of arrays does.
STUB_API int stub_wait(int device, std::uint64_t stream) {
  const int failed = enter("wait", "device", device, "stream", stream);
  const int launched = stub_settle(device, stream);
  return launched != 0 ? launched : failed;
}
// From now on, or no more where the result is 0.
STUB_API void stub_fail(const char* call, int result) {
  driver.failures.erase(call);
  if (result != 0) {
    driver.failures[call] = result;
  }
}
STUB_API const char* stub_take_log() {
  driver.taken = std::exchange(driver.log, {});
  return driver.taken.c_str();
}
STUB_API int stub_context_depth() { return static_cast<int>(driver.contexts.size()); }
