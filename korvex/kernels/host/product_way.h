// SPDX-License-Identifier: Apache-2.0
// Which way matrix products take in this library, for tests and benchmarks, and whether they check
// themselves. Neither shows in a result.
#pragma once

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "korvex/kernels/host/launch.h"

namespace korvex::host {

struct ProductSettings {
  std::atomic<int> way{KORVEX_HOST_PRODUCTS_BY_COST};
  // KORVEX_CHECK_PRODUCTS=1 in the environment when the library is loaded: one modulus more.
  std::atomic<bool> is_checked{is_set("KORVEX_CHECK_PRODUCTS")};

  static bool is_set(const char* name) noexcept {
    const char* const word = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): while loading
    return word != nullptr && std::strcmp(word, "1") == 0;
  }
};

inline ProductSettings product_settings;

}  // namespace korvex::host
