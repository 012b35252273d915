// SPDX-License-Identifier: Apache-2.0
// Binding of a call to its row: counts, keywords, conversions, type tests, in this order.
#include "korvex/cpython/binding.h"

#include "korvex/cpython/messages.h"

namespace korvex {
namespace {

[[noreturn]] void refuse_type(const char* parameter, const char* expected, Handle value) {
  raise_formatted(PyExc_TypeError, messages::kArgumentType, parameter, expected,
                  Py_TYPE(value)->tp_name);
}

// Adds the note on subclasses to the exception that is set.
void add_subclass_note(const char* expected) {
  const Object error = Object::steal(PyErr_GetRaisedException());
  const Object note = checked(PyUnicode_FromFormat(messages::kSubclassNote, expected));
  const Object name = text("add_note");
  error.method(name, note);
  PyErr_SetRaisedException(Object(error).release());
}

void require_exact(const Parameter& parameter, Handle value, PyTypeObject* type,
                   const char* expected) {
  if (Py_TYPE(value) == type) {
    return;
  }
  try {
    refuse_type(parameter.name, expected, value);
  } catch (const PythonError&) {
    if (PyType_IsSubtype(Py_TYPE(value), type) != 0) {
      add_subclass_note(expected);
    }
    throw;
  }
}

Object convert_int(const Parameter& parameter, const Object& value) {
  if (PyLong_CheckExact(value.handle())) {
    return value;
  }
  if (PyNumber_Check(value) == 0) {
    refuse_type(parameter.name, "int", value);
  }
  return checked(PyNumber_Long(value));
}

Object convert_float(const Object& value) {
  if (PyFloat_CheckExact(value.handle())) {
    return value;
  }
  const double number = PyFloat_AsDouble(value);
  if (number == -1.0 && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  return floating(number);
}

}  // namespace

Arguments Binding::run() {
  take_positional();
  take_keywords();
  require_all();
  convert();
  test_types();
  return std::move(arguments_);
}

void Binding::refuse_count(std::size_t expected, const char* more_or_less) const {
  raise_formatted(PyExc_TypeError, messages::kArgumentCount, row_.signature().name, more_or_less,
                  static_cast<Py_ssize_t>(expected), expected == 1 ? "" : "s", given_);
}

void Binding::refuse_count() const {
  if (row_.parameters().empty()) {
    raise_formatted(PyExc_TypeError, messages::kNoArguments, row_.signature().name,
                    messages::kTakesNoArguments, given_);
  }
  const bool too_few = static_cast<std::size_t>(given_) < row_.required_count_;
  const std::size_t expected = too_few ? row_.required_count_ : row_.positional_count_;
  const bool exact = !row_.variadic_ && row_.required_count_ == row_.positional_count_;
  refuse_count(expected, exact ? "exactly" : too_few ? "at least" : "at most");
}

void Binding::take_positional() {
  given_ = PyTuple_GET_SIZE(positional_);
  const auto given = static_cast<std::size_t>(given_);
  if (given > row_.positional_count_ && !row_.variadic_) {
    refuse_count();
  }
  const std::size_t named = given < row_.positional_count_ ? given : row_.positional_count_;
  for (std::size_t i = 0; i < named; ++i) {
    arguments_.values_[i] =
        korvex::object(PyTuple_GET_ITEM(positional_, static_cast<Py_ssize_t>(i)));
  }
  if (row_.variadic_) {  // the variadic parameter stands right after the named ones
    arguments_.values_[row_.positional_count_] =
        checked(PyTuple_GetSlice(positional_, static_cast<Py_ssize_t>(named), given_));
  }
}

void Binding::require_string_keywords() const {
  Py_ssize_t position = 0;
  PyObject* name = nullptr;
  while (PyDict_Next(keywords_, &position, &name, nullptr) != 0) {
    if (PyUnicode_Check(name) == 0) {
      raise_formatted(PyExc_TypeError, messages::kKeywordsMustBeStrings, row_.signature().name);
    }
  }
}

void Binding::take_keywords() {
  if (keywords_ == nullptr || PyDict_GET_SIZE(keywords_) == 0) {
    return;
  }
  require_string_keywords();
  Py_ssize_t position = 0;
  PyObject* name = nullptr;
  PyObject* value = nullptr;
  while (PyDict_Next(keywords_, &position, &name, &value) != 0) {
    take_keyword(name, value);
  }
}

void Binding::take_keyword(Handle name, Handle value) {
  const auto parameters = row_.parameters();
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    if (parameters[i].kind == Kind::kVariadic) {
      continue;
    }
    // Names in calls are interned, so identity nearly always decides.
    if (name != row_.names_[i].handle() && PyUnicode_Compare(name, row_.names_[i]) != 0) {
      continue;
    }
    if (!arguments_.values_[i].empty()) {
      raise_formatted(PyExc_TypeError, messages::kDoubleKeyword, row_.signature().name, name);
    }
    arguments_.values_[i] = korvex::object(value);
    return;
  }
  raise_formatted(PyExc_TypeError, messages::kUnexpectedKeyword, row_.signature().name, name);
}

// Whatever came by keyword counts as given up to the first argument that is missing.
void Binding::require_all() {
  for (std::size_t i = 0; i < row_.required_count_; ++i) {
    if (!arguments_.values_[i].empty()) {
      continue;
    }
    given_ = static_cast<Py_ssize_t>(i);
    refuse_count();
  }
}

void Binding::convert() {
  const auto parameters = row_.parameters();
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    Object& value = arguments_.values_[i];
    if (value.empty()) {  // defaults need no conversion: a row declares them in their own type
      value = row_.defaults_[i];
      continue;
    }
    switch (parameters[i].kind) {
      case Kind::kBool:
        value = boolean(truth(value));
        break;
      case Kind::kOptionalInt:
        if (is_none(value)) {
          break;
        }
        [[fallthrough]];
      case Kind::kInt:
        value = convert_int(parameters[i], value);
        break;
      case Kind::kFloat:
        value = convert_float(value);
        break;
      default:
        break;
    }
  }
}

void Binding::test_types() const {
  const auto parameters = row_.parameters();
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    const Parameter& parameter = parameters[i];
    const Object& value = arguments_.values_[i];
    switch (parameter.kind) {
      case Kind::kOptionalStr:
        if (is_none(value)) {
          break;
        }
        [[fallthrough]];
      case Kind::kStr:
        require_exact(parameter, value, &PyUnicode_Type, "str");
        break;
      case Kind::kOptionalTuple:
        if (is_none(value)) {
          break;
        }
        [[fallthrough]];
      case Kind::kTuple:
        require_exact(parameter, value, &PyTuple_Type, "tuple");
        break;
      case Kind::kList:
        require_exact(parameter, value, &PyList_Type, "list");
        break;
      default:
        break;
    }
  }
}

}  // namespace korvex
