// SPDX-License-Identifier: Apache-2.0
// The backend report: versions, device and loader in one dictionary.
#include "korvex/tqx_runtime/backend_info.h"

#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object cuda_is_available() {
  const Object cuda = torch_member("cuda"_name);
  return cuda.method("is_available"_name);
}

// The availability is asked anew for the name of the device.
Object device_name() {
  if (!truth(cuda_is_available())) {
    return none();
  }
  const Object cuda = torch_member("cuda"_name);
  return cuda.method("get_device_name"_name, kZero);
}

bool has_loader() { return truth(global("_NATIVE_LOADER"_name)); }

Object native_arch() {
  if (!has_loader()) {
    return none();
  }
  return global("_NATIVE_LOADER"_name).get("arch"_name);
}

Object native_cubin() {
  if (!has_loader()) {
    return none();
  }
  const Object path = global("_NATIVE_LOADER"_name).get("cubin_path"_name);
  return to_text(path);
}

Object get_backend_info(const Arguments& /*arguments*/) {
  const Object info = checked(PyDict_New());
  checked(PyDict_SetItemString(info, "version", global("__version__"_name)));
  checked(PyDict_SetItemString(info, "backend", text("native_cuda")));
  checked(PyDict_SetItemString(info, "cuda_available", cuda_is_available()));
  checked(PyDict_SetItemString(info, "device", device_name()));
  checked(PyDict_SetItemString(info, "native_arch", native_arch()));
  checked(PyDict_SetItemString(info, "native_cubin", native_cubin()));
  return info;
}

constexpr Signature kRows[] = {
    {"get_backend_info", {}, "dict", "Get information about the active backend.", get_backend_info},
};

}  // namespace

void define_backend_info() { define_functions(kRows); }

}  // namespace korvex
