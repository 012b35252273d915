// SPDX-License-Identifier: Apache-2.0
// A fault in the text of the PTX: where it is planted, and whether it was noticed as expected.
#pragma once

#include <string>

#include "tests/ptx/module.h"

namespace korvex::ptx {

// A line of one function that matches.
struct Planting {
  const char* what;
  const char* function;  // a part of its name
  const char* line;      // a regular expression
  int occurrence;        // which of the matching lines, from 0
  const char* instead;   // of the matching part
};

// The text with the fault in it. Changes exactly one line, or throws.
std::string planted(const Planting& fault, const Module& module, const std::string& text);

// Whether the message matches a regular expression; prints both.
bool is_expected(const Planting& fault, const std::string& message, const char* noticed_by);

}  // namespace korvex::ptx
