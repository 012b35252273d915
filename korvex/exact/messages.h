// SPDX-License-Identifier: Apache-2.0
// The messages of korvex.exact._native; %-directives are those of PyErr_Format.
#pragma once

namespace korvex::exact::messages {

// ---- a call ----
inline constexpr char kTooMany[] = "%s() takes %zd arguments, but got %zd";
inline constexpr char kMissing[] = "%s() misses argument '%s'";
inline constexpr char kTwice[] = "%s() got two values for argument '%s'";
inline constexpr char kUnknown[] = "%s() has no argument '%U'";
inline constexpr char kKind[] = "kind must be SUM, DOT or MOMENTS, not %R";
inline constexpr char kSign[] = "sign must be 1 or -1, not %R";
inline constexpr char kThreads[] = "threads must be at least 0, not %R";
inline constexpr char kFunction[] = "function must be one of the module's, not %R";
inline constexpr char kOperands[] =
    "operands and formats must be tuples of 1, or of 2 or 4 for DOT_PRODUCT";
inline constexpr char kKept[] = "kept must be a number of leading axes, not %R";
inline constexpr char kFactor[] = "a factor must be at least 0, not %R";
inline constexpr char kPart[] = "part must be 0, or 1 of MOMENTS, not %R";
inline constexpr char kLimbCount[] = "count must be 1 to 4, and 1 in a narrow format, not %R";
inline constexpr char kResultFormat[] =
    "format must be float64, float32, float16 or bfloat16, not %R";

// ---- an array ----
inline constexpr char kNoArray[] =
    "%s must be an array, with the buffer protocol or __dlpack__, not %.200s";
inline constexpr char kNotReadable[] = "%s cannot be read as an array of numbers: %S";
inline constexpr char kNotWritable[] = "%s must be a buffer that can be written, not %.200s";
inline constexpr char kFormat[] = "%s has elements of format '%s', which is not supported";
inline constexpr char kDlpackFormat[] =
    "%s has elements of a type that is not supported: %s of %d bits in %d lanes";
inline constexpr char kByteOrder[] =
    "%s has elements of format '%s', which is not the byte order of this machine";
inline constexpr char kNotBfloat16[] =
    "%s must have elements of 16 bits without sign to be read as bfloat16, not of format '%s'";
inline constexpr char kAsFormat[] = "%s must be None or 'bfloat16', not %R";
inline constexpr char kDevice[] = "%s is not in host memory: its DLPack device type is %d";
inline constexpr char kCapsule[] = "%s.__dlpack__() gave no DLPack capsule";
inline constexpr char kDlpackVersion[] = "%s.__dlpack__() gave version %u of DLPack, not 1";
inline constexpr char kRank[] = "%s has %d dimensions; %d are supported at most";
inline constexpr char kShapes[] = "%s and %s must have one shape, but have %R and %R";
inline constexpr char kNeedsY[] = "y must be an array for DOT";
inline constexpr char kNoY[] = "y must be None but for DOT";
inline constexpr char kRankIs[] = "%s must have %d dimensions, but has %d";
inline constexpr char kOutFormat[] = "out must have elements of format '%s', not '%s'";
inline constexpr char kOutShape[] = "out must have shape %R, but has %R";
inline constexpr char kOutSize[] = "out must have %lld elements, but has %lld";
inline constexpr char kInner[] = "inner must divide the number of lines of x";
inline constexpr char kOutLayout[] = "out must be contiguous and aligned";
inline constexpr char kInnerExtents[] =
    "a has %zd columns and b has %zd rows: they must be as many";
inline constexpr char kAxis[] = "axis must be from 0 to less than %d, not %R";
inline constexpr char kSegments[] = "segments must be at least 0, not %R";
inline constexpr char kIds[] = "ids must be integers";
inline constexpr char kIdCount[] = "ids has %lld elements, and x %lld along the axis";
inline constexpr char kInitialShape[] =
    "initial must have shape %R with the axis first, but has %R";

// ---- a state ----
inline constexpr char kStateFormat[] = "%s must hold 64-bit integers (format 'q'), not '%s'";
inline constexpr char kStateWords[] = "%s must be contiguous and aligned, and have %d words";
inline constexpr char kNoState[] = "%s holds no state: a digit is out of range";
inline constexpr char kNegativeCount[] =
    "state counts %lld %s: more were taken away than had been added";

// ---- the libraries ----
inline constexpr char kLibrary[] = "the library of kernels does not load: %s";
inline constexpr char kInstructionSet[] =
    "instruction set must be one that this processor runs (the best is %s), not %R";
inline constexpr char kNotInstalled[] =
    "this installation has no kernels for %s: install korvex with "
    "--config-settings=cmake.define.KORVEX_INSTRUCTION_SETS=all";

}  // namespace korvex::exact::messages
