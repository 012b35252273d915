// SPDX-License-Identifier: Apache-2.0
// The compiled kernels on one device: its primary context and the module loaded there.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "korvex/cubin_loader_native/context.h"
#include "korvex/cubin_loader_native/kernel_files.h"

namespace korvex::cubin_loader {

// A device as the driver describes it; reading this needs no context.
struct DeviceInfo {
  DeviceInfo(const Driver& driver, int device_ordinal);

  int ordinal;
  Device handle = 0;
  std::string name;
  Capability capability;
  int multiprocessors = 0;
};

struct RefusedFile : DeviceFailure {
  using DeviceFailure::DeviceFailure;
};

// A module in a context that is current at construction and at destruction.
class LoadedModule {
 public:
  // DeviceFailure if the file cannot be read or loading it fails; RefusedFile where the driver has
  // no use for this file, and may have for another.
  LoadedModule(const Driver& driver, const KernelFile& file);
  ~LoadedModule() { driver_.module_unload.attempt(module_); }
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  Module handle() const { return module_; }

 private:
  const Driver& driver_;
  Module module_ = nullptr;
};

// Static memory of a module.
struct Workspace {
  DevicePointer address = 0;
  std::size_t bytes = 0;
};

class DeviceKernels {
 public:
  // Takes a share in the device's primary context.
  DeviceKernels(const Driver& driver, const DeviceInfo& device)
      : driver_(driver), context_(driver, device.handle) {}
  ~DeviceKernels();
  DeviceKernels(const DeviceKernels&) = delete;
  DeviceKernels& operator=(const DeviceKernels&) = delete;

  // Loads the first of the files that the driver takes, and returns how many it refused before.
  // Where it takes none, the failure tells of each. Once, before anything else; after a failure
  // the object is of no use. Precondition: there is a file.
  std::size_t load(const std::vector<KernelFile>& files);

  Context context() const { return context_.handle(); }

  // What the module has by that name, a text of the tables; the context must be current. Any thread
  // may ask.
  Function function(const char* name);
  Workspace workspace(const char* name);

  // To be held while what belongs together is queued: a workspace is cleared for one launch.
  std::mutex& queue() { return queue_; }

 private:
  const Driver& driver_;
  PrimaryContext context_;
  std::unique_ptr<LoadedModule> module_;
  std::mutex queue_;
  std::mutex mutex_;  // guards what follows: what was asked for so far
  std::map<std::string_view, Function> functions_;
  std::map<std::string_view, Workspace> workspaces_;
};

}  // namespace korvex::cubin_loader
