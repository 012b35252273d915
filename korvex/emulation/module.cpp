// SPDX-License-Identifier: Apache-2.0
// The extension module korvex.emulation._native: its names.
#include "korvex/cpython/c_function.h"
#include "korvex/cpython/module_init.h"
#include "korvex/emulation/functions.h"

namespace korvex::emulation {
namespace {

int exec_slot(PyObject* module) {
  const Object done = Object::steal(guarded([&] {
    checked(PyModule_AddFunctions(module, torch_functions()));
    checked(PyModule_AddFunctions(module, short_ways()));
    add_kinds(object(module));
    return none();
  }));
  return done.empty() ? -1 : 0;
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(exec_slot)},
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT,
    "_native",
    "What torch calls for each operation on a tensor of the emulated device.",
    0,
    nullptr,
    slots,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace
}  // namespace korvex::emulation

// The interpreter makes this name out of the module's. NOLINTNEXTLINE(bugprone-reserved-identifier)
PyMODINIT_FUNC PyInit__native() { return korvex::init_module(&korvex::emulation::definition); }
