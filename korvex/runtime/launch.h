// SPDX-License-Identifier: Apache-2.0
// The launch of a kernel. Every launch keeps one order:
//
//   1. the kernel, by its name, from _NATIVE_LOADER: anew each time
//   2. its member `launch` or `function`
//   3. one array per tensor, in argument order
//   4. the call; the arrays are dropped after it
//   5. the wait on the null stream, before any output is touched
//
// Outputs and grid are made before. Nothing is caught: an exception at any step is the caller's.
#pragma once

#include <tuple>

#include "korvex/runtime/globals.h"

namespace korvex {

inline constexpr long kBlock = 256;  // threads per block of the one-dimensional grid

// The grid or the block of a launch with one block or one thread: (1, 1, 1).
inline Object make_single() { return tuple(integer(1), integer(1), integer(1)); }
inline Constant kSingle{make_single};

// (n + block - 1) // block in Python's own integer arithmetic, so n may be any number object.
Object blocks_for(const Object& n, long block);

// (num_blocks, 1, 1): one thread for each of n elements.
Object grid_over(const Object& n);

// A tensor among the arguments of a launch, passed as an array. Other arguments are passed as they
// are.
struct ArrayOf {
  const Object& tensor;
};

namespace launching {

Object get_kernel(Handle kernel_name);
Object from_dlpack(const Object& tensor);
void synchronize();

inline Object passed(const ArrayOf& argument) { return from_dlpack(argument.tensor); }
inline Object passed(const Object& argument) { return argument; }

// Steps 1 to 5; call(member, values...) makes the call.
template <typename Call, typename... Arguments>
void run(Handle kernel_name, Handle member_name, const Call& call, const Arguments&... arguments) {
  const Object kernel = get_kernel(kernel_name);
  {
    const Object member = kernel.get(member_name);
    // Braces order the conversions from left to right.
    const std::array<Object, sizeof...(Arguments)> values{passed(arguments)...};
    std::apply([&](const auto&... each) { call(member, each...); }, values);
  }
  synchronize();
}

}  // namespace launching

// kernel.launch(*arguments, grid=grid): the kernel knows its block.
template <typename... Arguments>
void launch(Handle kernel_name, Handle grid, const Arguments&... arguments) {
  const auto call = [&](const Object& member, const auto&... values) {
    member.call_with(kKeywords<"grid">, values..., grid);
  };
  launching::run(kernel_name, "launch"_name, call, arguments...);
}

// kernel.function(grid, block, arguments): the block is given, the arguments are one tuple.
template <typename... Arguments>
void launch_in_blocks(Handle kernel_name, Handle grid, Handle block,
                      const Arguments&... arguments) {
  const auto call = [&](const Object& member, const auto&... values) {
    member.call(grid, block, tuple(values...));
  };
  launching::run(kernel_name, "function"_name, call, arguments...);
}

}  // namespace korvex
