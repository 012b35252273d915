// SPDX-License-Identifier: Apache-2.0
// The suites of the arithmetic test program, in the order in which they run.
#pragma once

namespace korvex::test {

void test_flags();
void test_eft();
void test_bignum();
void test_long_accumulator();
void test_canonical();
void test_exact_sum();
void test_exact_state();
void test_sum();
void test_dot();
void test_matrix_product();
void test_pairs();
void test_elementary();
void test_host_doubles();
void test_reductions();
void test_wide_numbers();

}  // namespace korvex::test
