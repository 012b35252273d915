// SPDX-License-Identifier: Apache-2.0
// Doubles side by side in a vector register of the host: two in plain x86-64 and in NEON on Arm,
// four where the compiler may use AVX2, eight with AVX-512.
//
// HostDoubles has the functions of one double, with the same names: each operation rounds each lane
// as the operation on one double does. HostLanes has the members of ScalarLanes, for loops over any
// number of lanes. No result depends on which of the two types runs.
#pragma once

#if defined(__FMA__)
#include <immintrin.h>
#elif defined(__aarch64__)
#include <arm_neon.h>
#endif

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "korvex/arithmetic/base/binary64.h"
#include "korvex/arithmetic/base/lanes.h"
#include "korvex/arithmetic/base/portability.h"
#include "korvex/arithmetic/elementary/elementary_tables.h"

namespace korvex::arithmetic {

#if defined(__AVX512F__)
constexpr int kHostLanes = 8;
#elif defined(__AVX2__)
constexpr int kHostLanes = 4;
#else
constexpr int kHostLanes = 2;
#endif

// The members are GCC's vectors, which have operators; the structs are there for overloading, and
// for constants, which go to all lanes. Made without a value they hold none: g++ would fill arrays
// of them in a loop, and then keep the slices of a long cascade in memory.
struct HostFlags {
  using Vector __attribute__((vector_size(8 * kHostLanes))) = std::int64_t;
  Vector mask;  // a lane is -1 or 0
};

struct HostIntegerFlags {
  using Vector __attribute__((vector_size(4 * kHostLanes))) = int;
  Vector mask;  // a lane is -1 or 0
};

struct HostIntegers {
  using Vector __attribute__((vector_size(4 * kHostLanes))) = int;
  Vector value;
  KORVEX_INLINE HostIntegers(int x) : value(Vector{} + x) {}
  KORVEX_INLINE HostIntegers(Vector x) : value(x) {}
};

struct HostBits {
  using Vector __attribute__((vector_size(8 * kHostLanes))) = std::uint64_t;
  Vector value;
  HostBits() = default;
  KORVEX_INLINE HostBits(Vector x) : value(x) {}
};

struct HostDoubles {
  using Vector __attribute__((vector_size(8 * kHostLanes))) = double;
  Vector value;
  HostDoubles() = default;
  KORVEX_INLINE HostDoubles(double x) : value(x - Vector{}) {}  // exact, -0 too
  KORVEX_INLINE HostDoubles(Vector x) : value(x) {}
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
KORVEX_INLINE HostDoubles operator-(HostDoubles a) { return -a.value; }
KORVEX_INLINE HostDoubles fma_rn(HostDoubles a, HostDoubles b, HostDoubles c) {
#if defined(__AVX512F__)
  return _mm512_fmadd_pd(a.value, b.value, c.value);
#elif defined(__FMA__) && defined(__AVX2__)
  return _mm256_fmadd_pd(a.value, b.value, c.value);
#elif defined(__aarch64__)
  return HostDoubles::Vector(vfmaq_f64(c.value, a.value, b.value));
#else
  HostDoubles result;
  for (int i = 0; i < kHostLanes; ++i) {
    result.value[i] = fma_rn(a.value[i], b.value[i], c.value[i]);
  }
  return result;
#endif
}

KORVEX_INLINE HostIntegers operator+(HostIntegers a, HostIntegers b) { return a.value + b.value; }
KORVEX_INLINE HostIntegers operator-(HostIntegers a, HostIntegers b) { return a.value - b.value; }
KORVEX_INLINE HostIntegers operator-(HostIntegers a) { return -a.value; }
KORVEX_INLINE HostIntegers operator&(HostIntegers a, int b) { return a.value & b; }
KORVEX_INLINE HostIntegers operator>>(HostIntegers a, int count) { return a.value >> count; }

KORVEX_INLINE HostBits operator-(HostBits a, HostBits b) { return a.value - b.value; }
KORVEX_INLINE HostBits operator^(HostBits a, HostBits b) { return a.value ^ b.value; }
KORVEX_INLINE HostBits operator|(HostBits a, HostBits b) { return a.value | b.value; }
KORVEX_INLINE HostBits operator&(HostBits a, std::uint64_t b) { return a.value & b; }
KORVEX_INLINE HostBits operator>>(HostBits a, int count) { return a.value >> count; }
KORVEX_INLINE HostBits& operator|=(HostBits& a, HostBits b) { return a = a | b; }

// ---- What a compiler does well for some numbers of lanes only
//
// g++ takes most of these by halves, or as two instructions, where it finds them written for
// vectors of four lanes in general. all: is the flag set in all lanes. to_integer: of a double,
// cut; of bits, the lower halves. sign_extended: to 64 bits. lesser: b where either is NaN, as on
// one double.

#if defined(__AVX2__) && !defined(__AVX512F__)

KORVEX_INLINE bool all(HostFlags flags) {
  return _mm256_movemask_epi8(reinterpret_cast<__m256i>(flags.mask)) == -1;
}
KORVEX_INLINE HostDoubles selected(HostFlags flags, HostDoubles where, HostDoubles elsewhere) {
  return _mm256_blendv_pd(elsewhere.value, where.value, reinterpret_cast<__m256d>(flags.mask));
}
KORVEX_INLINE HostDoubles lesser(HostDoubles a, HostDoubles b) {
  return _mm256_min_pd(a.value, b.value);
}
KORVEX_INLINE HostIntegers to_integer(HostDoubles x) {
  return reinterpret_cast<HostIntegers::Vector>(_mm256_cvttpd_epi32(x.value));
}
KORVEX_INLINE HostIntegers to_integer(HostBits x) {
  const __m256i halves = _mm256_permutevar8x32_epi32(reinterpret_cast<__m256i>(x.value),
                                                     _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6));
  return reinterpret_cast<HostIntegers::Vector>(_mm256_castsi256_si128(halves));
}
KORVEX_INLINE HostDoubles to_real(HostIntegers x) {
  return _mm256_cvtepi32_pd(reinterpret_cast<__m128i>(x.value));
}
KORVEX_INLINE HostBits sign_extended(HostIntegers x) {
  return reinterpret_cast<HostBits::Vector>(
      _mm256_cvtepi32_epi64(reinterpret_cast<__m128i>(x.value)));
}

#elif defined(__aarch64__)

KORVEX_INLINE bool all(HostFlags flags) {
  return vminvq_u32(reinterpret_cast<uint32x4_t>(flags.mask)) != 0;
}
KORVEX_INLINE HostDoubles selected(HostFlags flags, HostDoubles where, HostDoubles elsewhere) {
  return HostDoubles::Vector(
      vbslq_f64(reinterpret_cast<uint64x2_t>(flags.mask), where.value, elsewhere.value));
}
KORVEX_INLINE HostDoubles lesser(HostDoubles a, HostDoubles b) {
  return selected({a.value < b.value}, a, b);
}
KORVEX_INLINE HostIntegers to_integer(HostDoubles x) {
  return HostIntegers::Vector(vmovn_s64(vcvtq_s64_f64(x.value)));
}
KORVEX_INLINE HostIntegers to_integer(HostBits x) {
  return reinterpret_cast<HostIntegers::Vector>(vmovn_u64(reinterpret_cast<uint64x2_t>(x.value)));
}
KORVEX_INLINE HostDoubles to_real(HostIntegers x) {
  return HostDoubles::Vector(vcvtq_f64_s64(vmovl_s32(x.value)));
}
KORVEX_INLINE HostBits sign_extended(HostIntegers x) {
  return reinterpret_cast<HostBits::Vector>(vmovl_s32(x.value));
}

#else

KORVEX_INLINE bool all(HostFlags flags) {
#if defined(__AVX512F__)
  return _mm512_movepi64_mask(reinterpret_cast<__m512i>(flags.mask)) == 0xff;
#else
  return (flags.mask[0] & flags.mask[1]) != 0;
#endif
}
KORVEX_INLINE HostDoubles selected(HostFlags flags, HostDoubles where, HostDoubles elsewhere) {
  return flags.mask ? where.value : elsewhere.value;
}
KORVEX_INLINE HostDoubles lesser(HostDoubles a, HostDoubles b) {
  return a.value < b.value ? a.value : b.value;
}
KORVEX_INLINE HostIntegers to_integer(HostDoubles x) {
  return __builtin_convertvector(x.value, HostIntegers::Vector);
}
KORVEX_INLINE HostIntegers to_integer(HostBits x) {
  return __builtin_convertvector(x.value, HostIntegers::Vector);
}
KORVEX_INLINE HostDoubles to_real(HostIntegers x) {
  return __builtin_convertvector(x.value, HostDoubles::Vector);
}
KORVEX_INLINE HostBits sign_extended(HostIntegers x) {
  return __builtin_convertvector(x.value, HostBits::Vector);
}

#endif

// ---- Conversions

KORVEX_INLINE HostBits to_bits(HostDoubles x) {
  return reinterpret_cast<HostBits::Vector>(x.value);
}
KORVEX_INLINE HostDoubles from_bits(HostBits x) {
  return reinterpret_cast<HostDoubles::Vector>(x.value);
}
KORVEX_INLINE HostBits exponent_bits(HostIntegers field) {
  return sign_extended(field).value << kFractionBits;
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

KORVEX_INLINE HostFlags operator<(HostDoubles a, HostDoubles b) { return {a.value < b.value}; }
KORVEX_INLINE HostFlags operator>(HostDoubles a, HostDoubles b) { return {a.value > b.value}; }
KORVEX_INLINE HostFlags operator<=(HostDoubles a, HostDoubles b) { return {a.value <= b.value}; }
KORVEX_INLINE HostFlags operator>=(HostDoubles a, HostDoubles b) { return {a.value >= b.value}; }
KORVEX_INLINE HostFlags operator==(HostDoubles a, HostDoubles b) { return {a.value == b.value}; }
KORVEX_INLINE HostIntegerFlags operator>=(HostIntegers a, int b) { return {a.value >= b}; }
KORVEX_INLINE HostIntegers one_where(HostIntegerFlags flags) { return -flags.mask; }

KORVEX_INLINE HostFlags both(HostFlags a, HostFlags b) { return {a.mask & b.mask}; }

KORVEX_INLINE HostIntegers selected(HostFlags flags, HostIntegers where, HostIntegers elsewhere) {
  const HostIntegers narrow = to_integer(HostBits(reinterpret_cast<HostBits::Vector>(flags.mask)));
  return (where.value & narrow.value) | (elsewhere.value & ~narrow.value);
}
KORVEX_INLINE HostDoubles absolute(HostDoubles x) { return from_bits(to_bits(x) & ~kSignBit); }
KORVEX_INLINE HostDoubles with_sign_of(HostDoubles x, HostDoubles magnitude) {
  return from_bits(to_bits(magnitude) | (to_bits(x) & kSignBit));
}

// ---- Single lanes

KORVEX_INLINE double lane(HostDoubles x, int index) { return x.value[index]; }
KORVEX_INLINE std::uint64_t lane(HostBits x, int index) { return x.value[index]; }
KORVEX_INLINE bool lane(HostFlags flags, int index) { return flags.mask[index] != 0; }
// ---- Tables

// The doubles at address(i) and after it, for each lane i. They are read entry by entry: gathering
// instructions are slow on many processors.
template <class Address>
KORVEX_INLINE void load_pairs(const Address& address, HostDoubles& first, HostDoubles& second) {
#if defined(__AVX2__) && !defined(__AVX512F__)
  const auto pair = [&](int i) { return _mm_loadu_pd(address(i)); };
  const __m256d even = _mm256_set_m128d(pair(2), pair(0));
  const __m256d odd = _mm256_set_m128d(pair(3), pair(1));
  first = _mm256_unpacklo_pd(even, odd);
  second = _mm256_unpackhi_pd(even, odd);
#elif defined(__aarch64__)
  const float64x2_t even = vld1q_f64(address(0));
  const float64x2_t odd = vld1q_f64(address(1));
  first = HostDoubles::Vector(vzip1q_f64(even, odd));
  second = HostDoubles::Vector(vzip2q_f64(even, odd));
#else
  for (int i = 0; i < kHostLanes; ++i) {
    first.value[i] = address(i)[0];
    second.value[i] = address(i)[1];
  }
#endif
}

struct PowerEntries {
  HostDoubles high;
  HostDoubles low;
};
KORVEX_INLINE PowerEntries power_entry(HostIntegers index) {
  PowerEntries entries;
  load_pairs([&](int i) { return &kPowerTable[index.value[i]].high; }, entries.high, entries.low);
  return entries;
}

struct LogEntries {
  HostDoubles reciprocal;
  HostDoubles high;
  HostDoubles low;
};
KORVEX_INLINE LogEntries log_entry(HostIntegers index) {
  const auto entry = [&](int i) -> const LogEntry& { return kLogTable[index.value[i]]; };
  LogEntries entries;
  load_pairs([&](int i) { return &entry(i).reciprocal; }, entries.reciprocal, entries.high);
#if defined(__AVX2__) && !defined(__AVX512F__)
  entries.low = _mm256_setr_pd(entry(0).low, entry(1).low, entry(2).low, entry(3).low);
#else
  for (int i = 0; i < kHostLanes; ++i) {
    entries.low.value[i] = entry(i).low;
  }
#endif
  return entries;
}

// ---- Members as of ScalarLanes

struct HostLanes {
  using Value = HostDoubles;
  using Bits = HostBits;
  static constexpr int kCount = kHostLanes;
  static constexpr int kMaxSlices = 6;
  static constexpr bool kTriesWindow = true;
  static constexpr std::ptrdiff_t kLookAhead = 2048;  // bytes: memory's latency at full speed

  KORVEX_INLINE static Value load(const double* x) {
    Value value;
    std::memcpy(&value.value, x, sizeof value.value);
    return value;
  }
  KORVEX_INLINE static void store(double* out, Value x) {
    std::memcpy(out, &x.value, sizeof x.value);
  }
  // The chains of a cascade fill the processor's window long before the next cache lines are asked
  // for. Nothing is read, so the hint may point past the end. Always inlined: g++ takes a function
  // with nothing but a hint in it for one without effects, and leaves out its calls.
  KORVEX_INLINE static void look_ahead(const double* x) {
    __builtin_prefetch(reinterpret_cast<const char*>(x) + kLookAhead);
  }
  KORVEX_INLINE static Bits is_below(Value x, double limit) {
    return reinterpret_cast<Bits::Vector>(both(x<limit, x> - limit).mask);
  }
  KORVEX_INLINE static std::uint64_t any(Bits bits) {
    std::uint64_t result = 0;
    for (int i = 0; i < kCount; ++i) {
      result |= bits.value[i];
    }
    return result;
  }
  KORVEX_INLINE static std::int64_t total(Bits bits) {
    std::uint64_t result = 0;
    for (int i = 0; i < kCount; ++i) {
      result += bits.value[i];
    }
    return static_cast<std::int64_t>(result);
  }
};

// The lanes of functions of one element. Without a fused multiply-add instruction every lane calls
// a function, so there is nothing to gain from several.
#if defined(__FMA__) || defined(__aarch64__)
using ElementLanes = HostLanes;
#else
using ElementLanes = ScalarLanes;
#endif

}  // namespace korvex::arithmetic
