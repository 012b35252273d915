// SPDX-License-Identifier: Apache-2.0
// Lanes of a single GPU thread: independent chains of additions side by side, which hide the
// latency of each, read from shared memory in pairs. Same members as
// korvex::arithmetic::ScalarLanes; same results.
#pragma once

#include "korvex/arithmetic/base/portability.h"

namespace korvex::kernels {

struct DeviceLanes {
  static constexpr int kCount = 8;
  static constexpr int kMaxSlices = 4;

  struct Value {
    double at[kCount];

    __device__ __forceinline__ Value operator+(const Value& b) const {
      Value result;
#pragma unroll
      for (int i = 0; i < kCount; ++i) {
        result.at[i] = arithmetic::add_rn(at[i], b.at[i]);
      }
      return result;
    }
    __device__ __forceinline__ Value operator-(const Value& b) const {
      Value result;
#pragma unroll
      for (int i = 0; i < kCount; ++i) {
        result.at[i] = arithmetic::sub_rn(at[i], b.at[i]);
      }
      return result;
    }
    __device__ __forceinline__ Value operator*(const Value& b) const {
      Value result;
#pragma unroll
      for (int i = 0; i < kCount; ++i) {
        result.at[i] = arithmetic::mul_rn(at[i], b.at[i]);
      }
      return result;
    }
  };

  struct Bits {
    std::uint64_t at[kCount];

    __device__ __forceinline__ Bits operator^(const Bits& b) const {
      Bits result;
#pragma unroll
      for (int i = 0; i < kCount; ++i) {
        result.at[i] = at[i] ^ b.at[i];
      }
      return result;
    }
    __device__ __forceinline__ Bits operator-(const Bits& b) const {
      Bits result;
#pragma unroll
      for (int i = 0; i < kCount; ++i) {
        result.at[i] = at[i] - b.at[i];
      }
      return result;
    }
    // Lanes 2 i and 2 i + 1 go into element i, since nobody asks for less than any(): so one
    // instruction takes two lanes.
    __device__ __forceinline__ Bits& operator|=(const Bits& b) {
#pragma unroll
      for (int i = 0; i < kCount / 2; ++i) {
        at[i] |= b.at[2 * i] | b.at[2 * i + 1];
      }
      return *this;
    }
  };

  // Precondition: x lies in shared memory, at a multiple of 16 bytes.
  __device__ __forceinline__ static Value load(const double* x) {
    Value result;
#pragma unroll
    for (int i = 0; i < kCount; i += 2) {
      const double2 pair = *reinterpret_cast<const double2*>(x + i);
      result.at[i] = pair.x;
      result.at[i + 1] = pair.y;
    }
    return result;
  }
  __device__ __forceinline__ static Value error_of_product(const Value& x, const Value& y,
                                                           const Value& product) {
    Value result;
#pragma unroll
    for (int i = 0; i < kCount; ++i) {
      result.at[i] = arithmetic::fma_rn(x.at[i], y.at[i], -product.at[i]);
    }
    return result;
  }
  __device__ __forceinline__ static Bits is_below(const Value& x, double limit) {
    Bits result;
#pragma unroll
    for (int i = 0; i < kCount; ++i) {
      result.at[i] = x.at[i] < limit && x.at[i] > -limit ? 1 : 0;
    }
    return result;
  }
  __device__ __forceinline__ static void look_ahead(const double*) {}
  __device__ __forceinline__ static Value broadcast(double x) {
    Value result;
#pragma unroll
    for (int i = 0; i < kCount; ++i) {
      result.at[i] = x;
    }
    return result;
  }
  __device__ __forceinline__ static Bits bits(const Value& x) {
    Bits result;
#pragma unroll
    for (int i = 0; i < kCount; ++i) {
      result.at[i] = arithmetic::to_bits(x.at[i]);
    }
    return result;
  }
  __device__ __forceinline__ static std::uint64_t any(const Bits& bits) {
    std::uint64_t result = 0;
#pragma unroll
    for (int i = 0; i < kCount; ++i) {
      result |= bits.at[i];
    }
    return result;
  }
  __device__ __forceinline__ static std::int64_t total(const Bits& bits) {
    std::uint64_t result = 0;
#pragma unroll
    for (int i = 0; i < kCount; ++i) {
      result += bits.at[i];
    }
    return static_cast<std::int64_t>(result);
  }
};

}  // namespace korvex::kernels
