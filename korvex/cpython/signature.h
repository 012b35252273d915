// SPDX-License-Identifier: Apache-2.0
// The calling convention: one table row per function, and the binding of a call to that row.
//
// The rules, the same for every function and method:
//   1. Too many positional arguments are refused first, then keywords are bound (non-string names,
//      then unexpected or double ones in the order given), then missing arguments are reported.
//      "given" in a count is the number of positional arguments, self included.
//   2. Then the arguments are converted in parameter order (int, float, truth tests), and only
//      after all conversions are the exact built-in types tested, again in parameter order.
//   3. An exact int stays as it is; another number goes through int(); anything else is refused.
//      str, list and tuple are taken exactly: a subclass is refused with a note that says so.
//   4. Tensor parameters are not tested at all: the first use of the value decides.
#pragma once

#include <initializer_list>
#include <span>

#include "korvex/cpython/object.h"

namespace korvex {

enum class Kind {
  kAny,
  kBool,
  kInt,
  kOptionalInt,
  kFloat,
  kStr,
  kOptionalStr,
  kList,
  kTuple,
  kOptionalTuple,
  kVariadic,  // collects the positional arguments that are left, as a tuple
};

// A default value in a table row.
struct Default {
  enum class Type { kRequired, kNone, kBool, kInt, kFloat, kStr };
  Type type = Type::kRequired;
  double number = 0;           // kBool, kInt, kFloat
  const char* text = nullptr;  // kStr

  static constexpr Default none() { return {Type::kNone}; }
  static constexpr Default boolean(bool value) { return {Type::kBool, value ? 1.0 : 0.0}; }
  static constexpr Default integer(int value) { return {Type::kInt, static_cast<double>(value)}; }
  static constexpr Default floating(double value) { return {Type::kFloat, value}; }
  static constexpr Default text_value(const char* value) { return {Type::kStr, 0, value}; }

  // A new object of the value; the kind must not be kRequired.
  Object value() const;
};

struct Parameter {
  const char* name;
  Kind kind = Kind::kAny;
  const char* annotation = nullptr;  // none: the parameter has no annotation
  Default default_value = {};
  bool keyword_only = false;
};

class Arguments;
using Body = Object (*)(const Arguments&);

inline constexpr std::size_t kMaxParameters = 12;

struct Signature {
  const char* name;
  std::initializer_list<Parameter> parameters;
  const char* return_annotation;  // null: none
  const char* doc;                // null: none
  Body body;
};

// The values a body sees, by the position of the parameter in its row.
class Arguments {
 public:
  // The argument as an object: for kInt an exact int, for kBool True or False, for kFloat a float.
  const Object& object(std::size_t position) const { return values_[position]; }
  const Object& operator[](std::size_t position) const { return values_[position]; }
  bool flag(std::size_t position) const { return Py_IsTrue(values_[position]) != 0; }
  double number(std::size_t position) const {
    return PyFloat_AS_DOUBLE(values_[position].handle());
  }

 private:
  friend class Binding;
  std::array<Object, kMaxParameters> values_;
};

// What a row needs at run time: interned parameter names and default objects.
class BoundSignature {
 public:
  explicit BoundSignature(const Signature& signature);

  // Binds and converts the arguments of one call, or raises TypeError.
  Arguments bind(Handle positional, Handle keywords) const;

  const Signature& signature() const { return *signature_; }
  Object defaults_tuple() const;         // None if there are none
  Object keyword_defaults_dict() const;  // None if there are none
  Object annotations_dict() const;
  Object inspect_signature() const;

 private:
  friend class Binding;
  std::span<const Parameter> parameters() const {
    return {signature_->parameters.begin(), signature_->parameters.size()};
  }

  const Signature* signature_;
  std::array<Object, kMaxParameters> names_;
  std::array<Object, kMaxParameters> defaults_;  // empty where the parameter is required
  std::size_t positional_count_ = 0;             // parameters that can be given by position
  std::size_t required_count_ = 0;               // of these, the ones without a default
  bool variadic_ = false;
};

}  // namespace korvex
