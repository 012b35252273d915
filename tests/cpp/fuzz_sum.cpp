// SPDX-License-Identifier: Apache-2.0
// Seeded fuzzer of the sums: random shapes, lengths and orders against exact bits.
//
// usage: fuzz_sum SEED SECONDS. Prints what it ran; on a difference, the round's seed and the data.
// It does not cover infinities and NaN, arrays beyond some ten thousand elements, or the threads of
// the host library: test_sum and test_host_kernels do.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bit_number.h"
#include "random_data.h"
#include "sum_checks.h"

namespace korvex::test {
namespace {

// A piece of one shape, scaled and perhaps cancelling; an array is made of one to four of them.
void append_piece(Random& random, std::vector<double>& x) {
  const auto shape = static_cast<Shape>(random.below(static_cast<int>(Shape::kCount)));
  const int longest = random.below(4) == 0 ? 9000 : random.below(2) == 0 ? 700 : 12;
  const bool cancels = random.below(3) == 0;
  const auto count = static_cast<std::size_t>(random.between(0, longest));
  const std::vector<double> piece = draw_many(random, shape, count, cancels);
  x.insert(x.end(), piece.begin(), piece.end());
}

std::vector<double> make_array(std::uint64_t seed) {
  Random random(seed);
  std::vector<double> x;
  for (int pieces = random.between(1, 4); pieces > 0; --pieces) {
    append_piece(random, x);
  }
  if (random.below(4) == 0) {
    const std::size_t length = x.size();
    for (std::size_t i = 0; i < length; ++i) {
      x.push_back(-x[length - 1 - i]);
    }
  }
  if (random.below(3) == 0) {
    x.push_back(random.sign() * 0x1p-1074);
  }
  return x;
}

int report(std::uint64_t seed, const std::vector<double>& x) {
  std::printf("differs: round seed %llu, %zu elements\n", static_cast<unsigned long long>(seed),
              x.size());
  for (std::size_t i = 0; i < x.size() && i < 100; ++i) {
    std::printf("%a\n", x[i]);
  }
  return 1;
}

int fuzz(std::uint64_t first_seed, double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  long long rounds = 0;
  long long elements = 0;
  for (std::uint64_t seed = first_seed; Clock::now() < end; ++seed, ++rounds) {
    const std::vector<double> x = make_array(seed);
    elements += static_cast<long long>(x.size());
    if (!all_ways_give(x, canonical_limbs(x, 4), canonical_limbs(x, 2))) {
      return report(seed, x);
    }
  }
  std::printf("%lld arrays, %lld elements, all equal\n", rounds, elements);
  return rounds > 0 ? 0 : 1;
}

}  // namespace
}  // namespace korvex::test

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: fuzz_sum SEED SECONDS\n");
    return 2;
  }
  return korvex::test::fuzz(std::strtoull(argv[1], nullptr, 10), std::strtod(argv[2], nullptr));
}
