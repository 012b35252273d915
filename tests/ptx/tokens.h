// SPDX-License-Identifier: Apache-2.0
// Words and signs of a PTX text, with their lines; comments are left out.
#pragma once

#include <cctype>
#include <string>
#include <string_view>
#include <vector>

#include "tests/ptx/module.h"

namespace korvex::ptx {

struct Token {
  std::string_view text;
  std::int32_t line;
};

inline bool is_word_character(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '.' || c == '$' ||
         c == '%' || c == '-';
}

inline std::vector<Token> tokens_of(std::string_view text) {
  std::vector<Token> tokens;
  std::int32_t line = 1;
  for (std::size_t at = 0; at < text.size();) {
    const char c = text[at];
    if (c == '\n') {
      ++line;
    }
    if (std::isspace(static_cast<unsigned char>(c)) != 0) {
      ++at;
    } else if (text.substr(at, 2) == "//") {
      at = std::min(text.find('\n', at), text.size());
    } else if (c == '"') {
      const std::size_t end = text.find('"', at + 1);
      if (end == std::string_view::npos) {
        throw Failure("a string does not end");
      }
      tokens.push_back({text.substr(at, end + 1 - at), line});
      at = end + 1;
    } else {
      std::size_t end = at + 1;
      while (is_word_character(c) && end < text.size() && is_word_character(text[end])) {
        ++end;
      }
      tokens.push_back({text.substr(at, end - at), line});
      at = end;
    }
  }
  return tokens;
}

}  // namespace korvex::ptx
