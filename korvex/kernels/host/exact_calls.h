// SPDX-License-Identifier: Apache-2.0
// The calls of the table in exact.h that stand in files of their own.
#pragma once

#include <algorithm>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <thread>

#include "korvex/kernels/host/exact.h"
#include "korvex/kernels/host/float_environment.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {

// Runs a body under the floating-point environment of kernels; no exception leaves it.
template <class Body>
int run_guarded(const Body& body) {
  const DefaultFloatEnvironment environment;
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return KORVEX_EXACT_OUT_OF_MEMORY;
  } catch (const std::length_error&) {  // of a vector: more than any memory holds
    return KORVEX_EXACT_OUT_OF_MEMORY;
  }
}

// How many threads may work where a caller asks for so many; 0: all processors.
inline int usable_threads(int threads) {
  return threads > 0 ? threads
                     : static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
}

// exact_prefix_sums.cpp
int cumulative_sum(const korvex_exact_array* x, const korvex_exact_running* running, int threads,
                   void* out);

// exact_column_sums.cpp
int column_sums(const korvex_exact_array* x, int format, int threads, void* out);

// exact_axes.cpp
int reduce_axes(const korvex_exact_reduction* task, int format, int threads, void* out);

// exact_matrix_product.cpp
int matrix_product(const korvex_exact_array* a, const korvex_exact_array* b, int format,
                   int threads, void* out);

// exact_segments.cpp
int segment_sums(const korvex_exact_array* x, const korvex_exact_array* ids, int64_t segments,
                 const korvex_exact_array* initial, int format, int threads, void* out,
                 int64_t* out_of_range);

// exact_elementary.cpp
int map(int function, const korvex_exact_array* x, int format, int threads, void* out);

}  // namespace korvex::host
