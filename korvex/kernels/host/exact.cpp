// SPDX-License-Identifier: Apache-2.0
// Exact sums over arrays: the loops over pieces and threads, and the C interface of states.
#include "korvex/kernels/host/exact.h"

#include <algorithm>
#include <cstdint>

#include "korvex/arithmetic/exact/exact_state.h"
#include "korvex/kernels/host/array_walk.h"
#include "korvex/kernels/host/exact_calls.h"
#include "korvex/kernels/host/exact_parts.h"
#include "korvex/kernels/host/result_format.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {
namespace {

using arithmetic::ExactState;

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

// Adds what the arrays hold to a state that holds nothing yet.
void reduce_arrays(StateKind kind, const korvex_exact_array* x, const korvex_exact_array* y,
                   int threads, ExactState& state) {
  if (kind == StateKind::kDot) {
    const ArrayWalk<2> walk({x, y});
    reduce(
        walk.size(), threads, kind,
        [&](std::int64_t begin, std::int64_t end, Part& part) {
          add_terms(kind, {x->format, y->format}, walk, begin, end, part);
        },
        state);
    return;
  }
  const ArrayWalk<1> walk({x});
  reduce(
      walk.size(), threads, kind,
      [&](std::int64_t begin, std::int64_t end, Part& part) {
        add_terms(kind, {x->format}, walk, begin, end, part);
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
    add_terms(kind, {x->format, y->format}, walk, 0, walk.size(), part);
    *result = rounded(part.products);
    return true;
  }
  const ArrayWalk<1> walk({x});
  if (range_count(walk.size(), 2) > 1) {
    return false;
  }
  add_terms(kind, {x->format}, walk, 0, walk.size(), part);
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
    words,          accumulate,     settle,      merge,       limbs,        reduce_to_limb,
    cumulative_sum, matrix_product, column_sums, reduce_axes, segment_sums, map,
};

}  // namespace
}  // namespace korvex::host

const korvex_exact_functions* korvex_host_exact(void) { return &korvex::host::kFunctions; }
