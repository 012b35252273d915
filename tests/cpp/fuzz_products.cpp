// SPDX-License-Identifier: Apache-2.0
// Seeded fuzzer of the dot and matrix products: random shapes and sizes against exact bits.
//
// usage: fuzz_products SEED SECONDS. Prints what it ran; on a difference, the round's seed. It does
// not cover infinities and NaN, nor long arrays: test_dot and test_matrix_product do.
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bit_number.h"
#include "product_checks.h"
#include "random_data.h"

namespace korvex::test {
namespace {

Shape any_shape(Random& random) {
  return static_cast<Shape>(random.below(static_cast<int>(Shape::kCount)));
}

Pairs make_pairs(Random& random) {
  Pairs pairs;
  for (int pieces = random.between(1, 3); pieces > 0; --pieces) {
    const auto count =
        static_cast<std::size_t>(random.between(0, random.below(3) == 0 ? 2500 : 40));
    const std::vector<double> x = draw_many(random, any_shape(random), count, false);
    const std::vector<double> y = draw_many(random, any_shape(random), count, false);
    const bool cancels = random.below(3) == 0;
    for (std::size_t i = 0; i < count; ++i) {
      pairs.append(x[i], y[i]);
      if (cancels) {
        pairs.append(-y[i], x[i]);
      }
    }
  }
  if (random.below(3) == 0) {
    const double sign = random.sign();
    pairs.append(sign * std::ldexp(1.0, random.between(-1074, -400)), 0x1p-600);
  }
  return pairs;
}

bool dots_agree(Random& random) {
  const Pairs pairs = make_pairs(random);
  const auto limbs = [&](int count) {
    return canonical_product_limbs(pairs.x.data(), pairs.y.data(), 1, pairs.size(), count);
  };
  return all_dots_give(pairs, limbs(4), limbs(3));
}

bool products_agree(Random& random) {
  const auto size = [&](int most) { return static_cast<std::size_t>(random.between(1, most)); };
  Matrices matrices = {size(70), size(20), size(random.below(4) == 0 ? 300 : 20), {}, {}};
  matrices.a = draw_many(random, any_shape(random), matrices.m * matrices.k, false);
  matrices.b = draw_many(random, any_shape(random), matrices.k * matrices.n, false);
  const ProductLimbs product = multiply(matrices, random.between(1, 2));
  for (std::size_t place = 0; place < matrices.m * matrices.n; place += size(30)) {
    const std::size_t i = place / matrices.n;
    const std::size_t j = place % matrices.n;
    const Limbs3 limbs = {product.limb[0][place], product.limb[1][place], product.limb[2][place]};
    if (!same_limbs(limbs,
                    canonical_product_limbs(matrices.a.data() + i * matrices.k,
                                            matrices.b.data() + j, matrices.n, matrices.k, 3))) {
      return false;
    }
  }
  return true;
}

int fuzz(std::uint64_t first_seed, double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  long long rounds = 0;
  for (std::uint64_t seed = first_seed; Clock::now() < end; ++seed, ++rounds) {
    Random random(seed);
    if (!dots_agree(random) || !products_agree(random)) {
      std::printf("differs: round seed %llu\n", static_cast<unsigned long long>(seed));
      return 1;
    }
  }
  std::printf("%lld rounds, all equal\n", rounds);
  return rounds > 0 ? 0 : 1;
}

}  // namespace
}  // namespace korvex::test

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: fuzz_products SEED SECONDS\n");
    return 2;
  }
  return korvex::test::fuzz(std::strtoull(argv[1], nullptr, 10), std::strtod(argv[2], nullptr));
}
