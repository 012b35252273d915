// SPDX-License-Identifier: Apache-2.0
// The kernel table's parameter texts, read by the compiler: a wrong text does not compile.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "korvex/kernels/table.h"

namespace korvex::cubin_loader {

using kernels::KernelRow;
using kernels::kKernelCount;
using kernels::kKernelTable;

inline constexpr std::size_t kMaxParameters = 12;
inline constexpr std::size_t kMaxFactors = 4;

enum class ParameterKind { kArray, kInteger, kFloating };

// One factor of an array's least number of elements.
struct Factor {
  int parameter = -1;       // the integer parameter of that position; -1: the number below
  std::int64_t number = 0;  // not negative
};

// A short text that ends in a NUL.
class Word {
 public:
  constexpr Word() = default;
  consteval Word(std::string_view text) {
    if (text.empty() || text.size() >= text_.size()) {
      throw "a word is missing or too long";
    }
    text.copy(text_.data(), text.size());
  }
  constexpr const char* c_str() const { return text_.data(); }
  constexpr std::string_view view() const { return text_.data(); }

 private:
  std::array<char, 32> text_{};
};

struct Parameter {
  Word name;
  ParameterKind kind = ParameterKind::kArray;
  Word size_text;  // of an array, as written: "M*K"
  std::array<Factor, kMaxFactors> factors{};
  std::size_t factor_count = 0;
};

struct ParameterList {
  std::array<Parameter, kMaxParameters> items{};
  std::size_t count = 0;

  constexpr const Parameter* begin() const { return items.data(); }
  constexpr const Parameter* end() const { return items.data() + count; }
};

namespace reading {

// The text up to the separator, which is taken away with it; all of it if there is none.
constexpr std::string_view take_until(std::string_view& text, char separator) {
  const std::size_t end = text.find(separator);
  const std::string_view taken = text.substr(0, end);
  text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
  return taken;
}

consteval Parameter read_parameter(std::string_view word) {
  Parameter parameter;
  parameter.name = take_until(word, ':');
  if (word == "i64") {
    parameter.kind = ParameterKind::kInteger;
  } else if (word == "f64") {
    parameter.kind = ParameterKind::kFloating;
  } else if (word.starts_with("f64[") && word.ends_with(']')) {
    parameter.size_text = word.substr(4, word.size() - 5);
  } else {
    throw "not a kind of parameter";
  }
  return parameter;
}

consteval Factor read_factor(std::string_view word, const ParameterList& list) {
  for (std::size_t i = 0; i < list.count; ++i) {
    const Parameter& parameter = list.items[i];
    if (parameter.kind == ParameterKind::kInteger && parameter.name.view() == word) {
      return {static_cast<int>(i), 0};
    }
  }
  Factor factor;
  if (word.empty()) {
    throw "a size is missing";
  }
  for (const char digit : word) {
    if (digit < '0' || digit > '9') {
      throw "a size names no integer parameter";
    }
    factor.number = factor.number * 10 + (digit - '0');
  }
  return factor;
}

consteval ParameterList read_list(std::string_view text) {
  ParameterList list;
  while (!text.empty()) {
    list.items.at(list.count++) = read_parameter(take_until(text, ' '));
  }
  for (Parameter& parameter : list.items) {
    std::string_view sizes = parameter.size_text.view();
    while (!sizes.empty()) {
      parameter.factors.at(parameter.factor_count++) = read_factor(take_until(sizes, '*'), list);
    }
  }
  return list;
}

consteval std::array<ParameterList, kKernelCount> read_table() {
  std::array<ParameterList, kKernelCount> lists;
  for (std::size_t i = 0; i < lists.size(); ++i) {
    lists[i] = read_list(kKernelTable[i].parameters);
  }
  return lists;
}

}  // namespace reading

// The parameters of each kernel, in the order of the table.
inline constexpr std::array<ParameterList, kKernelCount> kParameterLists = reading::read_table();

}  // namespace korvex::cubin_loader
