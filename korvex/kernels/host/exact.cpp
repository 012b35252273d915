// SPDX-License-Identifier: Apache-2.0
// Exact sums over arrays: the loops over pieces and threads, and the C interface of states.
#include "korvex/kernels/host/exact.h"

#include <algorithm>
#include <cstdint>

#include "korvex/arithmetic/exact/exact_state.h"
#include "korvex/kernels/host/array_walk.h"
#include "korvex/kernels/host/exact_calls.h"
#include "korvex/kernels/host/mixed_products.h"
#include "korvex/kernels/host/result_format.h"
#include "korvex/kernels/host/terms.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {
namespace {

using arithmetic::ExactState;
using arithmetic::StateKind;

// What one thread finds.
struct Part {
  CountedSum sum;
  CountedProductSum products;
};

// Elements of which both sums of the moments are taken while they are in a cache.
constexpr std::int64_t kMomentsBlock = 8192;

template <class Format>
void add_sum(const ArrayWalk<1>& walk, std::int64_t begin, std::int64_t end, Part& part) {
  ElementAdder<Format> elements(part.sum);
  walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
    elements.add(reinterpret_cast<const typename Format::Storage*>(at[0]), count);
  });
}

template <class Format>
void add_moments(const ArrayWalk<1>& walk, std::int64_t begin, std::int64_t end, Part& part) {
  ElementAdder<Format> elements(part.sum);
  ProductAdder<Format> squares(part.products);
  walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
    const auto* x = reinterpret_cast<const typename Format::Storage*>(at[0]);
    for (std::int64_t first = 0; first < count; first += kMomentsBlock) {
      const std::int64_t block = std::min(kMomentsBlock, count - first);
      elements.add(x + first, block);
      squares.add(x + first, x + first, block);
    }
  });
}

template <class Format>
void add_dot(const ArrayWalk<2>& walk, std::int64_t begin, std::int64_t end, Part& part) {
  using Storage = typename Format::Storage;
  ProductAdder<Format> products(part.products);
  walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
    products.add(reinterpret_cast<const Storage*>(at[0]), reinterpret_cast<const Storage*>(at[1]),
                 count);
  });
}

void add_mixed_dot(const ArrayWalk<2>& walk, const int (&formats)[2], std::int64_t begin,
                   std::int64_t end, Part& part) {
  ConvertedBlock x;
  ConvertedBlock y;
  MixedProductAdder products(part.products);
  walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
    for (std::int64_t first = 0; first < count; first += kBlock) {
      const std::int64_t converted = std::min(kBlock, count - first);
      x.convert(formats[0], at[0] + first * bytes_of(formats[0]), converted);
      y.convert(formats[1], at[1] + first * bytes_of(formats[1]), converted);
      products.add(x, y, converted);
    }
  });
}

// Few elements do not wait for the system to count its processors.
int threads_for(std::int64_t n, int threads) {
  return range_count(n, 2) == 1 ? 1 : usable_threads(threads);
}

// Runs work(begin, end, part) over ranges of n terms and adds all that was found to the state.
template <class Work>
void reduce(std::int64_t n, int threads, StateKind kind, const Work& work, ExactState& state) {
  for_each_range<Part>(n, threads_for(n, threads), work, [&](const Part& part) {
    if (kind != StateKind::kDot) {
      state.add(part.sum);
      state.add(part.sum.counts);
    }
    if (kind != StateKind::kSum) {
      state.add(part.products);
    }
    if (kind == StateKind::kDot) {
      state.add(part.products.counts);
    }
  });
  arithmetic::TermCounts terms;
  terms.terms = n;
  state.add(terms);
}

void add_one(StateKind kind, int format, const ArrayWalk<1>& walk, std::int64_t begin,
             std::int64_t end, Part& part) {
  with_format(format, [&](auto each) {
    if (kind == StateKind::kSum) {
      add_sum<decltype(each)>(walk, begin, end, part);
    } else {
      add_moments<decltype(each)>(walk, begin, end, part);
    }
  });
}

void add_pair(const int (&formats)[2], const ArrayWalk<2>& walk, std::int64_t begin,
              std::int64_t end, Part& part) {
  if (formats[0] != formats[1]) {
    add_mixed_dot(walk, formats, begin, end, part);
    return;
  }
  with_format(formats[0], [&](auto each) { add_dot<decltype(each)>(walk, begin, end, part); });
}

