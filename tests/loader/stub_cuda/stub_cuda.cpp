// SPDX-License-Identifier: Apache-2.0
// A stand-in for the CUDA driver, libcuda.so.1: devices in host memory that write down every call.
//
// It keeps the driver's rules where a loader could break them. Nothing works before cuInit, nor in
// a forked child. Each thread has its own stack of contexts. A kernel needs its module's context,
// real extents, and arrays on its own device. A launch only queues; it runs when its stream is
// waited for, through the kernels that the emulated device uses. Static memory of a module is never
// zero unless it was just cleared, as after a launch that was cut short, and a kernel that wants it
// so fails. Any call can be made to fail or to block.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "korvex/kernels/whole_device.h"

#define STUB_API extern "C" __attribute__((visibility("default")))

namespace {

enum Result : int {
  kSuccess = 0,
  kInvalidValue = 1,
  kNotInitialized = 3,
  kNoDevice = 100,
  kInvalidDevice = 101,
  kInvalidImage = 200,
  kInvalidContext = 201,
  kInvalidHandle = 400,
  kNotFound = 500,
  kIllegalAddress = 700,
  kLaunchFailed = 719,
  kUnknown = 999,
};

constexpr std::uintptr_t kLegacyStream = 1;
constexpr int kHandleOffset = 100;  // device handles are no ordinals

struct HostKernels {
  int (*count)() = nullptr;
  const char* (*parameters)(int) = nullptr;
  int (*launch)(int, const unsigned*, const unsigned*, void* const*, int) = nullptr;
};

// Static memory of a module.
struct Variable {
  std::string name;
  std::vector<unsigned char> bytes;
};

struct StubFunction;

struct PendingLaunch {
  StubFunction* function;
  unsigned grid[3];
  unsigned block[3];
  std::vector<std::uint64_t> values;
  std::shared_ptr<Variable> workspace;  // of the function; null: none
};

struct PendingClear {
  std::shared_ptr<Variable> variable;
  unsigned char value;
};

struct StubContext {
  int ordinal = 0;
  int retained = 0;
  std::vector<std::variant<PendingLaunch, PendingClear>> pending;  // on the legacy stream
};

struct StubModule {
  StubContext* context;
  std::vector<std::shared_ptr<Variable>> variables;  // that were asked for
};

struct StubFunction {
  StubModule* module;
  const char* name;
  const char* workspace;  // static memory that it wants zero; null: none
  int host_kernel;        // that takes the same arguments
  bool gives_result;      // and leaves the result of that
};

struct StubDevice {
  int major;
  int minor;
  int multiprocessors;
  StubContext primary;
};

struct Allocation {
  std::uintptr_t begin;
  std::size_t bytes;
  int ordinal;
};

struct Failure {
  int result;
  int calls_before;
};

struct StubDriver {
  std::mutex mutex;  // guards what calls are set to do, and the log
  std::mutex state;  // guards everything else
  std::condition_variable changed;
  pid_t initialised_in = -1;
  std::vector<std::unique_ptr<StubDevice>> devices;
  std::vector<std::unique_ptr<StubModule>> modules;
  std::vector<std::unique_ptr<StubFunction>> functions;
  std::vector<Allocation> allocations;
  std::map<std::string, Failure> failures;
  std::string blocked_call;
  bool is_blocking = false;
  std::string log;
  std::string log_copy;
  HostKernels host;

