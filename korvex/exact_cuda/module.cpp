// SPDX-License-Identifier: Apache-2.0
// The extension module korvex.exact._cuda: launch(), for the Python half of korvex.exact alone,
// which knows what the numbers stand for.
//
// Importing it opens nothing; the first launch opens the driver.
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "korvex/cpython/module_init.h"
#include "korvex/cpython/object.h"
#include "korvex/cubin_loader_native/python_border.h"
#include "korvex/exact_cuda/launcher.h"

namespace korvex::exact_cuda {
namespace {

using cubin_loader::DeviceFailure;
using cubin_loader::DeviceOutOfMemory;

constexpr char kUnavailable[] = "korvex.exact cannot use the GPU: ";

// Kept to the end of the process, as the driver is: a module may be in use until then. After a
// failure the next call tries again.
Launcher& launcher() {
  static std::mutex mutex;
  static Launcher* made = nullptr;
  const std::lock_guard guard(mutex);
  if (made == nullptr) {
    made = new Launcher(cubin_loader::installed_folder());
  }
  return *made;
}

const LaunchRow& row_of(Handle name) {
  for (const LaunchRow& row : kLaunchRows) {
    if (PyUnicode_Check(name) != 0 && PyUnicode_CompareWithASCIIString(name, row.name) == 0) {
      return row;
    }
  }
  raise_formatted(PyExc_ValueError, "there is no kernel %R", name);
}

// Integers of 64 bits with or without a sign: sizes and strides, addresses and streams.
std::uint64_t number(Handle value) {
  const unsigned long long bits = PyLong_AsUnsignedLongLongMask(value);
  if (PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  return bits;
}

Launch read_launch(PyObject* const* values, Py_ssize_t count) {
  constexpr Py_ssize_t kLeading = 3;  // kernel, device, stream
  if (count < kLeading) {
    raise(PyExc_TypeError, "launch() takes kernel, device, stream and the kernel's arguments");
  }
  const LaunchRow& row = row_of(values[0]);
  if (count - kLeading != row.parameter_count) {
    raise_formatted(PyExc_TypeError, "%s takes %d arguments (%s), but got %zd", row.name,
                    row.parameter_count, row.parameters, count - kLeading);
  }
  Launch launch;
  launch.row = &row;
  launch.ordinal = static_cast<int>(number(values[1]));
  launch.stream = reinterpret_cast<cubin_loader::Stream>(number(values[2]));
  for (Py_ssize_t i = kLeading; i < count; ++i) {
    launch.values[static_cast<std::size_t>(i - kLeading)] = number(values[i]);
  }
  return launch;
}

PyObject* launch_function(PyObject* /*module*/, PyObject* const* values, Py_ssize_t count) {
  const auto body = [&] {
    const Launch launch = read_launch(values, count);
    try {
      without_lock([&] { launcher().launch(launch); });
    } catch (const DeviceOutOfMemory& failure) {
      raise_formatted(PyExc_MemoryError, "%s%s", kUnavailable, failure.what());
    } catch (const DeviceFailure& failure) {
      throw DeviceFailure(kUnavailable + std::string(failure.what()));
    }
    return none().release();
  };
  return cubin_loader::guarded<PyObject*>(nullptr, body);
}

PyMethodDef methods[] = {
    {"launch", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(launch_function)),
     METH_FASTCALL,
     "launch(kernel, device, stream, *arguments)\n--\n\n"
     "Launch a kernel on a device's stream and return without waiting."},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef_Slot slots[] = {
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "_cuda",
    "Launches of the kernels of korvex.exact.",
    0,
    methods,
    slots,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace
}  // namespace korvex::exact_cuda

// The interpreter makes this name out of the module's. NOLINTNEXTLINE(bugprone-reserved-identifier)
PyMODINIT_FUNC PyInit__cuda() { return korvex::init_module(&korvex::exact_cuda::definition); }
