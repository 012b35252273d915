// SPDX-License-Identifier: Apache-2.0
// The two launches of a case and their comparison; which cases there are.
#include "tests/ptx/cases.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace korvex::ptx {
namespace {

using launches::Argument;
using launches::blocks_for;
using launches::is_matrix_product;
using launches::is_of_one_thread;
using launches::is_single_block;
using launches::notable_count;
using launches::notable_size;
using launches::Subject;

// The region of each argument; none for a scalar.
std::vector<Region*> place(const std::vector<Argument>& arguments, Machine& machine,
                           const Case& one) {
  std::vector<Region*> regions;
  unsigned array = 0;
  for (const Argument& argument : arguments) {
    if (!argument.is_array) {
      regions.push_back(nullptr);
      continue;
    }
    Region& region = machine.add_array(argument.name, argument.values.size() * sizeof(double),
                                       argument.is_output ? kUnwritten : kWritten,
                                       !argument.is_output, one.bytes_past_16(array++));
    if (!argument.values.empty()) {
      std::memcpy(region.bytes.data(), argument.values.data(), region.bytes.size());
    }
    regions.push_back(&region);
  }
  return regions;
}

void compare(const std::vector<Argument>& arguments, const std::vector<Region*>& regions) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i].is_array) {
      launches::require_same_bits(arguments[i],
                                  reinterpret_cast<const double*>(regions[i]->bytes.data()));
    }
  }
}

// A kernel leaves zero what it found zero.
void require_zero(Machine& machine, const char* workspace) {
  const Region& region = machine.variable(workspace);
  if (std::ranges::any_of(region.bytes, [](std::uint8_t byte) { return byte != 0; })) {
    throw Failure(std::string("left behind: ") + workspace + " is not zero");
  }
}

void run_steps(Machine& machine, const Case& one, const std::vector<std::uint64_t>& values) {
  machine.forget_variables();
  for (const launches::Step& step : launches::steps_of(one)) {
    if (step.workspace != nullptr) {
      machine.clear_variable(step.workspace);
    }
    machine.launch(step.kernel, one.shape, values, one.seed, one.most_steps);
    if (step.workspace != nullptr) {
      require_zero(machine, step.workspace);
    }
  }
}

}  // namespace

void run_case(Machine& machine, const HostLibrary& host, const Case& one) {
  machine.forget_arrays();
  std::vector<Argument> arguments = launches::draw_arguments(one);
  const std::vector<Region*> regions = place(arguments, machine, one);
  std::vector<std::uint64_t> values;
  values.reserve(arguments.size());
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    values.push_back(regions[i] != nullptr ? regions[i]->base : arguments[i].bits);
  }
  try {
    run_steps(machine, one, values);
    launches::launch_on_host(arguments, host, one);
    compare(arguments, regions);
  } catch (const Failure& failure) {
    throw Failure(launches::name_of(one) + "\n  " + failure.what());
  }
}

// --- Which cases there are

