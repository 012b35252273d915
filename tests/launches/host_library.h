// SPDX-License-Identifier: Apache-2.0
// A library of host kernels, loaded as its users load it: its results are what device code must
// leave.
#pragma once

#include <dlfcn.h>

#include <string>
#include <string_view>
#include <vector>

#include "korvex/kernels/host/exact.h"
#include "korvex/kernels/host/launch.h"
#include "tests/launches/failure.h"

namespace korvex::launches {

class HostLibrary {
 public:
  // NOLINTNEXTLINE(clang-analyzer-optin.taint.GenericTaint): the path is the test's own argument
  explicit HostLibrary(const char* path) : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) {
      throw Failure(dlerror());
    }
    launch_ = find<decltype(korvex_host_launch)>("korvex_host_launch");
  }

  const korvex_exact_functions& exact() const {
    return *find<decltype(korvex_host_exact)>("korvex_host_exact")();
  }

  int index_of(std::string_view kernel) const {
    const auto count = find<decltype(korvex_host_kernel_count)>("korvex_host_kernel_count");
    const auto name = find<decltype(korvex_host_kernel_name)>("korvex_host_kernel_name");
    for (int i = 0; i < count(); ++i) {
      if (name(i) == kernel) {
        return i;
      }
    }
    throw Failure("the host library has no kernel " + std::string(kernel));
  }

  void launch(int index, const std::vector<void*>& arguments) const {
    constexpr unsigned kOne[3] = {1, 1, 1};
    if (launch_(index, kOne, kOne, arguments.data(), 1) != 0) {
      throw Failure("the host library refuses a launch");
    }
  }

 private:
  template <class Function>
  Function* find(const char* name) const {
    auto* const found = reinterpret_cast<Function*>(dlsym(handle_, name));
    if (found == nullptr) {
      throw Failure("the host library lacks " + std::string(name));
    }
    return found;
  }

  void* handle_;  // kept open to the end of the process
  decltype(korvex_host_launch)* launch_ = nullptr;
};

}  // namespace korvex::launches
