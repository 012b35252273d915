// SPDX-License-Identifier: Apache-2.0
// The CUDA driver: the functions used of it, found at run time, and their errors as exceptions.
//
// The declarations are our own, so a build needs no CUDA toolkit and the module links to no CUDA
// library. A name with _v2 is the current one of the binary interface, which drivers keep.
// Opening the library initialises nothing: a process may fork afterwards and use CUDA in the child.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "korvex/cubin_loader_native/failure.h"
#include "korvex/cubin_loader_native/shared_library.h"

namespace korvex::cubin_loader {

using Result = int;
using Device = int;  // a handle, not the ordinal
using DevicePointer = unsigned long long;
using Context = struct OpaqueContext*;
using Module = struct OpaqueModule*;
using Function = struct OpaqueFunction*;
using Stream = struct OpaqueStream*;

inline constexpr Result kSuccess = 0;
inline constexpr Result kOutOfMemory = 2;

// The stream that waits for all blocking streams of its context, as they wait for it.
inline const Stream kLegacyStream = reinterpret_cast<Stream>(std::uintptr_t{1});

enum DeviceAttribute : int {
  kMultiprocessorCount = 16,
  kCapabilityMajor = 75,
  kCapabilityMinor = 76,
};

enum PointerAttribute : int {
  kPointerMemoryType = 2,
  kPointerDeviceOrdinal = 9,
};
inline constexpr unsigned kMemoryTypeDevice = 2;

enum LoadOption : int {
  kErrorLog = 5,
  kErrorLogBytes = 6,
};

// Throws DeviceFailure with the name of the call and what the driver says about the result.
[[noreturn]] void throw_failed_call(const char* name, Result result);

// One function of the driver.
template <class... Parameters>
class Entry {
 public:
  Entry(const SharedLibrary& library, const char* name) : name_(name) {
    if (library.is_open() && !library.find(name, function_)) {
      throw DeviceFailure(std::string("the NVIDIA driver is too old: it has no ") + name);
    }
  }

  // Calls it; DeviceFailure if it does not succeed.
  void operator()(Parameters... arguments) const {
    const Result result = function_(arguments...);
    if (result != kSuccess) {
      throw_failed_call(name_, result);
    }
  }

  // Calls it and leaves the result to the caller.
  Result attempt(Parameters... arguments) const { return function_(arguments...); }

  const char* name() const { return name_; }

 private:
  const char* name_;
  Result (*function_)(Parameters...) = nullptr;
};

class Driver {
 public:
  // The driver of this process, opened at the first call; DeviceFailure if there is none.
  static const Driver& get();

  // Initialises it in this process; harmless if done before. DeviceFailure also where the process
  // was forked from one that had done so.
  void initialise() const;

 private:
  Driver();
  SharedLibrary library_{"libcuda.so.1"};

 public:
  Entry<unsigned> init{library_, "cuInit"};
  Entry<Result, const char**> get_error_name{library_, "cuGetErrorName"};
  Entry<Result, const char**> get_error_string{library_, "cuGetErrorString"};
  Entry<int*> device_count{library_, "cuDeviceGetCount"};
  Entry<Device*, int> device_get{library_, "cuDeviceGet"};
  Entry<char*, int, Device> device_name{library_, "cuDeviceGetName"};
  Entry<int*, DeviceAttribute, Device> device_attribute{library_, "cuDeviceGetAttribute"};
  Entry<Context*, Device> primary_context_retain{library_, "cuDevicePrimaryCtxRetain"};
  Entry<Device> primary_context_release{library_, "cuDevicePrimaryCtxRelease_v2"};
  Entry<Context*> context_current{library_, "cuCtxGetCurrent"};
  Entry<Device*> context_device{library_, "cuCtxGetDevice"};
  Entry<Context> context_push{library_, "cuCtxPushCurrent_v2"};
  Entry<Context*> context_pop{library_, "cuCtxPopCurrent_v2"};
  Entry<Stream> stream_synchronize{library_, "cuStreamSynchronize"};
  Entry<unsigned, PointerAttribute*, void**, DevicePointer> pointer_attributes{
      library_, "cuPointerGetAttributes"};
  Entry<Module*, const void*, unsigned, LoadOption*, void**> module_load{library_,
                                                                         "cuModuleLoadDataEx"};
  Entry<Module> module_unload{library_, "cuModuleUnload"};
  Entry<Function*, Module, const char*> module_function{library_, "cuModuleGetFunction"};
  Entry<DevicePointer*, std::size_t*, Module, const char*> module_global{library_,
                                                                         "cuModuleGetGlobal_v2"};
  // Address, value of each byte, bytes, stream.
  Entry<DevicePointer, unsigned char, std::size_t, Stream> memory_set{library_, "cuMemsetD8Async"};
  // Function, grid x y z, block x y z, bytes of dynamic shared memory, stream, arguments, extra.
  Entry<Function, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, unsigned, Stream,
        void**, void**>
      launch{library_, "cuLaunchKernel"};
};

// DeviceFailure in a process forked from the one in which the driver was initialised.
void require_initialised_process();

}  // namespace korvex::cubin_loader
