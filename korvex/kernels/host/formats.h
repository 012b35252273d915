// SPDX-License-Identifier: Apache-2.0
// The number formats of arrays: what an element is in memory, its value, and several side by side.
//
// All numbers but 64-bit integers are doubles. Of a 64-bit integer, two doubles are: its upper half
// times 2^32, rounded down, and its lower half.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "korvex/arithmetic/base/portability.h"
#include "korvex/kernels/host/exact.h"
#include "korvex/kernels/host/lanes.h"

namespace korvex::host {

using arithmetic::HostDoubles;
using arithmetic::HostLanes;

template <class Element>
struct IntegerFormat {
  using Storage = Element;
  static constexpr bool kIsInteger = true;
  static constexpr bool kIsWide = sizeof(Element) == 8;  // not always a double
  static std::int64_t integer(Storage x) {
    static_assert(!kIsWide);
    return x;
  }
  static double high(Storage x) {
    if constexpr (!kIsWide) {
      return static_cast<double>(x);  // exact
    } else if constexpr (std::is_signed_v<Storage>) {
      return static_cast<double>(static_cast<std::int32_t>(x >> 32)) * 0x1p+32;  // exact
    } else {
      return half(x >> 32) * 0x1p+32;  // exact
    }
  }
  static double low(Storage x) { return half(static_cast<std::uint64_t>(x) & 0xffffffff); }

 private:
  // A number below 2^32 as a double: the last bits of 2^52 + x, which every processor has vectors
  // for.
  static double half(std::uint64_t x) {
    return arithmetic::from_bits(arithmetic::to_bits(0x1p+52) | x) - 0x1p+52;  // exact
  }
};

// Any byte but 0 is true.
struct BoolFormat {
  using Storage = unsigned char;
  static constexpr bool kIsInteger = true;
  static constexpr bool kIsWide = false;
  static std::int64_t integer(Storage x) { return x != 0 ? 1 : 0; }
  // By bits, as compilers make no vectors of a comparison that is converted.
  static double high(Storage x) {
    const auto is_true = static_cast<std::uint64_t>(x != 0);
    return arithmetic::from_bits((0 - is_true) & arithmetic::to_bits(1.0));
  }
};

template <class Element>
struct FloatFormat {
  using Storage = Element;
  static constexpr bool kIsInteger = false;
  static constexpr bool kIsWide = false;
  static double high(Storage x) { return static_cast<double>(x); }  // exact
  static HostDoubles load(const Storage* x) {
    using Vector __attribute__((vector_size(sizeof(Element) * arithmetic::kHostLanes))) = Element;
    Vector elements;
    std::memcpy(&elements, x, sizeof elements);
    return __builtin_convertvector(elements, HostDoubles::Vector);
  }
};
using Float64Format = FloatFormat<double>;
using Float32Format = FloatFormat<float>;

// The upper half of a float32.
struct Bfloat16Format {
  using Storage = std::uint16_t;
  static constexpr bool kIsInteger = false;
  static constexpr bool kIsWide = false;
  static double high(Storage x) {
    const std::uint32_t bits = std::uint32_t{x} << 16;
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
  }
  static HostDoubles load(const Storage* x) {
    constexpr int kLanes = arithmetic::kHostLanes;
    using Halves __attribute__((vector_size(2 * kLanes))) = std::uint16_t;
    using Words __attribute__((vector_size(4 * kLanes))) = std::uint32_t;
    using Floats __attribute__((vector_size(4 * kLanes))) = float;
    Halves halves;
    std::memcpy(&halves, x, sizeof halves);
    const Words bits = __builtin_convertvector(halves, Words) << 16;
    return __builtin_convertvector(reinterpret_cast<Floats>(bits), HostDoubles::Vector);
  }
};

struct Float16Format {
  using Storage = std::uint16_t;
  static constexpr bool kIsInteger = false;
  static constexpr bool kIsWide = false;
  static double high(Storage x) {
    const double sign = (x & 0x8000) != 0 ? -1.0 : 1.0;
    const int field = (x >> 10) & 0x1f;
    const double fraction = x & 0x3ff;
    if (field == 0x1f) {
      return fraction != 0 ? arithmetic::canonical_nan() : sign * arithmetic::infinity();
    }
    return field == 0 ? sign * fraction * 0x1p-24
                      : sign * (fraction + 1024) * arithmetic::power_of_two(field - 25);
  }
  static HostDoubles load(const Storage* x) {
#if defined(__AVX512F__)
    using Floats __attribute__((vector_size(32))) = float;
    const __m256 floats = _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(x)));
    return __builtin_convertvector(reinterpret_cast<Floats>(floats), HostDoubles::Vector);
#elif defined(__F16C__)
    return _mm256_cvtps_pd(_mm_cvtph_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(x))));
