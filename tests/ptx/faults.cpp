// SPDX-License-Identifier: Apache-2.0
// The faults in the kernels of the table: where each is planted, the launch that must fail, and by
// which message.
#include "tests/ptx/faults.h"

#include <cstdio>

#include "korvex/kernels/states.h"
#include "tests/ptx/cases.h"
#include "tests/ptx/planting.h"
#include "tests/ptx/state_faults.h"

namespace korvex::ptx {
namespace {

struct Fault {
  Planting at;
  const char* kernel;  // that is launched
  std::int64_t n;
  unsigned blocks;
  Data data;
  const char* noticed_by;  // a regular expression for a part of the message
};

constexpr const char* kCollectSum =
    "collect_gridINS0_12DeviceThreadENS_10arithmetic13BasicExactSum";
constexpr const char* kAddToBlock = "7WarpSumINS0_12DeviceThreadEE11add_elementEd";
constexpr std::uint64_t kMostSteps = 3'000'000;

// A row is one list of values, those of its planting among them.
#pragma GCC diagnostic ignored "-Wmissing-braces"
// clang-format off
const Fault kFaults[] = {
    // --- Addresses
    {"a vector load starts 8 bytes late", "tqx_sum_kernel", R"(ld\.global\.nc\.v2\.f64\s*(\{.*\}),\s*\[(%rd\d+)\])", 0,
     "ld.global.nc.v2.f64 $1, [$2+8]", "tqx_sum_kernel", 4609, 1, Data::kModerate, "misaligned address"},
    {"a store to shared memory becomes generic", kCollectSum, R"(st\.shared\.u64(\s+\[_ZN6korvex7kernels16sum_block_memoryE\+4296\]))", 0,
     "st.u64$1", "tqx_sum_kernel", 4609, 2, Data::kModerate, "is no address of global memory"},
    {"a shared address lies beyond the variable", kCollectSum, R"((ld\.shared\.u32\s+%r\d+, \[_ZN6korvex7kernels16sum_block_memoryE)\+4288)", 0,
     "$1+8192", "tqx_sum_kernel", 4609, 2, Data::kModerate, "belong to no object"},
    {"a local address lies beyond the stack of its call", "12accurate_expEd", R"((st\.local\.u64\s+\[%rd\d+)\+32\])", 0,
     "$1+4096]", "tqx_exp_kernel", 257, 1, Data::kHard, "out of bounds"},
    {"one element too many at the end of the array", "tqx_add_kernel", R"(setp\.ge\.s64)", 0,
     "setp.gt.s64", "tqx_add_kernel", 257, 2, Data::kModerate, "out of bounds"},
    {"one step too many through the array", "tqx_neg_kernel", R"(setp\.lt\.s64)", 0,
     "setp.le.s64", "tqx_neg_kernel", 513, 1, Data::kModerate, "out of bounds"},
    // --- Barriers
    {"no barrier before the last block adds up", kCollectSum, R"(bar\.sync\s+0;)", 0,
     "", "tqx_sum_kernel", 4609, 2, Data::kModerate, "race"},
    {"no barrier after a block has zeroed its memory", "tqx_sum_kernel", R"(bar\.sync\s+0;)", 0,
     "", "tqx_sum_kernel", 4609, 1, Data::kSpecial, "race"},
    {"no barrier between two steps of a joining tree", "tqx_var_kernel", R"(bar\.sync\s+0;)", 1,
     "", "tqx_var_kernel", 513, 1, Data::kModerate, "race"},
    {"no barrier before a step of the running sums", "tqx_cumsum_kernel", R"(bar\.sync\s+0;)", 0,
     "", "tqx_cumsum_kernel", 513, 1, Data::kModerate, "race"},
    {"no barrier between reading and writing in such a step", "tqx_cumsum_kernel", R"(bar\.sync\s+0;)", 1,
     "", "tqx_cumsum_kernel", 513, 1, Data::kModerate, "race"},
    {"no barrier before all threads read the root", "tqx_rms_norm_kernel", R"(bar\.sync\s+0;)", 2,
     "", "tqx_rms_norm_kernel", 513, 1, Data::kModerate, "race|nobody wrote"},
    {"no meeting of a warp that has zeroed its digits", "tqx_rms_norm_kernel", R"(bar\.warp\.sync\s+-1;)", 0,
     "", "tqx_rms_norm_kernel", 513, 1, Data::kSpecial, "race"},
    {"a barrier that a part of the block reaches", "tqx_neg_kernel", R"(ret;)", 0,
     "{ .reg .pred %few; .reg .b32 %at; mov.u32 %at, %tid.x; setp.lt.u32 %few, %at, 200; @%few bar.sync 0; } ret;",
     "tqx_neg_kernel", 257, 1, Data::kModerate, "barrier divergence"},
    {"a vote of the block that is not held", "tqx_tanh_kernel", R"(bar\.red\.or\.pred\s.*;)", 0,
     "", "tqx_tanh_kernel", 257, 1, Data::kModerate, "was never written|nobody wrote"},
    // --- Votes and shuffles
    {"a vote without lane 31", "tqx_sum_kernel", R"((vote\.sync\.any\.pred\s+%p\d+, %p\d+, )%r\d+)", 0,
     "$1 2147483647", "tqx_sum_kernel", 4609, 1, Data::kModerate, "wrong mask"},
    {"a shuffle without lane 0", "WarpSumINS0_12DeviceThreadEE5flush", R"((shfl\.sync\.bfly\.b32\s+\S+ \S+ \S+ \S+ )%r\d+)", 0,
     "$1 -2", "tqx_sum_kernel", 4609, 1, Data::kShape, "wrong mask"},
    // --- Between blocks
    {"no fence after a block has handed in", "tqx_sum_kernel", R"(membar\.gl;)", 0,
     "", "tqx_sum_kernel", 4609, 2, Data::kModerate, "race"},
    {"no fence before the last block collects", "tqx_sum_kernel", R"(membar\.gl;)", 1,
     "", "tqx_sum_kernel", 4609, 2, Data::kModerate, "race"},
    {"no fence after a block of the dot product has handed in", "tqx_dot_kernel", R"(membar\.gl;)", 0,
     "", "tqx_dot_kernel", 4609, 2, Data::kModerate, "race"},
    {"no fence before the last block of the dot product collects", "tqx_dot_kernel", R"(membar\.gl;)", 1,
     "", "tqx_dot_kernel", 4609, 2, Data::kModerate, "race"},
    {"the arrival of a block is no atomic operation", "tqx_sum_kernel", R"(atom\.global\.add\.u64\s+(%rd\d+), \[(%rd\d+)\], 1;)", 0,
     "{ .reg .b64 %sum; ld.global.u64 $1, [$2]; add.s64 %sum, $1, 1; st.global.u64 [$2], %sum; }",
     "tqx_sum_kernel", 4609, 2, Data::kModerate, "race"},
    {"the count of blocks is left for the next launch", kCollectSum, R"(atom\.global\.exch\.b64\s+\S+ \S+ 0;)", 2,
     "", "tqx_sum_kernel", 4609, 2, Data::kModerate, "left behind"},
    {"lanes add to a digit without an atomic operation", kAddToBlock,
     R"(red\.shared\.add\.u64 \[(%r\d+)\], (%rd\d+);)", 0,
     "{ .reg .b64 %sum; ld.shared.u64 %sum, [$1]; add.s64 %sum, %sum, $2; st.shared.u64 [$1], %sum; }", "tqx_sum_kernel", 513, 1, Data::kSpecial, "race"},
    // --- Over the whole device
    {"no fence after a block has handed in its product", "tqx_prod_device_kernel", R"(membar\.gl;)", 0,
     "", "tqx_prod_device_kernel", 4609, 2, Data::kModerate, "race"},
    {"no fence before the last block takes the products of all", "tqx_prod_device_kernel", R"(membar\.gl;)", 1,
     "", "tqx_prod_device_kernel", 4609, 2, Data::kModerate, "race"},
    {"no barrier between two steps of joining products", "10join_partsINS_10arithmetic14ElementProduct", R"(bar\.sync\s+0;)", 0,
     "", "tqx_prod_device_kernel", 513, 1, Data::kModerate, "race"},
    {"the count of products is left for the next launch", "tqx_prod_device_kernel", R"(atom\.global\.exch\.b64\s+\S+ \S+ 0;)", 0,
     "", "tqx_prod_device_kernel", 4609, 2, Data::kModerate, "left behind"},
    {"the first launch of an RMS norm leaves out a part of the root", "12find_root_of",
     R"(st\.global\.f64\s+\[_ZN6korvex7kernels11root_memoryE\+\d+\], %fd\d+;)", 0,
     "", "tqx_rms_norm_device_kernel", 513, 2, Data::kModerate, "was never written|nobody wrote"},
    {"the first launch of a variance starts from what was there", "tqx_var_device_sum_kernel",
     R"(st\.global\.u64\s+\[_ZN6korvex7kernels14moments_memoryE(\+\d+)?\], %rd\d+;)", 0,
     "", "tqx_var_device_kernel", 513, 2, Data::kModerate, "was never written|nobody wrote"},
    {"no barrier before the sums of a block's runs are added up", "tqx_cumsum_device_sum_kernel", R"(bar\.sync\s+0;)", 0,
     "", "tqx_cumsum_device_kernel", 513, 2, Data::kModerate, "race"},
    {"no barrier before the running sums start", "tqx_cumsum_device_kernel", R"(bar\.sync\s+0;)", 1,
     "", "tqx_cumsum_device_kernel", 513, 2, Data::kModerate, "race"},
    {"the first launch of running sums keeps no sum", "tqx_cumsum_device_sum_kernel", R"(st\.global\.u64\s+\[%rd\d+\], %rd\d+;)", 0,
     "", "tqx_cumsum_device_kernel", 513, 2, Data::kModerate, "was never written|nobody wrote"},
    {"a run starts after the block before the one before it", "tqx_cumsum_device_kernel", R"((ld\.global\.u64\s+%rd\d+, \[%rd\d+)\];)", 1,
     "$1+560];", "tqx_cumsum_device_kernel", 513, 2, Data::kModerate, "result differs|nobody wrote|was never written"},
    {"no fence after a block has handed in its sum of exponentials", "tqx_logsumexp_device_sum_kernel", R"(membar\.gl;)", 0,
     "", "tqx_logsumexp_device_kernel", 513, 2, Data::kModerate, "race"},
    {"no fence before the last block takes the largest elements", "tqx_logsumexp_device_largest_kernel", R"(membar\.gl;)", 1,
     "", "tqx_logsumexp_device_kernel", 513, 2, Data::kModerate, "race"},
    {"no barrier between two steps of joining sums", "10join_partsINS_10arithmetic6ExpSum", R"(bar\.sync\s+0;)", 0,
     "", "tqx_logsumexp_device_kernel", 513, 1, Data::kModerate, "race"},
    {"the first launch of a sum of exponentials keeps no largest element", "tqx_logsumexp_device_largest_kernel",
     R"(st\.global\.f64\s+\[_ZN6korvex7kernels14log_sum_so_farE\+16\], %fd\d+;)", 0,
     "", "tqx_logsumexp_device_kernel", 513, 2, Data::kModerate, "was never written|nobody wrote"},
    // --- Asynchronous copies
    {"no wait for copies", "tqx_sum_seq_kernel", R"(cp\.async\.wait_group\s+1;)", 0,
     "", "tqx_sum_seq_kernel", 2049, 1, Data::kModerate, "in flight"},
    {"a wait that leaves one group more", "tqx_dot_seq_kernel", R"(cp\.async\.wait_group\s+2;)", 0,
     "cp.async.wait_group 3;", "tqx_dot_seq_kernel", 2049, 1, Data::kModerate, "in flight"},
    {"groups of copies that never end", "13start_copying", R"(cp\.async\.commit_group;)", 0,
     "", "tqx_sum_seq_kernel", 2049, 1, Data::kModerate, "in flight"},
    // --- Values
    {"a register that nothing writes", "tqx_add_kernel", R"(mov\.u32\s+%r\d+, %nctaid\.z;)", 0,
     "", "tqx_add_kernel", 257, 2, Data::kModerate, "was never written|nobody wrote"},
    {"memory that nothing writes", kCollectSum, R"(st\.shared\.u64\s+\[_ZN6korvex7kernels16sum_block_memoryE\+4312\], %rd\d+;)", 0,
     "", "tqx_sum_kernel", 4609, 2, Data::kModerate, "nobody wrote"},
    {"two registers change places", "tqx_sub_kernel", R"(sub\.rn\.f64(\s+%\w+, )(%\w+), (%\w+);)", 0,
     "sub.rn.f64$1$3, $2;", "tqx_sub_kernel", 257, 2, Data::kModerate, "result differs"},
    {"a result that is not stored", "tqx_add_kernel", R"(st\.global\.f64\s.*;)", 1,
     "", "tqx_add_kernel", 257, 2, Data::kModerate, "result differs"},
    {"a fused operation becomes two", "tqx_mul_kernel", R"(fma\.rn\.f64(\s+)(%\w+), (\S+), (\S+), (\S+);)", 0,
     "mul.rn.f64$1$2, $3, $4; add.rn.f64$1$2, $2, $5;", "tqx_mul_kernel", 257, 2, Data::kModerate, "result differs"},
    {"a loop that does not end", "tqx_neg_kernel", R"(ret;)", 0,
     "$$L_for_ever: bra.uni $$L_for_ever;", "tqx_neg_kernel", 33, 1, Data::kModerate, "too many steps"},
    {"an instruction that the machine does not know", "tqx_add_kernel", R"(add\.rn\.f64)", 0,
     "add.rz.f64", "tqx_add_kernel", 257, 2, Data::kModerate, "unknown instructions: add\\.rz\\.f64 at line"},
};
// clang-format on

Case case_of(const Fault& fault, std::uint64_t seed) {
  Case one;
  const launches::Subject subject = launches::subject_of(fault.kernel);
  one.row = subject.row;
  one.whole_device = subject.whole_device;
  one.sizes = {{"n", fault.n}};
  one.shape.grid = {fault.blocks, 1, 1};
  const unsigned own_block = one.row->block == 0 ? 1 : one.row->block;
  one.shape.block = {one.whole_device == nullptr ? own_block : kernels::kGridBlock, 1, 1};
  one.data = fault.data;
  one.seed = seed;
  one.most_steps = kMostSteps;
  return one;
}

// What the machine says of a text.
std::string outcome(const HostLibrary& host, const std::string& text, const Case& one,
                    Figures& figures) {
  std::unique_ptr<Machine> machine;
  std::string message = "nothing";
  try {
    machine = std::make_unique<Machine>(parse(text));
    run_case(*machine, host, one);
  } catch (const Failure& failure) {
    message = failure.what();
  }
  if (machine != nullptr) {
    figures += machine->figures();
  }
  return message;
}

bool is_noticed(const Fault& fault, const HostLibrary& host, const Module& module,
                const std::string& text, std::uint64_t seed, Figures& figures) {
  std::string message;
  try {
    message = outcome(host, planted(fault.at, module, text), case_of(fault, seed), figures);
  } catch (const Failure& failure) {
    message = failure.what();
  }
  return is_expected(fault.at, message, fault.noticed_by);
}

}  // namespace

FaultCount plant_faults(const HostLibrary& host, const std::string& text, std::uint64_t seed) {
  const std::unique_ptr<Module> module = parse(text);
  if (module->find(kernels::kStateKernels[0].name) != nullptr) {
    return plant_faults_in_states(host, *module, text, seed);
  }
  FaultCount count;
  for (const Fault& fault : kFaults) {
    const std::string untouched = outcome(host, text, case_of(fault, seed), count.figures);
    if (untouched != "nothing") {
      std::printf("the launch fails without the fault: %s\n", untouched.c_str());
    }
    ++count.planted;
    count.noticed +=
        untouched == "nothing" && is_noticed(fault, host, *module, text, seed, count.figures) ? 1
                                                                                              : 0;
  }
  return count;
}

}  // namespace korvex::ptx
