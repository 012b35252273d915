// SPDX-License-Identifier: Apache-2.0
// Doubles in the lanes of a host register, for functions that are written for any number of them:
// HostReal is four doubles where the compiler may use AVX2 and FMA, elsewhere one. Each operation
// rounds each lane as the operation on one double does; same names, same results.
#pragma once

#if defined(__FMA__) && defined(__AVX2__)
#include <immintrin.h>
#endif

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/elementary/elementary_tables.h"

namespace korvex::arithmetic {

#if defined(__FMA__) && defined(__AVX2__)

// The members are GCC's vectors, which have operators; the structs are there for overloading, and
// for constants, which go to all lanes.
struct HostFlags {
  __m256i mask;  // a lane is all ones or zero
};

struct HostIntegers {
  using Vector __attribute__((vector_size(16))) = int;
  Vector value;
  KORVEX_INLINE HostIntegers(int x) : value(Vector{} + x) {}
  KORVEX_INLINE HostIntegers(Vector x) : value(x) {}
};

struct HostBits {
  using Vector __attribute__((vector_size(32))) = std::uint64_t;
  Vector value;
  KORVEX_INLINE HostBits(Vector x) : value(x) {}
};

struct HostDoubles {
  __m256d value;
  KORVEX_INLINE HostDoubles(double x) : value(_mm256_set1_pd(x)) {}
  KORVEX_INLINE HostDoubles(__m256d x) : value(x) {}
};

template <>
struct Companions<HostDoubles> {
  using Integer = HostIntegers;
  using Flag = HostFlags;
};

// ---- Arithmetic

KORVEX_INLINE HostDoubles add_rn(HostDoubles a, HostDoubles b) { return a.value + b.value; }
KORVEX_INLINE HostDoubles sub_rn(HostDoubles a, HostDoubles b) { return a.value - b.value; }
KORVEX_INLINE HostDoubles mul_rn(HostDoubles a, HostDoubles b) { return a.value * b.value; }
KORVEX_INLINE HostDoubles div_rn(HostDoubles a, HostDoubles b) { return a.value / b.value; }
KORVEX_INLINE HostDoubles fma_rn(HostDoubles a, HostDoubles b, HostDoubles c) {
  return _mm256_fmadd_pd(a.value, b.value, c.value);
}
KORVEX_INLINE HostDoubles operator-(HostDoubles a) { return -a.value; }

KORVEX_INLINE HostIntegers operator+(HostIntegers a, HostIntegers b) { return a.value + b.value; }
KORVEX_INLINE HostIntegers operator-(HostIntegers a, HostIntegers b) { return a.value - b.value; }
KORVEX_INLINE HostIntegers operator-(HostIntegers a) { return -a.value; }
KORVEX_INLINE HostIntegers operator&(HostIntegers a, int b) { return a.value & b; }
KORVEX_INLINE HostIntegers operator>>(HostIntegers a, int count) { return a.value >> count; }

KORVEX_INLINE HostBits operator&(HostBits a, std::uint64_t b) { return a.value & b; }
KORVEX_INLINE HostBits operator|(HostBits a, HostBits b) { return a.value | b.value; }
KORVEX_INLINE HostBits operator>>(HostBits a, int count) { return a.value >> count; }

// ---- Conversions

KORVEX_INLINE HostBits to_bits(HostDoubles x) {
  return reinterpret_cast<HostBits::Vector>(x.value);
}
KORVEX_INLINE HostDoubles from_bits(HostBits x) { return reinterpret_cast<__m256d>(x.value); }
KORVEX_INLINE HostIntegers to_integer(HostDoubles x) {
  return reinterpret_cast<HostIntegers::Vector>(_mm256_cvttpd_epi32(x.value));
}
// The lower halves.
KORVEX_INLINE HostIntegers to_integer(HostBits x) {
  const __m256i halves = _mm256_permutevar8x32_epi32(reinterpret_cast<__m256i>(x.value),
                                                     _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6));
  return reinterpret_cast<HostIntegers::Vector>(_mm256_castsi256_si128(halves));
}
KORVEX_INLINE HostDoubles to_real(HostIntegers x) {
  return _mm256_cvtepi32_pd(reinterpret_cast<__m128i>(x.value));
}
KORVEX_INLINE HostBits exponent_bits(HostIntegers field) {
  const __m256i wide = _mm256_cvtepi32_epi64(reinterpret_cast<__m128i>(field.value));
  return reinterpret_cast<HostBits::Vector>(_mm256_slli_epi64(wide, kFractionBits));
}
// Precondition: the powers are normal.
KORVEX_INLINE HostDoubles power_of_two(HostIntegers exponent) {
  return from_bits(exponent_bits(exponent + kExponentBias));
}
// Precondition: no sign.
KORVEX_INLINE HostIntegers exponent_field(HostDoubles x) {
  return to_integer(to_bits(x) >> kFractionBits);
}

// ---- Comparisons and choices

