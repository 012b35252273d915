// SPDX-License-Identifier: Apache-2.0
// Arguments from a kernel's row in the table, the two launches, and the comparison.
#include "tests/ptx/cases.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <sstream>

namespace korvex::ptx {
namespace {

struct Argument {
  std::string name;
  std::string kind;  // i64, f64, or the length of an array in brackets
  std::int64_t count = 0;
  bool is_array = false;
  bool is_output = false;
  std::vector<double> values;  // of an array; on the host
  std::uint64_t bits = 0;      // of a scalar
  double* pointer = nullptr;
  Region* region = nullptr;
};

// A number, a size, or a product of such.
std::int64_t evaluate(const Case& one, std::string_view length) {
  std::int64_t product = 1;
  for (std::size_t at = 0; at <= length.size();) {
    const std::size_t star = std::min(length.find('*', at), length.size());
    const std::string_view factor = length.substr(at, star - at);
    const auto size = one.sizes.find(factor);
    product *= size != one.sizes.end() ? size->second : std::stoll(std::string(factor));
    at = star + 1;
  }
  return product;
}

std::vector<Argument> arguments_of(const Case& one) {
  std::vector<Argument> arguments;
  std::istringstream words(one.row->parameters);
  for (std::string word; words >> word;) {
    Argument argument;
    const std::size_t colon = word.find(':');
    argument.name = word.substr(0, colon);
    argument.kind = word.substr(colon + 1);
    argument.is_array = argument.kind.back() == ']';
    if (argument.is_array) {
      const std::size_t open = argument.kind.find('[');
      argument.count = evaluate(
          one, std::string_view(argument.kind).substr(open + 1, argument.kind.size() - open - 2));
      argument.is_output = argument.name.starts_with("out") || argument.name.starts_with('c');
    }
    arguments.push_back(argument);
  }
  return arguments;
}

void fill(std::vector<Argument>& arguments, const Case& one) {
  test::Random random(one.seed);
  for (Argument& argument : arguments) {
    const auto count = static_cast<std::size_t>(argument.count);
    if (argument.is_array && argument.is_output) {
      argument.values.assign(count, 7.0);
    } else if (argument.is_array) {
      argument.values = draw_elements(random, one, count);
    } else if (argument.kind == "i64") {
      argument.bits = static_cast<std::uint64_t>(one.sizes.at(argument.name));
    } else {
      argument.bits =
          std::bit_cast<std::uint64_t>(argument.name == "eps" ? 0x1p-17 : 0x1.999999999999ap-7);
    }
  }
}

std::vector<std::uint64_t> place(std::vector<Argument>& arguments, Machine& machine,
                                 const Case& one) {
  std::vector<std::uint64_t> values;
  unsigned array = 0;
  for (Argument& argument : arguments) {
    if (!argument.is_array) {
      values.push_back(argument.bits);
      continue;
    }
    const std::uint64_t past_16 = (one.odd >> array++ & 1) != 0 ? 8 : 0;
    argument.region = &machine.add_array(argument.name, argument.values.size() * sizeof(double),
                                         argument.is_output ? kUnwritten : kWritten,
                                         !argument.is_output, past_16);
    if (!argument.values.empty()) {
      std::memcpy(argument.region->bytes.data(), argument.values.data(),
                  argument.region->bytes.size());
    }
    values.push_back(argument.region->base);
  }
  return values;
}

void launch_on_host(std::vector<Argument>& arguments, const HostLibrary& host, const Case& one) {
  std::vector<void*> pointers;
  for (Argument& argument : arguments) {
    argument.pointer = argument.values.data();
    pointers.push_back(argument.is_array ? static_cast<void*>(&argument.pointer)
                                         : static_cast<void*>(&argument.bits));
  }
  host.launch(host.index_of(one.row->name), pointers);
}

void compare(const std::vector<Argument>& arguments) {
  for (const Argument& argument : arguments) {
    if (!argument.is_array) {
      continue;
    }
    for (std::size_t i = 0; i < argument.values.size(); ++i) {
      std::uint64_t found = 0;
      std::memcpy(&found, argument.region->bytes.data() + 8 * i, 8);
      const auto expected = std::bit_cast<std::uint64_t>(argument.values[i]);
      if (found != expected) {
        std::ostringstream message;
        message << "result differs: " << argument.name << "[" << i << "] is " << std::hex << found
                << ", on the host " << expected;
        throw Failure(message.str());
      }
    }
  }
}

// The memory of the parallel sums is zero after each launch, which the next one relies on.
void check_grid_memory(Machine& machine) {
  for (const char* name : {"sum_grid_memory", "dot_grid_memory"}) {
    const Region* region = machine.symbol_region(name);
    if (region != nullptr &&
        std::ranges::any_of(region->bytes, [](std::uint8_t byte) { return byte != 0; })) {
      throw Failure(std::string("left behind: ") + name + " is not zero");
    }
  }
}

}  // namespace

std::string name_of(const Case& one) {
  std::ostringstream name;
  name << one.row->name;
  for (const auto& [size, value] : one.sizes) {
    name << " " << size << "=" << value;
  }
  name << " blocks=" << one.shape.blocks() << " threads=" << one.shape.threads()
       << " data=" << static_cast<int>(one.data) << " odd=" << one.odd << " seed=" << one.seed;
  return name.str();
}

const kernels::KernelRow& row_of(std::string_view kernel) {
  for (const kernels::KernelRow& row : kernels::kKernelTable) {
    if (row.name == kernel) {
      return row;
    }
  }
  throw Failure("no row for " + std::string(kernel));
}

void run_case(Machine& machine, const HostLibrary& host, const Case& one) {
  machine.forget_arrays();
  std::vector<Argument> arguments = arguments_of(one);
  fill(arguments, one);
  const std::vector<std::uint64_t> values = place(arguments, machine, one);
  try {
    machine.launch(one.row->name, one.shape, values, one.seed, one.most_steps);
    launch_on_host(arguments, host, one);
    compare(arguments);
    check_grid_memory(machine);
  } catch (const Failure& failure) {
    throw Failure(name_of(one) + "\n  " + failure.what());
  }
}

// --- Which cases there are

namespace {

bool is_single_block(const kernels::KernelRow& row) { return row.block == 1024; }
bool is_matrix_product(const kernels::KernelRow& row) {
  return std::string_view(row.parameters).find("M*K") != std::string_view::npos;
}
bool is_of_one_thread(const kernels::KernelRow& row) {
  return row.block == 0 && !is_matrix_product(row);
}

unsigned blocks_for(std::int64_t n, unsigned block) {
  return static_cast<unsigned>(std::max<std::int64_t>(1, (n + block - 1) / block));
}

// A grid of one block, the smallest that has a thread for each element, and one beyond that; for
// kernels of one block, blocks of other sizes, also of part of a warp.
std::vector<Shape> shapes_for(const kernels::KernelRow& row, std::int64_t n) {
  const unsigned block = row.block == 0 ? 1 : row.block;
  if (is_of_one_thread(row)) {
    return {{{1, 1, 1}, {1, 1, 1}}, {{2, 1, 1}, {64, 1, 1}}};
  }
  if (is_single_block(row)) {
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
std::vector<std::int64_t> sizes_for(const kernels::KernelRow& row, bool is_long) {
  constexpr std::int64_t kOrdinary[] = {0, 1, 31, 33, 257, 513, 2049};
  constexpr std::int64_t kLong[] = {2, 32, 255, 256, 511, 512, 1023, 1025, 4095, 16385, 65537};
  std::vector<std::int64_t> sizes;
  sizes.reserve(std::size(kOrdinary) + std::size(kLong) + 1);
  sizes.assign(std::begin(kOrdinary), std::end(kOrdinary));
  if (row.blocks_per_multiprocessor != 0 || is_of_one_thread(row)) {
    sizes.push_back(4609);  // a whole tile for each warp of a block and one more, three pieces
  }
  if (is_long) {
    sizes.insert(sizes.end(), std::begin(kLong), std::end(kLong));
  }
  return sizes;
}

std::vector<Case> matrix_cases(const kernels::KernelRow& row, bool is_long, std::uint64_t seed) {
  constexpr std::int64_t kSizes[][3] = {{0, 3, 3},   {1, 1, 0},    {1, 1, 1},    {5, 17, 33},
                                        {17, 3, 70}, {16, 16, 16}, {33, 2, 129}, {2, 40, 7}};
  std::vector<Case> cases;
  for (const auto& [m, n, k] : kSizes) {
    for (int data = 0; data < (is_long ? 10 : 5); ++data) {
      Case one;
      one.row = &row;
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

std::vector<Case> cases_of(const kernels::KernelRow& row, bool is_long, std::uint64_t seed) {
  if (is_matrix_product(row)) {
    return matrix_cases(row, is_long, seed);
  }
  std::vector<Case> cases;
  const auto add = [&](std::int64_t n, Data data, std::size_t notable) {
    const std::vector<Shape> shapes = shapes_for(row, n);
    Case one;
    one.row = &row;
    one.sizes = {{"n", n}};
    one.data = data;
    one.notable = notable;
    one.seed = seed++;
    one.odd = static_cast<unsigned>(one.seed % 8);
    one.shape = shapes[(cases.size() + cases.size() / 4) % shapes.size()];
    cases.push_back(one);
  };
  for (const std::int64_t n : sizes_for(row, is_long)) {
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
