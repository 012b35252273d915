// SPDX-License-Identifier: Apache-2.0
// Sums of one array by every way that the headers offer, for tests and the fuzzer.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "check.h"
#include "korvex/arithmetic/base/lanes.h"
#include "korvex/arithmetic/exact/sum.h"
#include "korvex/kernels/host/lanes.h"

namespace korvex::test {

using Limbs4 = std::array<double, 4>;
using Limbs2 = std::array<double, 2>;

template <class Lanes>
Limbs4 sequential_limbs(const std::vector<double>& x) {
  Limbs4 out = {7.0, 7.0, 7.0, 7.0};
  arithmetic::sum_sequential<Lanes>(x.data(), out.data(), static_cast<std::int64_t>(x.size()));
  return out;
}

// The two limbs of the parallel sum over slices of the given length, joined from the last one back.
template <class Lanes>
Limbs2 parallel_limbs(const std::vector<double>& x, std::size_t slice) {
  arithmetic::ExactSum sum;
  const std::size_t slices = (x.size() + slice - 1) / slice;
  for (std::size_t i = slices; i-- > 0;) {
    const std::size_t begin = i * slice;
    const std::size_t end = std::min(x.size(), begin + slice);
    arithmetic::ExactSum part;
    arithmetic::add_range<Lanes>(x.data() + begin, static_cast<std::int64_t>(end - begin), part);
    sum.add(part);
  }
  Limbs2 out = {7.0, 7.0};
  arithmetic::write_parallel_sum(sum, &out[0], &out[1]);
  return out;
}

template <class Expected, class Actual>
bool same_limbs(const Actual& actual, const Expected& expected) {
  return std::equal(actual.begin(), actual.end(), expected.begin(),
                    [](double a, double b) { return bits_of(a) == bits_of(b); });
}

// True where all ways give the expected limbs: four of them, and the two of the parallel sum.
inline bool all_ways_give(const std::vector<double>& x, const std::vector<double>& four,
                          const std::vector<double>& two) {
  const std::size_t third = x.size() / 3 + 1;
  return same_limbs(sequential_limbs<arithmetic::ScalarLanes>(x), four) &&
         same_limbs(sequential_limbs<arithmetic::HostLanes>(x), four) &&
         same_limbs(parallel_limbs<arithmetic::ScalarLanes>(x, third), two) &&
         same_limbs(parallel_limbs<arithmetic::HostLanes>(x, x.size() + 1), two);
}

}  // namespace korvex::test
