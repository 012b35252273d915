// SPDX-License-Identifier: Apache-2.0
// Functions and classes out of table rows.
#include "korvex/runtime/definitions.h"

#include "korvex/cpython/function.h"
#include "korvex/runtime/module_state.h"

namespace korvex {
namespace {

Object make_member(const Method& method, const char* class_name, Handle module_name) {
  const ModuleState& state = module_state();
  const FunctionHome home{module_name, state.globals, class_name};
  const Object function = make_function(state.function_type, method.signature, home);
  switch (method.role) {
    case Method::Role::kStatic:
      return checked(PyStaticMethod_New(function));
    case Method::Role::kProperty: {
      const Object property = object(reinterpret_cast<PyObject*>(&PyProperty_Type));
      return property.call(function);
    }
    default:
      return function;
  }
}

void bind_name(const char* name, const Object& value) {
  checked(PyDict_SetItem(module_state().globals, interned(name), value));
}

}  // namespace

void define_functions(std::span<const Signature> rows) {
  const ModuleState& state = module_state();
  const Object module_name = interned(kModuleName);
  for (const Signature& row : rows) {
    bind_name(row.name, make_function(state.function_type, row, {module_name, state.globals}));
  }
}

void define_class(const ClassRow& row) {
  const Object module_name = interned(kModuleName);
  const Object name = interned(row.name);
  const Object body = checked(PyDict_New());
  checked(PyDict_SetItemString(body, "__module__", module_name));
  checked(PyDict_SetItemString(body, "__qualname__", name));
  if (row.doc != nullptr) {
    checked(PyDict_SetItemString(body, "__doc__", text(row.doc)));
  }
  for (const Method& method : row.methods) {
    const Object member = make_member(method, row.name, module_name);
    checked(PyDict_SetItemString(body, method.signature.name, member));
  }
  const Object type = object(reinterpret_cast<PyObject*>(&PyType_Type));
  const Object bases = tuple();
  bind_name(row.name, type.call(name, bases, body));
}

}  // namespace korvex
