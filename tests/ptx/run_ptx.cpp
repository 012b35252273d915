// SPDX-License-Identifier: Apache-2.0
// Runs the kernels of PTX files on the host and compares their results with the host kernels;
// plants faults in the PTX and wants each of them noticed. Of a file with the kernels of exact
// states it compares the states and the arrays that they leave.
//
// usage: run_ptx HOST_LIBRARY PTX... [--long] [--seed N] [--kernel NAME] [--hard-cases JSON]
//                [--faults-only | --kernels-only] [--unreached] [--most-elements N]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "tests/ptx/cases.h"
#include "tests/ptx/faults.h"
#include "tests/ptx/state_runner.h"

namespace korvex::ptx {
namespace {

struct Options {
  std::string library;
  std::vector<std::string> files;
  std::string kernel;
  std::uint64_t seed = 1;
  std::int64_t most_elements = std::numeric_limits<std::int64_t>::max();
  bool is_long = false;
  bool with_kernels = true;
  bool with_faults = true;
  bool shows_unreached = false;
};

struct Totals {
  Figures figures;
  std::size_t kernels = 0;
  std::size_t failures = 0;
  std::size_t reached = 0;
  std::size_t instructions = 0;
  FaultCount faults;
};

Options options_of(int count, char** words) {
  Options options;
  for (int i = 1; i < count; ++i) {
    const std::string word = words[i];
    const auto value = [&] {
      return i + 1 < count ? words[++i] : throw Failure(word + " needs a value");
    };
    if (word == "--long") {
      options.is_long = true;
    } else if (word == "--seed") {
      options.seed = std::strtoull(value(), nullptr, 10);
    } else if (word == "--kernel") {
      options.kernel = value();
    } else if (word == "--hard-cases") {
      launches::read_hard_cases(value());
    } else if (word == "--most-elements") {
      options.most_elements = std::strtoll(value(), nullptr, 10);
    } else if (word == "--faults-only") {
      options.with_kernels = false;
    } else if (word == "--kernels-only") {
      options.with_faults = false;
    } else if (word == "--unreached") {
      options.shows_unreached = true;
    } else if (options.library.empty()) {
      options.library = word;
    } else {
      options.files.push_back(word);
    }
  }
  if (options.files.empty()) {
    throw Failure("usage: run_ptx HOST_LIBRARY PTX...");
  }
  return options;
}

std::string text_of(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    throw Failure("cannot read " + path);
  }
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

void count_reached(const Module& module, bool shows_unreached, Totals& totals) {
  for (const auto& function : module.functions) {
    std::size_t reached = 0;
    for (auto pc = function->begin; pc < function->end; ++pc) {
      reached += module.code[static_cast<std::size_t>(pc)].hits != 0 ? 1 : 0;
    }
    const auto count = static_cast<std::size_t>(function->end - function->begin);
    totals.reached += reached;
    totals.instructions += count;
    if (shows_unreached && reached < count) {
      std::printf("  %zu of %zu instructions reached in %s\n", reached, count,
                  function->name.c_str());
    }
  }
}

// Runs the cases of one kernel, up to the first that fails: the next would show the same.
template <class OneCase, class Run>
void run_kernel(const char* kernel, const std::vector<OneCase>& cases, const Run& run_one,
                Machine& machine, const std::string& file, Totals& totals) {
  ++totals.kernels;
  const auto start = std::chrono::steady_clock::now();
  const Figures before = machine.figures();
  for (const OneCase& one : cases) {
    try {
      run_one(one);
    } catch (const Failure& failure) {
      ++totals.failures;
      std::printf("FAILED %s\n%s\n", file.c_str(), failure.what());
      break;
    }
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  std::printf("%-26s %4llu launches %10.1f million instructions %6.1f s\n", kernel,
              static_cast<unsigned long long>(machine.figures().launches - before.launches),
              static_cast<double>(machine.figures().instructions - before.instructions) * 1e-6,
              taken.count());
  std::fflush(stdout);
}

void run_kernels(const Options& options, const HostLibrary& host, const std::string& text,
                 const std::string& file, Totals& totals) {
  Machine machine(parse(text));
  MachineOfStates states(machine);
  totals.kernels = 0;
  const bool has_states = machine.module().find(kernels::kStateKernels[0].name) != nullptr;
  const auto is_wanted = [&](const char* kernel) {
    return options.kernel.empty() || options.kernel == kernel;
  };
  for (const launches::Subject& subject : launches::subjects()) {
    if (!has_states && is_wanted(subject.name())) {
      std::vector<Case> cases = cases_of(subject, options.is_long, options.seed);
      std::erase_if(cases, [&](const Case& one) {
        return launches::most_elements(one) > options.most_elements;
      });
      run_kernel(
          subject.name(), cases, [&](const Case& one) { run_case(machine, host, one); }, machine,
          file, totals);
    }
  }
  for (const kernels::StateKernelRow& row : kernels::kStateKernels) {
    if (has_states && is_wanted(row.name)) {
      run_kernel(
          row.name, launches::state_cases_of(row, options.is_long, options.seed),
          [&](const launches::StateCase& one) {
            launches::run_state_case(states, host.exact(), one);
          },
          machine, file, totals);
    }
  }
  totals.figures += machine.figures();
  count_reached(machine.module(), options.shows_unreached, totals);
}

int run(const Options& options) {
  const auto start = std::chrono::steady_clock::now();
  const HostLibrary host(options.library.c_str());
  Totals totals;
  for (const std::string& file : options.files) {
    const std::string text = text_of(file);
    if (options.with_kernels) {
      run_kernels(options, host, text, file, totals);
    }
    if (options.with_faults) {
      const FaultCount count = plant_faults(host, text, options.seed);
      totals.faults.planted += count.planted;
      totals.faults.noticed += count.noticed;
      totals.figures += count.figures;
    }
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  std::printf(
      "PTX machine: %zu files, %zu kernels, %llu launches, %.1f million instructions executed, "
      "%.1f million accesses checked, %zu of %zu instructions reached, "
      "%d faults planted and %d noticed, %zu failures, %.1f seconds\n",
      options.files.size(), totals.kernels,
      static_cast<unsigned long long>(totals.figures.launches),
      static_cast<double>(totals.figures.instructions) * 1e-6,
      static_cast<double>(totals.figures.accesses) * 1e-6, totals.reached, totals.instructions,
      totals.faults.planted, totals.faults.noticed, totals.failures, taken.count());
  return totals.failures == 0 && totals.faults.planted == totals.faults.noticed ? 0 : 1;
}

}  // namespace
}  // namespace korvex::ptx

int main(int argc, char** argv) {
  try {
    return korvex::ptx::run(korvex::ptx::options_of(argc, argv));
  } catch (const std::exception& error) {
    std::printf("%s\n", error.what());
    return 2;
  }
}
