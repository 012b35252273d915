// SPDX-License-Identifier: Apache-2.0
// Shells of the dot products and of the matrix product for the host.
#pragma once

#include <cstdint>

#include "korvex/arithmetic/exact/dot.h"
#include "korvex/kernels/host/host_lanes.h"
#include "korvex/kernels/host/host_matrix.h"
#include "korvex/kernels/host/slices.h"

namespace korvex::host {

template <class Arguments>
void run_dot_seq(const Arguments& arguments) {
  arithmetic::dot_sequential<arithmetic::HostLanes>(arguments.array(0), arguments.array(1),
                                                    arguments.array(2), arguments.integer(3));
}

template <class Arguments>
void run_dot(const Arguments& arguments) {
  const double* x = arguments.array(0);
  const double* y = arguments.array(1);
  arithmetic::ExactProductSum sum;
  for_each_slice<arithmetic::ExactProductSum>(
      arguments.integer(5), arguments.threads(),
      [x, y](std::int64_t begin, std::int64_t end, arithmetic::ExactProductSum& part) {
        arithmetic::add_products<arithmetic::HostLanes>(x + begin, y + begin, end - begin, part);
      },
      [&sum](const arithmetic::ExactProductSum& part) { sum.add(part); });
  arithmetic::write_parallel_dot(sum, arguments.array(2), arguments.array(3), arguments.array(4));
}

template <class Arguments>
void run_matmul(const Arguments& arguments) {
  const MatrixProduct product = {
      arguments.array(0),
      arguments.array(1),
      {arguments.array(2), arguments.array(3), arguments.array(4)},
      arguments.integer(5),
      arguments.integer(6),
      arguments.integer(7),
  };
  multiply_on_host(product, arguments.threads());
}

}  // namespace korvex::host
