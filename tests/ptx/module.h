// SPDX-License-Identifier: Apache-2.0
// A file of PTX, parsed: functions, symbols and instructions with their operands resolved.
//
// All instructions of the file stand in one list; a program counter is a place in it. A register
// is a number within its function, 32 lanes wide.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tests/launches/failure.h"

namespace korvex::ptx {

constexpr int kLanes = 32;
constexpr std::uint32_t kAllLanes = 0xffffffff;

// What makes a run a failure: a fault of the program that is run, or a text that is not understood.
using launches::Failure;

enum class Space : std::uint8_t { kGeneric, kGlobal, kShared, kLocal, kParam };

// Generic addresses: which window an address lies in tells its space. Nothing lies at 0.
constexpr std::uint64_t kSharedWindow = std::uint64_t{1} << 40;
constexpr std::uint64_t kLocalWindow = std::uint64_t{2} << 40;
constexpr std::uint64_t kWindowBytes = std::uint64_t{1} << 32;
constexpr std::uint64_t kGlobalBase = std::uint64_t{4} << 40;
constexpr std::uint64_t kFirstOffset = 1024;  // of shared and of local memory
constexpr std::uint64_t kRedZone = 64;        // bytes that belong to nothing, after each object

// An operand that is read: a register (0 or more), a special register, or a constant (below 0).
using Operand = std::int32_t;
constexpr Operand kFirstSpecial = 1 << 24;
enum Special : Operand {
  kTidX = kFirstSpecial,
  kTidY,
  kTidZ,
  kNtidX,
  kNtidY,
  kNtidZ,
  kCtaidX,
  kCtaidY,
  kCtaidZ,
  kNctaidX,
  kNctaidY,
  kNctaidZ,
  kLaneId,
  kDepot,  // where the local memory of the function begins
  kEndOfSpecial
};
constexpr bool is_register(Operand operand) { return operand >= 0 && operand < kFirstSpecial; }

struct Operation;
struct Function;

struct Instruction {
  const Operation* operation = nullptr;
  std::array<std::int32_t, 4> to{};  // registers that are written
  std::array<Operand, 5> from{};
  std::uint8_t to_count = 0;
  std::uint8_t from_count = 0;
  bool is_negated = false;  // the guard
  std::int32_t guard = -1;  // a predicate register
  // Memory: from[0] holds the address, save in parameter space, where it is the offset alone.
  Space space = Space::kGeneric;
  std::uint8_t width = 0;     // bytes of one element
  std::uint8_t elements = 1;  // of a vector
  bool is_signed = false;
  bool has_used_result = false;  // of an atomic operation: something reads it
  std::int64_t offset = 0;
  std::int64_t second_offset = 0;  // cp.async: of its source
  std::int32_t target = -1;        // of a branch: a program counter; of a call: a place in calls
  std::int32_t line = 0;           // of the PTX
  std::int32_t source_line = 0;    // of the source, where the PTX has .loc
  std::int32_t source_file = 0;
  std::uint64_t hits = 0;
};

// Moves of bytes between the parameter memory of caller and callee.
struct ParameterMove {
  std::int64_t caller_offset;
  std::int64_t callee_offset;
  std::int64_t bytes;
};

struct CallSite {
  Function* callee = nullptr;
  std::vector<ParameterMove> arguments;
  std::vector<ParameterMove> results;
};

struct Parameter {
  std::string name;
  std::int64_t offset = 0;  // in the parameter memory of a frame
  std::int64_t bytes = 0;
};

struct Symbol {
  std::string name;
  Space space = Space::kGlobal;
  std::uint64_t address = 0;  // an offset for shared memory
  std::uint64_t bytes = 0;
  std::vector<std::uint8_t> initial;  // empty where nothing is given
};

struct Function {
  std::string name;
  bool is_entry = false;
  bool has_body = false;
  std::int32_t begin = 0;  // program counters
  std::int32_t end = 0;
  std::int32_t register_count = 0;
  std::int64_t parameter_bytes = 0;  // own ones, results, and those of calls made
  std::int64_t depot_bytes = 0;
  std::vector<Parameter> parameters;
  std::vector<Parameter> results;
  // Parameters whose address is taken lie in local memory too: offset there, offset, bytes.
  std::vector<ParameterMove> addressed;
  std::array<int, 3> most_threads{0, 0, 0};
  std::vector<std::string> register_names;
  std::vector<Function*> callees;
  std::vector<const Symbol*> shared;  // that the function names itself
};

struct Module {
  std::vector<Instruction> code;
  std::deque<std::array<std::uint64_t, kLanes>> constants;
  std::vector<CallSite> calls;
  std::vector<std::unique_ptr<Function>> functions;
  std::deque<Symbol> symbols;
  std::vector<std::string> source_files;
  std::uint64_t shared_bytes = kFirstOffset;

  Function* find(std::string_view name) const {
    for (const auto& function : functions) {
      if (function->name == name) {
        return function.get();
      }
    }
    return nullptr;
  }
  const Function& function_at(std::int32_t pc) const {
    for (const auto& function : functions) {
      if (function->has_body && pc >= function->begin && pc < function->end) {
        return *function;
      }
    }
    throw Failure("no function holds this program counter");
  }
};

// Throws a Failure that names each instruction it does not know, and its line.
std::unique_ptr<Module> parse(std::string_view text);

}  // namespace korvex::ptx
