// SPDX-License-Identifier: Apache-2.0
// The callable type: storage, call, binding, attributes.
#include "korvex/cpython/function.h"

#include <structmember.h>

#include <cstddef>
#include <exception>
#include <memory>
#include <new>

#include "korvex/cpython/messages.h"

namespace korvex {
namespace {

// What a function keeps besides its object header.
struct FunctionState {
  FunctionState(const Signature& row, const FunctionHome& home)
      : signature(row),
        name(interned(row.name)),
        module_name(Object::borrow(home.module_name)),
        globals(Object::borrow(home.globals)),
        doc(row.doc == nullptr ? none() : text(row.doc)),
        defaults(signature.defaults_tuple()),
        keyword_defaults(signature.keyword_defaults_dict()),
        annotations(signature.annotations_dict()) {
    qualified_name = home.owner == nullptr
                         ? name
                         : checked(PyUnicode_FromFormat("%s.%U", home.owner, name.handle()));
  }

  BoundSignature signature;
  Object name;
  Object qualified_name;
  Object module_name;
  Object globals;
  Object doc;
  Object defaults;
  Object keyword_defaults;
  Object annotations;
};

struct FunctionObject {
  PyObject_HEAD FunctionState* state;  // owned: made in make_function, deleted in dealloc
  PyObject* attributes;                // owned: the __dict__, made by the interpreter on first use
  PyObject* weak_references;
};

FunctionObject* as_function(PyObject* self) { return reinterpret_cast<FunctionObject*>(self); }
FunctionState& state_of(PyObject* self) { return *as_function(self)->state; }

// Runs a body at the border to C: turns C++ failures into the Python exception that is set.
template <typename Work>
PyObject* guarded(const Work& work) {
  try {
    return Object(work()).release();
  } catch (const PythonError&) {
    return nullptr;
  } catch (const std::bad_alloc&) {
    return PyErr_NoMemory();
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_SystemError, error.what());
    return nullptr;
  }
}

PyObject* function_call(PyObject* self, PyObject* positional, PyObject* keywords) {
  return guarded([&] {
    const BoundSignature& signature = state_of(self).signature;
    const Arguments arguments = signature.bind(positional, keywords);
    return signature.signature().body(arguments);
  });
}

PyObject* function_bind(PyObject* self, PyObject* instance, PyObject* /*owner*/) {
  if (instance == nullptr || Py_IsNone(instance) != 0) {
    return Py_NewRef(self);
  }
  return PyMethod_New(self, instance);
}

PyObject* function_repr(PyObject* self) {
  return PyUnicode_FromFormat("<tqx_function %U at %p>", state_of(self).qualified_name.handle(),
                              self);
}

// Pickle and copy take a str as "find it by this name in its module".
PyObject* function_reduce(PyObject* self, PyObject* /*unused*/) {
  return Py_NewRef(state_of(self).qualified_name.handle());
}

int function_traverse(PyObject* self, visitproc visit, void* arg) {
  Py_VISIT(Py_TYPE(self));
  Py_VISIT(as_function(self)->attributes);
  if (as_function(self)->state == nullptr) {
    return 0;
  }
  const FunctionState& state = state_of(self);
  Py_VISIT(state.module_name.handle());
  Py_VISIT(state.globals.handle());
  Py_VISIT(state.doc.handle());
  Py_VISIT(state.defaults.handle());
  Py_VISIT(state.keyword_defaults.handle());
  Py_VISIT(state.annotations.handle());
  return 0;
}

int function_clear(PyObject* self) {
  Py_CLEAR(as_function(self)->attributes);
  if (as_function(self)->state == nullptr) {
    return 0;
  }
  FunctionState& state = state_of(self);
  state.globals = Object();  // the module's dict is the only way round a cycle
  state.annotations = none();
  return 0;
}

void function_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  PyObject_GC_UnTrack(self);
  if (as_function(self)->weak_references != nullptr) {
    PyObject_ClearWeakRefs(self);
  }
  Py_CLEAR(as_function(self)->attributes);
  delete as_function(self)->state;
  type->tp_free(self);
  Py_DECREF(type);
}

// ---- attributes ----

// One row per attribute that is kept in the state.
struct Attribute {
  Object FunctionState::* member;
  PyTypeObject* required_type;  // null: any value may be set
  const char* required_name;
};