  StubDriver() { set_devices({{9, 0, 4}, {8, 0, 2}}); }
  struct Model {
    int major;
    int minor;
    int multiprocessors;
  };
  void set_devices(const std::vector<Model>& models) {
    devices.clear();
    for (const Model& model : models) {
      auto device = std::make_unique<StubDevice>();
      device->major = model.major;
      device->minor = model.minor;
      device->multiprocessors = model.multiprocessors;
      device->primary.ordinal = static_cast<int>(devices.size());
      devices.push_back(std::move(device));
    }
  }
};

// Not destroyed: the loader may call until the process has ended.
StubDriver& stub() {
  static auto* const driver = new StubDriver;
  return *driver;
}

thread_local std::vector<StubContext*> context_stack;

StubContext* current() { return context_stack.empty() ? nullptr : context_stack.back(); }

template <class... Words>
std::string line(const Words&... words) {
  std::ostringstream text;
  ((text << words << ' '), ...);
  std::string result = text.str();
  result.back() = '\n';
  return result;
}

// What every call does first: into the log, wait if it is to block, fail if it is to fail.
template <class... Words>
int enter(const char* call, const Words&... words) {
  StubDriver& driver = stub();
  std::unique_lock lock(driver.mutex);
  driver.log += line(call, words...);
  if (driver.blocked_call == call) {
    driver.is_blocking = true;
    driver.changed.notify_all();
    const bool released = driver.changed.wait_for(lock, std::chrono::seconds(20),
                                                  [&] { return driver.blocked_call.empty(); });
    driver.is_blocking = false;
    if (!released) {
      return kUnknown;
    }
  }
  for (const char* key : {call, "*"}) {
    const auto failure = driver.failures.find(key);
    if (failure != driver.failures.end() && failure->second.calls_before-- == 0) {
      const int result = failure->second.result;
      driver.failures.erase(failure);
      return result;
    }
  }
  const bool needs_init = std::strcmp(call, "cuInit") != 0;
  return needs_init && driver.initialised_in != getpid() ? kNotInitialized : kSuccess;
}

StubDevice* device_of(int handle) {
  const int ordinal = handle - kHandleOffset;
  const bool exists = ordinal >= 0 && ordinal < static_cast<int>(stub().devices.size());
  return exists ? stub().devices[static_cast<std::size_t>(ordinal)].get() : nullptr;
}

int ordinal_of(std::uintptr_t address) {
  for (const Allocation& block : stub().allocations) {
    if (address >= block.begin && address < block.begin + block.bytes) {
      return block.ordinal;
    }
  }
  return -2;
}

std::vector<std::string> parameters_of(int kernel) {
  std::istringstream text(stub().host.parameters(kernel));
  std::vector<std::string> words;
  for (std::string word; text >> word;) {
    words.push_back(word);
  }
  return words;
}

bool is_array(const std::string& parameter) { return parameter.back() == ']'; }

constexpr unsigned char kJunk = 0xa5;

// All functions that a file of kernels has. Of those that stand for a kernel on the whole device
// the last gives the result.
std::vector<StubFunction> functions_of(StubModule* module) {
  const HostKernels& host = stub().host;
  const int count = host.count == nullptr ? 0 : host.count();
  std::vector<StubFunction> functions;
  for (int kernel = 0; kernel < count; ++kernel) {
    const auto& own = korvex::kernels::kKernelTable[kernel];
    functions.push_back({module, own.name, own.workspace, kernel, true});
    for (const auto& row : korvex::kernels::kWholeDeviceTable) {
      for (int i = 0; i < row.launch_count && std::strcmp(row.kernel, own.name) == 0; ++i) {
        const auto& launch = row.launches[i];
        const bool is_last = i + 1 == row.launch_count;
        functions.push_back({module, launch.kernel, launch.workspace, kernel, is_last});
      }
    }
  }
  return functions;
}

bool is_workspace(StubModule* module, const char* name) {
  return std::ranges::any_of(functions_of(module), [&](const StubFunction& function) {
    return function.workspace != nullptr && std::strcmp(function.workspace, name) == 0;
  });
}

std::shared_ptr<Variable> variable_of(StubModule& module, const char* name) {
  if (name == nullptr) {
    return nullptr;
  }
  for (const auto& variable : module.variables) {
    if (variable->name == name) {
      return variable;
    }
  }
  const Variable made{name, std::vector<unsigned char>(48, kJunk)};
  return module.variables.emplace_back(std::make_shared<Variable>(made));
}

int run(const PendingClear& clear, const StubContext& /*context*/) {
  std::ranges::fill(clear.variable->bytes, clear.value);
  return kSuccess;
}

int run(const PendingLaunch& launch, const StubContext& context) {
  const StubFunction& function = *launch.function;
  const auto parameters = parameters_of(function.host_kernel);
  auto values = launch.values;
  std::vector<void*> arguments;
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (is_array(parameters[i]) && values[i] != 0 &&
        ordinal_of(static_cast<std::uintptr_t>(values[i])) != context.ordinal) {
      return kIllegalAddress;
    }
    arguments.push_back(&values[i]);
  }
  if (launch.workspace != nullptr) {
    std::vector<unsigned char>& bytes = launch.workspace->bytes;
    if (std::ranges::any_of(bytes, [](unsigned char byte) { return byte != 0; })) {
      return kLaunchFailed;
    }
    std::ranges::fill(bytes, kJunk);
  }
  if (!function.gives_result) {
    return kSuccess;
  }
  const auto run_on_host = stub().host.launch;
  return run_on_host(function.host_kernel, launch.grid, launch.block, arguments.data(), 1) == 0
             ? kSuccess
             : kLaunchFailed;
}

