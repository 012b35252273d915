// SPDX-License-Identifier: Apache-2.0
// Arguments that are numbers and names, checked; and what a call of the host library returned.
#pragma once

#include <cstdint>

#include "korvex/cpython/interpreter_lock.h"
#include "korvex/cpython/object.h"

namespace korvex::exact {

// With fewer elements a call is over before another thread could have got the interpreter's lock.
constexpr std::int64_t kElementsWithLock = 4096;

int kind_option(Handle kind);
int sign_option(Handle sign);
int threads_option(Handle threads);
int part_option(Handle part, int kind);
int limb_count_option(Handle count, int format);
// Of a reduction: what an output is, which so many operands suit; dimensions that are kept of so
// many; and a factor, not negative, 1 where the argument was not given.
int function_option(Handle function, int operands);
int kept_option(Handle kept, int rank);
std::int64_t factor_option(Handle factor);
// One of KORVEX_EXACT_EXP and those after it.
int elementary_option(Handle function);
// Of KORVEX_FORMAT_...; float64 where the argument was not given.
int result_format_option(Handle format);

// Raises what a status of the host library stands for; `state` names the argument that was one.
void check_status(int status, const char* state);

// Calls the host library on so many elements, with the interpreter's lock released for many.
template <class Call>
void call_host(std::int64_t elements, const char* state, const Call& call) {
  check_status(elements <= kElementsWithLock ? call() : without_lock(call), state);
}

}  // namespace korvex::exact
