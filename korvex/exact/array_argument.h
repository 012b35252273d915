// SPDX-License-Identifier: Apache-2.0
// Arguments that are arrays: read through the buffer protocol or DLPack, and kept alive meanwhile.
#pragma once

#include <array>
#include <cstdint>

#include "korvex/cpython/object.h"
#include "korvex/kernels/host/exact.h"

namespace korvex::exact {

// What PyObject_GetBuffer fills in; released by its destructor.
class BufferView {
 public:
  BufferView() = default;
  BufferView(const BufferView&) = delete;
  BufferView& operator=(const BufferView&) = delete;
  ~BufferView() { PyBuffer_Release(&view_); }

  // `name` is that of the argument, for the message where it has no buffer that can be written.
  void open(const char* name, Handle object, int flags);
  const Py_buffer& operator*() const { return view_; }
  const Py_buffer* operator->() const { return &view_; }

 private:
  Py_buffer view_{};  // without an owner until open() has returned
};

// An array of numbers that is read. It must not move: the C structure points into it.
class ArrayArgument {
 public:
  // `name` is that of the argument, for messages. as_format: None, or the str 'bfloat16' where
  // elements of uint16 are to be read as such; null is None. TypeError where the object is no
  // array in host memory, or where its elements have another format.
  ArrayArgument(const char* name, Handle object, Handle as_format);
  ArrayArgument(const ArrayArgument&) = delete;
  ArrayArgument& operator=(const ArrayArgument&) = delete;

  const korvex_exact_array& array() const { return array_; }

  std::int64_t size() const;     // elements
  Object shape() const;          // a tuple
  Object shape(int rank) const;  // of so many leading dimensions
  void require_shape_of(const ArrayArgument& other) const;
  void require_rank(int rank) const;

 private:
  void read_buffer(Handle object);
  void read_dlpack(Handle object);
  void read_as(Handle as_format);
  void set_layout(int rank, const std::int64_t* extents);

  const char* name_;
  BufferView buffer_;
  Object capsule_;
  korvex_exact_array array_{};
  std::array<std::int64_t, KORVEX_EXACT_MAX_RANK> byte_strides_;
};

// A contiguous array of one format that is written.
class OutArgument {
 public:
  // format: of the numbers, one of KORVEX_FORMAT_...; bfloat16 is written as uint16. TypeError
  // where the object is no writable buffer of that format, ValueError where it is not contiguous.
  OutArgument(Handle object, int format);

  void* data() const { return buffer_->buf; }
  void require_shape(const Object& shape) const;
  void require_size(std::int64_t elements) const;

 private:
  BufferView buffer_;
};

// The words of a state.
class StateArgument {
 public:
  // TypeError where the object is no contiguous buffer of 64-bit integers, writable if asked;
  // ValueError where it has not as many words as a state of the kind.
  StateArgument(const char* name, Handle object, int kind, bool is_written);

  std::int64_t* words() const { return static_cast<std::int64_t*>(buffer_->buf); }

 private:
  BufferView buffer_;
};

}  // namespace korvex::exact
