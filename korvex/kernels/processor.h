// SPDX-License-Identifier: Apache-2.0
// Which vector instructions this processor has and this system allows, by CPUID and XGETBV.
//
// Compilers have a function of their own for that, but it does not know every name (float16's
// conversions in clang before 19), and zig's always says no. Registers of more than 128 bits count
// only where the system saves them between threads: XCR0 says so, CPUID alone does not.
#pragma once

#if defined(__x86_64__)
#include <cpuid.h>
#endif

#include <cstdint>

namespace korvex::kernels {

enum class CpuidRegister { kEbx, kEcx };

// The bits of XCR0 that say what the system saves.
constexpr std::uint64_t kAvxState = 0x06;     // SSE and the upper halves of ymm
constexpr std::uint64_t kAvx512State = 0xe6;  // and masks, upper halves of zmm, zmm16 to zmm31

// One group of instructions: where CPUID says that the processor has it.
struct Instructions {
  const char* name;  // in the list of flags of Linux
  unsigned leaf;
  CpuidRegister place;
  unsigned bit;
  std::uint64_t state;
};

// Intel, Architectures Software Developer's Manual, volume 2, CPUID; leaf 7 at its subleaf 0.
inline constexpr Instructions kFma = {"fma", 1, CpuidRegister::kEcx, 12, kAvxState};
inline constexpr Instructions kF16c = {"f16c", 1, CpuidRegister::kEcx, 29, kAvxState};
inline constexpr Instructions kAvx2 = {"avx2", 7, CpuidRegister::kEbx, 5, kAvxState};
inline constexpr Instructions kAvx512F = {"avx512f", 7, CpuidRegister::kEbx, 16, kAvx512State};
inline constexpr Instructions kAvx512Dq = {"avx512dq", 7, CpuidRegister::kEbx, 17, kAvx512State};
inline constexpr Instructions kAvx512Bw = {"avx512bw", 7, CpuidRegister::kEbx, 30, kAvx512State};
inline constexpr Instructions kAvx512Vl = {"avx512vl", 7, CpuidRegister::kEbx, 31, kAvx512State};
inline constexpr Instructions kAvx512Vnni = {"avx512_vnni", 7, CpuidRegister::kEcx, 11,
                                             kAvx512State};

constexpr bool is_usable(const Instructions& wanted, unsigned cpuid_word, std::uint64_t saved) {
  return ((cpuid_word >> wanted.bit) & 1) != 0 && (saved & wanted.state) == wanted.state;
}

#if defined(__x86_64__)

// 0 where the system has not switched XGETBV on: it saves no wide registers then.
inline std::uint64_t states_saved_by_the_system() {
  constexpr unsigned kOsxsave = 1U << 27;
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0 || (ecx & kOsxsave) == 0) {
    return 0;
  }
  unsigned low = 0, high = 0;
  asm volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
  return (std::uint64_t{high} << 32) | low;
}

inline bool can_run(const Instructions& wanted) {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid_count(wanted.leaf, 0, &eax, &ebx, &ecx, &edx) == 0) {
    return false;
  }
  return is_usable(wanted, wanted.place == CpuidRegister::kEbx ? ebx : ecx,
                   states_saved_by_the_system());
}

#else

inline bool can_run(const Instructions&) { return false; }

#endif

// The best of the libraries "base", "fma" and "avx512". Those of other processors than x86 are all
// called "base": what it is compiled for, each of them has.
inline const char* best_instruction_set() {
  if (!can_run(kFma) || !can_run(kAvx2) || !can_run(kF16c)) {
    return "base";
  }
  return can_run(kAvx512F) && can_run(kAvx512Dq) && can_run(kAvx512Vl) ? "avx512" : "fma";
}

}  // namespace korvex::kernels
