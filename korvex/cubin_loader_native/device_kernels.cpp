// SPDX-License-Identifier: Apache-2.0
// Loading the kernels on one device.
#include "korvex/cubin_loader_native/device_kernels.h"

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>

namespace korvex::cubin_loader {
namespace {

// The whole file and a NUL, by which the driver finds the end of PTX.
std::string read_image(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  std::string image((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (image.empty()) {
    throw DeviceFailure("cannot read " + path.string());
  }
  image.push_back('\0');
  return image;
}

// What the driver says of a file that is not for this device, or for a newer driver.
constexpr Result kRefusals[] = {
    200,  // CUDA_ERROR_INVALID_IMAGE
    209,  // CUDA_ERROR_NO_BINARY_FOR_GPU
    218,  // CUDA_ERROR_INVALID_PTX
    221,  // CUDA_ERROR_JIT_COMPILER_NOT_FOUND
    222,  // CUDA_ERROR_UNSUPPORTED_PTX_VERSION
    223,  // CUDA_ERROR_JIT_COMPILATION_DISABLED
    300,  // CUDA_ERROR_INVALID_SOURCE
};

bool is_refusal(Result result) {
  return std::ranges::find(kRefusals, result) != std::end(kRefusals);
}

}  // namespace

DeviceInfo::DeviceInfo(const Driver& driver, int device_ordinal) : ordinal(device_ordinal) {
  driver.device_get(&handle, ordinal);
  char text[256] = {};
  driver.device_name(text, sizeof text - 1, handle);
  name = text;
  driver.device_attribute(&capability.major, kCapabilityMajor, handle);
  driver.device_attribute(&capability.minor, kCapabilityMinor, handle);
  driver.device_attribute(&multiprocessors, kMultiprocessorCount, handle);
}

LoadedModule::LoadedModule(const Driver& driver, const KernelFile& file) : driver_(driver) {
  const std::string image = read_image(file.path);
  char log[4096] = {};
  LoadOption options[] = {kErrorLog, kErrorLogBytes};
  void* values[] = {log, reinterpret_cast<void*>(std::uintptr_t{sizeof log - 1})};
  const Result result = driver_.module_load.attempt(&module_, image.data(), 2, options, values);
  if (result == kSuccess) {
    return;
  }
  try {
    throw_failed_call(driver_.module_load.name(), result);
  } catch (const DeviceFailure& failure) {
    const std::string compiler_log = log[0] == '\0' ? "" : std::string("\n") + log;
    const std::string text = file.path.string() + ": " + failure.what() + compiler_log;
    if (is_refusal(result)) {
      throw RefusedFile(text);
    }
    if (result == kOutOfMemory) {
      throw DeviceOutOfMemory(text);
    }
    throw DeviceFailure(text);
  }
}

std::size_t DeviceKernels::load(const std::vector<KernelFile>& files) {
  CurrentContext current(driver_, context());
  std::string refusals;
  for (std::size_t i = 0; i < files.size(); ++i) {
    try {
      module_ = std::make_unique<LoadedModule>(driver_, files[i]);
      current.leave();
      return i;
    } catch (const RefusedFile& refusal) {
      refusals += (i == 0 ? "" : "\n") + std::string(refusal.what());
    }
  }
  throw DeviceFailure(refusals);
}

DeviceKernels::~DeviceKernels() {
  if (module_ == nullptr) {
    return;
  }
  try {
    const CurrentContext current(driver_, context());
    module_.reset();
  } catch (const DeviceFailure&) {
    // No caller is left to raise to; the share in the context is given back all the same.
  }
}

Function DeviceKernels::function(const char* name) {
  const std::lock_guard guard(mutex_);
  const auto known = functions_.find(name);
  if (known != functions_.end()) {
    return known->second;
  }
  Function function = nullptr;
  driver_.module_function(&function, module_->handle(), name);
  functions_.emplace(name, function);
  return function;
}

Workspace DeviceKernels::workspace(const char* name) {
  const std::lock_guard guard(mutex_);
  const auto known = workspaces_.find(name);
  if (known != workspaces_.end()) {
    return known->second;
  }
  Workspace found;
  driver_.module_global(&found.address, &found.bytes, module_->handle(), name);
  workspaces_.emplace(name, found);
  return found;
}

}  // namespace korvex::cubin_loader