// Adds what the arrays hold to a state that holds nothing yet.
void reduce_arrays(StateKind kind, const korvex_exact_array* x, const korvex_exact_array* y,
                   int threads, ExactState& state) {
  if (kind == StateKind::kDot) {
    const ArrayWalk<2> walk({x, y});
    reduce(
        walk.size(), threads, kind,
        [&](std::int64_t begin, std::int64_t end, Part& part) {
          add_pair({x->format, y->format}, walk, begin, end, part);
        },
        state);
    return;
  }
  const ArrayWalk<1> walk({x});
  reduce(
      walk.size(), threads, kind,
      [&](std::int64_t begin, std::int64_t end, Part& part) {
        add_one(kind, x->format, walk, begin, end, part);
      },
      state);
}

template <class Sum>
double rounded(Sum& sum) {
  if (!sum.counts.is_finite()) {
    return sum.counts.special();
  }
  double limb;
  sum.template round<1>(&limb);
  return limb;
}

// Few elements, as one thread takes them: the value rounded to float64 without a state between.
// False, with nothing written, where there are more.
bool reduce_few(StateKind kind, const korvex_exact_array* x, const korvex_exact_array* y,
                double* result) {
  Part part;
  if (kind == StateKind::kDot) {
    const ArrayWalk<2> walk({x, y});
    if (range_count(walk.size(), 2) > 1) {
      return false;
    }
    add_pair({x->format, y->format}, walk, 0, walk.size(), part);
    *result = rounded(part.products);
    return true;
  }
  const ArrayWalk<1> walk({x});
  if (range_count(walk.size(), 2) > 1) {
    return false;
  }
  add_one(kind, x->format, walk, 0, walk.size(), part);
  *result = rounded(part.sum);
  return true;
}

StateKind kind_of(int kind) { return static_cast<StateKind>(kind); }
static_assert(static_cast<int>(StateKind::kSum) == KORVEX_EXACT_SUM);
static_assert(static_cast<int>(StateKind::kDot) == KORVEX_EXACT_DOT);
static_assert(static_cast<int>(StateKind::kMoments) == KORVEX_EXACT_MOMENTS);

void write_limbs(ExactState& state, bool of_products, int count, int format, double* limbs) {
  const arithmetic::NarrowFormat* narrow = narrow_format(format);
  if (narrow != nullptr) {
    limbs[0] = state.round_to(*narrow, of_products);
  } else {
    state.round(of_products, count, limbs);
  }
}

int words(int kind) { return arithmetic::state_words(kind_of(kind)); }

int accumulate(int kind, std::int64_t* state, const korvex_exact_array* x,
               const korvex_exact_array* y, int sign, int threads) {
  return run_guarded([&]() -> int {
    ExactState before(kind_of(kind));
    if (!before.load(state)) {
      return KORVEX_EXACT_NO_STATE;
    }
    ExactState found(kind_of(kind));
    reduce_arrays(kind_of(kind), x, y, threads, found);
    before.add(found, sign);
    before.store(state);
    return KORVEX_EXACT_DONE;
  });
}

int settle(int kind, std::int64_t* state) {
  ExactState settled(kind_of(kind));
  if (!settled.load(state)) {
    return KORVEX_EXACT_NO_STATE;
  }
  settled.store(state);
  return KORVEX_EXACT_DONE;
}

int merge(int kind, std::int64_t* state, const std::int64_t* other, int sign) {
  ExactState merged(kind_of(kind));
  ExactState added(kind_of(kind));
  if (!merged.load(state) || !added.load(other)) {
    return KORVEX_EXACT_NO_STATE;
  }
  merged.add(added, sign);
  merged.store(state);
  return KORVEX_EXACT_DONE;
}

int limbs(int kind, const std::int64_t* state, int of_products, int count, int format,
          double* written) {
  return run_guarded([&]() -> int {
    ExactState value(kind_of(kind));
    if (!value.load(state)) {
      return KORVEX_EXACT_NO_STATE;
    }
    write_limbs(value, of_products != 0, count, format, written);
    return KORVEX_EXACT_DONE;
  });
}

int reduce_to_limb(int kind, const korvex_exact_array* x, const korvex_exact_array* y, int format,
                   int threads, double* result) {
  return run_guarded([&]() -> int {
    if (format == KORVEX_FORMAT_FLOAT64 && reduce_few(kind_of(kind), x, y, result)) {
      return KORVEX_EXACT_DONE;
    }
    ExactState state(kind_of(kind));
    reduce_arrays(kind_of(kind), x, y, threads, state);
    write_limbs(state, kind == KORVEX_EXACT_DOT, 1, format, result);
    return KORVEX_EXACT_DONE;
  });
}

constexpr korvex_exact_functions kFunctions = {
    words,          accumulate,     settle,         merge,       limbs,
    reduce_to_limb, cumulative_sum, matrix_product, column_sums, segment_sums,
};

}  // namespace
}  // namespace korvex::host

const korvex_exact_functions* korvex_host_exact(void) { return &korvex::host::kFunctions; }
