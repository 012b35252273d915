// SPDX-License-Identifier: Apache-2.0
// What the system says of its processor: the list of flags in /proc/cpuinfo.
#pragma once

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <set>
#include <sstream>
#include <string>

namespace korvex::test {

// Of the first processor. Linux lists instructions there only if it saves their registers. Empty on
// other processors than x86: an emulator of one may show the list of the machine it runs on.
class FlagsOfSystem {
 public:
  FlagsOfSystem() {
#if defined(__x86_64__)
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; flags_.empty() && std::getline(file, line);) {
      std::istringstream words(line);
      std::string first;
      words >> first;
      if (first == "flags") {
        flags_.insert(std::istream_iterator<std::string>(words), {});
      }
    }
#endif
  }

  bool are_known() const { return !flags_.empty(); }
  bool have(std::initializer_list<const char*> names) const {
    return std::all_of(names.begin(), names.end(),
                       [&](const char* name) { return flags_.count(name) != 0; });
  }

 private:
  std::set<std::string> flags_;
};

}  // namespace korvex::test
