// SPDX-License-Identifier: Apache-2.0
// Lanes of the host's vector registers, for host code only: two doubles in plain x86-64, four where
// the compiler may use AVX2, eight with AVX-512. Same members as ScalarLanes; same results.
#pragma once

#ifdef __FMA__
#include <immintrin.h>
#endif

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "korvex/arithmetic/base/eft.h"

namespace korvex::arithmetic {

struct HostLanes {
#if defined(__AVX512F__)
  static constexpr int kCount = 8;
#elif defined(__AVX2__)
  static constexpr int kCount = 4;
#else
  static constexpr int kCount = 2;
#endif
  static constexpr int kMaxSlices = 6;
  static constexpr std::ptrdiff_t kLookAhead = 2048;  // bytes: memory's latency at full speed

  using Value __attribute__((vector_size(8 * kCount))) = double;
  using Bits __attribute__((vector_size(8 * kCount))) = std::uint64_t;

  static inline Value load(const double* x) {
    Value value;
    std::memcpy(&value, x, sizeof value);
    return value;
  }
  // The chains of a cascade fill the processor's window long before the next cache lines are asked
  // for. Nothing is read, so the hint may point past the end. Always inlined: g++ takes a function
  // with nothing but a hint in it for one without effects, and leaves out its calls.
  __attribute__((always_inline)) static inline void look_ahead(const double* x) {
    __builtin_prefetch(reinterpret_cast<const char*>(x) + kLookAhead);
  }
  static inline Value broadcast(double x) { return Value{} + x; }
  static inline Bits bits(Value x) {
    Bits result;
    std::memcpy(&result, &x, sizeof result);
    return result;
  }
  static inline Value error_of_product(Value x, Value y, Value product) {
#if defined(__AVX512F__)
    return _mm512_fmsub_pd(x, y, product);
#elif defined(__FMA__) && defined(__AVX2__)
    return _mm256_fmsub_pd(x, y, product);
#else
    return split_product_error(x, y, product);
#endif
  }
  static inline Bits is_below(Value x, double limit) {
    const auto mask = (x < limit) & (x > -limit);
    Bits result;
    std::memcpy(&result, &mask, sizeof result);
    return result;
  }
  static inline std::int64_t units(Bits bits, int lane) {
    return static_cast<std::int64_t>(bits[lane]);
  }
  static inline std::uint64_t any(Bits bits) {
    std::uint64_t result = 0;
    for (int i = 0; i < kCount; ++i) {
      result |= bits[i];
    }
    return result;
  }
  static inline std::int64_t total(Bits bits) {
    std::uint64_t result = 0;
    for (int i = 0; i < kCount; ++i) {
      result += bits[i];
    }
    return static_cast<std::int64_t>(result);
  }
};

}  // namespace korvex::arithmetic
