// SPDX-License-Identifier: Apache-2.0
// Functions of arrays in one call, with no state in Python.
#include <array>
#include <optional>

#include "korvex/exact/array_argument.h"
#include "korvex/exact/call.h"
#include "korvex/exact/functions.h"
#include "korvex/exact/host_library.h"
#include "korvex/exact/options.h"

namespace korvex::exact {
namespace {

// ---- sum(x, format, threads, x_format=None)

constexpr Parameters<4> kSum = {"sum", {"x", "format", "threads", "x_format"}, 3};

PyObject* sum(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [x_value, format_value, threads_value, x_format] =
        bind(kSum, values, count, keywords);
    const ArrayArgument x("x", x_value, x_format);
    const int format = result_format_option(format_value);
    const int threads = threads_option(threads_value);
    double result;
    call_host(x.size(), "", [&] {
      return host().reduce(KORVEX_EXACT_SUM, &x.array(), nullptr, format, threads, &result);
    });
    return floating(result);
  });
}

// ---- vecdot(x, y, format, threads, x_format=None, y_format=None)

constexpr Parameters<6> kVecdot = {
    "vecdot", {"x", "y", "format", "threads", "x_format", "y_format"}, 4};

PyObject* vecdot(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [x_value, y_value, format_value, threads_value, x_format, y_format] =
        bind(kVecdot, values, count, keywords);
    const ArrayArgument x("x", x_value, x_format);
    const ArrayArgument y("y", y_value, y_format);
    x.require_shape_of(y);
    const int format = result_format_option(format_value);
    const int threads = threads_option(threads_value);
    double result;
    call_host(x.size(), "", [&] {
      return host().reduce(KORVEX_EXACT_DOT, &x.array(), &y.array(), format, threads, &result);
    });
    return floating(result);
  });
}

// How many running sums there are; the dimensions inside must be some of the array's.
std::int64_t running_size(const ArrayArgument& x, const korvex_exact_running& running) {
  const std::int64_t size = x.array().extents[x.array().rank - 1];
  std::int64_t lines = 1;
  for (int d = 0; d + 1 < x.array().rank; ++d) {
    lines *= x.array().extents[d];
  }
  if (lines > 0 && (running.inner == 0 || lines % running.inner != 0)) {
    raise(PyExc_ValueError, messages::kInner);
  }
  return lines * (size + running.has_initial);
}

// ---- cumulative_sum(x, out, format, threads, x_format=None, inner=1, has_initial=False)

constexpr Parameters<7> kCumulativeSum = {
    "cumulative_sum", {"x", "out", "format", "threads", "x_format", "inner", "has_initial"}, 4};

PyObject* cumulative_sum(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [x_value, out_value, format_value, threads_value, x_format, inner, has_initial] =
        bind(kCumulativeSum, values, count, keywords);
    const ArrayArgument x("x", x_value, x_format);
    if (x.array().rank == 0) {
      x.require_rank(1);
    }
    const korvex_exact_running running = {result_format_option(format_value),
                                          has_initial == Py_True ? 1 : 0, factor_option(inner)};
    const OutArgument out(out_value, running.format);
    out.require_size(running_size(x, running));
    const int threads = threads_option(threads_value);
    call_host(x.size(), "",
              [&] { return host().cumulative_sum(&x.array(), &running, threads, out.data()); });
    return none();
  });
}

// ---- column_sums(x, out, format, threads, x_format=None)

constexpr Parameters<5> kColumnSums = {
    "column_sums", {"x", "out", "format", "threads", "x_format"}, 4};

PyObject* column_sums(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [x_value, out_value, format_value, threads_value, x_format] =
        bind(kColumnSums, values, count, keywords);
    const ArrayArgument x("x", x_value, x_format);
    x.require_rank(2);
    const int format = result_format_option(format_value);
    const OutArgument out(out_value, format);
    out.require_shape(tuple(integer(x.array().extents[1])));
    const int threads = threads_option(threads_value);
    call_host(x.size(), "",
              [&] { return host().column_sums(&x.array(), format, threads, out.data()); });
    return none();
  });
}

// ---- reduce_axes(function, operands, formats, kept, out, format, threads, divisor=1, scale=1,
//                   is_negative=False)

constexpr Parameters<10> kReduceAxes = {"reduce_axes",
                                        {"function", "operands", "formats", "kept", "out", "format",
                                         "threads", "divisor", "scale", "is_negative"},
                                        7};

