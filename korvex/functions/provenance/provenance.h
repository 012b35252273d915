// SPDX-License-Identifier: Apache-2.0
// Provenance: what the folder adds to the module.
#pragma once

namespace korvex {

// Defines the checksum functions and TQXVerifiedResult.
void define_provenance();

}  // namespace korvex