PyObject* get_attribute(PyObject* self, void* closure) {
  const auto& attribute = *static_cast<const Attribute*>(closure);
  const Object& value = state_of(self).*attribute.member;
  return Py_NewRef(value.empty() ? Py_None : value.handle());
}

int set_attribute_value(PyObject* self, PyObject* value, void* closure) {
  const auto& attribute = *static_cast<const Attribute*>(closure);
  if (attribute.required_type != nullptr &&
      (value == nullptr || PyObject_TypeCheck(value, attribute.required_type) == 0)) {
    PyErr_Format(PyExc_TypeError, messages::kAttributeType, attribute.required_name);
    return -1;
  }
  state_of(self).*attribute.member = Object::borrow(value == nullptr ? Py_None : value);
  return 0;
}

PyObject* get_signature(PyObject* self, void* /*closure*/) {
  return guarded([&] { return state_of(self).signature.inspect_signature(); });
}

Attribute name_attribute{&FunctionState::name, &PyUnicode_Type, "str"};
Attribute qualified_name_attribute{&FunctionState::qualified_name, &PyUnicode_Type, "str"};
Attribute module_attribute{&FunctionState::module_name, nullptr, nullptr};
Attribute doc_attribute{&FunctionState::doc, nullptr, nullptr};
Attribute annotations_attribute{&FunctionState::annotations, &PyDict_Type, "dict"};
Attribute defaults_attribute{&FunctionState::defaults, nullptr, nullptr};
Attribute keyword_defaults_attribute{&FunctionState::keyword_defaults, nullptr, nullptr};
Attribute globals_attribute{&FunctionState::globals, nullptr, nullptr};

// The defaults are those of the table row, so they and the globals can be read but not set.
PyGetSetDef attributes[] = {
    {"__name__", get_attribute, set_attribute_value, nullptr, &name_attribute},
    {"__qualname__", get_attribute, set_attribute_value, nullptr, &qualified_name_attribute},
    {"__module__", get_attribute, set_attribute_value, nullptr, &module_attribute},
    {"__doc__", get_attribute, set_attribute_value, nullptr, &doc_attribute},
    {"__annotations__", get_attribute, set_attribute_value, nullptr, &annotations_attribute},
    {"__defaults__", get_attribute, nullptr, nullptr, &defaults_attribute},
    {"__kwdefaults__", get_attribute, nullptr, nullptr, &keyword_defaults_attribute},
    {"__globals__", get_attribute, nullptr, nullptr, &globals_attribute},
    {"__signature__", get_signature, nullptr, nullptr, nullptr},
    {"__dict__", PyObject_GenericGetDict, PyObject_GenericSetDict, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef methods[] = {
    {"__reduce__", function_reduce, METH_NOARGS, "The name under which pickle finds the function."},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef members[] = {
    {"__dictoffset__", T_PYSSIZET, offsetof(FunctionObject, attributes), READONLY, nullptr},
    {"__weaklistoffset__", T_PYSSIZET, offsetof(FunctionObject, weak_references), READONLY,
     nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_call, reinterpret_cast<void*>(function_call)},
    {Py_tp_descr_get, reinterpret_cast<void*>(function_bind)},
    {Py_tp_repr, reinterpret_cast<void*>(function_repr)},
    {Py_tp_traverse, reinterpret_cast<void*>(function_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(function_clear)},
    {Py_tp_dealloc, reinterpret_cast<void*>(function_dealloc)},
    {Py_tp_getset, attributes},
    {Py_tp_methods, methods},
    {Py_tp_members, members},
    {0, nullptr},
};

PyType_Spec type_spec = {
    "korvex.tqx_runtime.tqx_function",
    static_cast<int>(sizeof(FunctionObject)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC | Py_TPFLAGS_METHOD_DESCRIPTOR |
        Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
    slots,
};

}  // namespace

Object make_function_type() { return checked(PyType_FromSpec(&type_spec)); }

Object make_function(const Object& function_type, const Signature& row, const FunctionHome& home) {
  auto state = std::make_unique<FunctionState>(row, home);
  auto* type = reinterpret_cast<PyTypeObject*>(function_type.handle());
  Object function = checked(type->tp_alloc(type, 0));
  as_function(function)->state = state.release();
  return function;
}

}  // namespace korvex