// Waiting for the legacy stream runs what was queued on it.
int run_pending(StubContext& context) {
  const auto pending = std::move(context.pending);
  context.pending.clear();
  for (const auto& work : pending) {
    if (const int failed = std::visit([&](const auto& each) { return run(each, context); }, work)) {
      return failed;
    }
  }
  return kSuccess;
}

}  // namespace

// ---- the driver's functions ----

STUB_API int cuInit(unsigned flags) {
  if (const int failed = enter("cuInit", flags)) {
    return failed;
  }
  if (stub().initialised_in != -1 && stub().initialised_in != getpid()) {
    return kNotInitialized;
  }
  stub().initialised_in = getpid();
  return stub().devices.empty() ? kNoDevice : kSuccess;
}

STUB_API int cuGetErrorName(int result, const char** text) {
  static const std::map<int, const char*> names = {
      {kInvalidValue, "CUDA_ERROR_INVALID_VALUE"},
      {2, "CUDA_ERROR_OUT_OF_MEMORY"},
      {kNotInitialized, "CUDA_ERROR_NOT_INITIALIZED"},
      {kNoDevice, "CUDA_ERROR_NO_DEVICE"},
      {kInvalidImage, "CUDA_ERROR_INVALID_IMAGE"},
      {209, "CUDA_ERROR_NO_BINARY_FOR_GPU"},
      {218, "CUDA_ERROR_INVALID_PTX"},
      {222, "CUDA_ERROR_UNSUPPORTED_PTX_VERSION"},
      {kInvalidContext, "CUDA_ERROR_INVALID_CONTEXT"},
      {kNotFound, "CUDA_ERROR_NOT_FOUND"},
      {kIllegalAddress, "CUDA_ERROR_ILLEGAL_ADDRESS"},
  };
  const auto name = names.find(result);
  *text = name == names.end() ? nullptr : name->second;
  return *text == nullptr ? kInvalidValue : kSuccess;
}

STUB_API int cuGetErrorString(int result, const char** text) {
  *text = result == 2 ? "out of memory" : result == kNoDevice ? "no CUDA-capable device" : nullptr;
  return *text == nullptr ? kInvalidValue : kSuccess;
}

STUB_API int cuDeviceGetCount(int* count) {
  if (const int failed = enter("cuDeviceGetCount")) {
    return failed;
  }
  *count = static_cast<int>(stub().devices.size());
  return kSuccess;
}

STUB_API int cuDeviceGet(int* handle, int ordinal) {
  if (const int failed = enter("cuDeviceGet", ordinal)) {
    return failed;
  }
  *handle = ordinal + kHandleOffset;
  return device_of(*handle) == nullptr ? kInvalidDevice : kSuccess;
}

STUB_API int cuDeviceGetName(char* text, int bytes, int handle) {
  if (const int failed = enter("cuDeviceGetName", handle)) {
    return failed;
  }
  if (device_of(handle) == nullptr) {
    return kInvalidDevice;
  }
  std::snprintf(text, static_cast<std::size_t>(bytes), "Stub device %d", handle - kHandleOffset);
  return kSuccess;
}

STUB_API int cuDeviceGetAttribute(int* value, int attribute, int handle) {
  if (const int failed = enter("cuDeviceGetAttribute", attribute, handle)) {
    return failed;
  }
  const StubDevice* device = device_of(handle);
  if (device == nullptr) {
    return kInvalidDevice;
  }
  if (attribute == 16) {
    *value = device->multiprocessors;
  } else if (attribute == 75) {
    *value = device->major;
  } else if (attribute == 76) {
    *value = device->minor;
  } else {
    return kInvalidValue;
  }
  return kSuccess;
}

