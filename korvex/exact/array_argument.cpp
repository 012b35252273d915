// SPDX-License-Identifier: Apache-2.0
// Reads arrays through the buffer protocol, and through DLPack where an object has no buffer.
#include "korvex/exact/array_argument.h"

#include <algorithm>
#include <cstring>

#include "korvex/exact/dlpack.h"
#include "korvex/exact/host_library.h"
#include "korvex/exact/messages.h"

namespace korvex::exact {
namespace {

static_assert(sizeof(Py_ssize_t) == sizeof(std::int64_t));

// A format string of the struct module, as far as it names one number.
struct BufferFormat {
  const char* text;
  bool is_native_order;
  char letter;  // '\0' where the format is of another kind

  explicit BufferFormat(const Py_buffer& view)
      : text(view.format == nullptr ? "B" : view.format), is_native_order(true), letter('\0') {
    const char* type = text;
    if (std::strchr("@=<>!", *type) != nullptr && *type != '\0') {
      is_native_order = *type != '>' && *type != '!';
      ++type;
    }
    if (std::strlen(type) == 1) {
      letter = *type;
    }
  }

  bool is_one_of(const char* letters) const {
    return letter != '\0' && std::strchr(letters, letter) != nullptr;
  }
};

// The number of an integer format of that size, given that of 8 bits; the others follow it.
int sized(int format_of_one_byte, Py_ssize_t bytes) {
  const int steps = bytes == 1 ? 0 : bytes == 2 ? 1 : bytes == 4 ? 2 : 3;
  return format_of_one_byte + steps;
}

// -1 where none is meant.
int number_format(const BufferFormat& format, Py_ssize_t bytes) {
  if (format.is_one_of("?")) {
    return KORVEX_FORMAT_BOOL;
  }
  if (format.is_one_of("bhilqn")) {
    return sized(KORVEX_FORMAT_INT8, bytes);
  }
  if (format.is_one_of("BHILQN")) {
    return sized(KORVEX_FORMAT_UINT8, bytes);
  }
  return format.is_one_of("e")   ? KORVEX_FORMAT_FLOAT16
         : format.is_one_of("f") ? KORVEX_FORMAT_FLOAT32
         : format.is_one_of("d") ? KORVEX_FORMAT_FLOAT64
                                 : -1;
}

int number_format(const dlpack::DataType& type) {
  if (type.lanes != 1) {
    return -1;
  }
  const bool has_size = type.bits == 8 || type.bits == 16 || type.bits == 32 || type.bits == 64;
  switch (type.code) {
    case dlpack::kBool:
      return type.bits == 8 ? KORVEX_FORMAT_BOOL : -1;
    case dlpack::kInteger:
      return has_size ? sized(KORVEX_FORMAT_INT8, type.bits / 8) : -1;
    case dlpack::kUnsigned:
      return has_size ? sized(KORVEX_FORMAT_UINT8, type.bits / 8) : -1;
    case dlpack::kBfloat:
      return type.bits == 16 ? KORVEX_FORMAT_BFLOAT16 : -1;
    case dlpack::kFloat:
      return type.bits == 16   ? KORVEX_FORMAT_FLOAT16
             : type.bits == 32 ? KORVEX_FORMAT_FLOAT32
             : type.bits == 64 ? KORVEX_FORMAT_FLOAT64
                               : -1;
    default:
      return -1;
  }
}

const char* name_of(const dlpack::DataType& type) {
  switch (type.code) {
    case dlpack::kInteger:
      return "integers";
    case dlpack::kUnsigned:
      return "unsigned integers";
    case dlpack::kFloat:
      return "floating-point numbers";
    case dlpack::kBfloat:
      return "bfloat numbers";
    case dlpack::kComplex:
      return "complex numbers";
    case dlpack::kBool:
      return "truth values";
    default:
      return "elements of another kind";
  }
}

Object tuple_of(int rank, const std::int64_t* extents) {
  Object shape = checked(PyTuple_New(rank));
  for (int d = 0; d < rank; ++d) {
    PyTuple_SET_ITEM(shape.handle(), d, integer(extents[d]).release());
  }
  return shape;
}

// object.__dlpack__(), which older libraries offer without the keyword.
Object dlpack_capsule(Handle object) {
  const Object method = checked(PyObject_GetAttrString(object, "__dlpack__"));
  const Object version = tuple(integer(1), integer(0));
  const Object keyword = tuple(interned("max_version"));
  try {
    return method.call_with(keyword, version);
  } catch (const PythonError&) {
    if (PyErr_ExceptionMatches(PyExc_TypeError) == 0) {
      throw;
    }
    PyErr_Clear();
  }
  return method.call();
}

// The tensor in a capsule, which keeps it alive: as nobody takes it over, the capsule frees it.
const dlpack::Tensor& tensor_in(const char* name, const Object& capsule) {
  if (PyCapsule_IsValid(capsule, "dltensor") != 0) {
    return static_cast<dlpack::ManagedTensor*>(PyCapsule_GetPointer(capsule, "dltensor"))->tensor;
  }
  if (PyCapsule_IsValid(capsule, "dltensor_versioned") == 0) {
    raise_formatted(PyExc_TypeError, messages::kCapsule, name);
  }
  const auto* managed = static_cast<dlpack::ManagedTensorVersioned*>(
      PyCapsule_GetPointer(capsule, "dltensor_versioned"));
  if (managed->major != 1) {
    raise_formatted(PyExc_BufferError, messages::kDlpackVersion, name, managed->major);
  }
  return managed->tensor;
}

const char* buffer_letter(int format) {
  switch (format) {
    case KORVEX_FORMAT_FLOAT16:
      return "e";
    case KORVEX_FORMAT_BFLOAT16:
      return "H";
    case KORVEX_FORMAT_FLOAT32:
      return "f";
    default:
      return "d";
  }
}

bool is_aligned(const Py_buffer& view) {
  return reinterpret_cast<std::uintptr_t>(view.buf) % static_cast<std::size_t>(view.itemsize) == 0;
}

}  // namespace

// An exporter's own text names no argument, and its type depends on the exporter.
void BufferView::open(const char* name, Handle object, int flags) {
  const bool is_written = (flags & PyBUF_WRITABLE) != 0;
  if (is_written && PyObject_CheckBuffer(object) == 0) {
    raise_formatted(PyExc_TypeError, messages::kNotWritable, name, Py_TYPE(object)->tp_name);
  }
  if (PyObject_GetBuffer(object, &view_, flags) == 0) {
    return;
  }
  if (PyErr_ExceptionMatches(PyExc_BufferError) == 0 &&
      PyErr_ExceptionMatches(PyExc_ValueError) == 0) {
    throw PythonError{};
  }
  const Object reason = Object::steal(PyErr_GetRaisedException());
  if (is_written) {
    raise_formatted(PyExc_TypeError, messages::kNotWritable, name, Py_TYPE(object)->tp_name);
  }
  raise_formatted(PyExc_TypeError, messages::kNotReadable, name, reason.handle());
}

ArrayArgument::ArrayArgument(const char* name, Handle object, Handle as_format) : name_(name) {
  if (PyObject_CheckBuffer(object) != 0) {
    read_buffer(object);
  } else if (PyObject_HasAttrString(object, "__dlpack__") != 0) {
    read_dlpack(object);
  } else {
    raise_formatted(PyExc_TypeError, messages::kNoArray, name, Py_TYPE(object)->tp_name);
  }
  if (as_format != nullptr && !is_none(as_format)) {
    read_as(as_format);
  }
}

void ArrayArgument::read_buffer(Handle object) {
  buffer_.open(name_, object, PyBUF_RECORDS_RO);
  const BufferFormat format(*buffer_);
  array_.format = number_format(format, buffer_->itemsize);
  if (array_.format < 0) {
    raise_formatted(PyExc_TypeError, messages::kFormat, name_, format.text);
  }
  if (!format.is_native_order && buffer_->itemsize > 1) {
    raise_formatted(PyExc_TypeError, messages::kByteOrder, name_, format.text);
  }
  array_.data = buffer_->buf;
  set_layout(buffer_->ndim, reinterpret_cast<const std::int64_t*>(buffer_->shape));
  array_.byte_strides = reinterpret_cast<const std::int64_t*>(buffer_->strides);
}

void ArrayArgument::read_dlpack(Handle object) {
  capsule_ = dlpack_capsule(object);
  const dlpack::Tensor& tensor = tensor_in(name_, capsule_);
  if (tensor.device.type != dlpack::kCpu && tensor.device.type != dlpack::kPinnedHost) {
    raise_formatted(PyExc_TypeError, messages::kDevice, name_,
                    static_cast<int>(tensor.device.type));
  }
  array_.format = number_format(tensor.type);
  if (array_.format < 0) {
    raise_formatted(PyExc_TypeError, messages::kDlpackFormat, name_, name_of(tensor.type),
                    static_cast<int>(tensor.type.bits), static_cast<int>(tensor.type.lanes));
  }
  array_.data = static_cast<const char*>(tensor.data) + tensor.byte_offset;
  set_layout(tensor.rank, tensor.extents);
  const std::int64_t bytes = tensor.type.bits / 8;
  std::int64_t stride = 1;
  for (int d = tensor.rank - 1; d >= 0; --d) {
    const auto place = static_cast<std::size_t>(d);
    byte_strides_[place] = bytes * (tensor.strides == nullptr ? stride : tensor.strides[d]);
    stride *= tensor.extents[d];
  }
  array_.byte_strides = byte_strides_.data();
}

void ArrayArgument::set_layout(int rank, const std::int64_t* extents) {
  if (rank > KORVEX_EXACT_MAX_RANK) {
    raise_formatted(PyExc_ValueError, messages::kRank, name_, rank, int{KORVEX_EXACT_MAX_RANK});
  }
  array_.rank = rank;
  array_.extents = extents;
}

void ArrayArgument::read_as(Handle as_format) {
  if (PyUnicode_Check(as_format) == 0 ||
      PyUnicode_CompareWithASCIIString(as_format, "bfloat16") != 0) {
    raise_formatted(PyExc_ValueError, messages::kAsFormat, name_, as_format);
  }
  if (array_.format != KORVEX_FORMAT_UINT16 && array_.format != KORVEX_FORMAT_BFLOAT16) {
    const char* format = buffer_->format == nullptr ? "B" : buffer_->format;
    raise_formatted(PyExc_TypeError, messages::kNotBfloat16, name_, format);
  }
  array_.format = KORVEX_FORMAT_BFLOAT16;
}

std::int64_t ArrayArgument::size() const {
  std::int64_t size = 1;
  for (int d = 0; d < array_.rank; ++d) {
    size *= array_.extents[d];
  }
  return size;
}

Object ArrayArgument::shape() const { return shape(array_.rank); }

Object ArrayArgument::shape(int rank) const { return tuple_of(rank, array_.extents); }

void ArrayArgument::require_shape_of(const ArrayArgument& other) const {
  if (array_.rank != other.array_.rank ||
      !std::equal(array_.extents, array_.extents + array_.rank, other.array_.extents)) {
    const Object own = shape();
    const Object others = other.shape();
    raise_formatted(PyExc_ValueError, messages::kShapes, name_, other.name_, own.handle(),
                    others.handle());
  }
}

void ArrayArgument::require_rank(int rank) const {
  if (array_.rank != rank) {
    raise_formatted(PyExc_ValueError, messages::kRankIs, name_, rank, array_.rank);
  }
}

OutArgument::OutArgument(Handle object, int format) {
  buffer_.open("out", object, PyBUF_RECORDS);
  const char* expected = buffer_letter(format);
  const BufferFormat actual(*buffer_);
  if (!actual.is_one_of(expected) || !actual.is_native_order) {
    raise_formatted(PyExc_TypeError, messages::kOutFormat, expected, actual.text);
  }
  if (PyBuffer_IsContiguous(&*buffer_, 'C') == 0 || !is_aligned(*buffer_)) {
    raise(PyExc_ValueError, messages::kOutLayout);
  }
}

void OutArgument::require_shape(const Object& shape) const {
  const Object own = tuple_of(buffer_->ndim, reinterpret_cast<const std::int64_t*>(buffer_->shape));
  if (!equal(own, shape)) {
    raise_formatted(PyExc_ValueError, messages::kOutShape, shape.handle(), own.handle());
  }
}

void OutArgument::require_size(std::int64_t elements) const {
  const std::int64_t own = buffer_->len / buffer_->itemsize;
  if (own != elements) {
    raise_formatted(PyExc_ValueError, messages::kOutSize, static_cast<long long>(elements),
                    static_cast<long long>(own));
  }
}

StateArgument::StateArgument(const char* name, Handle object, int kind, bool is_written) {
  buffer_.open(name, object, is_written ? PyBUF_RECORDS : PyBUF_RECORDS_RO);
  const BufferFormat format(*buffer_);
  if (!format.is_one_of("qln") || !format.is_native_order ||
      buffer_->itemsize != sizeof(std::int64_t)) {
    raise_formatted(PyExc_TypeError, messages::kStateFormat, name, format.text);
  }
  const int expected = host().words(kind);
  if (PyBuffer_IsContiguous(&*buffer_, 'C') == 0 || !is_aligned(*buffer_) ||
      buffer_->len != Py_ssize_t{expected} * buffer_->itemsize) {
    raise_formatted(PyExc_ValueError, messages::kStateWords, name, expected);
  }
}

}  // namespace korvex::exact
