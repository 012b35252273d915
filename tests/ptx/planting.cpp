// SPDX-License-Identifier: Apache-2.0
// Changes one line of one function.
#include "tests/ptx/planting.h"

#include <algorithm>
#include <cstdio>
#include <regex>
#include <vector>

#include "tests/launches/failure.h"

namespace korvex::ptx {
namespace {

using launches::Failure;

struct Lines {
  std::size_t first = 0;  // of the function's body, from 1
  std::size_t last = 0;
};

Lines lines_of(const Module& module, const Planting& fault) {
  for (const auto& function : module.functions) {
    if (function->has_body && function->name.find(fault.function) != std::string::npos) {
      const auto line = [&](std::int32_t pc) {
        return static_cast<std::size_t>(module.code[static_cast<std::size_t>(pc)].line);
      };
      return {line(function->begin), line(function->end - 1)};
    }
  }
  throw Failure(std::string("no function ") + fault.function);
}

std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return lines;
}

}  // namespace

std::string planted(const Planting& fault, const Module& module, const std::string& text) {
  std::vector<std::string> lines = split(text);
  const std::regex wanted(fault.line);
  const Lines range = lines_of(module, fault);
  int matching = 0;
  int changed = 0;
  for (std::size_t i = range.first - 1; i < range.last; ++i) {
    if (!std::regex_search(lines[i], wanted) || matching++ != fault.occurrence) {
      continue;
    }
    const std::string before = lines[i];
    lines[i] =
        std::regex_replace(before, wanted, fault.instead, std::regex_constants::format_first_only);
    changed += lines[i] != before ? 1 : 0;
  }
  if (changed != 1) {
    throw Failure("the fault changes " + std::to_string(changed) + " lines");
  }
  std::string result;
  for (const std::string& line : lines) {
    result += line + '\n';
  }
  return result;
}

bool is_expected(const Planting& fault, const std::string& message, const char* noticed_by) {
  const bool noticed = std::regex_search(message, std::regex(noticed_by));
  std::printf("%s: %s\n  by: %s\n", noticed ? "noticed" : "NOT NOTICED", fault.what,
              message.c_str());
  std::fflush(stdout);
  return noticed;
}

}  // namespace korvex::ptx
