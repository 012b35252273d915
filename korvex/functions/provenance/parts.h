// SPDX-License-Identifier: Apache-2.0
// The parts of provenance, each defined by its own file.
#pragma once

namespace korvex {

void define_checksums();
void define_verified_result();

}  // namespace korvex
