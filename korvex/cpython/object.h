// SPDX-License-Identifier: Apache-2.0
// Python objects as C++ values: one owning type, and the operations that function bodies are
// written in.
//
// Ownership: an Object owns one reference and gives it back in its destructor; reference counts are
// touched in this header only. A Handle is a borrowed PyObject* that must not outlive its owner.
// Failure: every operation below either returns a value or throws PythonError with the Python
// exception set; nothing here catches, so a failure surfaces at the line where it happens.
// Order: g++ evaluates call arguments right to left, so a body gives each Python operation a
// statement of its own, or chains methods (x.method(a).method(b) runs from left to right).
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <array>
#include <span>
#include <utility>

namespace korvex {

// Thrown while a Python exception is set; carries nothing itself.
struct PythonError {};

using Handle = PyObject*;  // borrowed

class Object {
 public:
  Object() = default;
  static Object steal(PyObject* owned) { return Object(owned); }
  static Object borrow(Handle borrowed) {
    Py_XINCREF(borrowed);
    return Object(borrowed);
  }
  Object(const Object& other) : object_(other.object_) { Py_XINCREF(object_); }
  Object(Object&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Object& operator=(Object other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Object() { Py_XDECREF(object_); }

  operator Handle() const { return object_; }
  Handle handle() const { return object_; }
  PyObject* release() { return std::exchange(object_, nullptr); }
  bool empty() const { return object_ == nullptr; }

  // self.name
  Object get(Handle name) const;
  // self.name(arguments...)
  template <typename... Arguments>
  Object method(Handle name, const Arguments&... arguments) const;
  // self(arguments...)
  template <typename... Arguments>
  Object call(const Arguments&... arguments) const;
  // self(positional..., keyword=...): the last len(keyword_names) arguments are the keywords.
  template <typename... Arguments>
  Object call_with(Handle keyword_names, const Arguments&... arguments) const;
  // self[index]
  Object at(Handle index) const;

 private:
  explicit Object(PyObject* owned) : object_(owned) {}
  PyObject* object_ = nullptr;
};

// Takes over a new reference returned by the C API, or throws if there is none.
inline Object checked(PyObject* owned) {
  if (owned == nullptr) {
    throw PythonError{};
  }
  return Object::steal(owned);
}

// Tests the status of a C API call that returns -1 on failure.
inline int checked(int status) {
  if (status < 0) {
    throw PythonError{};
  }
  return status;
}

inline Object Object::get(Handle name) const { return checked(PyObject_GetAttr(object_, name)); }

template <typename... Arguments>
Object Object::method(Handle name, const Arguments&... arguments) const {
  const std::array<PyObject*, 1 + sizeof...(Arguments)> stack{object_, Handle(arguments)...};
  return checked(PyObject_VectorcallMethod(name, stack.data(),
                                           stack.size() | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

template <typename... Arguments>
Object Object::call(const Arguments&... arguments) const {
  // The empty first slot lets the callee put a bound self there without a copy.
  const std::array<PyObject*, 1 + sizeof...(Arguments)> stack{nullptr, Handle(arguments)...};
  return checked(PyObject_Vectorcall(
      object_, stack.data() + 1, sizeof...(Arguments) | PY_VECTORCALL_ARGUMENTS_OFFSET, nullptr));
}

template <typename... Arguments>
Object Object::call_with(Handle keyword_names, const Arguments&... arguments) const {
  const std::array<PyObject*, 1 + sizeof...(Arguments)> stack{nullptr, Handle(arguments)...};
  const auto keyword_count = static_cast<std::size_t>(PyTuple_GET_SIZE(keyword_names));
  const std::size_t positional_count = sizeof...(Arguments) - keyword_count;
  return checked(PyObject_Vectorcall(
      object_, stack.data() + 1, positional_count | PY_VECTORCALL_ARGUMENTS_OFFSET, keyword_names));
}

inline Object Object::at(Handle index) const { return checked(PyObject_GetItem(object_, index)); }

// An Object that shares the ownership of what a handle borrows.
inline Object object(Handle borrowed) { return Object::borrow(borrowed); }

// ---- operators ----
inline Object add(Handle a, Handle b) { return checked(PyNumber_Add(a, b)); }
inline Object in_place_add(Handle a, Handle b) { return checked(PyNumber_InPlaceAdd(a, b)); }
inline Object subtract(Handle a, Handle b) { return checked(PyNumber_Subtract(a, b)); }
inline Object in_place_multiply(Handle a, Handle b) {
  return checked(PyNumber_InPlaceMultiply(a, b));
}
inline Object multiply(Handle a, Handle b) { return checked(PyNumber_Multiply(a, b)); }
inline Object divide(Handle a, Handle b) { return checked(PyNumber_TrueDivide(a, b)); }
inline Object floor_divide(Handle a, Handle b) { return checked(PyNumber_FloorDivide(a, b)); }
inline Object power(Handle a, Handle b) { return checked(PyNumber_Power(a, b, Py_None)); }
inline Object shift_right(Handle a, Handle b) { return checked(PyNumber_Rshift(a, b)); }
inline Object bit_and(Handle a, Handle b) { return checked(PyNumber_And(a, b)); }
inline Object bit_or(Handle a, Handle b) { return checked(PyNumber_Or(a, b)); }
inline Object negate(Handle a) { return checked(PyNumber_Negative(a)); }

inline bool truth(Handle a) { return checked(PyObject_IsTrue(a)) != 0; }
// a < b and its like, as the object that the operands make of it; operation is Py_LT, Py_EQ, ...
inline Object compare(Handle a, Handle b, int operation) {
  return checked(PyObject_RichCompare(a, b, operation));
}
// The truth of `a == b` as a Python expression: no shortcut for identical objects.
inline bool equal(Handle a, Handle b) { return truth(compare(a, b, Py_EQ)); }
inline bool not_equal(Handle a, Handle b) { return truth(compare(a, b, Py_NE)); }
inline bool greater(Handle a, Handle b) { return truth(compare(a, b, Py_GT)); }
inline bool is_instance(Handle a, Handle type) {
  return checked(PyObject_IsInstance(a, type)) != 0;
}
inline bool is_none(Handle a) { return Py_IsNone(a) != 0; }
// hasattr: an AttributeError means no, every other exception passes.
bool has_attribute(Handle a, Handle name);

inline void set_attribute(Handle a, Handle name, Handle value) {
  checked(PyObject_SetAttr(a, name, value));
}

inline void set_item(Handle a, Handle index, Handle value) {
  checked(PyObject_SetItem(a, index, value));
}

// The value of an int object; OverflowError if it does not fit.
inline long long as_integer(Handle a) {
  const long long value = PyLong_AsLongLong(a);
  if (value == -1 && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  return value;
}

// ---- new objects ----
inline Object none() { return Object::borrow(Py_None); }
inline Object boolean(bool value) { return Object::borrow(value ? Py_True : Py_False); }
inline Object integer(long long value) { return checked(PyLong_FromLongLong(value)); }
inline Object floating(double value) { return checked(PyFloat_FromDouble(value)); }
inline Object text(const char* utf8) { return checked(PyUnicode_FromString(utf8)); }
inline Object interned(const char* utf8) { return checked(PyUnicode_InternFromString(utf8)); }
inline Object to_text(Handle a) { return checked(PyObject_Str(a)); }
// format(a, ''), which is what an f-string makes of a.
inline Object formatted(Handle a) { return checked(PyObject_Format(a, nullptr)); }

template <typename... Items>
Object tuple(const Items&... items) {
  return checked(PyTuple_Pack(sizeof...(Items), Handle(items)...));
}

template <typename... Items>
Object list(const Items&... items) {
  Object result = checked(PyList_New(0));
  (checked(PyList_Append(result, items)), ...);
  return result;
}

// len(sequence)
inline Py_ssize_t length(Handle sequence) {
  const Py_ssize_t count = PyObject_Size(sequence);
  if (count < 0) {
    throw PythonError{};
  }
  return count;
}

// sequence[start:]
inline Object tail(Handle sequence, Py_ssize_t start) {
  return checked(PySequence_GetSlice(sequence, start, PY_SSIZE_T_MAX));
}

// range(stop)
inline Object range_to(const Object& stop) {
  return object(reinterpret_cast<PyObject*>(&PyRange_Type)).call(stop);
}

// The next item of an iterator, or an empty object at its end.
inline Object next_item(Handle iterator) {
  Object item = Object::steal(PyIter_Next(iterator));
  if (item.empty() && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  return item;
}

// Fills items from an iterable that must hold exactly so many, or raises ValueError.
void unpack_into(Handle iterable, std::span<Object> items);

// a, b, ... = iterable
template <std::size_t count>
std::array<Object, count> unpack(Handle iterable) {
  std::array<Object, count> items;
  unpack_into(iterable, items);
  return items;
}

inline void append(const Object& list, Handle item) { checked(PyList_Append(list, item)); }

// Calls visit(item) for each item, as a for statement does.
template <typename Visit>
void for_each(Handle iterable, const Visit& visit) {
  const Object iterator = checked(PyObject_GetIter(iterable));
  for (;;) {
    const Object item = next_item(iterator);
    if (item.empty()) {
      break;
    }
    visit(item);
  }
}

// [make(item) for item in iterable]
template <typename Make>
Object list_of(Handle iterable, const Make& make) {
  Object result = list();
  for_each(iterable, [&](const Object& item) { append(result, make(item)); });
  return result;
}

// ---- strings and exceptions ----
// ''.join(pieces) for a list of str.
Object joined(const Object& pieces);

// Raises type(message).
[[noreturn]] void raise(Handle type, const char* message);

// Raises type(format % arguments), with the format directives of PyErr_Format.
template <typename... Arguments>
[[noreturn]] void raise_formatted(Handle type, const char* format, Arguments... arguments) {
  PyErr_Format(type, format, arguments...);
  throw PythonError{};
}

}  // namespace korvex
