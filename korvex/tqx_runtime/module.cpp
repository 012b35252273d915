// SPDX-License-Identifier: Apache-2.0
// The extension module: its create and exec steps and what the process remembers between them.
//
// One interpreter per process, one module object per process: a second interpreter is refused, a
// second import in the same one gets the same object, and its body runs once. Per-interpreter GIL
// support is declared only so that the refusal of a second interpreter is ours and not CPython's.
#include <atomic>
#include <memory>

#include "korvex/cpython/function.h"
#include "korvex/cpython/module_init.h"
#include "korvex/runtime/constant.h"
#include "korvex/runtime/messages.h"
#include "korvex/runtime/module_state.h"
#include "korvex/tqx_runtime/startup.h"

namespace korvex {
namespace {

ModuleState* remembered_state = nullptr;                  // made by the first exec step
std::atomic<std::int64_t> remembered_interpreter_id{-1};  // kept for the life of the process

bool is_first_interpreter() {
  const std::int64_t current = PyInterpreterState_GetID(PyInterpreterState_Get());
  if (current < 0) {
    throw PythonError{};
  }
  std::int64_t expected = -1;
  return remembered_interpreter_id.compare_exchange_strong(expected, current) ||
         expected == current;
}

// Copies spec.attribute into the module's dict; an attribute that is missing is skipped.
void copy_from(Handle import_spec, const char* attribute, const Object& dict, const char* name,
               bool allow_none) {
  const Object value = Object::steal(PyObject_GetAttrString(import_spec, attribute));
  if (value.empty()) {
    if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) {
      throw PythonError{};
    }
    PyErr_Clear();
    return;
  }
  if (!allow_none && is_none(value)) {
    return;
  }
  checked(PyDict_SetItemString(dict, name, value));
}

Object create(Handle import_spec) {
  if (!is_first_interpreter()) {
    raise(PyExc_ImportError, messages::kInterpreterChange);
  }
  if (remembered_state != nullptr && !remembered_state->module.empty()) {
    return remembered_state->module;
  }
  const Object name = checked(PyObject_GetAttrString(import_spec, "name"));
  Object module = checked(PyModule_NewObject(name));
  const Object dict = object(PyModule_GetDict(module));
  copy_from(import_spec, "loader", dict, "__loader__", true);
  copy_from(import_spec, "origin", dict, "__file__", true);
  copy_from(import_spec, "parent", dict, "__package__", true);
  copy_from(import_spec, "submodule_search_locations", dict, "__path__", false);
  return module;
}

void remember(Handle module) {
  if (remembered_state == nullptr) {
    auto state = std::make_unique<ModuleState>();
    state->constants = Constant::make_all();
    state->function_type = make_function_type();
    const Handle builtins = PyImport_AddModule("builtins");
    if (builtins == nullptr) {
      throw PythonError{};
    }
    state->builtins = object(PyModule_GetDict(builtins));
    remembered_state = state.release();
  }
  remembered_state->module = object(module);
  remembered_state->globals = object(PyModule_GetDict(module));
}

// A later import starts again from the create step. What the failed one defined can still be
// reached, through an exception's traceback or a bare exec_module, so its globals stay.
void forget_module() {
  const Object error = Object::steal(PyErr_GetRaisedException());
  const Object module = std::exchange(remembered_state->module, Object());
  const Object modules = object(PyImport_GetModuleDict());
  const Object name = Object::steal(PyUnicode_FromString(kModuleName));
  const Object entry = Object::steal(PyObject_GetItem(modules, name));
  if (entry.handle() == module.handle()) {
    PyObject_DelItem(modules, name);
  }
  PyErr_Clear();
  PyErr_SetRaisedException(Object(error).release());
}

void execute(Handle module) {
  if (remembered_state != nullptr && !remembered_state->module.empty()) {
    if (remembered_state->module.handle() == module) {
      return;
    }
    raise(PyExc_RuntimeError, messages::kReinitialised);
  }
  remember(module);
  try {
    run_startup(remembered_state->module, remembered_state->globals);
  } catch (...) {
    forget_module();
    throw;
  }
}

PyObject* create_slot(PyObject* import_spec, PyModuleDef* /*definition*/) {
  try {
    return create(import_spec).release();
  } catch (const PythonError&) {
    return nullptr;
  } catch (const std::bad_alloc&) {
    return PyErr_NoMemory();
  }
}

int exec_slot(PyObject* module) {
  try {
    execute(module);
    return 0;
  } catch (const PythonError&) {
    return -1;
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
    return -1;
  }
}

constexpr char kDoc[] =
    "TQX runtime 3.4.3: zero-error GPU arithmetic via error-free transformations (EFT).\n"
    "\n"
    "Results keep every rounding error of float64 arithmetic as further float64 tensors, built on\n"
    "three primitives:\n"
    "\n"
    "- TwoSum: a + b = s + e EXACTLY\n"
    "- TwoProduct: a * b = p + e EXACTLY via FMA\n"
    "- TQXAccum4: 4-limb accumulator for zero accumulated error\n"
    "\n"
    "cupy is required: kernels are launched on arrays that cupy makes from torch tensors.\n";

PyModuleDef_Slot slots[] = {
    {Py_mod_create, reinterpret_cast<void*>(create_slot)},
    {Py_mod_exec, reinterpret_cast<void*>(exec_slot)},
    {Py_mod_multiple_interpreters, Py_MOD_PER_INTERPRETER_GIL_SUPPORTED},
    {0, nullptr},
};

PyModuleDef definition = {
    PyModuleDef_HEAD_INIT, "tqx_runtime", kDoc, 0, nullptr, slots, nullptr, nullptr, nullptr,
};

}  // namespace

ModuleState& module_state() { return *remembered_state; }

}  // namespace korvex

PyMODINIT_FUNC PyInit_tqx_runtime() { return korvex::init_module(&korvex::definition); }
