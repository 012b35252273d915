// SPDX-License-Identifier: Apache-2.0
// The instructions that korvex finds on this processor, against the flags that the system lists.
#include <cstdio>
#include <string>

#include "check.h"
#include "korvex/kernels/modular/instructions.h"
#include "korvex/kernels/processor.h"
#include "processor_flags.h"

namespace korvex::test {
namespace {

using kernels::Instructions;

constexpr Instructions kAll[] = {kernels::kFma,      kernels::kF16c,      kernels::kAvx2,
                                 kernels::kAvx512F,  kernels::kAvx512Dq,  kernels::kAvx512Bw,
                                 kernels::kAvx512Vl, kernels::kAvx512Vnni};

void instructions_are_those_of_the_system() {
  const FlagsOfSystem flags;
#if defined(__x86_64__)
  CHECK(flags.are_known());
#endif
  for (const Instructions& each : kAll) {
    std::printf("%s: %s\n", each.name, kernels::can_run(each) ? "yes" : "no");
    CHECK(kernels::can_run(each) == flags.have({each.name}));
  }
}

void the_best_set_has_all_that_its_library_uses() {
  const FlagsOfSystem flags;
  const std::string best = kernels::best_instruction_set();
  const bool has_fma = flags.have({"fma", "avx2", "f16c"});
  const bool has_avx512 = has_fma && flags.have({"avx512f", "avx512dq", "avx512vl"});
  CHECK((best == "base") == !has_fma);
  CHECK((best == "avx512") == has_avx512);
  CHECK(best == "base" || best == "fma" || best == "avx512");
}

// A processor with AVX-512 on a system that saves the registers of AVX, or those of SSE alone.
void registers_that_the_system_does_not_save_do_not_count() {
  for (const Instructions& each : kAll) {
    const unsigned its_bit = 1U << each.bit;
    const bool is_wide = std::string(each.name).rfind("avx512", 0) == 0;
    CHECK(kernels::is_usable(each, its_bit, 0xe7));
    CHECK(kernels::is_usable(each, ~0U, ~std::uint64_t{0}));
    CHECK(!kernels::is_usable(each, ~its_bit, 0xe7));
    CHECK(kernels::is_usable(each, its_bit, 0x07) == !is_wide);
    CHECK(!kernels::is_usable(each, its_bit, 0x03));
    CHECK(!kernels::is_usable(each, its_bit, 0));
  }
}

}  // namespace
}  // namespace korvex::test

int main() {
  korvex::test::instructions_are_those_of_the_system();
  korvex::test::the_best_set_has_all_that_its_library_uses();
  korvex::test::registers_that_the_system_does_not_save_do_not_count();
  return korvex::test::Tally::all().finish();
}
