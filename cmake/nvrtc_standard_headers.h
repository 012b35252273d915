// SPDX-License-Identifier: Apache-2.0
// What the kernels use of the C++ standard library, for a compiler that comes without one. It
// stands for <cfloat>, <cmath>, <cstdint>, <cstring>, <limits> and <new> alike; the compiler takes
// them for different files, so a guard keeps the second from being read.
#ifndef KORVEX_NVRTC_STANDARD_HEADERS_H_
#define KORVEX_NVRTC_STANDARD_HEADERS_H_

namespace std {

using uint8_t = unsigned char;
using uint16_t = unsigned short;
using int32_t = int;
using uint32_t = unsigned;
using int64_t = long long;
using uint64_t = unsigned long long;
using uintptr_t = unsigned long long;
using size_t = decltype(sizeof 0);

template <class T>
struct numeric_limits;

template <>
struct numeric_limits<double> {
  static constexpr bool is_iec559 = true;
};

}  // namespace std

#endif  // KORVEX_NVRTC_STANDARD_HEADERS_H_
