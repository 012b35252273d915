// SPDX-License-Identifier: Apache-2.0
// What differs between the device compiler and the host compiler, and nothing else.
//
// Assumptions of all of korvex/arithmetic, stated once:
//   - double is IEEE 754 binary64, 64-bit little-endian integers, two's complement;
//   - rounding is to nearest, ties to even; nothing is flushed to zero;
//   - each operation in the source is one rounded operation: no contraction into a fused
//     multiply-add that is not written as one, no extended precision, no re-association.
// The build passes -ffp-contract=off (host) and -fmad=false (device); what the preprocessor can see
// of a violation stops the compilation here, the rest is caught by tests/cpp/test_flags.cpp.
#pragma once

#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#ifdef __FAST_MATH__
#error "fast-math breaks error-free transformations"
#endif

// KORVEX_HD: for both targets. KORVEX_INLINE: the same, always inlined, for what stands in a loop
// over elements. KORVEX_COLD: the same, never inlined, for what runs once a chunk or less.
// KORVEX_UNROLL_4, before a loop: a device takes four passes at a time, so that values which go
// from one pass to the next stay in their registers instead of being copied. Nothing on a host.
// KORVEX_UNROLL_WORDS, before a loop over the W words of a number, and KORVEX_ONE_IN_BLOCK, before
// a number that one thread of a block works with: for devices of few registers, see below.
// KORVEX_DEVICE_COMPILER: defined for a compiler that knows the instructions of devices.
#ifdef __CUDACC__
#define KORVEX_HD __host__ __device__
#define KORVEX_INLINE __host__ __device__ __forceinline__
#define KORVEX_COLD __host__ __device__ __noinline__
#define KORVEX_UNROLL_4 _Pragma("unroll 4")
#define KORVEX_DEVICE_COMPILER 1
#else
#if !defined(FLT_EVAL_METHOD) || FLT_EVAL_METHOD != 0
#error "double arithmetic must be evaluated in double"
#endif
#define KORVEX_HD
#define KORVEX_INLINE inline __attribute__((always_inline))
#define KORVEX_COLD __attribute__((noinline))
#define KORVEX_UNROLL_4
#endif

// Where compilers would keep more than 512 bytes of long numbers on the stack of a thread. For 5.3,
// 6.2 and 10.0 to 10.3 they load all words of a number before a loop over them, unrolled, uses the
// first; so loops over more than nine words go four words at a time there. A block on 5.3 and 6.2
// has 32768 registers, which is 32 for each of 1024 threads; so numbers that one thread of a block
// works with lie in the memory of the block there.
#ifdef __CUDA_ARCH__
#define KORVEX_HALF_THE_REGISTERS (__CUDA_ARCH__ == 530 || __CUDA_ARCH__ == 620)
#define KORVEX_LOADS_ALL_WORDS \
  (KORVEX_HALF_THE_REGISTERS || (__CUDA_ARCH__ >= 1000 && __CUDA_ARCH__ < 1100))
#else
#define KORVEX_HALF_THE_REGISTERS 0
#define KORVEX_LOADS_ALL_WORDS 0
#endif
#if KORVEX_LOADS_ALL_WORDS
#define KORVEX_UNROLL_WORDS _Pragma("unroll (W > 9 ? 4 : W)")
#else
#define KORVEX_UNROLL_WORDS
#endif
#if KORVEX_HALF_THE_REGISTERS
#define KORVEX_ONE_IN_BLOCK __shared__
#else
#define KORVEX_ONE_IN_BLOCK
#endif

// KORVEX_TABLE: before the type of a constant array that both targets read.
#ifdef __CUDA_ARCH__
#define KORVEX_TABLE static __device__ const
#else
#define KORVEX_TABLE inline constexpr
#endif

namespace korvex::arithmetic {

static_assert(std::numeric_limits<double>::is_iec559 && sizeof(double) == 8);

// Whether fma_rn is one instruction: on a host it may be a call.
#if defined(__CUDA_ARCH__) || defined(__FMA__) || defined(__ARM_FEATURE_FMA)
constexpr bool kFmaIsFast = true;
#else
constexpr bool kFmaIsFast = false;
#endif

#ifdef __CUDA_ARCH__

KORVEX_INLINE double add_rn(double a, double b) { return __dadd_rn(a, b); }
KORVEX_INLINE double sub_rn(double a, double b) { return __dsub_rn(a, b); }
KORVEX_INLINE double mul_rn(double a, double b) { return __dmul_rn(a, b); }
KORVEX_INLINE double div_rn(double a, double b) { return __ddiv_rn(a, b); }
KORVEX_INLINE double fma_rn(double a, double b, double c) { return __fma_rn(a, b, c); }
KORVEX_INLINE double sqrt_rn(double a) { return __dsqrt_rn(a); }
KORVEX_INLINE std::uint64_t to_bits(double a) {
  return static_cast<std::uint64_t>(__double_as_longlong(a));
}
KORVEX_INLINE double from_bits(std::uint64_t bits) {
  return __longlong_as_double(static_cast<long long>(bits));
}
// The upper 64 bits of a 128-bit product.
KORVEX_INLINE std::uint64_t multiply_high(std::uint64_t a, std::uint64_t b) {
  return __umul64hi(a, b);
}
// Precondition of both: bits != 0.
KORVEX_INLINE int leading_zeros(std::uint64_t bits) {
  return __clzll(static_cast<long long>(bits));
}
KORVEX_INLINE int trailing_zeros(std::uint64_t bits) {
  return __ffsll(static_cast<long long>(bits)) - 1;
}

#else

KORVEX_INLINE double add_rn(double a, double b) { return a + b; }
KORVEX_INLINE double sub_rn(double a, double b) { return a - b; }
KORVEX_INLINE double mul_rn(double a, double b) { return a * b; }
KORVEX_INLINE double div_rn(double a, double b) { return a / b; }
KORVEX_INLINE double fma_rn(double a, double b, double c) { return std::fma(a, b, c); }
KORVEX_INLINE double sqrt_rn(double a) { return std::sqrt(a); }
KORVEX_INLINE std::uint64_t to_bits(double a) {
  std::uint64_t bits;
  std::memcpy(&bits, &a, sizeof bits);
  return bits;
}
KORVEX_INLINE double from_bits(std::uint64_t bits) {
  double a;
  std::memcpy(&a, &bits, sizeof a);
  return a;
}
// The upper 64 bits of a 128-bit product.
KORVEX_INLINE std::uint64_t multiply_high(std::uint64_t a, std::uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  return static_cast<std::uint64_t>((static_cast<Wide>(a) * b) >> 64);
}
// Precondition of both: bits != 0.
KORVEX_INLINE int leading_zeros(std::uint64_t bits) { return __builtin_clzll(bits); }
KORVEX_INLINE int trailing_zeros(std::uint64_t bits) { return __builtin_ctzll(bits); }

#endif

}  // namespace korvex::arithmetic
