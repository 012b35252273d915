// SPDX-License-Identifier: Apache-2.0
// The extension module korvex.cubin_loader_native: its names, and the warning where it cannot work.
//
// Importing it opens the driver's library and initialises nothing.
#include <memory>
#include <string>

#include "korvex/cpython/module_init.h"
#include "korvex/cubin_loader_native/availability.h"
#include "korvex/cubin_loader_native/kernel_object.h"
#include "korvex/cubin_loader_native/loader_object.h"
#include "korvex/cubin_loader_native/messages.h"
#include "korvex/cubin_loader_native/module_state.h"
#include "korvex/cubin_loader_native/python_border.h"

namespace korvex::cubin_loader {
namespace {

ModuleState* state_of(PyObject* module) {
  return static_cast<ModuleState*>(PyModule_GetState(module));
}

constexpr char kSource[] = "<korvex.cubin_loader_native>";

// Where a filter turns warnings into exceptions, the text is shown as any other warning is: an
// exception here would be taken for a broken module, and swallowing it would lose the reason.
void warn(const std::string& message) {
  const int failed = PyErr_WarnExplicit(PyExc_RuntimeWarning, message.c_str(), kSource, 1,
                                        "korvex.cubin_loader_native", nullptr);
  if (failed == 0) {
    return;
  }
  if (PyErr_ExceptionMatches(PyExc_Exception) == 0) {
    throw PythonError{};
  }
  PyErr_Clear();
  try {
    const Object show = checked(PyImport_ImportModule("warnings")).get(text("showwarning"));
    show.call(text(message.c_str()), PyExc_RuntimeWarning, text(kSource), integer(1));
  } catch (const PythonError&) {
    // Whoever replaced showwarning made it fail; the reason stays in UNAVAILABLE_REASON.
    if (PyErr_ExceptionMatches(PyExc_Exception) == 0) {
      throw;
    }
    PyErr_Clear();
  }
}

void execute(PyObject* module) {
  const auto add = [&](const char* name, const Object& value) {
    checked(PyModule_AddObjectRef(module, name, value));
  };
  ModuleState* state = std::construct_at(state_of(module));
  state->kernel_type = make_kernel_type(module);
  const std::string reason = why_unavailable(KernelFiles(installed_folder()));
  add("HAS_CUPY", boolean(reason.empty()));
  add("UNAVAILABLE_REASON", reason.empty() ? none() : text(reason.c_str()));
  add("Kernel", state->kernel_type);
  add("NativeCubinLoader", make_loader_type(module));
  if (!reason.empty()) {
    warn(messages::kUnavailable + reason);
  }
}

int exec_slot(PyObject* module) {
  return guarded(-1, [&] {
    execute(module);
    return 0;
  });
}

int traverse_slot(PyObject* module, visitproc visit, void* arg) {
  Py_VISIT(state_of(module)->kernel_type.handle());
  return 0;
}

int clear_slot(PyObject* module) {
  state_of(module)->kernel_type = Object();
  return 0;
}

void free_slot(void* module) { clear_slot(static_cast<PyObject*>(module)); }

constexpr char kDoc[] =
    "The compiled CUDA kernels of korvex, and how they are launched.\n\n"
    "HAS_CUPY is false where kernels cannot be launched; UNAVAILABLE_REASON is then a text that\n"
    "says why, as does a RuntimeWarning at import. NativeCubinLoader() finds the devices and "
    "hands\n"
    "out kernels by name.";

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(exec_slot)},
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "cubin_loader_native",
    kDoc,
    sizeof(ModuleState),
    nullptr,
    slots,
    traverse_slot,
    clear_slot,
    free_slot,
};

}  // namespace
}  // namespace korvex::cubin_loader

PyMODINIT_FUNC PyInit_cubin_loader_native() {
  return korvex::init_module(&korvex::cubin_loader::definition);
}
