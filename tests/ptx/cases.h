// SPDX-License-Identifier: Apache-2.0
// One launch of one kernel on drawn data, on the machine and on the host: the same bits.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "korvex/kernels/table.h"
#include "tests/cpp/random_data.h"
#include "tests/ptx/host_library.h"
#include "tests/ptx/machine.h"

namespace korvex::ptx {

// What the elements of an input are like: a shape of tests/cpp/random_data.h, or one of these.
enum class Data {
  kShape,     // of random_data.h, chosen by the seed
  kSpecial,   // the same, with zeros, infinities, NaNs and subnormals among them
  kModerate,  // magnitudes near 1, where the elementary functions are neither 0 nor infinite
  kHard,      // arguments that need an elementary function's second try
  kNotable,   // a short array, of as many elements as it has
  kCount
};

struct Case {
  const kernels::KernelRow* row = nullptr;
  std::map<std::string, std::int64_t, std::less<>> sizes;  // n, or M, N and K
  Shape shape;
  Data data = Data::kShape;
  std::size_t notable = 0;  // which of them, where the data is that
  unsigned odd = 0;         // one bit for each array: it starts 8 bytes after a multiple of 16
  std::uint64_t seed = 0;
  std::uint64_t most_steps = 400'000'000;
};

std::string name_of(const Case& one);

// Inputs for the elementary functions that need their second try; from a JSON file of cases.
void read_hard_cases(const char* path);

// Short arrays that a kernel needs care to be right for.
std::size_t notable_count();
std::size_t notable_size(std::size_t which);

// The elements of one array of a case.
std::vector<double> draw_elements(test::Random& random, const Case& one, std::size_t count);

// Throws a Failure that names the case.
void run_case(Machine& machine, const HostLibrary& host, const Case& one);

const kernels::KernelRow& row_of(std::string_view kernel);

// All cases of one kernel.
std::vector<Case> cases_of(const kernels::KernelRow& row, bool is_long, std::uint64_t seed);

}  // namespace korvex::ptx
