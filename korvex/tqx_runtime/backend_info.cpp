// SPDX-License-Identifier: Apache-2.0
// The backend report: versions, device and loader in one dictionary.
#include "korvex/tqx_runtime/backend_info.h"

#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object cuda_is_available() {
  const Object cuda = global(names().torch).get(names().cuda);
  return cuda.method(names().is_available);
}

// The availability is asked anew for the name of the device.
Object device_name() {
  if (!truth(cuda_is_available())) return none();
  const Object cuda = global(names().torch).get(names().cuda);
  return cuda.method(names().get_device_name, names().zero);
}

bool has_loader() { return truth(global(names().native_loader)); }

Object native_arch() {
  if (!has_loader()) return none();
  return global(names().native_loader).get(names().arch);
}

Object native_cubin() {
  if (!has_loader()) return none();
  const Object path = global(names().native_loader).get(names().cubin_path);
  return to_text(path);
}

Object get_backend_info(const Arguments& /*arguments*/) {
  const Object info = checked(PyDict_New());
  checked(PyDict_SetItemString(info, "version", global(names().version)));
  checked(PyDict_SetItemString(info, "backend", text("native_cuda")));
  checked(PyDict_SetItemString(info, "cuda_available", cuda_is_available()));
  checked(PyDict_SetItemString(info, "device", device_name()));
  checked(PyDict_SetItemString(info, "native_arch", native_arch()));
  checked(PyDict_SetItemString(info, "native_cubin", native_cubin()));
  return info;
}

constexpr Signature kGetBackendInfo{
    "get_backend_info", {}, "dict", "Get information about the active backend.", get_backend_info};

}  // namespace

void define_backend_info() { define_function(kGetBackendInfo); }

}  // namespace korvex
