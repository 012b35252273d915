// SPDX-License-Identifier: Apache-2.0
// Every message of the module itself; those of the calling convention and of unpacking stand in
// korvex/cpython. Messages of torch, cupy and Python are never copied.
#pragma once

namespace korvex::messages {

// ---- start-up ----
inline constexpr char kInterpreterChange[] =
    "Interpreter change detected - this module can only be loaded into one interpreter per "
    "process.";
inline constexpr char kReinitialised[] =
    "Module 'tqx_runtime' has already been imported. Re-initialisation is not supported.";
inline constexpr char kNoLoader[] =
    "TQX requires cupy for exact GPU arithmetic. Install with:\n"
    "  pip install korvex-tqx[cuda12]  # For CUDA 12\n"
    "  pip install korvex-tqx[cuda11]  # For CUDA 11\n"
    "\n"
    "Or install cupy directly:\n"
    "  pip install cupy-cuda12x  # For CUDA 12\n"
    "  pip install cupy-cuda11x  # For CUDA 11";

// ---- functions ----
inline constexpr char kNeedsCuda[] = "TQX requires CUDA tensor. Move tensor to GPU with .cuda()";
inline constexpr char kInnerDimensions[] = "Inner dimensions must match: %U vs %U";
inline constexpr char kNoBroadcast[] = "Cannot broadcast batch shapes %U and %U";
inline constexpr char kChecksumMismatch[] =
    "TQX checksum mismatch!\n"
    "  Got:      %U\n"
    "  Expected: %U\n"
    "  This indicates non-reproducible computation.";
inline constexpr char kReturnType[] = "Expected %s, got %.200s";

}  // namespace korvex::messages
