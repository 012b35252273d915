// SPDX-License-Identifier: Apache-2.0
// Every message of our own, in one place; messages of torch, cupy and Python are never copied.
#pragma once

namespace korvex::messages {

// ---- calling convention ----
inline constexpr char kArgumentCount[] =
    "%.200s() takes %.8s %zd positional argument%.1s (%zd given)";
inline constexpr char kNoArguments[] = "%.200s() %s (%zd given)";
inline constexpr char kTakesNoArguments[] = "takes no arguments";
inline constexpr char kDoubleKeyword[] = "%s() got multiple values for keyword argument '%U'";
inline constexpr char kUnexpectedKeyword[] = "%s() got an unexpected keyword argument '%U'";
inline constexpr char kKeywordsMustBeStrings[] = "%.200s() keywords must be strings";
inline constexpr char kArgumentType[] =
    "Argument '%.200s' has incorrect type (expected %.200s, got %.200s)";
inline constexpr char kSubclassNote[] =
    "Note that subclasses of built-in types are rejected deliberately: pass an exact '%.200s'.";
inline constexpr char kReturnType[] = "Expected %s, got %.200s";

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
inline constexpr char kTooManyValues[] = "too many values to unpack (expected %zd)";
inline constexpr char kTooFewValues[] = "need more than %zd value%.1s to unpack";
inline constexpr char kInnerDimensions[] = "Inner dimensions must match: %U vs %U";
inline constexpr char kNoBroadcast[] = "Cannot broadcast batch shapes %U and %U";
inline constexpr char kChecksumMismatch[] =
    "TQX checksum mismatch!\n"
    "  Got:      %U\n"
    "  Expected: %U\n"
    "  This indicates non-reproducible computation.";

}  // namespace korvex::messages
