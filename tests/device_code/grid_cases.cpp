// SPDX-License-Identifier: Apache-2.0
// Shapes that a launch may have, and sizes around every border of the kernels' work.
#include "tests/device_code/grid_cases.h"

#include <algorithm>
#include <string>

namespace korvex::test {
namespace {

using launches::blocks_for;
using launches::Case;
using launches::Data;
using launches::Subject;

constexpr unsigned kThreads[] = {
#include "tests/launches/threads.inc"
};

// Votes of a warp need all of its lanes.
bool needs_whole_warps(const Subject& subject) {
  return subject.row->blocks_per_multiprocessor != 0 || subject.whole_device != nullptr;
}
bool needs_a_warp(const Subject& subject) {
  return std::string_view(subject.name()) == "tqx_rms_norm_kernel";
}

unsigned most_threads(const Subject& subject) {
  if (subject.whole_device != nullptr) {
    return kernels::kGridBlock;
  }
  return subject.row->block == 0 ? kernels::kMostThreadsOfFunction : subject.row->block;
}

std::vector<unsigned> threads_for(const Subject& subject) {
  std::vector<unsigned> threads;
  for (const unsigned each : kThreads) {
    if (each <= most_threads(subject) && (!needs_whole_warps(subject) || each % 32 == 0) &&
        (!needs_a_warp(subject) || each >= 32)) {
      threads.push_back(each);
    }
  }
  return threads;
}

// One block, some that leave work for several rounds, a thread for each element, more than that,
// and grids and blocks of several dimensions. A grid of many blocks of one thread would take long.
std::vector<launches::Shape> shapes_for(const Subject& subject, std::int64_t n) {
  std::vector<launches::Shape> shapes;
  for (const unsigned threads : threads_for(subject)) {
    const unsigned needed = std::min(blocks_for(n, threads), 300U);
    shapes.push_back({{1, 1, 1}, {threads, 1, 1}});
    shapes.push_back({{3, 1, 1}, {threads, 1, 1}});
    if (threads >= 32 || n < 1000) {
      shapes.push_back({{needed, 1, 1}, {threads, 1, 1}});
      shapes.push_back({{needed + 1, 2, 1}, {threads, 1, 1}});
    }
  }
  shapes.push_back({{2, 3, 2}, {16, 2, 4}});
  if (!needs_whole_warps(subject) && !needs_a_warp(subject)) {
    shapes.push_back({{1, 2, 2}, {3, 5, 2}});
  }
  shapes.push_back({{0, 1, 1}, {threads_for(subject).back(), 1, 1}});
  shapes.push_back({{2, 0, 3}, {threads_for(subject).back(), 1, 1}});
  return shapes;
}

constexpr std::int64_t kSizes[] = {
#include "tests/launches/sizes.inc"
};

// Steps through the shapes of a size, to none of whose counts it has a common factor.
constexpr std::size_t kStepOfShapes = 17;

constexpr std::int64_t kMatrices[][3] = {{0, 3, 3},   {3, 0, 2},   {1, 1, 0},    {1, 1, 1},
                                         {5, 17, 33}, {17, 3, 70}, {16, 16, 16}, {33, 2, 129},
                                         {2, 40, 7},  {1, 65, 31}, {20, 20, 65}, {3, 3, 513}};

launches::Shape matrix_shape(std::uint64_t number, std::int64_t m, std::int64_t n) {
  constexpr unsigned kBlocks[][2] = {{16, 16}, {1, 1},   {2, 1},   {31, 1}, {32, 1},
                                     {3, 11},  {255, 1}, {1, 256}, {8, 8}};
  const unsigned* const block = kBlocks[number % std::size(kBlocks)];
  const unsigned x = number % 4 == 3 ? 1 : blocks_for(n, block[0]) + (number % 4 == 2 ? 1 : 0);
  const unsigned y = number % 4 == 3 ? 1 : blocks_for(m, block[1]) + (number % 4 == 2 ? 2 : 0);
  return {{number % 37 == 36 ? 0 : x, y, 1}, {block[0], block[1], 1}};
}

Case new_case(const Subject& subject, std::uint64_t seed) {
  Case one;
  one.row = subject.row;
  one.whole_device = subject.whole_device;
  one.seed = seed;
  one.odd = static_cast<unsigned>(seed % 32);
  return one;
}

void set_data(Case& one, std::uint64_t number) {
  constexpr auto kDrawn = static_cast<std::uint64_t>(Data::kNotable);
  one.data = static_cast<Data>(number % kDrawn);
}

std::vector<Case> matrix_cases(const Subject& subject, bool is_long, std::uint64_t seed) {
  std::vector<Case> cases;
  for (std::uint64_t round = 0; round < (is_long ? 40 : 6); ++round) {
    for (const auto& [m, n, k] : kMatrices) {
      Case one = new_case(subject, seed++);
      one.sizes = {{"M", m}, {"N", n}, {"K", k}};
      one.shape = matrix_shape(cases.size(), m, n);
      set_data(one, round);
      cases.push_back(one);
    }
  }
  return cases;
}

}  // namespace

std::vector<Case> grid_cases_of(const Subject& subject, bool is_long, std::uint64_t seed) {
  if (launches::is_matrix_product(*subject.row)) {
    return matrix_cases(subject, is_long, seed);
  }
  std::vector<Case> cases;
  std::size_t turn = 0;
  const auto add = [&](std::int64_t n, const launches::Shape& shape) -> Case& {
    Case one = new_case(subject, seed++);
    one.sizes = {{"n", n}};
    one.shape = shape;
    set_data(one, cases.size() + cases.size() / 4);
    cases.push_back(one);
    return cases.back();
  };
  for (const std::int64_t n : kSizes) {
    const std::vector<launches::Shape> shapes = shapes_for(subject, n);
    // All shapes of the long run; else a few, others for each size.
    const std::size_t count = is_long ? shapes.size() : n > 5000 ? 2 : n > 600 ? 3 : 6;
    for (std::size_t i = 0; i < count; ++i) {
      add(n, shapes[turn++ * kStepOfShapes % shapes.size()]);
    }
  }
  for (std::size_t notable = 0; notable < launches::notable_count(); ++notable) {
    const auto n = static_cast<std::int64_t>(launches::notable_size(notable));
    const std::vector<launches::Shape> shapes = shapes_for(subject, n);
    Case& one = add(n, shapes[turn++ * kStepOfShapes % shapes.size()]);
    one.data = Data::kNotable;
    one.notable = notable;
  }
  return cases;
}

std::vector<Case> trapping_cases_of(const Subject& subject, std::uint64_t seed) {
  std::vector<Case> cases;
  for (const unsigned threads : kThreads) {
    if (needs_a_warp(subject) && threads < 32) {
      Case one = new_case(subject, seed++);
      one.sizes = {{"n", 513}};
      one.shape = {{1, 1, 1}, {threads, 1, 1}};
      cases.push_back(one);
    }
  }
  return cases;
}

std::string what_is_missing(const Subject& subject, const std::vector<Case>& cases) {
  if (launches::is_matrix_product(*subject.row)) {
    return "";
  }
  std::string missing;
  const auto want = [&](const std::string& what, const auto& condition) {
    missing += std::ranges::any_of(cases, condition) ? "" : " " + what + ";";
  };
  for (const unsigned threads : threads_for(subject)) {
    want("blocks of " + std::to_string(threads), [&](const Case& one) {
      return one.shape.block[0] == threads && one.shape.blocks() != 0 && one.sizes.at("n") > 1;
    });
  }
  for (const std::int64_t n : kSizes) {
    want("n of " + std::to_string(n),
         [&](const Case& one) { return one.sizes.at("n") == n && one.shape.blocks() != 0; });
  }
  for (unsigned array = 0; array < 3; ++array) {
    for (const std::uint64_t past : {0U, 8U}) {
      want("array " + std::to_string(array) + " at " + std::to_string(past), [&](const Case& one) {
        return one.bytes_past_16(array) == past && one.sizes.at("n") >= 2047;
      });
    }
  }
  const auto threads_of = [](const Case& one) {
    return std::int64_t{one.shape.blocks()} * one.shape.threads();
  };
  want("no blocks", [](const Case& one) { return one.shape.blocks() == 0; });
  want("more threads than elements", [&](const Case& one) {
    return one.sizes.at("n") > 0 && threads_of(one) > one.sizes.at("n") + 1024;
  });
  want("several elements a thread", [&](const Case& one) {
    return threads_of(one) != 0 && 4 * threads_of(one) < one.sizes.at("n");
  });
  return missing;
}

}  // namespace korvex::test
