// SPDX-License-Identifier: Apache-2.0
// What the first tries of exp, log, sigmoid and tanh ask of a vector register beside lanes.h:
// integers of 64 bits in its lanes, and entries of their tables for each lane.
#pragma once

#if defined(__x86_64__)
#include <emmintrin.h>
#endif

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "korvex/arithmetic/elementary/quick_tries.h"
#include "korvex/kernels/host/lanes.h"

namespace korvex::arithmetic {

KORVEX_INLINE HostBits operator+(HostBits a, HostBits b) { return a.value + b.value; }
KORVEX_INLINE HostBits operator+(HostBits a, std::uint64_t b) { return a.value + b; }
KORVEX_INLINE HostBits operator<<(HostBits a, int count) { return a.value << count; }
KORVEX_INLINE HostBits operator|(HostBits a, std::uint64_t b) { return a.value | b; }

KORVEX_INLINE HostFlags either(HostFlags a, HostFlags b) { return {a.mask | b.mask}; }
KORVEX_INLINE HostFlags operator!=(HostDoubles a, HostDoubles b) { return {a.value != b.value}; }

// b where either is NaN, as on one double.
KORVEX_INLINE HostDoubles greater(HostDoubles a, HostDoubles b) {
#if defined(__AVX2__) && !defined(__AVX512F__)
  return _mm256_max_pd(a.value, b.value);
#elif defined(__x86_64__) && !defined(__AVX512F__)
  return _mm_max_pd(a.value, b.value);
#else
  return a.value > b.value ? a.value : b.value;
#endif
}

// A bit for each lane with the flag, that of the first lane last.
KORVEX_INLINE std::uint8_t lanes_with(HostFlags flags) {
#if defined(__AVX512F__)
  return static_cast<std::uint8_t>(_mm512_movepi64_mask(reinterpret_cast<__m512i>(flags.mask)));
#elif defined(__AVX2__)
  return static_cast<std::uint8_t>(_mm256_movemask_pd(reinterpret_cast<__m256d>(flags.mask)));
#elif defined(__x86_64__)
  return static_cast<std::uint8_t>(_mm_movemask_pd(reinterpret_cast<__m128d>(flags.mask)));
#else
  return static_cast<std::uint8_t>((flags.mask[0] & 1) | (flags.mask[1] & 2));
#endif
}

// The flag in the lanes whose bits are set, as lanes_with() leaves them.
KORVEX_INLINE HostFlags flags_of(std::uint8_t lanes) {
  HostBits::Vector bits = {};
  for (int i = 0; i < kHostLanes; ++i) {
    bits[i] = std::uint64_t{1} << i;
  }
  return {(bits & lanes) != 0};
}

// Sixteen numbers are two registers of AVX-512, of which one instruction picks.
struct SixteenPowers {
  alignas(64) double high[16];
  alignas(64) double low[16];
  constexpr SixteenPowers() : high(), low() {
    for (std::size_t j = 0; j < 16; ++j) {
      high[j] = kPowerTable[4 * j].high;
      low[j] = kPowerTable[4 * j].low;
    }
  }
};
inline constexpr SixteenPowers kSixteenPowers;

template <class Entry>
KORVEX_INLINE const Entry* at_byte(const Entry* table, std::uint64_t offset) {
  return reinterpret_cast<const Entry*>(reinterpret_cast<const char*>(table) + offset);
}

// Other bits of j than the last four are not looked at.
KORVEX_INLINE PowerEntries sixteenth_power(HostBits j) {
  PowerEntries entries;
#if defined(__AVX512F__)
  const auto picked = [&](const double* table) {
    return _mm512_permutex2var_pd(_mm512_load_pd(table), reinterpret_cast<__m512i>(j.value),
                                  _mm512_load_pd(table + 8));
  };
  entries.high = picked(kSixteenPowers.high);
  entries.low = picked(kSixteenPowers.low);
#else
  // In bytes from the beginning: what an index costs a lane is then done for all at once.
  const HostBits place = (j & 15) << 6;
  static_assert(4 * sizeof(PowerEntry) == 1 << 6);
  load_pairs([&](int i) { return &at_byte(kPowerTable, place.value[i])->high; }, entries.high,
             entries.low);
#endif
  return entries;
}

// The table of log with entries of 32 bytes, each a register of AVX.
struct WideLogTable {
  struct alignas(32) Entry {
    double number[4];
  };
  Entry entry[kLogEntries];
  constexpr WideLogTable() : entry() {
    for (int i = 0; i < kLogEntries; ++i) {
      entry[i] = {{kLogTable[i].reciprocal, kLogTable[i].high, kLogTable[i].low, 0.0}};
    }
  }
};
inline constexpr WideLogTable kWideLogTable;

// Precondition: every lane is a multiple of kLogEntryBytes, below kLogEntries of them.
KORVEX_INLINE LogEntries quick_log_entry(HostBits place) {
  static_assert(sizeof(WideLogTable::Entry) == kLogEntryBytes);
  LogEntries entries;
  const auto at = [&](int i) { return at_byte(kWideLogTable.entry, place.value[i])->number; };
#if defined(__AVX512F__)
  // By the compiler's own shuffles: g++ 12 warns of its intrinsic functions for these.
  using Entry __attribute__((vector_size(32))) = double;
  const auto pair = [&](int i) -> HostDoubles::Vector {
    Entry first, second;
    std::memcpy(&first, at(i), sizeof first);
    std::memcpy(&second, at(i + 1), sizeof second);
    return __builtin_shufflevector(first, second, 0, 1, 2, 3, 4, 5, 6, 7);
  };
  const auto p01 = pair(0), p23 = pair(2), p45 = pair(4), p67 = pair(6);
  // Reciprocals and lows of lanes 0 to 3 and 4 to 7, and the numbers between them.
  const auto even_left = __builtin_shufflevector(p01, p23, 0, 8, 2, 10, 4, 12, 6, 14);
  const auto even_right = __builtin_shufflevector(p45, p67, 0, 8, 2, 10, 4, 12, 6, 14);
  const auto odd_left = __builtin_shufflevector(p01, p23, 1, 9, 3, 11, 5, 13, 7, 15);
  const auto odd_right = __builtin_shufflevector(p45, p67, 1, 9, 3, 11, 5, 13, 7, 15);
  entries.reciprocal = __builtin_shufflevector(even_left, even_right, 0, 4, 1, 5, 8, 12, 9, 13);
  entries.high = __builtin_shufflevector(odd_left, odd_right, 0, 4, 1, 5, 8, 12, 9, 13);
  entries.low = __builtin_shufflevector(even_left, even_right, 2, 6, 3, 7, 10, 14, 11, 15);
#elif defined(__AVX2__)
  const __m256d e0 = _mm256_load_pd(at(0)), e1 = _mm256_load_pd(at(1));
  const __m256d e2 = _mm256_load_pd(at(2)), e3 = _mm256_load_pd(at(3));
  const __m256d even01 = _mm256_unpacklo_pd(e0, e1), even23 = _mm256_unpacklo_pd(e2, e3);
  entries.reciprocal = _mm256_permute2f128_pd(even01, even23, 0x20);
  entries.low = _mm256_permute2f128_pd(even01, even23, 0x31);
  entries.high =
      _mm256_permute2f128_pd(_mm256_unpackhi_pd(e0, e1), _mm256_unpackhi_pd(e2, e3), 0x20);
#else
  HostDoubles::Vector reciprocal = {}, high = {}, low = {};  // g++ for Arm warns without the zeros
  for (int i = 0; i < kHostLanes; ++i) {
    reciprocal[i] = at(i)[0];
    high[i] = at(i)[1];
    low[i] = at(i)[2];
  }
  entries.reciprocal = reciprocal;
  entries.high = high;
  entries.low = low;
#endif
  return entries;
}

}  // namespace korvex::arithmetic
