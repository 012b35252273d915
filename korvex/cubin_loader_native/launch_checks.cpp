// SPDX-License-Identifier: Apache-2.0
// Python objects against a row of the kernel table.
#include "korvex/cubin_loader_native/launch_checks.h"

#include <algorithm>
#include <bit>
#include <optional>
#include <string>

#include "korvex/cubin_loader_native/array_interface.h"
#include "korvex/cubin_loader_native/messages.h"

namespace korvex::cubin_loader {
namespace {

std::string names_of(const ParameterList& parameters) {
  std::string names;
  for (const Parameter& parameter : parameters) {
    names += std::string(names.empty() ? "" : ", ") + parameter.name.c_str();
  }
  return names;
}

// Every integer parameter is a count of elements or of rows and columns.
std::int64_t read_size(const char* kernel, const Parameter& parameter, Handle value) {
  if (PyLong_Check(value) == 0 || PyBool_Check(value) != 0) {
    raise_formatted(PyExc_TypeError, messages::kNotAnInt, kernel, parameter.name.c_str(),
                    Py_TYPE(value)->tp_name);
  }
  int overflow = 0;
  const long long size = PyLong_AsLongLongAndOverflow(value, &overflow);
  if (overflow != 0 || size < 0) {
    raise_formatted(PyExc_ValueError, messages::kNotASize, kernel, parameter.name.c_str(), value);
  }
  return size;
}

double read_floating(const char* kernel, const Parameter& parameter, Handle value) {
  if (PyFloat_Check(value) == 0) {
    raise_formatted(PyExc_TypeError, messages::kNotAFloat, kernel, parameter.name.c_str(),
                    Py_TYPE(value)->tp_name);
  }
  return PyFloat_AS_DOUBLE(value);
}

// Nothing if the product is beyond 64 bits: no array is that long.
std::optional<std::int64_t> least_count(const Launch& launch, const Parameter& parameter) {
  std::int64_t product = 1;
  bool overflow = false;
  for (std::size_t i = 0; i < parameter.factor_count; ++i) {
    const Factor& factor = parameter.factors[i];
    const std::int64_t value = factor.parameter < 0
                                   ? factor.number
                                   : std::bit_cast<std::int64_t>(
                                         launch.values[static_cast<std::size_t>(factor.parameter)]);
    if (value == 0) {
      return 0;
    }
    overflow = __builtin_mul_overflow(product, value, &product) || overflow;
  }
  if (overflow) {
    return {};
  }
  return product;
}

void require_long_enough(const Launch& launch, const char* kernel, const ArrayArgument& array) {
  const std::optional<std::int64_t> least = least_count(launch, *array.parameter);
  if (least && array.element_count >= *least) {
    return;
  }
  raise_formatted(PyExc_ValueError, messages::kTooShort, kernel, array.parameter->name.c_str(),
                  array.parameter->size_text.c_str(),
                  least ? std::to_string(*least).c_str() : "over 2**63",
                  static_cast<long long>(array.element_count));
}

struct ExtentLimits {
  const char* what;
  unsigned least;
  Extent most;
};
constexpr unsigned kMostBlocks = 0x7fffffff;      // along x
constexpr unsigned kMostBlocksAlongYOrZ = 65535;  // along each
constexpr ExtentLimits kGridLimits{
    "grid", 0, {kMostBlocks, kMostBlocksAlongYOrZ, kMostBlocksAlongYOrZ}};
constexpr ExtentLimits kStridingGridLimits{
    "grid", 0, {kMostBlocks, kMostBlocks, kMostBlocksAlongYOrZ}};
constexpr ExtentLimits kBlockLimits{"block", 1, {1024, 1024, 64}};
constexpr unsigned kMostThreads = 1024;

Extent read_extent(const char* kernel, Handle value, const ExtentLimits& limits) {
  if (PyTuple_Check(value) == 0 || PyTuple_GET_SIZE(value) != 3) {
    raise_formatted(PyExc_TypeError, messages::kExtentType, kernel, limits.what, value);
  }
  Extent extent{};
  for (std::size_t i = 0; i < extent.size(); ++i) {
    const Handle item = PyTuple_GET_ITEM(value, static_cast<Py_ssize_t>(i));
    if (PyLong_Check(item) == 0 || PyBool_Check(item) != 0) {
      raise_formatted(PyExc_TypeError, messages::kExtentType, kernel, limits.what, value);
    }
    int overflow = 0;
    const long long number = PyLong_AsLongLongAndOverflow(item, &overflow);
    if (overflow != 0 || number < limits.least || number > limits.most[i]) {
      raise_formatted(PyExc_ValueError, messages::kExtentRange, kernel, limits.what, value);
    }
    extent[i] = static_cast<unsigned>(number);
  }
  return extent;
}

}  // namespace

void take_arguments(Launch& launch, Handle const* arguments, Py_ssize_t count) {
  const auto row = static_cast<std::size_t>(launch.kernel);
  const char* kernel = kKernelTable[row].name;
  const ParameterList& parameters = kParameterLists[row];
  if (static_cast<std::size_t>(count) != parameters.count) {
    raise_formatted(PyExc_TypeError, messages::kArgumentCount, kernel,
                    static_cast<int>(parameters.count), names_of(parameters).c_str(), count);
  }
  for (std::size_t i = 0; i < parameters.count; ++i) {
    const Parameter& parameter = parameters.items[i];
    switch (parameter.kind) {
      case ParameterKind::kArray: {
        const ArrayArgument array = read_array(kernel, parameter, arguments[i]);
        launch.values[i] = array.pointer;
        launch.arrays[launch.array_count++] = array;
        break;
      }
      case ParameterKind::kInteger:
        launch.values[i] = std::bit_cast<std::uint64_t>(read_size(kernel, parameter, arguments[i]));
        break;
      case ParameterKind::kFloating:
        launch.values[i] =
            std::bit_cast<std::uint64_t>(read_floating(kernel, parameter, arguments[i]));
        break;
    }
  }
  for (std::size_t i = 0; i < launch.array_count; ++i) {
    require_long_enough(launch, kernel, launch.arrays[i]);
  }
}

Extent read_grid(const KernelRow& row, Handle value) {
  if (!row.strides_along_y) {
    return read_extent(row.name, value, kGridLimits);
  }
  Extent grid = read_extent(row.name, value, kStridingGridLimits);
  grid[1] = std::min(grid[1], kMostBlocksAlongYOrZ);
  return grid;
}

Extent read_block(const KernelRow& row, Handle value) {
  const Extent block = read_extent(row.name, value, kBlockLimits);
  const unsigned most = row.block == 0 ? kernels::kMostThreadsOfFunction : kMostThreads;
  if (block[0] * block[1] * block[2] > most) {
    raise_formatted(PyExc_ValueError, messages::kExtentRange, row.name, kBlockLimits.what, value);
  }
  if (row.block != 0 && block != Extent{row.block, 1, 1}) {
    raise_formatted(PyExc_ValueError, messages::kOwnBlock, row.name, row.block, value);
  }
  return block;
}

}  // namespace korvex::cubin_loader
