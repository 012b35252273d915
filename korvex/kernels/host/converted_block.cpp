// SPDX-License-Identifier: Apache-2.0
// The loops that make doubles of elements, one for each number format.
#include "korvex/kernels/host/converted_block.h"

#include <cstdint>

namespace korvex::host {

void ConvertedBlock::convert(int format, const void* elements, std::int64_t count) {
  with_format(format, [&](auto each) {
    using Format = decltype(each);
    const auto* x = static_cast<const typename Format::Storage*>(elements);
    has_low = Format::kIsWide;
    std::int64_t i = 0;
    if constexpr (!Format::kIsInteger) {
      for (; i + arithmetic::kHostLanes <= count; i += arithmetic::kHostLanes) {
        HostLanes::store(high + i, Format::load(x + i));
      }
    }
    for (; i < count; ++i) {
      high[i] = Format::high(x[i]);
    }
    if constexpr (Format::kIsWide) {
      for (i = 0; i < count; ++i) {
        low[i] = Format::low(x[i]);
      }
    }
  });
}

}  // namespace korvex::host
