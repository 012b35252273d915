// SPDX-License-Identifier: Apache-2.0
// The extension module korvex.exact._native: its names.
#include "korvex/cpython/module_init.h"
#include "korvex/exact/call.h"
#include "korvex/exact/functions.h"
#include "korvex/exact/host_library.h"

namespace korvex::exact {
namespace {

PyObject* instruction_set_function(PyObject*, PyObject*) {
  return guarded([] { return text(instruction_set()); });
}

PyObject* set_instruction_set_function(PyObject*, PyObject* name) {
  return guarded([&] {
    set_instruction_set(name);
    return none();
  });
}

PyMethodDef methods[] = {
    {"instruction_set", instruction_set_function, METH_NOARGS,
     "instruction_set(): 'base', 'fma' or 'avx512', whichever is in use."},
    {"set_instruction_set", set_instruction_set_function, METH_O,
     "set_instruction_set(name): uses another one from now on."},
    {nullptr, nullptr, 0, nullptr},
};

void execute(PyObject* module) {
  open_host_library();
  checked(PyModule_AddIntConstant(module, "SUM", KORVEX_EXACT_SUM));
  checked(PyModule_AddIntConstant(module, "DOT", KORVEX_EXACT_DOT));
  checked(PyModule_AddIntConstant(module, "MOMENTS", KORVEX_EXACT_MOMENTS));
  checked(PyModule_AddIntConstant(module, "TOTAL", KORVEX_EXACT_TOTAL));
  checked(PyModule_AddIntConstant(module, "MEAN", KORVEX_EXACT_MEAN));
  checked(PyModule_AddIntConstant(module, "VARIANCE", KORVEX_EXACT_VARIANCE));
  checked(PyModule_AddIntConstant(module, "DEVIATION", KORVEX_EXACT_DEVIATION));
  checked(PyModule_AddIntConstant(module, "DOT_PRODUCT", KORVEX_EXACT_DOT_PRODUCT));
  checked(PyModule_AddIntConstant(module, "NORM", KORVEX_EXACT_NORM));
  checked(PyModule_AddIntConstant(module, "EXP", KORVEX_EXACT_EXP));
  checked(PyModule_AddIntConstant(module, "LOG", KORVEX_EXACT_LOG));
  checked(PyModule_AddIntConstant(module, "SQRT", KORVEX_EXACT_SQRT));
  checked(PyModule_AddIntConstant(module, "SIGMOID", KORVEX_EXACT_SIGMOID));
  checked(PyModule_AddIntConstant(module, "TANH", KORVEX_EXACT_TANH));
  checked(PyModule_AddFunctions(module, state_functions()));
  checked(PyModule_AddFunctions(module, array_functions()));
  checked(PyModule_AddFunctions(module, segment_functions()));
}

int exec_slot(PyObject* module) {
  const Object done = Object::steal(guarded([&] {
    execute(module);
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
    "Exact sums, dot products and moments of arrays in host memory.",
    0,
    methods,
    slots,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace
}  // namespace korvex::exact

// The interpreter makes this name out of the module's. NOLINTNEXTLINE(bugprone-reserved-identifier)
PyMODINIT_FUNC PyInit__native() { return korvex::init_module(&korvex::exact::definition); }
