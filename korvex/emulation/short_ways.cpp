// SPDX-License-Identifier: Apache-2.0
// Short ways of operations that are more than one operation of torch: division by a number, and
// square roots.
//
// torch calls them while it takes emulated tensors for host tensors, with plain operands alone.
// They take float64 and float32 tensors, and answer NotImplemented, before anything is done, to
// what the rule in Python must do. What they leave has the bits that the rule leaves.
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

// ---- square roots ----

enum RootState : Py_ssize_t {
  kRootFunction,
  kRadicandType,
  kRootDtype,
  kRootFloat64,
  kRootFloat32,
  kIsContiguous,
  kIsNeg,
  kNumel,
  kDataPtr,
};

// From so many elements on, other threads may go on meanwhile.
constexpr std::size_t kLongCount = 10'000;

// What a function of torch answers to a tensor.
Object asked(Handle state, RootState question, const Object& tensor) {
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

// torch does the operation, with all that belongs to it, and then gets other values: the roots of
// what the operand held before, since the operation may write to it.
template <class Float>
Object rooted(Handle state, PyObject* const* values, Py_ssize_t count) {
  const Object radicand = object(values[0]);
  const Object element_count = asked(state, kNumel, radicand);
  const auto n = static_cast<std::size_t>(as_integer(element_count));
  const auto* numbers = static_cast<const Float*>(address_of(state, radicand));
  const auto roots = std::make_unique_for_overwrite<Float[]>(n);
  run_long(n, [&] {
    for (std::size_t i = 0; i < n; ++i) {
      roots[i] = std::sqrt(numbers[i]);  // correctly rounded
    }
  });
  Object result = checked(PyObject_Vectorcall(held(state, kRootFunction), values,
                                              static_cast<std::size_t>(count), nullptr));
  if (n > 0) {
    void* memory = address_of(state, result);
    run_long(n, [&] { std::memcpy(memory, roots.get(), n * sizeof(Float)); });
  }
  return result;
}

bool is_dense(Handle state, const Object& tensor) {
  const Object contiguous = asked(state, kIsContiguous, tensor);
  const Object negated = asked(state, kIsNeg, tensor);  // when it is read, not in memory
  return truth(contiguous) && !truth(negated);
}

// Of one operand the root; of two a power, which is a root for the exponent 0.5.
PyObject* take_root(PyObject* state, PyObject* const* values, Py_ssize_t count,
                    PyObject* keywords) {
  return guarded([&] {
    if (keywords != nullptr || count < 1 || count > 2) {
      return not_implemented();
    }
    const bool is_tensor = has_type(values[0], held(state, kRadicandType));
    const bool is_root = count == 1 || (PyFloat_CheckExact(values[1]) != 0 &&
                                        PyFloat_AS_DOUBLE(values[1]) == 0.5 && is_tensor);
    if (!is_root) {
      return checked(PyObject_Vectorcall(held(state, kRootFunction), values,
                                         static_cast<std::size_t>(count), nullptr));
    }
    if (!is_tensor) {
      return not_implemented();
    }
    const Object radicand = object(values[0]);
    const Object dtype = asked(state, kRootDtype, radicand);
    const bool is_double = dtype == held(state, kRootFloat64);
    if ((!is_double && dtype != held(state, kRootFloat32)) || !is_dense(state, radicand)) {
      return not_implemented();
    }
    return is_double ? rooted<double>(state, values, count) : rooted<float>(state, values, count);
  });
}

PyMethodDef root_row = method_row("root", take_root, "Take a square root as torch does on CUDA.");

PyObject* root_function(PyObject*, PyObject* arguments) {
  return guarded([&] {
    PyObject* function = nullptr;
    PyObject* type = nullptr;
    PyObject* dtype_of = nullptr;
    PyObject* float64 = nullptr;
    PyObject* float32 = nullptr;
    PyObject* is_contiguous = nullptr;
    PyObject* is_neg = nullptr;
    PyObject* numel = nullptr;
    PyObject* data_ptr = nullptr;
    if (PyArg_ParseTuple(arguments, "OO!OOOOOOO:root", &function, &PyType_Type, &type, &dtype_of,
                         &float64, &float32, &is_contiguous, &is_neg, &numel, &data_ptr) == 0) {
      throw PythonError{};
    }
    return bound(&root_row, function, type, dtype_of, float64, float32, is_contiguous, is_neg,
                 numel, data_ptr);
  });
}

PyMethodDef rows[] = {
    {"division", division_function, METH_VARARGS, "division(...): a short way of a true division."},
    {"root", root_function, METH_VARARGS, "root(...): a short way of a square root or a power."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyMethodDef* short_ways() { return rows; }

}  // namespace korvex::emulation
