// SPDX-License-Identifier: Apache-2.0
// Which functions may use AVX-512 VNNI, and whether this processor has it.
//
// The code stands in the library for AVX-512 alone, function by function, since the library runs on
// processors without these instructions too: nothing that others call may be compiled with them.
#pragma once

#include "korvex/kernels/processor.h"

#ifdef __AVX512F__
// g++ 12 warns of the undefined operands inside its own intrinsics (GCC bug 105593), wherever those
// are inlined: so to the end of each file that includes this one.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#define KORVEX_HAS_MODULAR_CODE 1
#define KORVEX_VNNI __attribute__((target("avx512bw,avx512vnni")))
#define KORVEX_VNNI_INLINE inline __attribute__((target("avx512bw,avx512vnni"), always_inline))
#endif

namespace korvex::modular {

// False in the libraries for older processors.
inline bool can_run() {
#ifdef KORVEX_HAS_MODULAR_CODE
  // Asked once: a virtual machine takes microseconds to answer CPUID, as long as a small product.
  static const bool answer =
      kernels::can_run(kernels::kAvx512Bw) && kernels::can_run(kernels::kAvx512Vnni);
  return answer;
#else
  return false;
#endif
}

}  // namespace korvex::modular
