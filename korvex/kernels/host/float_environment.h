// SPDX-License-Identifier: Apache-2.0
// The floating-point environment that kernels on the host run in.
#pragma once

#include <xmmintrin.h>

namespace korvex::host {

// While it lives: round to nearest, nothing flushed to zero, all exceptions masked. Other libraries
// of the process may have set it otherwise; a thread gets back what it had, its flags included.
class DefaultFloatEnvironment {
 public:
  DefaultFloatEnvironment() : saved_(_mm_getcsr()) { _mm_setcsr(kDefaultControl); }
  ~DefaultFloatEnvironment() { _mm_setcsr(saved_); }
  DefaultFloatEnvironment(const DefaultFloatEnvironment&) = delete;
  DefaultFloatEnvironment& operator=(const DefaultFloatEnvironment&) = delete;

 private:
  static constexpr unsigned kDefaultControl = 0x1f80;
  unsigned saved_;
};

}  // namespace korvex::host
