// SPDX-License-Identifier: Apache-2.0
// A library of the machine, opened at run time and never closed.
#pragma once

#include <dlfcn.h>

#include <string>

namespace korvex::cubin_loader {

class SharedLibrary {
 public:
  // Opens the library by its name; if that fails, error() says why.
  explicit SharedLibrary(const char* name) : handle_(dlopen(name, RTLD_NOW | RTLD_LOCAL)) {
    if (handle_ == nullptr) {
      error_ = dlerror();
    }
  }

  bool is_open() const { return handle_ != nullptr; }
  const std::string& error() const { return error_; }

  // Sets `function` to the symbol of that name; false if the library has none.
  template <class Function>
  bool find(const char* name, Function*& function) const {
    function = reinterpret_cast<Function*>(dlsym(handle_, name));
    return function != nullptr;
  }

 private:
  void* handle_;  // kept to the end of the process: the driver does not survive being unloaded
  std::string error_;
};

}  // namespace korvex::cubin_loader
