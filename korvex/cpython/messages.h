// SPDX-License-Identifier: Apache-2.0
// Every message of the calling convention, of function attributes and of unpacking.
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

// ---- attributes of a function ----
inline constexpr char kAttributeType[] = "attribute must be set to a %s object";

// ---- unpacking ----
inline constexpr char kTooManyValues[] = "too many values to unpack (expected %zd)";
inline constexpr char kTooFewValues[] = "need more than %zd value%.1s to unpack";

}  // namespace korvex::messages
