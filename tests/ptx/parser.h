// SPDX-License-Identifier: Apache-2.0
// The parser's own state; module.h has what callers need.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/ptx/machine.h"
#include "tests/ptx/module.h"
#include "tests/ptx/tokens.h"

namespace korvex::ptx {

class Parser {
 public:
  explicit Parser(std::string_view text) : tokens_(tokens_of(text)) {}
  std::unique_ptr<Module> parse();

 private:
  // What an instruction's operand is; several parts make a vector.
  struct Part {
    Operand operand = 0;
    std::string_view label;  // of a branch, where the text is no operand
  };
  struct Written {
    std::vector<Part> parts;
    bool is_address = false;
    bool is_vector = false;
    std::int64_t offset = 0;
    bool is_parameter = false;  // an address in parameter memory: the offset alone
  };

  // --- Words (parser.cpp)
  bool at_end() const { return at_ >= tokens_.size(); }
  std::string_view peek(std::size_t ahead = 0) const {
    return at_ + ahead < tokens_.size() ? tokens_[at_ + ahead].text : std::string_view();
  }
  std::string_view next() {
    if (at_end()) {
      fail("the text ends too early");
    }
    return tokens_[at_++].text;
  }
  bool take(std::string_view wanted) {
    if (peek() != wanted) {
      return false;
    }
    ++at_;
    return true;
  }
  void expect(std::string_view wanted);
  [[noreturn]] void fail(const std::string& message) const;
  std::int64_t number();

  // --- Directives (parser.cpp)
  void parse_top();
  void skip_line_of(std::int32_t line);
  void parse_variable(Space space);
  std::uint64_t initial_value();
  void parse_function(bool is_entry);
  std::vector<Parameter> parse_parameters(Function& function);
  void parse_body(Function& function);
  void parse_registers();
  void parse_location();
  void parse_call_parameter();
  Parameter parse_parameter(Function& function);
  Function& function_named(std::string_view name);
  void resolve_branches();
  void mark_used_results();

  // --- Instructions (parse_instruction.cpp)
  void parse_instruction();
  void parse_call(Instruction& instruction);
  Written parse_operand();
  Part parse_part();
  std::optional<Operand> special_named(std::string_view name) const;
  std::optional<std::uint64_t> constant_of(std::string_view text) const;
  Operand constant(std::uint64_t value);
  const Operation* resolve(std::string_view name, Instruction& instruction,
                           const std::vector<Written>& operands);
  const Operation* resolve_memory(std::string_view name, Instruction& instruction);
  void assign(Instruction& instruction, const std::vector<Written>& operands);
  bool parse_address_of_parameter(Instruction& instruction, std::string_view name);
  void put_to(Instruction& instruction, const Written& written);
  void put_from(Instruction& instruction, const Written& written);
  std::vector<ParameterMove> moves(const std::vector<std::string_view>& names,
                                   const std::vector<Parameter>& formal);
  const Parameter* parameter_named(std::string_view name) const;

  std::vector<Token> tokens_;
  std::size_t at_ = 0;
  std::unique_ptr<Module> module_ = std::make_unique<Module>();
  std::uint64_t next_global_ = kGlobalBase;
  std::map<std::uint64_t, Operand> constants_;
  std::map<std::string, const Symbol*, std::less<>> symbols_;
  std::string unknown_;  // instructions not known, each with its first line
  std::int32_t source_line_ = 0;
  std::int32_t source_file_ = 0;

  // Of the function at hand.
  Function* function_ = nullptr;
  std::vector<std::map<std::string, Operand, std::less<>>> scopes_;
  std::map<std::string, std::int32_t, std::less<>> labels_;
  std::vector<std::pair<std::int32_t, std::string>> branches_;  // pc and label
  std::vector<Parameter> call_parameters_;
  std::int64_t call_parameter_begin_ = 0;
  std::string depot_;
};

}  // namespace korvex::ptx
