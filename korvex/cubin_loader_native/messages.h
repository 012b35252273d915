// SPDX-License-Identifier: Apache-2.0
// The messages of the checks on a call; %-directives are those of PyErr_Format.
#pragma once

namespace korvex::cubin_loader::messages {

// ---- a kernel's arguments ----
inline constexpr char kArgumentCount[] = "%s takes %d arguments (%s), but got %zd";
inline constexpr char kNotAnInt[] = "%s: '%s' must be of type int, not %.200s";
inline constexpr char kNotAFloat[] = "%s: '%s' must be of type float, not %.200s";
inline constexpr char kNotASize[] = "%s: '%s' must be a size in 64 bits, not %R";
inline constexpr char kNotAnArray[] =
    "%s: '%s' must be a CUDA array, with __cuda_array_interface__, not %.200s";
inline constexpr char kBadInterface[] = "%s: '%s' has a malformed __cuda_array_interface__: %s";
inline constexpr char kNotFloat64[] = "%s: '%s' must hold float64 elements (<f8), not %U";
inline constexpr char kNotContiguous[] = "%s: '%s' must be contiguous";
inline constexpr char kTooShort[] = "%s: '%s' must have at least %s = %s elements, but has %lld";
inline constexpr char kNotAligned[] = "%s: '%s' must start at a multiple of 8 bytes";

// ---- a launch ----
inline constexpr char kExtentType[] = "%s: %s must be a tuple of three int, not %R";
inline constexpr char kExtentRange[] = "%s: %s %R is out of range";
inline constexpr char kOwnBlock[] = "%s: block must be (%u, 1, 1), not %R";
inline constexpr char kNoOwnBlock[] = "%s has no block of its own: call function()";
inline constexpr char kNoGrid[] = "%s: launch() takes the grid as keyword argument 'grid'";
inline constexpr char kUnexpectedKeyword[] = "%s: launch() got an unexpected keyword argument '%U'";
inline constexpr char kFunctionCount[] =
    "%s: function() takes grid, block and args by position, and got %zd arguments";
inline constexpr char kArgsType[] = "%s: args must be a tuple, not %.200s";

// ---- the loader ----
inline constexpr char kNoArguments[] = "NativeCubinLoader() takes no arguments";
inline constexpr char kUnknownKernel[] = "no kernel %R; there are %s";
inline constexpr char kNameType[] = "get_kernel() takes the name of a kernel as str, not %.200s";
inline constexpr char kUnknownChoice[] =
    "KORVEX_LAUNCH must be 'as-asked' or 'device', not '%.200s'";
inline constexpr char kUnavailable[] = "korvex cannot launch CUDA kernels here: ";

}  // namespace korvex::cubin_loader::messages
