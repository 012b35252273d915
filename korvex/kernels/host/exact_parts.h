// SPDX-License-Identifier: Apache-2.0
// Exact sums of what a walk over one array or over two visits.
#pragma once

#include <cstdint>
#include <functional>

#include "korvex/arithmetic/exact/exact_state.h"
#include "korvex/kernels/host/array_walk.h"
#include "korvex/kernels/host/terms.h"

namespace korvex::host {

using arithmetic::StateKind;

// What one thread finds, or what one output is made of.
struct Part {
  CountedSum sum;
  CountedProductSum products;

  void add(const Part& other) {
    sum.add(other.sum);
    sum.counts.add(other.sum.counts, 1);
    products.add(other.products);
    products.counts.add(other.products.counts, 1);
  }
};

// Add the terms of numbers begin to end - 1 of a walk: of one array for a sum or moments, products
// of two for a dot product.
void add_terms(StateKind kind, const int (&formats)[1], const ArrayWalk<1>& walk,
               std::int64_t begin, std::int64_t end, Part& part);
void add_terms(StateKind kind, const int (&formats)[2], const ArrayWalk<2>& walk,
               std::int64_t begin, std::int64_t end, Part& part);

// Sums of many walks of one layout, one after the other: while next() moves the walk on, its
// elements are summed and done(sum) is called. What was learned about exponents is kept from one
// to the next.
void sum_each(int format, const ArrayWalk<1>& walk, const std::function<bool()>& next,
              const std::function<void(CountedSum&)>& done);

}  // namespace korvex::host
