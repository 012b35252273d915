// SPDX-License-Identifier: Apache-2.0
// What an output of a reduction is, given the exact sums of its elements: each rounded once.
#pragma once

#include <cstdint>

#include "korvex/kernels/host/deviations.h"
#include "korvex/kernels/host/exact_parts.h"
#include "korvex/kernels/host/result_format.h"

namespace korvex::host {

class ExactResult {
 public:
  // divisor and scale are of a variance: its divisor is divisor / scale for `count` elements, and
  // not positive where divisor is 0.
  ExactResult(int function, std::int64_t count, std::uint64_t divisor, std::uint64_t scale,
              int format)
      : function_(function),
        count_(count),
        divisor_(divisor),
        scale_(scale),
        narrow_(narrow_format(format)) {}

  // Which terms of the elements it is made of.
  StateKind kind() const;

  // The result. Ends the use of the sums.
  double of(Part& part) const;
  double of_sum(CountedSum& sum) const;  // precondition: the function is a sum or a mean

  // The same of a sum that is value + error, where a look at the two decides the rounding: else
  // false. Unless is_whole, error is the sum less value rounded. Precondition: value is the sum
  // rounded, and finite; the function is a sum or a mean.
  bool of_pair(double value, double error, bool is_whole, double* result) const;

  // The same of deviations of all elements from one number, which is 0 for a norm. Preconditions:
  // the function is a variance, its root, or a norm; the elements are at most kMostDeviations.
  bool of_deviations(const Deviations<arithmetic::ScalarLanes>& found, double* result) const;

 private:
  double mean(CountedSum& sum) const;
  double norm(CountedProductSum& squares) const;
  double of_variance(Part& part) const;
  bool round_between(double value, double error, double slack, double* result) const;

  int function_;
  std::int64_t count_;
  std::uint64_t divisor_;
  std::uint64_t scale_;
  const arithmetic::NarrowFormat* narrow_;
};

}  // namespace korvex::host
