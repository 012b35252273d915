// SPDX-License-Identifier: Apache-2.0
// Short ways of operations that are more than one operation of torch: division by a number, square
// roots and remainders.
//
// torch calls them while it takes emulated tensors for host tensors, with plain operands alone.
// They take float64 and float32 tensors, and answer NotImplemented, before anything is done, to
// what the rule in Python must do. What they leave has the bits that the rule leaves.
#include <array>
#include <cmath>
#include <cstring>
#include <memory>

#include "korvex/cpython/c_function.h"
#include "korvex/cpython/interpreter_lock.h"
#include "korvex/emulation/functions.h"
#include "korvex/emulation/state.h"

namespace korvex::emulation {
namespace {

Object not_implemented() { return object(Py_NotImplemented); }

// ---- division by a number ----

enum DivisionState : Py_ssize_t {
  kFunction,
  kMultiply,
  kDividendType,
  kDivisionDtype,
  kDivisionFloat64,
  kDivisionFloat32,
  kOutName,
};

// The reciprocal of a number that is converted to the type first; false for what is no int of 64
// bits and no float.
template <class Float>
bool reciprocal(Handle divisor, double& result) {
  Float converted{};
  if (PyFloat_CheckExact(divisor)) {
    converted = static_cast<Float>(PyFloat_AS_DOUBLE(divisor));  // rounds once
  } else if (PyLong_CheckExact(divisor)) {
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(divisor, &overflow);
    if (overflow != 0) {
      return false;
    }
    converted = static_cast<Float>(number);  // rounds once
  } else {
    return false;
  }
  result = static_cast<double>(Float{1} / converted);  // rounds once; a zero gives an infinity
  return true;
}

PyObject* divide(PyObject* state, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const Handle type = held(state, kDividendType);
    const bool has_out = keywords != nullptr && PyTuple_GET_SIZE(keywords) == 1 &&
                         equal(PyTuple_GET_ITEM(keywords, 0), held(state, kOutName)) &&
                         has_type(values[count], type);
    if (count != 2 || (keywords != nullptr && !has_out)) {
      return not_implemented();
    }
    const Object function = object(held(state, kFunction));
    const Object dividend = object(values[0]);
    const Handle divisor = values[1];
    if (has_type(divisor, type) || !has_type(dividend, type)) {
      return checked(PyObject_Vectorcall(function, values, 2, keywords));  // divides truly
    }
    const Object dtype = object(held(state, kDivisionDtype)).call(dividend);
    double factor = 0.0;
    if (!(dtype == held(state, kDivisionFloat64) && reciprocal<double>(divisor, factor)) &&
        !(dtype == held(state, kDivisionFloat32) && reciprocal<float>(divisor, factor))) {
      return not_implemented();
    }
    const Object number = floating(factor);
    const Object multiply = object(held(state, kMultiply));
    return has_out ? multiply.call_with(keywords, dividend, number, object(values[2]))
                   : multiply.call(dividend, number);
  });
}

PyMethodDef divide_row = method_row("divide", divide, "Divide as torch does on CUDA.");

PyObject* division_function(PyObject*, PyObject* arguments) {
  return guarded([&] {
    PyObject* function = nullptr;
    PyObject* multiply = nullptr;
    PyObject* type = nullptr;
    PyObject* dtype_of = nullptr;
    PyObject* float64 = nullptr;
    PyObject* float32 = nullptr;
    if (PyArg_ParseTuple(arguments, "OOO!OOO:division", &function, &multiply, &PyType_Type, &type,
                         &dtype_of, &float64, &float32) == 0) {
      throw PythonError{};
    }
    return bound(&divide_row, function, multiply, type, dtype_of, float64, float32,
                 interned("out"));
  });
}

// ---- operations whose values are replaced: square roots and remainders ----

enum ReplacingState : Py_ssize_t {
  kOperation,
  kKind,
  kTensorType,
  kDtype,
  kFloat64,
  kFloat32,
  kIsContiguous,
  kIsNeg,
  kShape,
  kNumel,
  kDataPtr,
};

enum Kind : long long { kRoot, kFmod, kRemainder, kReflectedRemainder };

// From so many elements on, other threads may go on meanwhile.
constexpr std::size_t kLongCount = 10'000;

