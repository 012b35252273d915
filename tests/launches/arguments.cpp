// SPDX-License-Identifier: Apache-2.0
// Arguments from a kernel's row in the table, the launch on the host, and the comparison.
#include <algorithm>
#include <bit>
#include <cstring>
#include <sstream>

#include "tests/launches/launch_case.h"

namespace korvex::launches {
namespace {

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

std::uint64_t scalar_bits(const Case& one, const std::string& name, std::string_view kind) {
  if (kind == "i64") {
    return static_cast<std::uint64_t>(one.sizes.at(name));
  }
  return std::bit_cast<std::uint64_t>(name == "eps" ? 0x1p-17 : 0x1.999999999999ap-7);
}

}  // namespace

std::string name_of(const Case& one) {
  std::ostringstream name;
  name << Subject{one.row, one.whole_device}.name();
  for (const auto& [size, value] : one.sizes) {
    name << " " << size << "=" << value;
  }
  name << " blocks=" << one.shape.blocks() << " threads=" << one.shape.threads()
       << " data=" << static_cast<int>(one.data) << " odd=" << one.odd << " seed=" << one.seed;
  return name.str();
}

std::int64_t most_elements(const Case& one) {
  std::int64_t most = 0;
  for (const auto& [size, value] : one.sizes) {
    most = std::max(most, value);
  }
  return most;
}

std::vector<Step> steps_of(const Case& one) {
  if (one.whole_device == nullptr) {
    return {{one.row->name, one.row->workspace}};
  }
  std::vector<Step> steps;
  for (int i = 0; i < one.whole_device->launch_count; ++i) {
    const kernels::WholeDeviceLaunch& launch = one.whole_device->launches[i];
    steps.push_back({launch.kernel, launch.workspace});
  }
  return steps;
}

const char* Subject::name() const {
  return whole_device == nullptr ? row->name
                                 : whole_device->launches[whole_device->launch_count - 1].kernel;
}

std::vector<Subject> subjects() {
  std::vector<Subject> all;
  for (const kernels::KernelRow& row : kernels::kKernelTable) {
    all.push_back({&row, nullptr});
  }
  for (const kernels::WholeDeviceRow& whole_device : kernels::kWholeDeviceTable) {
    all.push_back({subject_of(whole_device.kernel).row, &whole_device});
  }
  return all;
}

Subject subject_of(std::string_view name) {
  for (const kernels::KernelRow& row : kernels::kKernelTable) {
    if (row.name == name) {
      return {&row, nullptr};
    }
  }
  for (const Subject& subject : subjects()) {
    if (name == subject.name()) {
      return subject;
    }
  }
  throw Failure("no kernel " + std::string(name));
}

bool is_single_block(const kernels::KernelRow& row) { return row.block == kernels::kSingleBlock; }
bool is_matrix_product(const kernels::KernelRow& row) {
  return std::string_view(row.parameters).find("M*K") != std::string_view::npos;
}
bool is_of_one_thread(const kernels::KernelRow& row) {
  return row.block == 0 && !is_matrix_product(row);
}

unsigned blocks_for(std::int64_t n, unsigned block) {
  return static_cast<unsigned>(std::max<std::int64_t>(1, (n + block - 1) / block));
}

std::vector<Argument> draw_arguments(const Case& one) {
  test::Random random(one.seed);
  std::vector<Argument> arguments;
  std::istringstream words(one.row->parameters);
  for (std::string word; words >> word;) {
    Argument argument;
    const std::size_t colon = word.find(':');
    argument.name = word.substr(0, colon);
    const std::string_view kind = std::string_view(word).substr(colon + 1);
    argument.is_array = kind.back() == ']';
    if (!argument.is_array) {
      argument.bits = scalar_bits(one, argument.name, kind);
    } else {
      const std::size_t open = kind.find('[');
      const auto count =
          static_cast<std::size_t>(evaluate(one, kind.substr(open + 1, kind.size() - open - 2)));
      argument.is_output = argument.name.starts_with("out") || argument.name.starts_with('c');
      argument.values = argument.is_output ? std::vector<double>(count, kBeforeLaunch)
                                           : draw_elements(random, one, count);
    }
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

void launch_on_host(std::vector<Argument>& arguments, const HostLibrary& host, const Case& one) {
  std::vector<double*> arrays(arguments.size());
  std::vector<void*> pointers;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    arrays[i] = arguments[i].values.data();
    pointers.push_back(arguments[i].is_array ? static_cast<void*>(&arrays[i])
                                             : static_cast<void*>(&arguments[i].bits));
  }
  host.launch(host.index_of(one.row->name), pointers);
}

void require_same_bits(const Argument& argument, const double* found) {
  for (std::size_t i = 0; i < argument.values.size(); ++i) {
    const auto bits = std::bit_cast<std::uint64_t>(found[i]);
    const auto expected = std::bit_cast<std::uint64_t>(argument.values[i]);
    if (bits != expected) {
      std::ostringstream message;
      message << "result differs: " << argument.name << "[" << i << "] is " << std::hex << bits
              << ", on the host " << expected;
      throw Failure(message.str());
    }
  }
}

}  // namespace korvex::launches
