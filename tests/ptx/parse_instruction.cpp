// SPDX-License-Identifier: Apache-2.0
// One instruction of PTX: its guard, its name, its operands, and what they are in the machine.
#include <array>
#include <charconv>
#include <string>

#include "tests/ptx/parser.h"

namespace korvex::ptx {
namespace {

constexpr std::pair<std::string_view, Operand> kSpecials[] = {
    {"%tid.x", kTidX},       {"%tid.y", kTidY},       {"%tid.z", kTidZ},
    {"%ntid.x", kNtidX},     {"%ntid.y", kNtidY},     {"%ntid.z", kNtidZ},
    {"%ctaid.x", kCtaidX},   {"%ctaid.y", kCtaidY},   {"%ctaid.z", kCtaidZ},
    {"%nctaid.x", kNctaidX}, {"%nctaid.y", kNctaidY}, {"%nctaid.z", kNctaidZ},
    {"%laneid", kLaneId}};

std::vector<std::string_view> words_of(std::string_view name) {
  std::vector<std::string_view> words;
  for (std::size_t at = 0; at <= name.size();) {
    const std::size_t dot = std::min(name.find('.', at), name.size());
    words.push_back(name.substr(at, dot - at));
    at = dot + 1;
  }
  return words;
}

std::optional<Space> space_of(std::string_view word) {
  if (word == "global") {
    return Space::kGlobal;
  }
  if (word == "shared") {
    return Space::kShared;
  }
  if (word == "local") {
    return Space::kLocal;
  }
  if (word == "param") {
    return Space::kParam;
  }
  return std::nullopt;
}

// The width in bytes of a type such as u64; 0 where it is none.
std::uint8_t width_of(std::string_view type) {
  for (const auto& [bits, bytes] :
       {std::pair{"8", 1}, std::pair{"16", 2}, std::pair{"32", 4}, std::pair{"64", 8}}) {
    for (const char letter : std::string_view("busf")) {
      if (type == letter + std::string(bits)) {
        return static_cast<std::uint8_t>(bytes);
      }
    }
  }
  return 0;
}

}  // namespace

std::optional<Operand> Parser::special_named(std::string_view name) const {
  for (const auto& [known, operand] : kSpecials) {
    if (name == known) {
      return operand;
    }
  }
  if (!depot_.empty() && name == depot_) {
    return kDepot;
  }
  return std::nullopt;
}

// 12, -12, 0x1f, 0x1fU, 0d3FF0000000000000; nothing where the text is no number.
std::optional<std::uint64_t> Parser::constant_of(std::string_view text) const {
  const bool is_double = text.starts_with("0d") || text.starts_with("0D");
  const bool is_hexadecimal = is_double || text.starts_with("0x") || text.starts_with("0X");
  std::string_view digits = is_hexadecimal ? text.substr(2) : text;
  if (digits.ends_with('U')) {  // unsigned, as all are here
    digits.remove_suffix(1);
  }
  std::uint64_t value = 0;
  if (text.starts_with('-')) {
    std::int64_t negative = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), negative);
    if (error != std::errc() || end != text.data() + text.size()) {
      return std::nullopt;
    }
    return static_cast<std::uint64_t>(negative);
  }
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value,
                                            is_hexadecimal ? 16 : 10);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    return std::nullopt;
  }
  return value;
}

Operand Parser::constant(std::uint64_t value) {
  const auto found = constants_.find(value);
  if (found != constants_.end()) {
    return found->second;
  }
  const auto operand =
      static_cast<Operand>(-1 - static_cast<std::int64_t>(module_->constants.size()));
  module_->constants.emplace_back().fill(value);
  return constants_[value] = operand;
}

Parser::Part Parser::parse_part() {
  if (peek() == "!") {
    fail("a negated operand");
  }
  const std::string_view text = next();
  for (auto scope = scopes_.rbegin(); scope != scopes_.rend(); ++scope) {
    const auto found = scope->find(text);
    if (found != scope->end()) {
      return {found->second, {}};
    }
  }
  if (const auto special = special_named(text)) {
    return {*special, {}};
  }
  if (const auto value = constant_of(text)) {
    return {constant(*value), {}};
  }
  if (const auto found = symbols_.find(text); found != symbols_.end()) {
    if (found->second->space == Space::kShared) {
      function_->shared.push_back(found->second);
    }
    return {constant(found->second->address), {}};
  }
  return {constant(0), text};
}