namespace {

// A grid of one block, the smallest that has a thread for each element, and one beyond that; for
// kernels of one block, blocks of other sizes, also of part of a warp.
std::vector<Shape> shapes_for(const Subject& subject, std::int64_t n) {
  const kernels::KernelRow& row = *subject.row;
  const unsigned block = subject.whole_device != nullptr ? kernels::kGridBlock
                         : row.block == 0                ? 1
                                                         : row.block;
  if (subject.whole_device == nullptr && is_of_one_thread(row)) {
    return {{{1, 1, 1}, {1, 1, 1}}, {{2, 1, 1}, {64, 1, 1}}};
  }
  if (subject.whole_device == nullptr && is_single_block(row)) {
    return {{{1, 1, 1}, {block, 1, 1}},
            {{2, 1, 1}, {256, 1, 1}},
            {{1, 1, 1}, {96, 1, 1}},
            {{1, 1, 1}, {50, 1, 1}}};
  }
  return {{{1, 1, 1}, {block, 1, 1}},
          {{blocks_for(n, block), 1, 1}, {block, 1, 1}},
          {{2, 2, 1}, {32, 2, 1}},
          {{blocks_for(n, block) + 1, 1, 1}, {block, 1, 1}}};
}

// The ends of tiles (256 and 512 elements a warp), of pieces (1024 and 2048) and of blocks.
std::vector<std::int64_t> sizes_for(const Subject& subject, bool is_long) {
  constexpr std::int64_t kOrdinary[] = {0, 1, 31, 33, 257, 513, 2049};
  constexpr std::int64_t kLong[] = {2, 32, 255, 256, 511, 512, 1023, 1025, 4095, 16385, 65537};
  std::vector<std::int64_t> sizes;
  sizes.reserve(std::size(kOrdinary) + std::size(kLong) + 2);
  sizes.assign(std::begin(kOrdinary), std::end(kOrdinary));
  if (subject.row->blocks_per_multiprocessor != 0 || is_of_one_thread(*subject.row)) {
    sizes.push_back(4609);  // a whole tile for each warp of a block and one more, three pieces
  }
  if (std::string_view(subject.name()) == "tqx_cumsum_device_kernel") {
    sizes.push_back(9217);  // of which one block has whole tiles in each of its 16 runs
  }
  if (is_long) {
    sizes.insert(sizes.end(), std::begin(kLong), std::end(kLong));
  }
  return sizes;
}

std::vector<Case> matrix_cases(const Subject& subject, bool is_long, std::uint64_t seed) {
  constexpr std::int64_t kSizes[][3] = {{0, 3, 3},   {1, 1, 0},    {1, 1, 1},    {5, 17, 33},
                                        {17, 3, 70}, {16, 16, 16}, {33, 2, 129}, {2, 40, 7}};
  std::vector<Case> cases;
  for (const auto& [m, n, k] : kSizes) {
    for (int data = 0; data < (is_long ? 10 : 5); ++data) {
      Case one;
      one.row = subject.row;
      one.sizes = {{"M", m}, {"N", n}, {"K", k}};
      one.data = static_cast<Data>(data % static_cast<int>(Data::kCount));
      one.notable = static_cast<std::size_t>(data) % notable_count();
      one.seed = seed++;
      one.odd = static_cast<unsigned>(one.seed % 32);
      const bool is_strided = data % 2 == 1;
      one.shape.block = {16, 16, 1};
      one.shape.grid = {is_strided ? 1 : blocks_for(n, 16), is_strided ? 1 : blocks_for(m, 16), 1};
      cases.push_back(one);
    }
  }
  return cases;
}

}  // namespace

std::vector<Case> cases_of(const Subject& subject, bool is_long, std::uint64_t seed) {
  if (is_matrix_product(*subject.row)) {
    return matrix_cases(subject, is_long, seed);
  }
  std::vector<Case> cases;
  const auto add = [&](std::int64_t n, Data data, std::size_t notable) {
    const std::vector<Shape> shapes = shapes_for(subject, n);
    Case one;
    one.row = subject.row;
    one.whole_device = subject.whole_device;
    one.sizes = {{"n", n}};
    one.data = data;
    one.notable = notable;
    one.seed = seed++;
    one.odd = static_cast<unsigned>(one.seed % 8);
    one.shape = shapes[(cases.size() + cases.size() / 4) % shapes.size()];
    cases.push_back(one);
  };
  for (const std::int64_t n : sizes_for(subject, is_long)) {
    for (const Data data : {Data::kShape, Data::kSpecial, Data::kModerate, Data::kHard}) {
      add(n, data, 0);
    }
  }
  for (std::size_t notable = 0; notable < notable_count(); ++notable) {
    add(static_cast<std::int64_t>(notable_size(notable)), Data::kNotable, notable);
  }
  return cases;
}

}  // namespace korvex::ptx
