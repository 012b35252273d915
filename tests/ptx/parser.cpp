// SPDX-License-Identifier: Apache-2.0
// Directives of PTX: variables, functions with their registers and parameters, labels.
#include "tests/ptx/parser.h"

#include <algorithm>
#include <charconv>
#include <span>

namespace korvex::ptx {
namespace {

std::int64_t aligned(std::int64_t offset, std::int64_t to) { return (offset + to - 1) / to * to; }

std::int64_t bytes_of_type(std::string_view type) {
  const std::size_t digit = type.find_first_of("0123456789");
  if (type == ".pred") {
    return 1;
  }
  if (digit == std::string_view::npos) {
    return 0;
  }
  return std::stoi(std::string(type.substr(digit))) / 8;
}

}  // namespace

void Parser::fail(const std::string& message) const {
  const std::int32_t line = at_ == 0 || tokens_.empty() ? 0 : tokens_[at_ - 1].line;
  throw Failure("PTX line " + std::to_string(line) + ": " + message);
}

void Parser::expect(std::string_view wanted) {
  const std::string_view found = next();
  if (found != wanted) {
    fail("'" + std::string(wanted) + "' expected, not '" + std::string(found) + "'");
  }
}

std::int64_t Parser::number() {
  const std::string_view text = next();
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    fail("a number expected, not '" + std::string(text) + "'");
  }
  return value;
}

std::unique_ptr<Module> Parser::parse() {
  while (!at_end()) {
    parse_top();
  }
  if (!unknown_.empty()) {
    throw Failure("unknown instructions:" + unknown_);
  }
  return std::move(module_);
}

void Parser::skip_line_of(std::int32_t line) {
  while (!at_end() && tokens_[at_].line == line) {
    ++at_;
  }
}

void Parser::parse_top() {
  const std::int32_t line = tokens_[at_].line;
  const std::string_view word = next();
  if (word == ".version" || word == ".target" || word == ".address_size") {
    skip_line_of(line);
  } else if (word == ".visible" || word == ".weak" || word == ".extern") {
    // Linkage: one file is the whole program here.
  } else if (word == ".global" || word == ".const") {
    parse_variable(Space::kGlobal);
  } else if (word == ".shared") {
    parse_variable(Space::kShared);
  } else if (word == ".func" || word == ".entry") {
    parse_function(word == ".entry");
  } else if (word == ".file") {
    const auto index = static_cast<std::size_t>(number());
    module_->source_files.resize(std::max(module_->source_files.size(), index + 1));
    const std::string_view quoted = next();
    module_->source_files[index] = quoted.substr(1, quoted.size() - 2);
    skip_line_of(line);
  } else if (word == ".section") {
    while (next() != "}") {
    }
  } else {
    fail("unknown directive '" + std::string(word) + "'");
  }
}

// 12, or generic(name): where a variable of global memory lies, as any address says it.
std::uint64_t Parser::initial_value() {
  const bool is_address = take("generic");
  if (is_address) {
    expect("(");
  }
  const std::string_view text = next();
  if (!is_address) {
    const std::optional<std::uint64_t> given = constant_of(text);
    if (!given) {
      fail("an initial value that is no number");
    }
    return *given;
  }
  const auto found = symbols_.find(text);
  if (found == symbols_.end() || found->second->space != Space::kGlobal) {
    fail("no variable of global memory '" + std::string(text) + "'");
  }
  expect(")");
  return found->second->address;
}

// .align 8 .b8 name[80] = {0, 1, ...};
void Parser::parse_variable(Space space) {
  std::int64_t alignment = 1;
  if (take(".align")) {
    alignment = number();
  }
  std::int64_t element = bytes_of_type(next());
  Symbol symbol;
  symbol.name = next();
  symbol.space = space;
  std::int64_t count = 1;
  if (take("[")) {
    count = number();
    expect("]");
  }
  symbol.bytes = static_cast<std::uint64_t>(element * count);
  if (take("=")) {
    const bool is_list = take("{");
    do {
      const std::uint64_t value = initial_value();
      for (std::int64_t i = 0; i < element; ++i) {
        symbol.initial.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
      }
    } while (is_list && take(","));
    if (is_list) {
      expect("}");
    }
    symbol.initial.resize(symbol.bytes);
  }
  expect(";");
  if (alignment > 256) {
    fail("an alignment above 256 bytes");
  }
  if (space == Space::kShared) {
    const auto begin = aligned(static_cast<std::int64_t>(module_->shared_bytes), 256);
    symbol.address = static_cast<std::uint64_t>(begin);
    module_->shared_bytes = symbol.address + symbol.bytes + kRedZone;
  }
  module_->symbols.push_back(symbol);
  Symbol& kept = module_->symbols.back();
  if (space == Space::kGlobal) {
    kept.address = next_global_;
    next_global_ = (kept.address + kept.bytes + 4096 + 255) / 256 * 256;
  }
  symbols_[kept.name] = &kept;
}

Function& Parser::function_named(std::string_view name) {
  if (Function* found = module_->find(name); found != nullptr) {
    return *found;
  }
  module_->functions.push_back(std::make_unique<Function>());
  module_->functions.back()->name = name;
  return *module_->functions.back();
}

// .param .align 8 .b8 name[16], or .param .u64 .ptr .global .align 1 name
Parameter Parser::parse_parameter(Function& function) {
  expect(".param");
  std::int64_t alignment = 1;
  if (take(".align")) {
    alignment = number();
  }
  Parameter parameter;
  parameter.bytes = bytes_of_type(next());
  if (take(".ptr")) {  // says of what it points to what nothing here relies on
    if (take(".global") || take(".shared") || take(".local")) {
    }
    if (take(".align")) {
      number();
    }
  }
  parameter.name = next();
  if (take("[")) {
    parameter.bytes *= number();
    expect("]");
  }
  parameter.offset = aligned(function.parameter_bytes, std::max<std::int64_t>(alignment, 16));
  function.parameter_bytes = parameter.offset + parameter.bytes;
  return parameter;
}

