// SPDX-License-Identifier: Apache-2.0
// Copies of elements that do not lie side by side, and the walks that hand them out.
#include "korvex/kernels/host/array_walk.h"

#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

namespace korvex::host {
namespace {

constexpr std::int64_t kReadAhead = 2048;  // bytes: memory's latency at full speed
constexpr std::int64_t kLine = 64;         // bytes of a cache that are fetched together

// The even elements of two registers.
template <class Vector, std::size_t... kIndices>
KORVEX_INLINE Vector even_elements(Vector first, Vector second, std::index_sequence<kIndices...>) {
  return __builtin_shufflevector(first, second, static_cast<int>(2 * kIndices)...);
}

// Every second element: whole registers are read, and half of each is kept. Returns how many were
// copied; it leaves the last ones, so that nothing behind them is read.
template <std::int64_t kBytes>
std::int64_t copy_every_second(char* to, const char* from, std::int64_t count) {
  constexpr std::int64_t kRegisterBytes = std::int64_t{8} * arithmetic::kHostLanes;
  constexpr std::int64_t kLanes = kRegisterBytes / kBytes;
  using Element = std::conditional_t<kBytes == 8, std::uint64_t, std::uint32_t>;
  using Vector __attribute__((vector_size(kRegisterBytes))) = Element;
  std::int64_t i = 0;
  for (; i + kLanes < count; i += kLanes) {
    __builtin_prefetch(from + kReadAhead);  // reads nothing, so it may point past the end
    __builtin_prefetch(from + kReadAhead + kLine);
    Vector halves[2];
    std::memcpy(halves, from, sizeof halves);
    const Vector kept =
        even_elements(halves[0], halves[1], std::make_index_sequence<std::size_t{kLanes}>());
    std::memcpy(to, &kept, sizeof kept);
    from += sizeof halves;
    to += sizeof kept;
  }
  return i;
}

template <std::int64_t kBytes>
void copy_elements_of(char* to, const char* from, std::int64_t stride, std::int64_t count) {
  if (stride == kBytes) {
    std::memcpy(to, from, static_cast<std::size_t>(count * kBytes));
    return;
  }
  std::int64_t i = 0;
  if constexpr (kBytes >= 4) {
    i = stride == 2 * kBytes ? copy_every_second<kBytes>(to, from, count) : 0;
    from += i * stride;
  }
  constexpr std::int64_t kAtOnce = 8;  // a loop of its own for each costs more than the copy
  for (; i + kAtOnce <= count; i += kAtOnce) {
    for (std::int64_t k = 0; k < kAtOnce; ++k, from += stride) {
      __builtin_prefetch(from + kReadAhead);
      std::memcpy(to + (i + k) * kBytes, from, kBytes);
    }
  }
  for (; i < count; ++i, from += stride) {
    std::memcpy(to + i * kBytes, from, kBytes);
  }
}

}  // namespace

void copy_elements(char* to, const char* from, std::int64_t bytes, std::int64_t stride,
                   std::int64_t count) {
  switch (bytes) {
    case 1:
      return copy_elements_of<1>(to, from, stride, count);
    case 2:
      return copy_elements_of<2>(to, from, stride, count);
    case 4:
      return copy_elements_of<4>(to, from, stride, count);
    default:
      return copy_elements_of<8>(to, from, stride, count);
  }
}

template class ArrayWalk<1>;
template class ArrayWalk<2>;

}  // namespace korvex::host
