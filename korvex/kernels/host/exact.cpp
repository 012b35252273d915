// SPDX-License-Identifier: Apache-2.0
// Exact sums over arrays: the loops over pieces and threads, and the C interface of states.
#include "korvex/kernels/host/exact.h"

#include <algorithm>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <thread>

#include "korvex/arithmetic/exact/exact_state.h"
#include "korvex/kernels/host/array_walk.h"
#include "korvex/kernels/host/float_environment.h"
#include "korvex/kernels/host/mixed_products.h"
#include "korvex/kernels/host/terms.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {
namespace {

using arithmetic::ExactState;
using arithmetic::NarrowFormat;
using arithmetic::StateKind;

// What one thread finds.
struct Part {
  CountedSum sum;
  CountedProductSum products;
};

// Elements of which both sums of the moments are taken while they are in the cache.
constexpr std::int64_t kMomentsBlock = 2048;

template <class Format>
void add_moments(const typename Format::Storage* x, std::int64_t n, Part& part) {
  for (std::int64_t begin = 0; begin < n; begin += kMomentsBlock) {
    const std::int64_t count = std::min(kMomentsBlock, n - begin);
    add_elements<Format>(x + begin, count, part.sum);
    add_products<Format>(x + begin, x + begin, count, part.products);
  }
}

void add_range(StateKind kind, const ArrayWalk<1>& walk, int format, std::int64_t begin,
               std::int64_t end, Part& part) {
  with_format(format, [&](auto each) {
    using Format = decltype(each);
    walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
      const auto* x = reinterpret_cast<const typename Format::Storage*>(at[0]);
      if (kind == StateKind::kSum) {
        add_elements<Format>(x, count, part.sum);
      } else {
        add_moments<Format>(x, count, part);
      }
    });
  });
}

void add_pairs(const ArrayWalk<2>& walk, int format, std::int64_t begin, std::int64_t end,
               Part& part) {
  with_format(format, [&](auto each) {
    using Storage = typename decltype(each)::Storage;
    walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
      add_products<decltype(each)>(reinterpret_cast<const Storage*>(at[0]),
                                   reinterpret_cast<const Storage*>(at[1]), count, part.products);
    });
  });
}

void add_mixed_pairs(const ArrayWalk<2>& walk, const int (&formats)[2], std::int64_t begin,
                     std::int64_t end, Part& part) {
  ConvertedBlock x;
  ConvertedBlock y;
  walk.pieces(begin, end, [&](const char* const* at, std::int64_t count) {
    for (std::int64_t first = 0; first < count; first += kBlock) {
      const std::int64_t converted = std::min(kBlock, count - first);
      x.convert(formats[0], at[0] + first * bytes_of(formats[0]), converted);
      y.convert(formats[1], at[1] + first * bytes_of(formats[1]), converted);
      add_mixed_products(x, y, converted, part.products);
    }
  });
}

int threads_for(std::int64_t n, int threads) {
  if (threads > 0 || range_count(n, 2) == 1) {
    return std::max(threads, 1);
  }
  return static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
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
  if (kind != StateKind::kDot) {
    const ArrayWalk<1> walk({x});
    reduce(
        walk.size(), threads, kind,
        [&](std::int64_t begin, std::int64_t end, Part& part) {
          add_range(kind, walk, x->format, begin, end, part);
        },
        state);
    return;
  }
  const ArrayWalk<2> walk({x, y});
  const int formats[2] = {x->format, y->format};
  reduce(
      walk.size(), threads, kind,
      [&](std::int64_t begin, std::int64_t end, Part& part) {
        if (formats[0] == formats[1]) {
          add_pairs(walk, formats[0], begin, end, part);
        } else {
          add_mixed_pairs(walk, formats, begin, end, part);
        }
      },
      state);
}

// Runs a body under the floating-point environment of kernels; no exception leaves it.
template <class Body>
int guarded(const Body& body) {
  const DefaultFloatEnvironment environment;
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return KORVEX_EXACT_OUT_OF_MEMORY;
  } catch (const std::length_error&) {  // of a vector: more than any memory holds
    return KORVEX_EXACT_OUT_OF_MEMORY;
  }
}

StateKind kind_of(int kind) { return static_cast<StateKind>(kind); }

void write_limbs(ExactState& state, bool of_products, int count, int format, double* limbs) {
  switch (format) {
    case KORVEX_FORMAT_FLOAT16:
      limbs[0] = state.round_to(arithmetic::kFloat16, of_products);
      return;
    case KORVEX_FORMAT_BFLOAT16:
      limbs[0] = state.round_to(arithmetic::kBfloat16, of_products);
      return;
    case KORVEX_FORMAT_FLOAT32:
      limbs[0] = state.round_to(arithmetic::kFloat32, of_products);
      return;
    default:
      state.round(of_products, count, limbs);
  }
}

int words(int kind) { return arithmetic::state_words(kind_of(kind)); }

int accumulate(int kind, std::int64_t* state, const korvex_exact_array* x,
               const korvex_exact_array* y, int sign, int threads) {
  return guarded([&] {
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
  return guarded([&] {
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
  return guarded([&] {
    ExactState state(kind_of(kind));
    reduce_arrays(kind_of(kind), x, y, threads, state);
    write_limbs(state, kind == KORVEX_EXACT_DOT, 1, format, result);
    return KORVEX_EXACT_DONE;
  });
}

constexpr korvex_exact_functions kFunctions = {words, accumulate, settle,
                                               merge, limbs,      reduce_to_limb};

}  // namespace
}  // namespace korvex::host

const korvex_exact_functions* korvex_host_exact(void) { return &korvex::host::kFunctions; }