std::vector<Parameter> Parser::parse_parameters(Function& function) {
  std::vector<Parameter> parameters;
  if (!take("(")) {
    return parameters;
  }
  while (!take(")")) {
    parameters.push_back(parse_parameter(function));
    take(",");
  }
  return parameters;
}

void Parser::parse_function(bool is_entry) {
  Function header;  // declared first, and defined later with the same parameters
  header.results = parse_parameters(header);
  Function& function = function_named(next());
  header.parameters = parse_parameters(header);
  function.results = header.results;
  function.parameters = header.parameters;
  function.parameter_bytes = header.parameter_bytes;
  function.is_entry = is_entry;
  while (peek() != "{" && peek() != ";") {
    const std::string_view word = next();
    if (word == ".maxntid") {
      for (int i = 0; i < 3; ++i) {
        function.most_threads[static_cast<std::size_t>(i)] = static_cast<int>(number());
        if (!take(",")) {
          break;
        }
      }
    } else if (word == ".minnctapersm" || word == ".maxnreg") {
      number();
    } else if (word != ".noreturn") {
      fail("unknown directive '" + std::string(word) + "'");
    }
  }
  if (take(";")) {
    return;
  }
  expect("{");
  parse_body(function);
}

void Parser::parse_body(Function& function) {
  if (function.has_body) {
    fail(function.name + " is defined twice");
  }
  function_ = &function;
  function.has_body = true;
  function.begin = static_cast<std::int32_t>(module_->code.size());
  scopes_.assign(1, {});
  labels_.clear();
  branches_.clear();
  call_parameters_.clear();
  depot_.clear();
  call_parameter_begin_ = function.parameter_bytes;
  while (!scopes_.empty()) {
    const std::string_view word = peek();
    if (take("{")) {
      scopes_.emplace_back();
      call_parameters_.clear();
    } else if (take("}")) {
      scopes_.pop_back();
    } else if (word == ".reg") {
      ++at_;
      parse_registers();
    } else if (word == ".local") {
      ++at_;
      if (take(".align")) {
        number();
      }
      next();
      depot_ = next();
      expect("[");
      function.depot_bytes = number();
      expect("]");
      expect(";");
    } else if (word == ".shared") {
      ++at_;
      parse_variable(Space::kShared);
    } else if (word == ".param") {
      parse_call_parameter();
    } else if (word == ".pragma") {
      while (next() != ";") {
      }
    } else if (word == ".loc") {
      parse_location();
    } else if (peek(1) == ":") {
      labels_[std::string(word)] = static_cast<std::int32_t>(module_->code.size());
      at_ += 2;
    } else {
      parse_instruction();
    }
  }
  function.end = static_cast<std::int32_t>(module_->code.size());
  resolve_branches();
  mark_used_results();
  function_ = nullptr;
}

// .reg .b32 %r<17>; or .reg .b64 %SP;
void Parser::parse_registers() {
  next();
  const auto declare = [&](const std::string& name) {
    scopes_.back()[name] = function_->register_count++;
    function_->register_names.push_back(name);
  };
  do {
    const std::string name(next());
    if (take("<")) {
      const std::int64_t count = number();
      expect(">");
      for (std::int64_t i = 0; i < count; ++i) {
        declare(name + std::to_string(i));
      }
    } else {
      declare(name);
    }
  } while (take(","));
  expect(";");
}

void Parser::parse_location() {
  const std::int32_t line = tokens_[at_].line;
  ++at_;
  source_file_ = static_cast<std::int32_t>(number());
  source_line_ = static_cast<std::int32_t>(number());
  skip_line_of(line);
}

// Parameters of one call; those of the next call may lie in the same place.
void Parser::parse_call_parameter() {
  Function place;
  place.parameter_bytes = call_parameters_.empty()
                              ? call_parameter_begin_
                              : call_parameters_.back().offset + call_parameters_.back().bytes;
  call_parameters_.push_back(parse_parameter(place));
  expect(";");
  function_->parameter_bytes = std::max(function_->parameter_bytes, place.parameter_bytes);
}

void Parser::resolve_branches() {
  for (const auto& [pc, label] : branches_) {
    const auto found = labels_.find(label);
    if (found == labels_.end()) {
      fail("no label " + label + " in " + function_->name);
    }
    module_->code[static_cast<std::size_t>(pc)].target = found->second;
  }
}

// An atomic operation whose result nothing reads becomes a reduction, which observes nothing.
void Parser::mark_used_results() {
  std::vector<bool> is_read(static_cast<std::size_t>(function_->register_count));
  const auto own = std::span(module_->code).subspan(static_cast<std::size_t>(function_->begin));
  for (const Instruction& instruction : own) {
    for (std::size_t i = 0; i < instruction.from_count; ++i) {
      if (is_register(instruction.from[i])) {
        is_read[static_cast<std::size_t>(instruction.from[i])] = true;
      }
    }
    if (instruction.guard >= 0) {
      is_read[static_cast<std::size_t>(instruction.guard)] = true;
    }
  }
  for (Instruction& instruction : own) {
    instruction.has_used_result = instruction.operation->kind == Kind::kAtomic &&
                                  is_read[static_cast<std::size_t>(instruction.to[0])];
  }
}

std::unique_ptr<Module> parse(std::string_view text) { return Parser(text).parse(); }

}  // namespace korvex::ptx