const Parameter* Parser::parameter_named(std::string_view name) const {
  const std::vector<Parameter>* lists[] = {&call_parameters_, &function_->parameters,
                                           &function_->results};
  for (const auto* list : lists) {
    for (const Parameter& parameter : *list) {
      if (parameter.name == name) {
        return &parameter;
      }
    }
  }
  return nullptr;
}

Parser::Written Parser::parse_operand() {
  Written written;
  if (take("{")) {
    written.is_vector = true;
    do {
      written.parts.push_back(parse_part());
    } while (take(","));
    expect("}");
  } else if (take("[")) {
    written.is_address = true;
    if (const Parameter* parameter = parameter_named(peek()); parameter != nullptr) {
      ++at_;
      written.is_parameter = true;
      written.offset = parameter->offset;
      written.parts.push_back({constant(0), {}});
    } else {
      written.parts.push_back(parse_part());
      if (!written.parts[0].label.empty()) {
        fail("no variable " + std::string(written.parts[0].label));
      }
    }
    if (take("+")) {
      written.offset += number();
    }
    expect("]");
  } else {
    written.parts.push_back(parse_part());
    if (take("|")) {
      written.parts.push_back(parse_part());  // a second result
    }
    if (take("+")) {
      fail("a sum as an operand");
    }
  }
  return written;
}

void Parser::put_to(Instruction& instruction, const Written& written) {
  for (const Part& part : written.parts) {
    if (!is_register(part.operand)) {
      fail("the result is no register");
    }
    if (instruction.to_count == instruction.to.size()) {
      fail("too many results");
    }
    instruction.to[instruction.to_count++] = part.operand;
  }
}

void Parser::put_from(Instruction& instruction, const Written& written) {
  for (const Part& part : written.parts) {
    if (!part.label.empty()) {
      fail("unknown operand '" + std::string(part.label) + "'");
    }
    if (instruction.from_count == instruction.from.size()) {
      fail("too many operands");
    }
    instruction.from[instruction.from_count++] = part.operand;
  }
}

// ld.global.nc.v2.f64 and its like: the shape of the access goes into the instruction.
const Operation* Parser::resolve_memory(std::string_view name, Instruction& instruction) {
  const std::vector<std::string_view> words = words_of(name);
  std::string chosen(words[0]);
  for (std::size_t i = 1; i + 1 < words.size(); ++i) {
    if (const auto space = space_of(words[i]); space && i == 1) {
      instruction.space = *space;
    } else if (words[i] == "nc" && chosen == "ld" && instruction.space == Space::kGlobal) {
      // Memory that nothing writes: the machine looks for races anyway.
    } else if ((words[i] == "v2" || words[i] == "v4") && (chosen == "ld" || chosen == "st")) {
      instruction.elements = words[i] == "v2" ? 2 : 4;
    } else {
      chosen += "." + std::string(words[i]);
    }
  }
  instruction.width = width_of(words.back());
  instruction.is_signed = words.back().starts_with('s');
  return instruction.width == 0 ? nullptr : find_operation(chosen);
}

const Operation* Parser::resolve(std::string_view name, Instruction& instruction,
                                 const std::vector<Written>& operands) {
  const std::string_view family = name.substr(0, name.find('.'));
  if (family == "ld" || family == "st" || family == "atom" || family == "red") {
    return resolve_memory(name, instruction);
  }
  if (name.starts_with("mov.b") && operands.size() == 2 &&
      (operands[0].is_vector || operands[1].is_vector)) {
    instruction.width = width_of(name.substr(4));
    return find_operation((operands[0].is_vector ? "unpack." : "pack.") +
                          std::string(name.substr(4)));
  }
  return find_operation(name);
}