STUB_API int cuDevicePrimaryCtxRetain(StubContext** context, int handle) {
  if (const int failed = enter("cuDevicePrimaryCtxRetain", handle)) {
    return failed;
  }
  const std::lock_guard guard(stub().state);
  StubDevice* device = device_of(handle);
  if (device == nullptr) {
    return kInvalidDevice;
  }
  ++device->primary.retained;
  *context = &device->primary;
  return kSuccess;
}

STUB_API int cuDevicePrimaryCtxRelease_v2(int handle) {
  if (const int failed = enter("cuDevicePrimaryCtxRelease_v2", handle)) {
    return failed;
  }
  const std::lock_guard guard(stub().state);
  StubDevice* device = device_of(handle);
  if (device == nullptr || device->primary.retained == 0) {
    return kInvalidContext;
  }
  --device->primary.retained;
  return kSuccess;
}

STUB_API int cuCtxGetCurrent(StubContext** context) {
  if (const int failed = enter("cuCtxGetCurrent")) {
    return failed;
  }
  *context = current();
  return kSuccess;
}

STUB_API int cuCtxGetDevice(int* handle) {
  if (const int failed = enter("cuCtxGetDevice")) {
    return failed;
  }
  if (current() == nullptr) {
    return kInvalidContext;
  }
  *handle = current()->ordinal + kHandleOffset;
  return kSuccess;
}

STUB_API int cuCtxPushCurrent_v2(StubContext* context) {
  if (const int failed = enter("cuCtxPushCurrent_v2", context->ordinal)) {
    return failed;
  }
  if (context->retained == 0) {
    return kInvalidContext;
  }
  context_stack.push_back(context);
  return kSuccess;
}

STUB_API int cuCtxPopCurrent_v2(StubContext** context) {
  const int failed = enter("cuCtxPopCurrent_v2", current() == nullptr ? -1 : current()->ordinal);
  if (context_stack.empty()) {
    return kInvalidContext;
  }
  *context = current();
  context_stack.pop_back();  // also where it fails: such an error is that of an earlier launch
  return failed;
}

STUB_API int cuStreamSynchronize(void* stream) {
  const auto number = reinterpret_cast<std::uintptr_t>(stream);
  const int failed = enter("cuStreamSynchronize", number);
  const std::lock_guard guard(stub().state);
  // An error here is that of the work, which is then over.
  if (failed != kSuccess && current() != nullptr) {
    current()->pending.clear();
  }
  if (failed != kSuccess) {
    return failed;
  }
  if (current() == nullptr) {
    return kInvalidContext;
  }
  return number == kLegacyStream ? run_pending(*current()) : kSuccess;
}

STUB_API int cuPointerGetAttributes(unsigned count, int* attributes, void** values,
                                    unsigned long long pointer) {
  if (const int failed = enter("cuPointerGetAttributes")) {
    return failed;
  }
  const std::lock_guard guard(stub().state);
  const int ordinal = ordinal_of(static_cast<std::uintptr_t>(pointer));
  for (unsigned i = 0; i < count; ++i) {
    if (attributes[i] == 2) {
      *static_cast<unsigned*>(values[i]) = ordinal < 0 ? 0 : 2;
    } else if (attributes[i] == 9) {
      *static_cast<int*>(values[i]) = ordinal;
    } else {
      return kInvalidValue;
    }
  }
  return kSuccess;
}

