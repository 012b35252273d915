// SPDX-License-Identifier: Apache-2.0
// Functions of arrays in one call, with no state in Python: sum and dot product.
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

PyMethodDef methods[] = {
    method_row("sum", sum, "The sum of all elements, rounded once to a format."),
    method_row("vecdot", vecdot, "The sum of all products, rounded once to a format."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyMethodDef* array_functions() { return methods; }

}  // namespace korvex::exact
