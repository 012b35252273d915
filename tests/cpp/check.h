// SPDX-License-Identifier: Apache-2.0
// Counting checks for the C++ tests, and the checksum by which two builds are compared.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace korvex::test {

inline std::uint64_t bits_of(double x) {
  std::uint64_t bits;
  std::memcpy(&bits, &x, sizeof bits);
  return bits;
}

inline double double_of(std::uint64_t bits) {
  double x;
  std::memcpy(&x, &bits, sizeof x);
  return x;
}

struct Tally {
  long passed = 0;
  long failed = 0;
  std::uint64_t checksum = 0xcbf29ce484222325;  // FNV-1a, 64 bits, over every recorded double

  static Tally& all() {
    static Tally tally;
    return tally;
  }

  void note(bool good, const char* file, int line, const char* what) {
    if (good) {
      ++passed;
      return;
    }
    ++failed;
#ifdef KORVEX_TEST_ENDS_AT_FAILURE  // of programs that are run for nothing but their exit status
    std::_Exit(1);
#endif
    if (failed <= 20) {
      std::printf("%s:%d: failed: %s\n", file, line, what);
    }
  }

  void record(double x) {
    for (int byte = 0; byte < 8; ++byte) {
      checksum = (checksum ^ ((bits_of(x) >> (8 * byte)) & 0xff)) * 0x100000001b3;
    }
  }

  // Prints the outcome; the exit status of a test program.
  int finish() const {
    std::printf("checksum %016llx\n", static_cast<unsigned long long>(checksum));
    std::printf("%ld passed, %ld failed\n", passed, failed);
    return failed == 0 && passed > 0 ? 0 : 1;
  }
};

inline void note_same_bits(double actual, double expected, const char* file, int line,
                           const char* what) {
  Tally& tally = Tally::all();
  tally.record(actual);
  const bool good = bits_of(actual) == bits_of(expected);
  if (!good && tally.failed < 20) {
    std::printf("  actual %a, expected %a\n", actual, expected);
  }
  tally.note(good, file, line, what);
}

}  // namespace korvex::test

#define CHECK(condition) \
  ::korvex::test::Tally::all().note(static_cast<bool>(condition), __FILE__, __LINE__, #condition)
#define CHECK_SAME_BITS(actual, expected) \
  ::korvex::test::note_same_bits(actual, expected, __FILE__, __LINE__, #actual " is " #expected)