STUB_API int cuModuleLoadDataEx(StubModule** module, const void* image, unsigned option_count,
                                int* options, void** values) {
  const std::string text(static_cast<const char*>(image));
  const std::string first_line = text.substr(0, text.find('\n'));
  int failed = enter("cuModuleLoadDataEx", first_line.starts_with("stub") ? first_line : "ELF");
  constexpr std::string_view kRefused = "stub refused ";  // and the result
  if (failed == kSuccess && first_line.starts_with(kRefused)) {
    failed = std::stoi(first_line.substr(kRefused.size()));
  }
  if (failed != kSuccess || first_line == "stub broken") {
    for (unsigned i = 0; i + 1 < option_count; ++i) {
      if (options[i] == 5 && options[i + 1] == 6) {
        std::snprintf(static_cast<char*>(values[i]), reinterpret_cast<std::size_t>(values[i + 1]),
                      "stub compiler log");
      }
    }
    return failed == kSuccess ? kInvalidImage : failed;
  }
  if (current() == nullptr) {
    return kInvalidContext;
  }
  const std::lock_guard guard(stub().state);
  stub().modules.push_back(std::make_unique<StubModule>(StubModule{current(), {}}));
  *module = stub().modules.back().get();
  return kSuccess;
}

STUB_API int cuModuleUnload(StubModule* module) {
  if (const int failed = enter("cuModuleUnload")) {
    return failed;
  }
  const std::lock_guard guard(stub().state);
  if (current() != module->context) {
    return kInvalidContext;
  }
  const auto erased =
      std::erase_if(stub().modules, [&](const auto& held) { return held.get() == module; });
  return erased == 1 ? kSuccess : kInvalidHandle;
}

STUB_API int cuModuleGetFunction(StubFunction** function, StubModule* module, const char* name) {
  if (const int failed = enter("cuModuleGetFunction", name)) {
    return failed;
  }
  const std::lock_guard guard(stub().state);
  for (const StubFunction& each : functions_of(module)) {
    if (std::strcmp(each.name, name) == 0) {
      stub().functions.push_back(std::make_unique<StubFunction>(each));
      *function = stub().functions.back().get();
      return kSuccess;
    }
  }
  return kNotFound;
}

STUB_API int cuModuleGetGlobal_v2(unsigned long long* address, std::size_t* bytes,
                                  StubModule* module, const char* name) {
  if (const int failed = enter("cuModuleGetGlobal_v2", name)) {
    return failed;
  }
  const std::lock_guard guard(stub().state);
  if (current() != module->context) {
    return kInvalidContext;
  }
  if (!is_workspace(module, name)) {
    return kNotFound;
  }
  const std::shared_ptr<Variable> variable = variable_of(*module, name);
  *address = reinterpret_cast<std::uintptr_t>(variable->bytes.data());
  *bytes = variable->bytes.size();
  return kSuccess;
}

// Whole variables alone.
STUB_API int cuMemsetD8Async(unsigned long long address, unsigned char value, std::size_t bytes,
                             void* stream) {
  const auto number = reinterpret_cast<std::uintptr_t>(stream);
  std::shared_ptr<Variable> found;
  {
    const std::lock_guard guard(stub().state);
    for (const auto& module : stub().modules) {
      for (const auto& variable : module->variables) {
        if (reinterpret_cast<std::uintptr_t>(variable->bytes.data()) == address &&
            module->context == current()) {
          found = variable;
        }
      }
    }
  }
  const char* name = found == nullptr ? "?" : found->name.c_str();
  if (const int failed =
          enter("cuMemsetD8Async", name, "to", int{value}, "bytes", bytes, "stream", number)) {
    return failed;
  }
  const std::lock_guard guard(stub().state);
  if (found == nullptr || found->bytes.size() != bytes || number != kLegacyStream) {
    return kInvalidValue;
  }
  current()->pending.emplace_back(PendingClear{found, value});
  return kSuccess;
}

