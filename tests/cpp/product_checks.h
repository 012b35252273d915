// SPDX-License-Identifier: Apache-2.0
// Dot and matrix products by every way that the headers offer, for tests and the fuzzer.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "check.h"
#include "korvex/arithmetic/base/lanes.h"
#include "korvex/arithmetic/exact/dot.h"
#include "korvex/arithmetic/exact/matrix_product.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/matrix_product.h"
#include "random_data.h"
#include "sum_checks.h"

namespace korvex::test {

using Limbs3 = std::array<double, 3>;

struct Pairs {
  std::vector<double> x;
  std::vector<double> y;

  std::size_t size() const { return x.size(); }
  void append(double x_value, double y_value) {
    x.push_back(x_value);
    y.push_back(y_value);
  }
};

template <class Lanes>
Limbs4 dot_limbs(const Pairs& pairs) {
  Limbs4 out = {7.0, 7.0, 7.0, 7.0};
  arithmetic::dot_sequential<Lanes>(pairs.x.data(), pairs.y.data(), out.data(),
                                    static_cast<std::int64_t>(pairs.size()));
  return out;
}

// The three limbs of the parallel dot product over slices, joined from the last one back.
template <class Lanes>
Limbs3 parallel_dot_limbs(const Pairs& pairs, std::size_t slice) {
  arithmetic::ExactProductSum sum;
  const std::size_t slices = (pairs.size() + slice - 1) / slice;
  for (std::size_t i = slices; i-- > 0;) {
    const std::size_t begin = i * slice;
    const std::size_t end = std::min(pairs.size(), begin + slice);
    arithmetic::ExactProductSum part;
    arithmetic::add_products<Lanes>(pairs.x.data() + begin, pairs.y.data() + begin,
                                    static_cast<std::int64_t>(end - begin), part);
    sum.add(part);
  }
  Limbs3 out = {7.0, 7.0, 7.0};
  arithmetic::write_parallel_dot(sum, &out[0], &out[1], &out[2]);
  return out;
}

inline Limbs3 element_limbs(const Pairs& pairs) {
  Limbs3 out = {7.0, 7.0, 7.0};
  arithmetic::matrix_element(pairs.x.data(), pairs.y.data(), 1,
                             static_cast<std::int64_t>(pairs.size()), out.data());
  return out;
}

// True where all ways give the expected limbs: four of them, or three.
inline bool all_dots_give(const Pairs& pairs, const std::vector<double>& four,
                          const std::vector<double>& three) {
  const std::size_t third = pairs.size() / 3 + 1;
  return same_limbs(dot_limbs<arithmetic::ScalarLanes>(pairs), four) &&
         same_limbs(dot_limbs<arithmetic::HostLanes>(pairs), four) &&
         same_limbs(parallel_dot_limbs<arithmetic::ScalarLanes>(pairs, third), three) &&
         same_limbs(parallel_dot_limbs<arithmetic::HostLanes>(pairs, pairs.size() + 1), three) &&
         same_limbs(element_limbs(pairs), three);
}

struct Matrices {
  std::size_t m, n, k;
  std::vector<double> a;
  std::vector<double> b;
};

struct ProductLimbs {
  std::vector<double> limb[3];
};

inline ProductLimbs multiply(const Matrices& matrices, int threads) {
  ProductLimbs out;
  for (auto& limb : out.limb) {
    limb.assign(matrices.m * matrices.n + 1, 7.0);
  }
  const auto m = static_cast<std::int64_t>(matrices.m);
  const auto n = static_cast<std::int64_t>(matrices.n);
  const auto k = static_cast<std::int64_t>(matrices.k);
  const host::FactorInMemory a(matrices.a.data(), k, 1);
  const host::FactorInMemory b(matrices.b.data(), 1, n);
  const host::LimbArrays limbs({out.limb[0].data(), out.limb[1].data(), out.limb[2].data()}, n);
  host::multiply_on_host({a, b, m, n, k}, limbs, threads);
  return out;
}

inline Limbs3 element_of(const Matrices& matrices, std::size_t i, std::size_t j) {
  Limbs3 out = {7.0, 7.0, 7.0};
  arithmetic::matrix_element(matrices.a.data() + i * matrices.k, matrices.b.data() + j,
                             static_cast<std::int64_t>(matrices.n),
                             static_cast<std::int64_t>(matrices.k), out.data());
  return out;
}

}  // namespace korvex::test
