// SPDX-License-Identifier: Apache-2.0
// Sums by segment along an axis of an array.
#include <algorithm>
#include <array>
#include <cstdint>
#include <limits>
#include <optional>

#include "korvex/exact/array_argument.h"
#include "korvex/exact/call.h"
#include "korvex/exact/functions.h"
#include "korvex/exact/host_library.h"
#include "korvex/exact/options.h"

namespace korvex::exact {
namespace {

// An array with one of its dimensions put first. It must not move: the C structure points into it.
class WithFirst {
 public:
  // Precondition: 0 <= axis < rank.
  WithFirst(const korvex_exact_array& array, int axis) : array_(array) {
    std::copy_n(array.extents, array.rank, extents_.begin());
    std::copy_n(array.byte_strides, array.rank, byte_strides_.begin());
    std::rotate(extents_.begin(), extents_.begin() + axis, extents_.begin() + axis + 1);
    std::rotate(byte_strides_.begin(), byte_strides_.begin() + axis,
                byte_strides_.begin() + axis + 1);
    array_.extents = extents_.data();
    array_.byte_strides = byte_strides_.data();
  }
  WithFirst(const WithFirst&) = delete;
  WithFirst& operator=(const WithFirst&) = delete;

  const korvex_exact_array& operator*() const { return array_; }

  // Its shape as a tuple, with another first extent.
  Object shape_with(std::int64_t first) const {
    Object shape = checked(PyTuple_New(array_.rank));
    for (int d = 0; d < array_.rank; ++d) {
      const std::int64_t extent = d == 0 ? first : extents_[static_cast<std::size_t>(d)];
      PyTuple_SET_ITEM(shape.handle(), d, integer(extent).release());
    }
    return shape;
  }

 private:
  korvex_exact_array array_;
  std::array<std::int64_t, KORVEX_EXACT_MAX_RANK> extents_;
  std::array<std::int64_t, KORVEX_EXACT_MAX_RANK> byte_strides_;
};

std::int64_t segments_option(Handle segments) {
  const long long number = PyLong_AsLongLong(segments);
  if (number == -1 && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  if (number < 0) {
    raise_formatted(PyExc_ValueError, messages::kSegments, segments);
  }
  return number;
}

int axis_option(Handle axis, int rank) {
  const long number = PyLong_AsLong(axis);
  if (number == -1 && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  if (number < 0 || number >= rank) {
    raise_formatted(PyExc_ValueError, messages::kAxis, rank, axis);
  }
  return static_cast<int>(number);
}

void require_ids(const ArrayArgument& ids, std::int64_t rows) {
  ids.require_rank(1);
  const int format = ids.array().format;
  if (format < KORVEX_FORMAT_INT8 || format > KORVEX_FORMAT_UINT64) {
    raise(PyExc_TypeError, messages::kIds);
  }
  if (ids.array().extents[0] != rows) {
    raise_formatted(PyExc_ValueError, messages::kIdCount, ids.array().extents[0], rows);
  }
}

void require_initial(const ArrayArgument& initial, int axis, const WithFirst& x,
                     std::int64_t segments) {
  initial.require_rank((*x).rank);
  const WithFirst turned(initial.array(), axis);
  const Object own = turned.shape_with((*turned).extents[0]);
  const Object expected = x.shape_with(segments);
  if (!equal(own, expected)) {
    raise_formatted(PyExc_ValueError, messages::kInitialShape, expected.handle(), own.handle());
  }
}

// ---- segment_sums(x, axis, ids, segments, initial, out, format, threads, x_format=None,
//                   initial_format=None)
//
// `out` has the extents of x, but `segments` in place of that of `axis`, which comes first. Returns
// the first place of `ids` that holds no segment's number, with `out` not written, or -1.

constexpr Parameters<10> kSegmentSums = {"segment_sums",
                                         {"x", "axis", "ids", "segments", "initial", "out",
                                          "format", "threads", "x_format", "initial_format"},
                                         8};

PyObject* segment_sums(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [x_value, axis_value, ids_value, segments_value, initial_value, out_value,
                format_value, threads_value, x_format, initial_format] =
        bind(kSegmentSums, values, count, keywords);
    const ArrayArgument x("x", x_value, x_format);
    const int axis = axis_option(axis_value, x.array().rank);
    const WithFirst rows(x.array(), axis);
    const ArrayArgument ids("ids", ids_value, nullptr);
    require_ids(ids, (*rows).extents[0]);
    const std::int64_t segments = segments_option(segments_value);
    std::optional<ArrayArgument> initial;
    std::optional<WithFirst> initial_rows;
    if (!is_none(initial_value)) {
      initial.emplace("initial", initial_value, initial_format);
      require_initial(*initial, axis, rows, segments);
      initial_rows.emplace(initial->array(), axis);
    }
    const int format = result_format_option(format_value);
    const OutArgument out(out_value, format);
    out.require_shape(rows.shape_with(segments));
    const int threads = threads_option(threads_value);
    const korvex_exact_array* const first = initial_rows ? &**initial_rows : nullptr;
    std::int64_t out_of_range = -1;
    call_host(std::max(x.size(), segments), "", [&] {
      return host().segment_sums(&*rows, &ids.array(), segments, first, format, threads, out.data(),
                                 &out_of_range);
    });
    return integer(out_of_range);
  });
}

PyMethodDef methods[] = {
    method_row("segment_sums", segment_sums,
               "Writes the sum of each segment, rounded once, to out."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyMethodDef* segment_functions() { return methods; }

}  // namespace korvex::exact