// What a function of torch answers to a tensor.
Object asked(Handle state, ReplacingState question, const Object& tensor) {
  return object(held(state, question)).call(tensor);
}

void* address_of(Handle state, const Object& tensor) {
  const Object address = asked(state, kDataPtr, tensor);
  void* pointer = PyLong_AsVoidPtr(address);
  if (pointer == nullptr && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  return pointer;
}

template <class Work>
void run_long(std::size_t count, const Work& work) {
  if (count < kLongCount) {
    work();
  } else {
    without_lock(work);
  }
}

bool is_dense(Handle state, const Object& tensor) {
  const Object contiguous = asked(state, kIsContiguous, tensor);
  const Object negated = asked(state, kIsNeg, tensor);  // when it is read, not in memory
  return truth(contiguous) && !truth(negated);
}

Object run_operation(Handle state, PyObject* const* values, Py_ssize_t count) {
  return checked(PyObject_Vectorcall(held(state, kOperation), values,
                                     static_cast<std::size_t>(count), nullptr));
}

// torch does the operation, with all that belongs to it, and then gets other values: value(i) of
// what the operands held before, since the operation may write to them.
template <class Float, class Fill>
Object replaced(Handle state, PyObject* const* values, Py_ssize_t count, std::size_t n,
                const Fill& fill) {
  const auto kept = std::make_unique_for_overwrite<Float[]>(n);
  run_long(n, [&] { fill(kept.get()); });
  Object result = run_operation(state, values, count);
  if (n > 0) {
    void* memory = address_of(state, result);
    run_long(n, [&] { std::memcpy(memory, kept.get(), n * sizeof(Float)); });
  }
  return result;
}

// The remainder with the sign of the divisor, as torch defines it.
template <class Float>
Float remainder(Float dividend, Float divisor) {
  const Float rest = std::fmod(dividend, divisor);  // exact
  const bool has_other_sign = rest != 0 && (rest < 0) != (divisor < 0);
  return has_other_sign ? rest + divisor : rest;  // may round once
}

// The second operand: elements beside those of the first, or one number.
template <class Float>
struct Operand {
  const Float* elements = nullptr;
  Float number{};

  Float operator[](std::size_t i) const { return elements == nullptr ? number : elements[i]; }
};

// A function of its own, which the compiler makes vector code of: one by one, each root would wait
// for the register of the one before.
template <class Float>
[[gnu::noinline]] void take_roots(const Float* x, std::size_t n, Float* __restrict roots) {
  for (std::size_t i = 0; i < n; ++i) {
    roots[i] = std::sqrt(x[i]);  // correctly rounded
  }
}

template <class Float>
Object replaced_by_kind(Handle state, PyObject* const* values, Py_ssize_t count,
                        const Object& tensor, const Operand<Float>& other) {
  const Object element_count = asked(state, kNumel, tensor);
  const auto n = static_cast<std::size_t>(as_integer(element_count));
  const auto* x = static_cast<const Float*>(address_of(state, tensor));
  switch (as_integer(held(state, kKind))) {
    case kRoot:
      return replaced<Float>(state, values, count, n,
                             [x, n](Float* roots) { take_roots(x, n, roots); });
    case kFmod:
      return replaced<Float>(state, values, count, n, [x, n, other](Float* rests) {
        for (std::size_t i = 0; i < n; ++i) {
          rests[i] = std::fmod(x[i], other[i]);  // exact
        }
      });
    case kRemainder:
      return replaced<Float>(state, values, count, n, [x, n, other](Float* rests) {
        for (std::size_t i = 0; i < n; ++i) {
          rests[i] = remainder(x[i], other[i]);
        }
      });
    default:
      return replaced<Float>(state, values, count, n, [x, n, other](Float* rests) {
        for (std::size_t i = 0; i < n; ++i) {
          rests[i] = remainder(other[i], x[i]);
        }
      });
  }
}

// Whether a second operand can be read as it is: a tensor like the first one, or a number that a
// double holds.
template <class Float>
bool read_operand(Handle state, const Object& tensor, const Object& value,
                  Operand<Float>& operand) {
  if (has_type(value, held(state, kTensorType))) {
    const Object dtypes[] = {asked(state, kDtype, tensor), asked(state, kDtype, value)};
    const Object shapes[] = {asked(state, kShape, tensor), asked(state, kShape, value)};
    if (dtypes[0] != dtypes[1] || !equal(shapes[0], shapes[1]) || !is_dense(state, value)) {
      return false;
    }
    operand.elements = static_cast<const Float*>(address_of(state, value));
    return true;
  }
  double number = 0.0;
  if (PyFloat_CheckExact(value)) {
    number = PyFloat_AS_DOUBLE(value.handle());
  } else if (PyLong_CheckExact(value)) {
    constexpr long long kMost = 1LL << 53;
    int overflow = 0;
    const long long whole = PyLong_AsLongLongAndOverflow(value, &overflow);
    if (overflow != 0 || whole < -kMost || whole > kMost) {
      return false;
    }
    number = static_cast<double>(whole);  // exact
  } else {
    return false;
  }
  operand.number = static_cast<Float>(number);  // rounds once
  return true;
}

template <class Float>
Object of_type(Handle state, PyObject* const* values, Py_ssize_t count) {
  const Object tensor = object(values[0]);
  Operand<Float> other;
  const bool has_other = as_integer(held(state, kKind)) != kRoot;
  if (!is_dense(state, tensor) ||
      (has_other && !read_operand(state, tensor, object(values[1]), other))) {
    return not_implemented();
  }
  return replaced_by_kind(state, values, count, tensor, other);
}

// Roots have one operand, or two: then they are powers, and roots for the exponent 0.5. Remainders
// have two.
PyObject* replace(PyObject* state, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const bool may_be_power = as_integer(held(state, kKind)) == kRoot;
    if (keywords != nullptr || count > 2 || count < (may_be_power ? 1 : 2)) {
      return not_implemented();
    }
    const bool is_tensor = has_type(values[0], held(state, kTensorType));
    const bool is_half =
        count == 2 && PyFloat_CheckExact(values[1]) != 0 && PyFloat_AS_DOUBLE(values[1]) == 0.5;
    if (may_be_power && count == 2 && !(is_tensor && is_half)) {
      return run_operation(state, values, count);
    }
    if (!is_tensor) {
      return not_implemented();
    }
    const Object dtype = asked(state, kDtype, object(values[0]));
    if (dtype == held(state, kFloat64)) {
      return of_type<double>(state, values, count);
    }
    return dtype == held(state, kFloat32) ? of_type<float>(state, values, count)
                                          : not_implemented();
  });
}

