// SPDX-License-Identifier: Apache-2.0
// A block of elements of any number format as doubles: two for a 64-bit integer, else one.
#pragma once

#include <cstdint>

#include "korvex/kernels/host/array_walk.h"
#include "korvex/kernels/host/formats.h"

namespace korvex::host {

struct ConvertedBlock {
  double high[kBlock];
  double low[kBlock];  // an element is high + low; unused unless has_low
  bool has_low = false;

  // Precondition, here and below: count <= kBlock.
  void convert(int format, const void* elements, std::int64_t count);

  // The same from memory where elements lie `stride` bytes apart.
  void gather(int format, const char* elements, std::int64_t stride, std::int64_t count) {
    alignas(64) char copied[kBlock * sizeof(double)];
    copy_elements(copied, elements, bytes_of(format), stride, count);
    convert(format, copied, count);
  }

  // Rounded; it has the sign of the element, and is 0 only where that is.
  double rounded(std::int64_t i) const { return has_low ? high[i] + low[i] : high[i]; }
};

}  // namespace korvex::host
