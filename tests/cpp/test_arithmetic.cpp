// SPDX-License-Identifier: Apache-2.0
// Runs the suites of the arithmetic headers; built under several flags that must agree on each bit.
#include "check.h"
#include "suites.h"

namespace {

// The same for every compiler, level and processor. It changes with the tests and their data alone.
constexpr unsigned long long kChecksum = 0x7875032a02693628;

}  // namespace

int main() {
  korvex::test::test_flags();
  korvex::test::test_eft();
  korvex::test::test_bignum();
  korvex::test::test_long_accumulator();
  korvex::test::test_canonical();
  korvex::test::test_exact_sum();
  korvex::test::test_exact_state();
  korvex::test::test_sum();
  korvex::test::test_dot();
  korvex::test::test_matrix_product();
  korvex::test::test_pairs();
  korvex::test::test_elementary();
  korvex::test::test_host_doubles();
  korvex::test::test_reductions();
  korvex::test::test_wide_numbers();
  CHECK(korvex::test::Tally::all().checksum == kChecksum);
  return korvex::test::Tally::all().finish();
}
