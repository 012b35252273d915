// SPDX-License-Identifier: Apache-2.0
// One launch of one kernel on drawn data, for whatever runs device code on a host: its arguments
// from the kernel's row in the table, and what the host kernel leaves of the same arguments.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "korvex/kernels/whole_device.h"
#include "tests/cpp/random_data.h"
#include "tests/launches/failure.h"
#include "tests/launches/host_library.h"

namespace korvex::launches {

struct Shape {
  std::array<unsigned, 3> grid{1, 1, 1};
  std::array<unsigned, 3> block{1, 1, 1};
  std::uint32_t threads() const { return block[0] * block[1] * block[2]; }
  std::uint32_t blocks() const { return grid[0] * grid[1] * grid[2]; }
};

// What the elements of an input are like: a shape of tests/cpp/random_data.h, or one of these.
enum class Data {
  kShape,     // of random_data.h, chosen by the seed
  kSpecial,   // the same, with zeros, infinities, NaNs and subnormals among them
  kModerate,  // magnitudes near 1, where the elementary functions are neither 0 nor infinite
  kHard,      // arguments that need an elementary function's second try
  kNotable,   // a short array, of as many elements as it has
  kCount
};

// What is tested: a kernel of the table, or the launches that stand for it on the whole device.
struct Subject {
  const kernels::KernelRow* row = nullptr;
  const kernels::WholeDeviceRow* whole_device = nullptr;

  // Of the kernel, or of the last that stands for it.
  const char* name() const;
};
std::vector<Subject> subjects();
Subject subject_of(std::string_view name);

struct Case {
  const kernels::KernelRow* row = nullptr;
  const kernels::WholeDeviceRow* whole_device = nullptr;   // as of a subject
  std::map<std::string, std::int64_t, std::less<>> sizes;  // n, or M, N and K
  Shape shape;
  Data data = Data::kShape;
  std::size_t notable = 0;  // which of them, where the data is that
  unsigned odd = 0;         // one bit for each array: it starts 8 bytes after a multiple of 16
  std::uint64_t seed = 0;
  std::uint64_t most_steps = 400'000'000;

  // Of one of the arrays, which count from 0: bytes that it starts after a multiple of 16.
  std::uint64_t bytes_past_16(unsigned array) const { return (odd >> array & 1) != 0 ? 8 : 0; }
};

std::string name_of(const Case& one);
std::int64_t most_elements(const Case& one);  // of its sizes the largest

// What a loader does for a case, one after another: it clears some static memory and launches a
// kernel, which takes the arguments of the row.
struct Step {
  std::string kernel;
  const char* workspace;  // null: nothing is cleared
};
std::vector<Step> steps_of(const Case& one);

bool is_single_block(const kernels::KernelRow& row);
bool is_matrix_product(const kernels::KernelRow& row);
bool is_of_one_thread(const kernels::KernelRow& row);
unsigned blocks_for(std::int64_t n, unsigned block);

// --- Data

// Inputs for the elementary functions that need their second try; from a JSON file of cases.
void read_hard_cases(const char* path);

// Short arrays that a kernel needs care to be right for.
std::size_t notable_count();
std::size_t notable_size(std::size_t which);

// The elements of one array of a case.
std::vector<double> draw_elements(test::Random& random, const Case& one, std::size_t count);

// --- Arguments

struct Argument {
  std::string name;
  bool is_array = false;
  bool is_output = false;
  std::vector<double> values;  // of an array: drawn, and after a launch on the host its results
  std::uint64_t bits = 0;      // of a scalar
};

// What an output holds before the launch.
constexpr double kBeforeLaunch = 7.0;

std::vector<Argument> draw_arguments(const Case& one);

// Runs the host's kernel on the values of the arguments.
void launch_on_host(std::vector<Argument>& arguments, const HostLibrary& host, const Case& one);

// Throws a Failure that names the first element where found differs from the host's result.
void require_same_bits(const Argument& argument, const double* found);

}  // namespace korvex::launches
