// SPDX-License-Identifier: Apache-2.0
// Names in bodies: "is_cuda"_name is the interned str, kKeywords<"dim", "keepdim"> the keyword
// names of a call. Each spelling is one object, made when the module starts.
#pragma once

#include <algorithm>
#include <cstddef>

#include "korvex/runtime/constant.h"

namespace korvex {

// The letters of a string literal, as a template argument.
template <std::size_t size>
struct Spelling {
  consteval Spelling(const char (&literal)[size]) { std::copy_n(literal, size, letters); }
  char letters[size];  // public, as a template argument must be
};

template <Spelling name>
Object make_name() {
  return interned(name.letters);
}

template <Spelling... names>
Object make_keywords() {
  return tuple(interned(names.letters)...);
}

template <Spelling name>
inline Constant kName{make_name<name>};

template <Spelling... names>
inline Constant kKeywords{make_keywords<names...>};

template <Spelling name>
constexpr const Constant& operator""_name() {
  return kName<name>;
}

}  // namespace korvex
