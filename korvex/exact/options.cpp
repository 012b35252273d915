// SPDX-License-Identifier: Apache-2.0
// Checks of numbers and names.
#include "korvex/exact/options.h"

#include <limits>

#include "korvex/exact/messages.h"
#include "korvex/kernels/host/exact.h"

namespace korvex::exact {
namespace {

// The value of an int from low to high; else ValueError, or TypeError for what is no int.
int integer_option(Handle value, int low, int high, const char* message) {
  int overflow = 0;
  const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
  if (number == -1 && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  if (overflow != 0 || number < low || number > high) {
    raise_formatted(PyExc_ValueError, message, value);
  }
  return static_cast<int>(number);
}

struct NamedFormat {
  const char* name;
  int format;
};
constexpr NamedFormat kResultFormats[] = {
    {"float64", KORVEX_FORMAT_FLOAT64},
    {"float32", KORVEX_FORMAT_FLOAT32},
    {"float16", KORVEX_FORMAT_FLOAT16},
    {"bfloat16", KORVEX_FORMAT_BFLOAT16},
};

}  // namespace

int kind_option(Handle kind) {
  return integer_option(kind, KORVEX_EXACT_SUM, KORVEX_EXACT_MOMENTS, messages::kKind);
}

int sign_option(Handle sign) {
  const int value = integer_option(sign, -1, 1, messages::kSign);
  if (value == 0) {
    raise_formatted(PyExc_ValueError, messages::kSign, sign);
  }
  return value;
}

int threads_option(Handle threads) {
  return integer_option(threads, 0, std::numeric_limits<int>::max(), messages::kThreads);
}

int part_option(Handle part, int kind) {
  return integer_option(part, 0, kind == KORVEX_EXACT_MOMENTS ? 1 : 0, messages::kPart);
}

int limb_count_option(Handle count, int format) {
  return integer_option(count, 1, format == KORVEX_FORMAT_FLOAT64 ? 4 : 1, messages::kLimbCount);
}

int function_option(Handle function, int operands) {
  const int value =
      integer_option(function, KORVEX_EXACT_TOTAL, KORVEX_EXACT_NORM, messages::kFunction);
  const bool is_of_pairs = value == KORVEX_EXACT_DOT_PRODUCT;
  if (is_of_pairs ? operands % 2 != 0 : operands != 1) {
    raise(PyExc_TypeError, messages::kOperands);
  }
  return value;
}

int elementary_option(Handle function) {
  return integer_option(function, KORVEX_EXACT_EXP, KORVEX_EXACT_TANH, messages::kFunction);
}

int kept_option(Handle kept, int rank) { return integer_option(kept, 0, rank, messages::kKept); }

std::int64_t factor_option(Handle factor) {
  if (factor == nullptr) {
    return 1;
  }
  const long long value = PyLong_AsLongLong(factor);
  if (value == -1 && PyErr_Occurred() != nullptr) {
    throw PythonError{};
  }
  if (value < 0) {
    raise_formatted(PyExc_ValueError, messages::kFactor, factor);
  }
  return value;
}

int result_format_option(Handle format) {
  if (format == nullptr) {
    return KORVEX_FORMAT_FLOAT64;
  }
  for (const NamedFormat& each : kResultFormats) {
    if (PyUnicode_Check(format) != 0 && PyUnicode_CompareWithASCIIString(format, each.name) == 0) {
      return each.format;
    }
  }
  raise_formatted(PyExc_ValueError, messages::kResultFormat, format);
}

void check_status(int status, const char* state) {
  if (status == KORVEX_EXACT_OUT_OF_MEMORY) {
    PyErr_NoMemory();
    throw PythonError{};
  }
  if (status == KORVEX_EXACT_NO_STATE) {
    raise_formatted(PyExc_ValueError, messages::kNoState, state);
  }
}

}  // namespace korvex::exact
