// SPDX-License-Identifier: Apache-2.0
// The backend report.
#pragma once

namespace korvex {

// Defines get_backend_info in the module.
void define_backend_info();

}  // namespace korvex
