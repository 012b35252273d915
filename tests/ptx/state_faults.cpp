// SPDX-License-Identifier: Apache-2.0
// The faults in the kernels of states: where each is planted, whose cases are run, and by which
// message the first that fails must do so.
#include "tests/ptx/state_faults.h"

#include <memory>

#include "tests/ptx/planting.h"
#include "tests/ptx/state_runner.h"

namespace korvex::ptx {
namespace {

struct StateFault {
  Planting at;
  const char* kernel;      // whose cases are run
  const char* noticed_by;  // a regular expression for a part of the message
};

constexpr const char* kAddElement =
    "7WarpSumINS0_14CountingThreadINS0_12DeviceThreadEEEE11add_elementEd";
constexpr const char* kFlush = "7WarpSumINS0_14CountingThreadINS0_12DeviceThreadEEEE5flush";
constexpr const char* kTakeTurns = "14RoundedResultsEE10take_turnsEb";
constexpr std::uint64_t kMostSteps = 3'000'000;  // of a launch

// A row is one list of values, those of its planting among them.
#pragma GCC diagnostic ignored "-Wmissing-braces"
// clang-format off
const StateFault kFaults[] = {
    // --- Addresses
    {"one element too many at the end of the array", "korvex_widen", R"(setp\.ge\.s64)", 0,
     "setp.gt.s64", "korvex_widen", "out of bounds|belong to no object"},
    {"one step too many through a segment", "korvex_sum_segments", R"(setp\.lt\.s64)", 0,
     "setp.le.s64", "korvex_sum_segments", "out of bounds|belong to no object|result differs"},
    {"a result 4 bytes late", "korvex_running_sums", R"((st\.global\.f64\s+\[%rd\d+)\])", 0,
     "$1+4]", "korvex_running_sums", "misaligned address"},
    {"a store to shared memory becomes generic", "korvex_add_elements", R"(st\.shared\.u32(\s+\[_ZZ19korvex_add_elementsE5block\+4288\]))", 0,
     "st.u32$1", "korvex_add_elements", "is no address of global memory"},
    {"counts beyond the memory of the block", "korvex_add_elements", R"((ld\.shared\.u64\s+%rd\d+, \[%r\d+)\+4888\])", 0,
     "$1+48880]", "korvex_add_elements", "belong to no object|out of bounds"},
    // --- Barriers
    {"no barrier after a block has zeroed its memory", "korvex_add_elements", R"(bar\.sync\s+0;)", 0,
     "", "korvex_add_elements", "race"},
    {"no barrier before the digits of a block are added up", "korvex_add_elements", R"(bar\.sync\s+0;)", 1,
     "", "korvex_add_elements", "race"},
    {"the same of products", "korvex_add_products", R"(bar\.sync\s+0;)", 1,
     "", "korvex_add_products", "race"},
    {"no barrier before the words of a state are read", "korvex_settle_state", R"(bar\.sync\s+0;)", 0,
     "", "korvex_settle_state", "race"},
    {"no barrier before settled words are stored", "korvex_settle_state", R"(bar\.sync\s+0;)", 1,
     "", "korvex_settle_state", "race"},
    {"no barrier before a state is rounded", "korvex_round_state", R"(bar\.sync\s+0;)", 0,
     "", "korvex_round_state", "race"},
    {"no barrier before the exponents of a row are read", "korvex_multiply", R"(bar\.sync\s+0;)", 0,
     "", "korvex_multiply", "race"},
    {"no barrier before it is asked whether an element waits", "korvex_multiply", R"(bar\.sync\s+0;)", 1,
     "", "korvex_multiply", "race"},
    {"no barrier before the next tile", "korvex_multiply", R"(bar\.sync\s+0;)", 2,
     "", "korvex_multiply", "race"},
    {"no barrier between two turns at long sums", kTakeTurns, R"(bar\.sync\s+0;)", 0,
     "", "korvex_multiply", "race|result differs"},
    {"no barrier before the sums of other runs are read", "korvex_join_segments", R"(bar\.sync\s+0;)", 0,
     "", "korvex_join_segments", "race"},
    {"no barrier between reading and writing them", "korvex_join_segments", R"(bar\.sync\s+0;)", 1,
     "", "korvex_join_segments", "race"},
    {"no barrier before the digits of a team are added up", "korvex_add_axes", R"(bar\.sync\s+0;)", 0,
     "", "korvex_add_axes", "race"},
    {"no barrier before a team takes its next item", "korvex_multiply_axes", R"(bar\.sync\s+0;)", 1,
     "", "korvex_multiply_axes", "race"},
    {"a barrier that a part of the block reaches", "korvex_widen", R"(ret;)", 0,
     "{ .reg .pred %few; .reg .b32 %at; mov.u32 %at, %tid.x; setp.lt.u32 %few, %at, 20; @%few bar.sync 0; } ret;",
     "korvex_widen", "barrier divergence"},
    {"no meeting of a warp before its first lane adds units", kFlush, R"(bar\.warp\.sync\s+-1;)", 0,
     "", "korvex_add_elements", "race"},
    // --- Votes and shuffles
    {"a vote without lane 31", "korvex_add_elements", R"((vote\.sync\.any\.pred\s+%p\d+, %p\d+, )%r\d+)", 0,
     "$1 2147483647", "korvex_add_elements", "wrong mask"},
    {"a shuffle without lane 0", "korvex_add_products", R"((shfl\.sync\.bfly\.b32\s+\S+ \S+ \S+ \S+ )%r\d+)", 0,
     "$1 -2", "korvex_add_products", "wrong mask"},
    // --- Atomic additions
    {"blocks add to a digit of the state without an atomic operation", "korvex_add_elements",
     R"(atom\.global\.add\.u64\s+(%rd\d+), \[(%rd\d+)\], (%rd\d+);)", 0,
     "{ .reg .b64 %sum; ld.global.u64 $1, [$2]; add.s64 %sum, $1, $3; st.global.u64 [$2], %sum; }", "korvex_add_elements", "race"},
    {"parts of an output are added without an atomic operation", "korvex_add_axes",
     R"(atom\.global\.add\.u64\s+(%rd\d+), \[(%rd\d+)\], (%rd\d+);)", 0,
     "{ .reg .b64 %sum; ld.global.u64 $1, [$2]; add.s64 %sum, $1, $3; st.global.u64 [$2], %sum; }", "korvex_add_axes", "race"},
    {"numbers that name no segment are not counted", "korvex_add_by_ids", R"(atom\.global\.add\.u64.*;)", 0,
     "", "korvex_add_by_ids", "result differs"},
    {"lanes add to a digit without an atomic operation", kAddElement,
     R"(red\.shared\.add\.u64 \[(%r\d+)\], (%rd\d+);)", 0,
     "{ .reg .b64 %sum; ld.shared.u64 %sum, [$1]; add.s64 %sum, %sum, $2; st.shared.u64 [$1], %sum; }", "korvex_add_elements", "race"},
    {"elements are not counted", "korvex_add_elements", R"(atom\.global\.add\.u64.*;)", 3,
     "", "korvex_add_elements", "result differs"},
    {"an element that waits is not noted", "korvex_multiply", R"(red\.shared\.or\.b32.*;)", 0,
     "", "korvex_multiply", "result differs"},
    // --- Values
    {"a register that nothing writes", "korvex_widen", R"(mov\.u32\s+%r\d+, %nctaid\.z;)", 0,
     "", "korvex_widen", "was never written|nobody wrote"},
    {"shared memory that nothing writes", "korvex_multiply", R"(st\.shared\.u32\s+\[_ZZ15korvex_multiplyE6memory\+8192\], %r\d+;)", 0,
     "", "korvex_multiply", "nobody wrote|was never written"},
    {"a part of a segment's memory that nothing writes", "korvex_sum_segments", R"(st\.global\.u32\s+\[%rd\d+\+36\], %r\d+;)", 0,
     "", "korvex_sum_segments", "nobody wrote|was never written"},
    {"two registers change places", "korvex_widen", R"(sub\.rn\.f64(\s+%\w+, )(%\w+), (%\w+);)", 0,
     "sub.rn.f64$1$3, $2;", "korvex_widen", "result differs"},
    {"a result that is not stored", "korvex_round_state", R"(st\.global\.f64\s.*;)", 0,
     "", "korvex_round_state", "result differs"},
    {"one of many results that is not stored", "korvex_round_states", R"(st\.global\.f64\s.*;)", 0,
     "", "korvex_round_states", "result differs"},
    {"a fused operation becomes two", "korvex_add_products", R"(fma\.rn\.f64(\s+)(%\w+), (\S+), (\S+), (\S+);)", 0,
     "mul.rn.f64$1$2, $3, $4; add.rn.f64$1$2, $2, $5;", "korvex_add_products", "result differs"},
    {"a loop that does not end", "korvex_settle_state", R"(ret;)", 0,
     "$$L_for_ever: bra.uni $$L_for_ever;", "korvex_settle_state", "too many steps"},
};
// clang-format on

using launches::Failure;
using launches::StateCase;

const kernels::StateKernelRow& row_of(const StateFault& fault) {
  for (const auto& row : kernels::kStateKernels) {
    if (std::string(row.name) == fault.kernel) {
      return row;
    }
  }
  throw Failure(std::string("no kernel ") + fault.kernel);
}

struct Outcome {
  std::string message = "nothing";
  std::vector<StateCase> failed;  // the case, if any
};

// What the machine says of a text, up to the first case that fails.
Outcome outcome(const launches::HostLibrary& host, const std::string& text,
                const std::vector<StateCase>& cases, Figures& figures) {
  Outcome found;
  std::unique_ptr<Machine> machine;
  try {
    machine = std::make_unique<Machine>(parse(text));
    MachineOfStates states(*machine, kMostSteps);
    for (const StateCase& one : cases) {
      found.failed = {one};
      launches::run_state_case(states, host.exact(), one);
    }
    found.failed.clear();
  } catch (const Failure& failure) {
    found.message = failure.what();
  }
  if (machine != nullptr) {
    figures += machine->figures();
  }
  return found;
}

bool is_noticed(const StateFault& fault, const launches::HostLibrary& host, const Module& module,
                const std::string& text, std::uint64_t seed, Figures& figures) {
  Outcome found;
  try {
    const std::vector<StateCase> cases = launches::state_cases_of(row_of(fault), false, seed);
    found = outcome(host, planted(fault.at, module, text), cases, figures);
  } catch (const Failure& failure) {
    found.message = failure.what();
  }
  const Outcome untouched = outcome(host, text, found.failed, figures);
  if (untouched.message != "nothing") {
    std::printf("the launch fails without the fault: %s\n", untouched.message.c_str());
  }
  return is_expected(fault.at, found.message, fault.noticed_by) && untouched.message == "nothing";
}

}  // namespace

FaultCount plant_faults_in_states(const launches::HostLibrary& host, const Module& module,
                                  const std::string& text, std::uint64_t seed) {
  FaultCount count;
  for (const StateFault& fault : kFaults) {
    ++count.planted;
    count.noticed += is_noticed(fault, host, module, text, seed, count.figures) ? 1 : 0;
  }
  return count;
}

}  // namespace korvex::ptx