void Parser::assign(Instruction& instruction, const std::vector<Written>& operands) {
  const Kind kind = instruction.operation->kind;
  const bool has_result = kind == Kind::kCompute || kind == Kind::kLoad || kind == Kind::kAtomic ||
                          (kind == Kind::kMeeting && operands.size() > 1) ||
                          (kind == Kind::kBarrier && operands.size() > 2);  // of a vote
  bool is_second = false;
  for (std::size_t i = 0; i < operands.size(); ++i) {
    const Written& written = operands[i];
    if (i == 0 && has_result) {
      put_to(instruction, written);
      continue;
    }
    if (written.is_address) {
      (is_second ? instruction.second_offset : instruction.offset) = written.offset;
      if (written.is_parameter != (instruction.space == Space::kParam)) {
        fail("parameter memory is reached by name alone");
      }
      is_second = true;
    }
    put_from(instruction, written);
  }
}

// mov.b64 %rd1, parameter: the address of a copy in local memory, behind what the function keeps
// there.
bool Parser::parse_address_of_parameter(Instruction& instruction, std::string_view name) {
  const Parameter* parameter =
      peek(1) == "," && peek(3) == ";" ? parameter_named(peek(2)) : nullptr;
  if (!name.starts_with("mov.") || parameter == nullptr || function_->is_entry) {
    return false;
  }
  const std::int64_t place = (function_->depot_bytes + 15) / 16 * 16;
  function_->depot_bytes = place + parameter->bytes;
  function_->addressed.push_back({place, parameter->offset, parameter->bytes});
  instruction.operation = find_operation("add.u64");
  put_to(instruction, parse_operand());
  at_ += 3;
  instruction.from = {kDepot, constant(static_cast<std::uint64_t>(place))};
  instruction.from_count = 2;
  return true;
}

void Parser::parse_instruction() {
  Instruction instruction;
  instruction.line = tokens_[at_].line;
  instruction.source_line = source_line_;
  instruction.source_file = source_file_;
  if (take("@")) {
    instruction.is_negated = take("!");
    instruction.guard = parse_part().operand;
  }
  const std::string name(next());
  const auto pc = static_cast<std::int32_t>(module_->code.size());
  if (name == "call.uni" || name == "call") {
    instruction.operation = find_operation("call");
    parse_call(instruction);
  } else if (name == "bra.uni" || name == "bra") {
    instruction.operation = find_operation("bra");
    branches_.emplace_back(pc, std::string(next()));
    expect(";");
  } else if (!parse_address_of_parameter(instruction, name)) {
    std::vector<Written> operands;
    while (!take(";")) {
      operands.push_back(parse_operand());
      take(",");
    }
    instruction.operation = resolve(name, instruction, operands);
    if (instruction.operation == nullptr) {
      unknown_ += " " + name + " at line " + std::to_string(instruction.line) + ";";
      return;
    }
    assign(instruction, operands);
  }
  module_->code.push_back(instruction);
}

std::vector<ParameterMove> Parser::moves(const std::vector<std::string_view>& names,
                                         const std::vector<Parameter>& formal) {
  if (names.size() != formal.size()) {
    fail("a call with another number of parameters");
  }
  std::vector<ParameterMove> result;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const Parameter* actual = parameter_named(names[i]);
    if (actual == nullptr) {
      fail("no parameter " + std::string(names[i]));
    }
    if (actual->bytes != formal[i].bytes) {
      fail("a parameter of another size");
    }
    result.push_back({actual->offset, formal[i].offset, actual->bytes});
  }
  return result;
}

// call (result), name, (first, second); the result and the parameters may be missing.
void Parser::parse_call(Instruction& instruction) {
  const auto list = [&] {
    std::vector<std::string_view> names;
    expect("(");
    while (!take(")")) {
      names.push_back(next());
      take(",");
    }
    return names;
  };
  std::vector<std::string_view> results;
  if (peek() == "(") {
    results = list();
    expect(",");
  }
  Function* callee = module_->find(next());
  if (callee == nullptr) {
    fail("a call of a function that is not declared");
  }
  std::vector<std::string_view> arguments;
  if (take(",")) {
    arguments = list();
  }
  expect(";");
  CallSite site;
  site.callee = callee;
  site.arguments = moves(arguments, callee->parameters);
  site.results = moves(results, callee->results);
  function_->callees.push_back(callee);
  instruction.target = static_cast<std::int32_t>(module_->calls.size());
  module_->calls.push_back(site);
}

}  // namespace korvex::ptx
