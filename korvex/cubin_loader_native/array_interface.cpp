// SPDX-License-Identifier: Apache-2.0
// Reads shape, type, strides, address and stream of an array argument.
//
// In version 3 of the protocol `stream` names where the array's content is being made: absent or
// None says that nothing is to be waited for, 1 is the legacy null stream, on which kernels run
// anyway, and 0 is forbidden as ambiguous.
#include "korvex/cubin_loader_native/array_interface.h"

#include "korvex/cubin_loader_native/messages.h"

namespace korvex::cubin_loader {
namespace {

constexpr Py_ssize_t kElementBytes = 8;

class InterfaceReader {
 public:
  InterfaceReader(const char* kernel, const Parameter& parameter, Handle value)
      : kernel_(kernel), parameter_(parameter) {
    interface_ = Object::steal(PyObject_GetAttrString(value, "__cuda_array_interface__"));
    if (interface_.empty()) {
      refuse_kind(value);
    }
    if (PyDict_Check(interface_.handle()) == 0) {
      refuse("it is no dict");
    }
  }

  ArrayArgument read() const {
    require_float64();
    const Object shape = item("shape");
    if (shape.empty() || PyTuple_Check(shape.handle()) == 0) {
      refuse("shape is no tuple");
    }
    ArrayArgument array;
    array.parameter = &parameter_;
    array.element_count = count_elements(shape);
    require_contiguous(shape, array.element_count);
    array.pointer = read_pointer();
    array.stream = read_stream();
    return array;
  }

 private:
  const char* name() const { return parameter_.name.c_str(); }

  [[noreturn]] void refuse_kind(Handle value) const {
    if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) {
      throw PythonError{};
    }
    PyErr_Clear();
    raise_formatted(PyExc_TypeError, messages::kNotAnArray, kernel_, name(),
                    Py_TYPE(value)->tp_name);
  }

  [[noreturn]] void refuse(const char* reason) const {
    raise_formatted(PyExc_TypeError, messages::kBadInterface, kernel_, name(), reason);
  }

  // Empty if there is none.
  Object item(const char* key) const {
    const Object key_text = interned(key);
    const Object value = object(PyDict_GetItemWithError(interface_, key_text));
    if (value.empty() && PyErr_Occurred() != nullptr) {
      throw PythonError{};
    }
    return value;
  }

  std::int64_t integer(Handle value, const char* reason) const {
    if (value == nullptr || PyLong_Check(value) == 0) {
      refuse(reason);
    }
    const long long number = PyLong_AsLongLong(value);
    if (number == -1 && PyErr_Occurred() != nullptr) {
      throw PythonError{};
    }
    return number;
  }

  void require_float64() const {
    const Object type_text = item("typestr");
    if (type_text.empty() || PyUnicode_Check(type_text.handle()) == 0) {
      refuse("typestr is no str");
    }
    if (PyUnicode_CompareWithASCIIString(type_text, "<f8") != 0) {
      raise_formatted(PyExc_TypeError, messages::kNotFloat64, kernel_, name(), type_text.handle());
    }
    const Object mask = item("mask");
    if (!mask.empty() && !is_none(mask)) {
      refuse("it has a mask");
    }
  }

  std::int64_t count_elements(const Object& shape) const {
    std::int64_t count = 1;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(shape.handle()); ++i) {
      const std::int64_t extent = integer(PyTuple_GET_ITEM(shape.handle(), i), kShapeItems);
      if (extent < 0 || __builtin_mul_overflow(count, extent, &count)) {
        refuse(kShapeItems);
      }
    }
    return count;
  }

  // The stride of a dimension of extent 1 is never used, and without elements none is.
  void require_contiguous(const Object& shape, std::int64_t element_count) const {
    const Object strides = item("strides");
    if (strides.empty() || is_none(strides)) {
      return;
    }
    const Py_ssize_t dimensions = PyTuple_GET_SIZE(shape.handle());
    if (PyTuple_Check(strides.handle()) == 0 || PyTuple_GET_SIZE(strides.handle()) != dimensions) {
      refuse(kStrideItems);
    }
    std::int64_t expected = kElementBytes;
    for (Py_ssize_t i = dimensions - 1; i >= 0; --i) {
      const std::int64_t extent = integer(PyTuple_GET_ITEM(shape.handle(), i), kShapeItems);
      const std::int64_t stride = integer(PyTuple_GET_ITEM(strides.handle(), i), kStrideItems);
      if (element_count != 0 && extent != 1 && stride != expected) {
        raise_formatted(PyExc_ValueError, messages::kNotContiguous, kernel_, name());
      }
      if (__builtin_mul_overflow(expected, extent, &expected)) {
        refuse(kShapeItems);
      }
    }
  }

  DevicePointer read_pointer() const {
    const Object data = item("data");
    if (data.empty() || PyTuple_Check(data.handle()) == 0 || PyTuple_GET_SIZE(data.handle()) != 2 ||
        PyLong_Check(PyTuple_GET_ITEM(data.handle(), 0)) == 0) {
      refuse("data is no pair of an address and a flag");
    }
    const DevicePointer pointer = PyLong_AsUnsignedLongLong(PyTuple_GET_ITEM(data.handle(), 0));
    if (PyErr_Occurred() != nullptr) {
      throw PythonError{};
    }
    if (pointer % kElementBytes != 0) {
      raise_formatted(PyExc_ValueError, messages::kNotAligned, kernel_, name());
    }
    return pointer;
  }

  Stream read_stream() const {
    const Object stream = item("stream");
    if (stream.empty() || is_none(stream)) {
      return kLegacyStream;
    }
    const std::int64_t handle = integer(stream, kStream);
    if (handle == 0) {
      refuse(kStream);
    }
    return reinterpret_cast<Stream>(handle);
  }

  static constexpr char kShapeItems[] = "shape does not hold sizes";
  static constexpr char kStrideItems[] = "strides are no tuple of int as long as shape";
  static constexpr char kStream[] = "stream is neither None nor a stream";

  const char* kernel_;
  const Parameter& parameter_;
  Object interface_;
};

}  // namespace

ArrayArgument read_array(const char* kernel, const Parameter& parameter, Handle value) {
  return InterfaceReader(kernel, parameter, value).read();
}

}  // namespace korvex::cubin_loader
