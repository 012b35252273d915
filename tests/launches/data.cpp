// SPDX-License-Identifier: Apache-2.0
// The data of the cases: seeded, of many magnitudes, with special values, hard arguments and short
// arrays that a kernel once needed to be right for.
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

#include "tests/launches/launch_case.h"

namespace korvex::launches {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

const double kSpecials[] = {0.0,
                            -0.0,
                            kInfinity,
                            -kInfinity,
                            kNan,
                            0x1p-1074,
                            -0x1p-1074,
                            0x1p-1022,
                            -0x1p-1022,
                            0x1.fffffffffffffp+1023,
                            -0x1.fffffffffffffp+1023,
                            1.0,
                            -1.0};

const std::vector<std::vector<double>>& notable_arrays() {
  static const std::vector<std::vector<double>> arrays = {
#include "tests/launches/notable_arrays.inc"
  };
  return arrays;
}

std::vector<double>& hard_cases() {
  static std::vector<double> cases;
  return cases;
}

}  // namespace

void read_hard_cases(const char* path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  const std::string all = text.str();
  constexpr std::string_view kKey = "\"x\": \"";
  for (std::size_t at = all.find(kKey); at != std::string::npos; at = all.find(kKey, at + 1)) {
    hard_cases().push_back(std::strtod(all.c_str() + at + kKey.size(), nullptr));
  }
  if (hard_cases().empty()) {
    throw Failure(std::string("no hard cases in ") + path);
  }
}

std::size_t notable_count() { return notable_arrays().size(); }
std::size_t notable_size(std::size_t which) { return notable_arrays()[which].size(); }

std::vector<double> draw_elements(test::Random& random, const Case& one, std::size_t count) {
  std::vector<double> x(count);
  const auto shape =
      static_cast<test::Shape>(one.seed % static_cast<std::uint64_t>(test::Shape::kCount));
  const auto& notable = notable_arrays()[one.notable];
  const std::size_t first_hard = random.bits() % std::max<std::size_t>(1, hard_cases().size());
  if (one.data == Data::kShape || one.data == Data::kSpecial) {
    x = test::draw_many(random, shape, count, one.seed % 3 == 0);
  }
  for (std::size_t i = 0; i < count; ++i) {
    if (one.data == Data::kSpecial && random.below(4) == 0) {
      x[i] =
          kSpecials[static_cast<std::size_t>(random.below(static_cast<int>(std::size(kSpecials))))];
    } else if (one.data == Data::kModerate) {
      x[i] = random.with_exponent(random.between(-12, 9));
    } else if (one.data == Data::kHard && !hard_cases().empty()) {
      x[i] = hard_cases()[(first_hard + i) % hard_cases().size()];
    } else if (one.data == Data::kNotable) {
      x[i] = notable[i % notable.size()];
    }
  }
  return x;
}

}  // namespace korvex::launches
