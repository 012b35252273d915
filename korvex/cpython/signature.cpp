// SPDX-License-Identifier: Apache-2.0
// The run-time side of a table row: names, defaults, annotations and the inspect signature.
#include "korvex/cpython/signature.h"

#include "korvex/cpython/binding.h"

namespace korvex {

Object Default::value() const {
  switch (type) {
    case Type::kBool:
      return korvex::boolean(number != 0);
    case Type::kInt:
      return korvex::integer(static_cast<long>(number));
    case Type::kFloat:
      return korvex::floating(number);
    case Type::kStr:
      return interned(text);
    default:
      return korvex::none();
  }
}

BoundSignature::BoundSignature(const Signature& signature) : signature_(&signature) {
  std::size_t position = 0;
  for (const Parameter& parameter : parameters()) {
    names_[position] = interned(parameter.name);
    const bool required = parameter.default_value.type == Default::Type::kRequired;
    if (parameter.kind == Kind::kVariadic) {
      variadic_ = true;
    } else {
      if (!required) {
        defaults_[position] = parameter.default_value.value();
      }
      if (!parameter.keyword_only) {
        ++positional_count_;
        if (required) {
          ++required_count_;
        }
      }
    }
    ++position;
  }
}

Arguments BoundSignature::bind(Handle positional, Handle keywords) const {
  return Binding(*this, positional, keywords).run();
}

Object BoundSignature::defaults_tuple() const {
  const Object values = list();
  for (std::size_t i = 0; i < positional_count_; ++i) {
    if (!defaults_[i].empty()) {
      append(values, defaults_[i]);
    }
  }
  if (PyList_GET_SIZE(values.handle()) == 0) {
    return none();
  }
  return checked(PyList_AsTuple(values));
}

Object BoundSignature::keyword_defaults_dict() const {
  const Object values = checked(PyDict_New());
  std::size_t position = 0;
  for (const Parameter& parameter : parameters()) {
    if (parameter.keyword_only) {
      checked(PyDict_SetItem(values, names_[position], defaults_[position]));
    }
    ++position;
  }
  return PyDict_GET_SIZE(values.handle()) == 0 ? none() : values;
}

Object BoundSignature::annotations_dict() const {
  const Object annotations = checked(PyDict_New());
  std::size_t position = 0;
  for (const Parameter& parameter : parameters()) {
    if (parameter.annotation != nullptr) {
      const Object annotation = text(parameter.annotation);
      checked(PyDict_SetItem(annotations, names_[position], annotation));
    }
    ++position;
  }
  if (signature_->return_annotation != nullptr) {
    const Object annotation = text(signature_->return_annotation);
    checked(PyDict_SetItemString(annotations, "return", annotation));
  }
  return annotations;
}

namespace {

const char* parameter_kind_name(const Parameter& parameter) {
  if (parameter.kind == Kind::kVariadic) {
    return "VAR_POSITIONAL";
  }
  return parameter.keyword_only ? "KEYWORD_ONLY" : "POSITIONAL_OR_KEYWORD";
}

// inspect.Parameter(name, kind, default=..., annotation=...)
Object inspect_parameter(const Object& parameter_class, const Parameter& parameter, Handle name,
                         Handle default_value) {
  const Object kind = parameter_class.get(interned(parameter_kind_name(parameter)));
  const Object positional = tuple(name, kind);
  const Object options = checked(PyDict_New());
  if (default_value != nullptr) {
    checked(PyDict_SetItemString(options, "default", default_value));
  }
  if (parameter.annotation != nullptr) {
    const Object annotation = text(parameter.annotation);
    checked(PyDict_SetItemString(options, "annotation", annotation));
  }
  return checked(PyObject_Call(parameter_class, positional, options));
}

}  // namespace

Object BoundSignature::inspect_signature() const {
  const Object inspect = checked(PyImport_ImportModule("inspect"));
  const Object parameter_class = inspect.get(interned("Parameter"));
  const Object entries = list();
  std::size_t position = 0;
  for (const Parameter& parameter : parameters()) {
    append(entries,
           inspect_parameter(parameter_class, parameter, names_[position], defaults_[position]));
    ++position;
  }
  const Object options = checked(PyDict_New());
  if (signature_->return_annotation != nullptr) {
    const Object annotation = text(signature_->return_annotation);
    checked(PyDict_SetItemString(options, "return_annotation", annotation));
  }
  const Object positional = tuple(entries);
  const Object signature_class = inspect.get(interned("Signature"));
  return checked(PyObject_Call(signature_class, positional, options));
}

}  // namespace korvex
