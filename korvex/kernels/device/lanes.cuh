// SPDX-License-Identifier: Apache-2.0
// Doubles side by side in one GPU thread: independent chains of additions, which hide the latency
// of each, read from shared memory in pairs.
//
// DeviceDoubles has the functions of one double that biased cascades call, DeviceLanes the members
// of korvex::arithmetic::ScalarLanes; same results.
#pragma once

#include "korvex/arithmetic/base/portability.h"

namespace korvex::kernels {

constexpr int kDeviceLanes = 8;

struct DeviceBits {
  std::uint64_t at[kDeviceLanes];

  friend __device__ __forceinline__ DeviceBits operator^(const DeviceBits& a, const DeviceBits& b) {
    DeviceBits result;
#pragma unroll
    for (int i = 0; i < kDeviceLanes; ++i) {
      result.at[i] = a.at[i] ^ b.at[i];
    }
    return result;
  }
  friend __device__ __forceinline__ DeviceBits operator-(const DeviceBits& a, const DeviceBits& b) {
    DeviceBits result;
#pragma unroll
    for (int i = 0; i < kDeviceLanes; ++i) {
      result.at[i] = a.at[i] - b.at[i];
    }
    return result;
  }
  // Collects bits for any(), which does not ask which lane had them: lanes 2 i and 2 i + 1 of b go
  // into element i, so that one instruction of three operands takes two lanes.
  friend __device__ __forceinline__ DeviceBits& operator|=(DeviceBits& a, const DeviceBits& b) {
#pragma unroll
    for (int i = 0; i < kDeviceLanes / 2; ++i) {
      const int first = 2 * i;
      a.at[i] |= b.at[first] | b.at[first + 1];
    }
    return a;
  }
};

struct DeviceDoubles {
  double at[kDeviceLanes];

  DeviceDoubles() = default;
  __device__ __forceinline__ explicit DeviceDoubles(double x) {
#pragma unroll
    for (double& each : at) {
      each = x;
    }
  }

  friend __device__ __forceinline__ DeviceDoubles add_rn(const DeviceDoubles& a,
                                                         const DeviceDoubles& b) {
    DeviceDoubles result;
#pragma unroll
    for (int i = 0; i < kDeviceLanes; ++i) {
      result.at[i] = arithmetic::add_rn(a.at[i], b.at[i]);
    }
    return result;
  }
  friend __device__ __forceinline__ DeviceDoubles sub_rn(const DeviceDoubles& a,
                                                         const DeviceDoubles& b) {
    DeviceDoubles result;
#pragma unroll
    for (int i = 0; i < kDeviceLanes; ++i) {
      result.at[i] = arithmetic::sub_rn(a.at[i], b.at[i]);
    }
    return result;
  }
  friend __device__ __forceinline__ DeviceDoubles mul_rn(const DeviceDoubles& a,
                                                         const DeviceDoubles& b) {
    DeviceDoubles result;
#pragma unroll
    for (int i = 0; i < kDeviceLanes; ++i) {
      result.at[i] = arithmetic::mul_rn(a.at[i], b.at[i]);
    }
    return result;
  }
  friend __device__ __forceinline__ DeviceDoubles fma_rn(const DeviceDoubles& a,
                                                         const DeviceDoubles& b,
                                                         const DeviceDoubles& c) {
    DeviceDoubles result;
#pragma unroll
    for (int i = 0; i < kDeviceLanes; ++i) {
      result.at[i] = arithmetic::fma_rn(a.at[i], b.at[i], c.at[i]);
    }
    return result;
  }
  friend __device__ __forceinline__ DeviceDoubles operator-(const DeviceDoubles& a) {
    DeviceDoubles result;
#pragma unroll
    for (int i = 0; i < kDeviceLanes; ++i) {
      result.at[i] = -a.at[i];
    }
    return result;
  }
  friend __device__ __forceinline__ DeviceBits to_bits(const DeviceDoubles& a) {
    DeviceBits result;
#pragma unroll
    for (int i = 0; i < kDeviceLanes; ++i) {
      result.at[i] = arithmetic::to_bits(a.at[i]);
    }
    return result;
  }
};

struct DeviceLanes {
  using Value = DeviceDoubles;
  using Bits = DeviceBits;
  static constexpr int kCount = kDeviceLanes;
  static constexpr int kMaxSlices = 4;
  static constexpr bool kTriesWindow = false;

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
  __device__ __forceinline__ static void look_ahead(const double*) {}
  __device__ __forceinline__ static Bits is_below(const Value& x, double limit) {
    Bits result;
#pragma unroll
    for (int i = 0; i < kCount; ++i) {
      result.at[i] = x.at[i] < limit && x.at[i] > -limit ? 1 : 0;
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
