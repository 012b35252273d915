// SPDX-License-Identifier: Apache-2.0
// Functions of states: add arrays to one, settle, merge, read.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "korvex/exact/array_argument.h"
#include "korvex/exact/call.h"
#include "korvex/exact/functions.h"
#include "korvex/exact/host_library.h"
#include "korvex/exact/options.h"

namespace korvex::exact {
namespace {

constexpr int kCountWords = 4;
constexpr const char* kCountNames[kCountWords] = {"values of +infinity", "values of -infinity",
                                                  "NaN", "elements"};

void require_counts(const StateArgument& state, int kind) {
  const std::int64_t* counts = state.words() + host().words(kind) - kCountWords;
  for (int i = 0; i < kCountWords; ++i) {
    if (counts[i] < 0) {
      raise_formatted(PyExc_ValueError, messages::kNegativeCount, static_cast<long long>(counts[i]),
                      kCountNames[i]);
    }
  }
}

// Where the digits of a part begin among the words, and how many there are.
struct Digits {
  int begin;
  int count;
};
Digits digits_of(int kind, int part) {
  const int of_sum = host().words(KORVEX_EXACT_SUM) - kCountWords;
  const int of_products = host().words(KORVEX_EXACT_DOT) - kCountWords;
  return {part == 1 ? of_sum : 0, part == 1 || kind == KORVEX_EXACT_DOT ? of_products : of_sum};
}

bool is_of_products(int kind, int part) { return kind == KORVEX_EXACT_DOT || part == 1; }

// ---- words(kind)

PyObject* words(PyObject*, PyObject* kind) {
  return guarded([&] { return integer(host().words(kind_option(kind))); });
}

// ---- accumulate(kind, state, x, y, sign, threads, x_format=None, y_format=None)

constexpr Parameters<8> kAccumulate = {
    "accumulate", {"kind", "state", "x", "y", "sign", "threads", "x_format", "y_format"}, 6};

PyObject* accumulate(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [kind_value, state_value, x_value, y_value, sign_value, threads_value, x_format,
                y_format] = bind(kAccumulate, values, count, keywords);
    const int kind = kind_option(kind_value);
    const StateArgument state("state", state_value, kind, true);
    const ArrayArgument x("x", x_value, x_format);
    const int sign = sign_option(sign_value);
    const int threads = threads_option(threads_value);
    if (kind != KORVEX_EXACT_DOT) {
      if (!is_none(y_value)) {
        raise(PyExc_TypeError, messages::kNoY);
      }
      call_host(x.size(), "state", [&] {
        return host().accumulate(kind, state.words(), &x.array(), nullptr, sign, threads);
      });
      return none();
    }
    if (is_none(y_value)) {
      raise(PyExc_TypeError, messages::kNeedsY);
    }
    const ArrayArgument y("y", y_value, y_format);
    x.require_shape_of(y);
    call_host(x.size(), "state", [&] {
      return host().accumulate(kind, state.words(), &x.array(), &y.array(), sign, threads);
    });
    return none();
  });
}

// ---- settle(kind, state)

constexpr Parameters<2> kSettle = {"settle", {"kind", "state"}, 2};

PyObject* settle(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [kind_value, state_value] = bind(kSettle, values, count, keywords);
    const int kind = kind_option(kind_value);
    const StateArgument state("state", state_value, kind, true);
    check_status(host().settle(kind, state.words()), "state");
    return none();
  });
}

// ---- merge(kind, state, other, sign)

constexpr Parameters<4> kMerge = {"merge", {"kind", "state", "other", "sign"}, 4};

PyObject* merge(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [kind_value, state_value, other_value, sign_value] =
        bind(kMerge, values, count, keywords);
    const int kind = kind_option(kind_value);
    const StateArgument state("state", state_value, kind, true);
    const StateArgument other("other", other_value, kind, false);
    const int sign = sign_option(sign_value);
    check_status(host().merge(kind, state.words(), other.words(), sign), "state or other");
    return none();
  });
}

// ---- limbs(kind, state, part, count, format='float64')

constexpr Parameters<5> kLimbs = {"limbs", {"kind", "state", "part", "count", "format"}, 4};

PyObject* limbs(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [kind_value, state_value, part_value, count_value, format_value] =
        bind(kLimbs, values, count, keywords);
    const int kind = kind_option(kind_value);
    const StateArgument state("state", state_value, kind, false);
    const int part = part_option(part_value, kind);
    const int format = result_format_option(format_value);
    const int limb_count = limb_count_option(count_value, format);
    require_counts(state, kind);
    double written[4];
    check_status(host().limbs(kind, state.words(), is_of_products(kind, part) ? 1 : 0, limb_count,
                              format, written),
                 "state");
    Object result = checked(PyTuple_New(limb_count));
    for (int i = 0; i < limb_count; ++i) {
      PyTuple_SET_ITEM(result.handle(), i, floating(written[i]).release());
    }
    return result;
  });
}

// ---- exact_integer(kind, state, part)

constexpr Parameters<3> kExactInteger = {"exact_integer", {"kind", "state", "part"}, 3};

// Settled digits as an int: in two's complement, four bytes of each and eight of the last, which
// has the sign.
Object integer_of(const std::int64_t* digits, int count) {
  std::vector<unsigned char> bytes;
  for (int i = 0; i < count; ++i) {
    const auto digit = static_cast<std::uint64_t>(digits[i]);
    for (int byte = 0; byte < (i == count - 1 ? 8 : 4); ++byte) {
      bytes.push_back(static_cast<unsigned char>(digit >> (8 * byte)));
    }
  }
  const Object type = object(reinterpret_cast<PyObject*>(&PyLong_Type));
  const Object from_bytes = type.get(interned("from_bytes"));
  const Object little_endian = checked(PyBytes_FromStringAndSize(
      reinterpret_cast<const char*>(bytes.data()), static_cast<Py_ssize_t>(bytes.size())));
  const Object order = interned("little");
  return from_bytes.call_with(tuple(interned("signed")), little_endian, order, boolean(true));
}

PyObject* exact_integer(PyObject*, PyObject* const* values, Py_ssize_t count, PyObject* keywords) {
  return guarded([&] {
    const auto [kind_value, state_value, part_value] = bind(kExactInteger, values, count, keywords);
    const int kind = kind_option(kind_value);
    const StateArgument state("state", state_value, kind, false);
    const int part = part_option(part_value, kind);
    std::vector<std::int64_t> settled(state.words(), state.words() + host().words(kind));
    check_status(host().settle(kind, settled.data()), "state");
    const Digits digits = digits_of(kind, part);
    return integer_of(settled.data() + digits.begin, digits.count);
  });
}

PyMethodDef methods[] = {
    {"words", words, METH_O, "words(kind): how many 64-bit integers a state has."},
    method_row("accumulate", accumulate,
               "Adds arrays to a state, or takes them away where sign is -1."),
    method_row("settle", settle, "Brings all digits of a state into [0, 2**32)."),
    method_row("merge", merge, "Adds another state to a state, or takes it away."),
    method_row("limbs", limbs, "The canonical limbs of a state, the first its value rounded."),
    method_row("exact_integer", exact_integer,
               "The finite part of a state in its unit, 2**-1074 of sums, 2**-2148 of products."),
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace

PyMethodDef* state_functions() { return methods; }

}  // namespace korvex::exact
