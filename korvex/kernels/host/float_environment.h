// SPDX-License-Identifier: Apache-2.0
// The floating-point environment that kernels on the host run in.
#pragma once

#if defined(__x86_64__)
#include <xmmintrin.h>
#endif

#include <cstdint>

namespace korvex::host {

// How a thread rounds, what it flushes to zero and what traps; and which exceptions it has seen.
// x86 has one register for all of it (MXCSR), Arm two (FPCR and FPSR).
#if defined(__x86_64__)

struct FloatState {
  unsigned control_and_flags;
  bool operator==(const FloatState&) const = default;
};
// To nearest, nothing flushed, exceptions masked.
constexpr FloatState kDefaultFloatState = {0x1f80};

inline FloatState float_state() { return {_mm_getcsr()}; }
inline void set_float_state(FloatState state) { _mm_setcsr(state.control_and_flags); }

#elif defined(__aarch64__)

struct FloatState {
  std::uint64_t control;
  std::uint64_t flags;
  bool operator==(const FloatState&) const = default;
};
// To nearest, nothing flushed, NaNs kept, no traps.
constexpr FloatState kDefaultFloatState = {0, 0};

inline FloatState float_state() {
  FloatState state;
  asm volatile("mrs %0, fpcr\n\tmrs %1, fpsr"
               : "=r"(state.control), "=r"(state.flags)
               :
               : "memory");
  return state;
}
inline void set_float_state(FloatState state) {
  asm volatile("msr fpcr, %0\n\tmsr fpsr, %1" : : "r"(state.control), "r"(state.flags) : "memory");
}

#else
#error "this processor's floating-point environment is not known"
#endif

// While it lives: round to nearest, nothing flushed to zero, all exceptions masked. Other libraries
// of the process may have set it otherwise; a thread gets back what it had, its flags included.
class DefaultFloatEnvironment {
 public:
  DefaultFloatEnvironment() : saved_(float_state()) { set_float_state(kDefaultFloatState); }
  ~DefaultFloatEnvironment() { set_float_state(saved_); }
  DefaultFloatEnvironment(const DefaultFloatEnvironment&) = delete;
  DefaultFloatEnvironment& operator=(const DefaultFloatEnvironment&) = delete;

 private:
  FloatState saved_;
};

}  // namespace korvex::host