PyMethodDef replace_row =
    method_row("replace", replace, "Do an operation of torch with the values that CUDA has.");

PyObject* replacing_function(PyObject*, PyObject* arguments) {
  return guarded([&] {
    PyObject* function = nullptr;
    long long kind = 0;
    PyObject* type = nullptr;
    std::array<PyObject*, kDataPtr - kDtype + 1> torch{};
    if (PyArg_ParseTuple(arguments, "OLO!OOOOOOOO:replacing", &function, &kind, &PyType_Type, &type,
                         &torch[0], &torch[1], &torch[2], &torch[3], &torch[4], &torch[5],
                         &torch[6], &torch[7]) == 0) {
      throw PythonError{};
    }
    if (kind < kRoot || kind > kReflectedRemainder) {
      raise(PyExc_ValueError, "replacing() takes a kind of the module");
    }
    return bound(&replace_row, function, integer(kind), type, torch[0], torch[1], torch[2],
                 torch[3], torch[4], torch[5], torch[6], torch[7]);
  });
}

PyMethodDef rows[] = {
    {"division", division_function, METH_VARARGS, "division(...): a short way of a true division."},
    {"replacing", replacing_function, METH_VARARGS,
     "replacing(...): a short way of a square root, a power or a remainder."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyMethodDef* short_ways() { return rows; }

void add_kinds(const Object& module) {
  checked(PyModule_AddIntConstant(module, "ROOT", kRoot));
  checked(PyModule_AddIntConstant(module, "FMOD", kFmod));
  checked(PyModule_AddIntConstant(module, "REMAINDER", kRemainder));
  checked(PyModule_AddIntConstant(module, "REFLECTED_REMAINDER", kReflectedRemainder));
}

}  // namespace korvex::emulation