// The arrays of a reduction, which must not move.
class Operands {
 public:
  Operands(Handle arrays, Handle formats) {
    if (PyTuple_Check(arrays) == 0 || PyTuple_Check(formats) == 0 ||
        PyTuple_GET_SIZE(arrays) != PyTuple_GET_SIZE(formats) || PyTuple_GET_SIZE(arrays) < 1 ||
        PyTuple_GET_SIZE(arrays) > kMost) {
      raise(PyExc_TypeError, messages::kOperands);
    }
    count_ = static_cast<int>(PyTuple_GET_SIZE(arrays));
    for (int i = 0; i < count_; ++i) {
      operand(i).emplace(kNames[i], PyTuple_GET_ITEM(arrays, i), PyTuple_GET_ITEM(formats, i));
      operand(i)->require_shape_of(*operand(0));
    }
  }

  int count() const { return count_; }
  const ArrayArgument& operator[](int i) const { return *operands_[static_cast<std::size_t>(i)]; }

 private:
  static constexpr int kMost = 4;
  static constexpr const char* kNames[kMost] = {"x", "y", "second x", "second y"};

  std::optional<ArrayArgument>& operand(int i) { return operands_[static_cast<std::size_t>(i)]; }

  std::array<std::optional<ArrayArgument>, kMost> operands_;
  int count_;
};

PyObject* reduce_axes(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [function_value, arrays, formats, kept_value, out_value, format_value, threads_value,
                divisor_value, scale_value, is_negative] =
        bind(kReduceAxes, values, count, keywords);
    const Operands operands(arrays, formats);
    korvex_exact_reduction reduction{};
    reduction.function = function_option(function_value, operands.count());
    reduction.operand_count = operands.count();
    for (int i = 0; i < operands.count(); ++i) {
      reduction.operands[i] = &operands[i].array();
    }
    reduction.kept = kept_option(kept_value, operands[0].array().rank);
    reduction.divisor = static_cast<std::uint64_t>(factor_option(divisor_value));
    reduction.scale = static_cast<std::uint64_t>(factor_option(scale_value));
    reduction.is_negative = is_negative == Py_True ? 1 : 0;
    const int format = result_format_option(format_value);
    const OutArgument out(out_value, format);
    out.require_shape(operands[0].shape(reduction.kept));
    const int threads = threads_option(threads_value);
    call_host(operands[0].size(), "",
              [&] { return host().reduce_axes(&reduction, format, threads, out.data()); });
    return none();
  });
}

// ---- matmul(a, b, out, format, threads, a_format=None, b_format=None)

constexpr Parameters<7> kMatmul = {
    "matmul", {"a", "b", "out", "format", "threads", "a_format", "b_format"}, 5};

PyObject* matmul(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [a_value, b_value, out_value, format_value, threads_value, a_format, b_format] =
        bind(kMatmul, values, count, keywords);
    const ArrayArgument a("a", a_value, a_format);
    a.require_rank(2);
    const ArrayArgument b("b", b_value, b_format);
    b.require_rank(2);
    const std::int64_t columns = a.array().extents[1];
    const std::int64_t rows = b.array().extents[0];
    if (columns != rows) {
      raise_formatted(PyExc_ValueError, messages::kInnerExtents, columns, rows);
    }
    const int format = result_format_option(format_value);
    const OutArgument out(out_value, format);
    const Object m = integer(a.array().extents[0]);
    const Object n = integer(b.array().extents[1]);
    out.require_shape(tuple(m, n));
    const int threads = threads_option(threads_value);
    check_status(without_lock([&] {
                   return host().matrix_product(&a.array(), &b.array(), format, threads,
                                                out.data());
                 }),
                 "");
    return none();
  });
}

// ---- map(function, x, out, format, threads, x_format=None)

constexpr Parameters<6> kMap = {
    "map", {"function", "x", "out", "format", "threads", "x_format"}, 5};

PyObject* map(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [function_value, x_value, out_value, format_value, threads_value, x_format] =
        bind(kMap, values, count, keywords);
    const int function = elementary_option(function_value);
    const ArrayArgument x("x", x_value, x_format);
    const int format = result_format_option(format_value);
    const OutArgument out(out_value, format);
    out.require_shape(x.shape());
    const int threads = threads_option(threads_value);
    call_host(x.size(), "",
              [&] { return host().map(function, &x.array(), format, threads, out.data()); });
    return none();
  });
}

PyMethodDef methods[] = {
    method_row("sum", sum, "The sum of all elements, rounded once to a format."),
    method_row("vecdot", vecdot, "The sum of all products, rounded once to a format."),
    method_row("cumulative_sum", cumulative_sum, "Writes each sum so far, rounded once, to out."),
    method_row("column_sums", column_sums, "Writes the sum of each column, rounded once, to out."),
    method_row("reduce_axes", reduce_axes,
               "Writes a function of the elements along trailing axes, rounded once, to out."),
    method_row("matmul", matmul, "Writes the product of two matrices, rounded once, to out."),
    method_row("map", map, "Writes a function of each element, rounded once, to out."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyMethodDef* array_functions() { return methods; }

}  // namespace korvex::exact