STUB_API int cuLaunchKernel(StubFunction* function, unsigned grid_x, unsigned grid_y,
                            unsigned grid_z, unsigned block_x, unsigned block_y, unsigned block_z,
                            unsigned shared_bytes, void* stream, void** arguments, void** extra) {
  const auto number = reinterpret_cast<std::uintptr_t>(stream);
  const int failed = enter("cuLaunchKernel", function->name, "grid", grid_x, grid_y, grid_z,
                           "block", block_x, block_y, block_z, "stream", number);
  if (failed != kSuccess) {
    return failed;
  }
  const std::lock_guard guard(stub().state);
  PendingLaunch launch{function,
                       {grid_x, grid_y, grid_z},
                       {block_x, block_y, block_z},
                       {},
                       variable_of(*function->module, function->workspace)};
  const auto is_zero = [](unsigned extent) { return extent == 0; };
  if (std::ranges::any_of(launch.grid, is_zero) || std::ranges::any_of(launch.block, is_zero) ||
      shared_bytes != 0 || extra != nullptr || number != kLegacyStream) {
    return kInvalidValue;
  }
  if (current() == nullptr || current() != function->module->context) {
    return kInvalidContext;
  }
  const std::size_t count = parameters_of(function->host_kernel).size();
  for (std::size_t i = 0; i < count; ++i) {
    launch.values.push_back(*static_cast<const std::uint64_t*>(arguments[i]));
  }
  current()->pending.emplace_back(launch);
  return kSuccess;
}

// ---- what tests do with it ----

STUB_API int stub_use_host_kernels(const char* path) {
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    return 0;
  }
  HostKernels& host = stub().host;
  const auto find = [&](auto& slot, const char* name) {
    slot = reinterpret_cast<std::remove_reference_t<decltype(slot)>>(dlsym(library, name));
    return slot != nullptr;
  };
  return find(host.count, "korvex_host_kernel_count") &&
         find(host.parameters, "korvex_host_kernel_parameters") &&
         find(host.launch, "korvex_host_launch");
}

STUB_API void stub_clear_devices() { stub().set_devices({}); }

STUB_API void stub_add_device(int major, int minor, int multiprocessors) {
  std::vector<StubDriver::Model> models;
  for (const auto& device : stub().devices) {
    models.push_back({device->major, device->minor, device->multiprocessors});
  }
  models.push_back({major, minor, multiprocessors});
  stub().set_devices(models);
}

// Memory that is registered again was given back in between, and may be on another device now.
STUB_API void stub_register_memory(void* memory, std::size_t bytes, int ordinal) {
  const std::lock_guard guard(stub().state);
  const auto begin = reinterpret_cast<std::uintptr_t>(memory);
  std::erase_if(stub().allocations, [&](const Allocation& old) {
    return old.begin < begin + bytes && begin < old.begin + old.bytes;
  });
  stub().allocations.push_back({begin, bytes, ordinal});
}

// What the runtime interface does for cudaSetDevice: the primary context, and nothing below it.
STUB_API void stub_set_device(int ordinal) {
  StubContext& primary = stub().devices[static_cast<std::size_t>(ordinal)]->primary;
  ++primary.retained;
  context_stack = {&primary};
}

// A call by its name, or "*" for any.
STUB_API void stub_fail(const char* call, int result, int calls_before) {
  const std::lock_guard lock(stub().mutex);
  stub().failures[call] = {result, calls_before};
}

STUB_API int stub_failures_left() { return static_cast<int>(stub().failures.size()); }
STUB_API void stub_fail_no_more() { stub().failures.clear(); }

STUB_API void stub_block(const char* call) {
  const std::lock_guard lock(stub().mutex);
  stub().blocked_call = call;
}

// 1 as soon as a thread is blocked, 0 if none is within the time.
STUB_API int stub_wait_until_blocked(double seconds) {
  std::unique_lock lock(stub().mutex);
  return stub().changed.wait_for(lock, std::chrono::duration<double>(seconds),
                                 [] { return stub().is_blocking; });
}

STUB_API void stub_unblock() {
  const std::lock_guard lock(stub().mutex);
  stub().blocked_call.clear();
  stub().changed.notify_all();
}

STUB_API const char* stub_take_log() {
  const std::lock_guard lock(stub().mutex);
  stub().log_copy = std::move(stub().log);
  stub().log.clear();
  return stub().log_copy.c_str();
}

STUB_API int stub_context_depth() { return static_cast<int>(context_stack.size()); }
STUB_API int stub_module_count() { return static_cast<int>(stub().modules.size()); }
STUB_API int stub_pending_launches(int ordinal) {
  const auto& device = stub().devices[static_cast<std::size_t>(ordinal)];
  return static_cast<int>(device->primary.pending.size());
}
STUB_API int stub_retained(int ordinal) {
  return stub().devices[static_cast<std::size_t>(ordinal)]->primary.retained;
}