KORVEX_INLINE HostFlags operator<(HostDoubles a, HostDoubles b) {
  return {reinterpret_cast<__m256i>(_mm256_cmp_pd(a.value, b.value, _CMP_LT_OQ))};
}
KORVEX_INLINE HostFlags operator>(HostDoubles a, HostDoubles b) { return b < a; }
KORVEX_INLINE HostFlags operator<=(HostDoubles a, HostDoubles b) {
  return {reinterpret_cast<__m256i>(_mm256_cmp_pd(a.value, b.value, _CMP_LE_OQ))};
}
KORVEX_INLINE HostFlags operator>=(HostDoubles a, HostDoubles b) { return b <= a; }
KORVEX_INLINE HostFlags operator==(HostDoubles a, HostDoubles b) {
  return {reinterpret_cast<__m256i>(_mm256_cmp_pd(a.value, b.value, _CMP_EQ_OQ))};
}
struct HostIntegerFlags {
  HostIntegers::Vector mask;  // a lane is -1 or 0
};
KORVEX_INLINE HostIntegerFlags operator>=(HostIntegers a, int b) { return {a.value >= b}; }
KORVEX_INLINE HostIntegers one_where(HostIntegerFlags flags) { return -flags.mask; }

KORVEX_INLINE HostFlags both(HostFlags a, HostFlags b) { return {a.mask & b.mask}; }
KORVEX_INLINE bool all(HostFlags flags) { return _mm256_movemask_epi8(flags.mask) == -1; }
KORVEX_INLINE bool lane(HostFlags flags, int index) { return flags.mask[index] != 0; }

KORVEX_INLINE HostDoubles selected(HostFlags flags, HostDoubles where, HostDoubles elsewhere) {
  return _mm256_blendv_pd(elsewhere.value, where.value, reinterpret_cast<__m256d>(flags.mask));
}
KORVEX_INLINE HostIntegers selected(HostFlags flags, HostIntegers where, HostIntegers elsewhere) {
  const HostIntegers narrow = to_integer(HostBits(reinterpret_cast<HostBits::Vector>(flags.mask)));
  return (where.value & narrow.value) | (elsewhere.value & ~narrow.value);
}
// b where either is NaN, as the comparison on one double does.
KORVEX_INLINE HostDoubles lesser(HostDoubles a, HostDoubles b) {
  return _mm256_min_pd(a.value, b.value);
}
KORVEX_INLINE HostDoubles absolute(HostDoubles x) { return from_bits(to_bits(x) & ~kSignBit); }
KORVEX_INLINE HostDoubles with_sign_of(HostDoubles x, HostDoubles magnitude) {
  return from_bits(to_bits(magnitude) | (to_bits(x) & kSignBit));
}

// ---- Memory

// Tables are read entry by entry: gathering instructions are slow on many processors.
struct PowerEntries {
  HostDoubles high;
  HostDoubles low;
};
KORVEX_INLINE PowerEntries power_entry(HostIntegers index) {
  const auto pair = [&](int i) { return _mm_loadu_pd(&kPowerTable[index.value[i]].high); };
  const __m256d even = _mm256_set_m128d(pair(2), pair(0));
  const __m256d odd = _mm256_set_m128d(pair(3), pair(1));
  return {_mm256_unpacklo_pd(even, odd), _mm256_unpackhi_pd(even, odd)};
}

struct LogEntries {
  HostDoubles reciprocal;
  HostDoubles high;
  HostDoubles low;
};
KORVEX_INLINE LogEntries log_entry(HostIntegers index) {
  const auto entry = [&](int i) -> const LogEntry& { return kLogTable[index.value[i]]; };
  const auto pair = [&](int i) { return _mm_loadu_pd(&entry(i).reciprocal); };
  const __m256d even = _mm256_set_m128d(pair(2), pair(0));
  const __m256d odd = _mm256_set_m128d(pair(3), pair(1));
  const __m256d low = _mm256_setr_pd(entry(0).low, entry(1).low, entry(2).low, entry(3).low);
  return {_mm256_unpacklo_pd(even, odd), _mm256_unpackhi_pd(even, odd), low};
}

using HostReal = HostDoubles;
constexpr int kHostReals = 4;  // doubles in a HostReal

KORVEX_INLINE HostReal load_real(const double* x) { return _mm256_loadu_pd(x); }
KORVEX_INLINE void store_real(double* out, HostReal x) { _mm256_storeu_pd(out, x.value); }
KORVEX_INLINE double lane(HostReal x, int index) { return x.value[index]; }

#else

using HostReal = double;
constexpr int kHostReals = 1;

KORVEX_INLINE HostReal load_real(const double* x) { return *x; }
KORVEX_INLINE void store_real(double* out, HostReal x) { *out = x; }
KORVEX_INLINE double lane(HostReal x, int) { return x; }
KORVEX_INLINE bool all(bool flag) { return flag; }
KORVEX_INLINE bool lane(bool flag, int) { return flag; }

#endif

}  // namespace korvex::arithmetic