#elif defined(__aarch64__)
    std::uint32_t pair = 0;
    std::memcpy(&pair, x, sizeof pair);
    const float32x4_t floats = vcvt_f32_f16(vreinterpret_f16_u32(vdup_n_u32(pair)));
    return HostDoubles::Vector(vcvt_f64_f32(vget_low_f32(floats)));
#else
    HostDoubles values;
    for (int i = 0; i < arithmetic::kHostLanes; ++i) {
      values.value[i] = high(x[i]);
    }
    return values;
#endif
  }
};

// Calls visit with the format of that number, and returns what it returns.
template <class Visit>
decltype(auto) with_format(int format, const Visit& visit) {
  switch (format) {
    case KORVEX_FORMAT_BOOL:
      return visit(BoolFormat{});
    case KORVEX_FORMAT_INT8:
      return visit(IntegerFormat<std::int8_t>{});
    case KORVEX_FORMAT_INT16:
      return visit(IntegerFormat<std::int16_t>{});
    case KORVEX_FORMAT_INT32:
      return visit(IntegerFormat<std::int32_t>{});
    case KORVEX_FORMAT_INT64:
      return visit(IntegerFormat<std::int64_t>{});
    case KORVEX_FORMAT_UINT8:
      return visit(IntegerFormat<std::uint8_t>{});
    case KORVEX_FORMAT_UINT16:
      return visit(IntegerFormat<std::uint16_t>{});
    case KORVEX_FORMAT_UINT32:
      return visit(IntegerFormat<std::uint32_t>{});
    case KORVEX_FORMAT_UINT64:
      return visit(IntegerFormat<std::uint64_t>{});
    case KORVEX_FORMAT_FLOAT16:
      return visit(Float16Format{});
    case KORVEX_FORMAT_BFLOAT16:
      return visit(Bfloat16Format{});
    case KORVEX_FORMAT_FLOAT32:
      return visit(Float32Format{});
    default:
      return visit(Float64Format{});
  }
}

inline std::int64_t bytes_of(int format) {
  return with_format(format, [](auto each) {
    return static_cast<std::int64_t>(sizeof(typename decltype(each)::Storage));
  });
}

// Elements of a format as doubles: a source as of counted_sum.h.
template <class Format>
struct ConvertedElements {
  const typename Format::Storage* x;

  KORVEX_INLINE double operator[](std::int64_t i) const { return Format::high(x[i]); }
  KORVEX_INLINE ConvertedElements from(std::int64_t i) const { return {x + i}; }
  template <class>
  KORVEX_INLINE HostDoubles load() const {
    return Format::load(x);
  }
  template <class>
  KORVEX_INLINE void look_ahead() const {
    HostLanes::look_ahead(reinterpret_cast<const double*>(x));
  }
};

// Products of a format whose products are doubles: significands of at most 26 bits, and exponents
// far inside of those of doubles.
template <class Format>
struct ConvertedProducts {
  const typename Format::Storage* x;
  const typename Format::Storage* y;

  KORVEX_INLINE double operator[](std::int64_t i) const {
    return arithmetic::mul_rn(Format::high(x[i]), Format::high(y[i]));  // exact
  }
  KORVEX_INLINE ConvertedProducts from(std::int64_t i) const { return {x + i, y + i}; }
  template <class>
  KORVEX_INLINE HostDoubles load() const {
    return mul_rn(Format::load(x), Format::load(y));  // exact
  }
  template <class>
  KORVEX_INLINE void look_ahead() const {
    HostLanes::look_ahead(reinterpret_cast<const double*>(x));
    HostLanes::look_ahead(reinterpret_cast<const double*>(y));
  }
};

}  // namespace korvex::host
