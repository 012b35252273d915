// SPDX-License-Identifier: Apache-2.0
// C interface of the kernels compiled for the host: every library has it, whatever its instruction
// set.
//
// It follows the shape of the driver's launch: a kernel, a grid, a block and pointers to arguments.
// Nothing is checked here: the caller holds the table of parameters and has checked by it. Each
// call runs under the default floating-point environment and leaves the caller's as it was.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define KORVEX_HOST_API __attribute__((visibility("default")))

KORVEX_HOST_API int korvex_host_kernel_count(void);

// One row of the kernel table; a null pointer or 0 for an index out of range.
KORVEX_HOST_API const char* korvex_host_kernel_name(int index);
KORVEX_HOST_API const char* korvex_host_kernel_form(int index);  // "function" or "launch"
KORVEX_HOST_API unsigned korvex_host_kernel_block(int index);    // 0 for form "function"
KORVEX_HOST_API const char* korvex_host_kernel_parameters(int index);
KORVEX_HOST_API int korvex_host_kernel_strides_along_y(int index);  // 1 or 0

// What a launch returns.
enum {
  KORVEX_HOST_DONE = 0,
  KORVEX_HOST_NO_SUCH_KERNEL = 1,  // the index is out of range
  KORVEX_HOST_OUT_OF_MEMORY = 2,
};

// Runs one kernel to its end. args[i] points to the value of the i-th argument: a double*, an
// int64_t or a double. At most `threads` host threads work; the result does not depend on how many.
// A grid or a block without extent does nothing. Returns one of the statuses above; no exception
// leaves the library. Where memory runs out, the outputs may be written in part, and no thread of
// the launch is left. A thread that cannot start leaves its share of the work to the caller's.
KORVEX_HOST_API int korvex_host_launch(int index, const unsigned grid[3], const unsigned block[3],
                                       void* const* args, int threads);

// The ways of matrix products; all leave the same bits.
enum {
  KORVEX_HOST_PRODUCTS_BY_COST = 0,  // whichever is expected to be faster: the default
  KORVEX_HOST_PRODUCTS_BY_SLICES = 1,
  KORVEX_HOST_PRODUCTS_BY_RESIDUES = 2,  // wherever processor and operands allow it
  KORVEX_HOST_PRODUCTS_BY_DOUBLES = 3,   // the same, in doubles also where bytes can be taken
};

// For tests and benchmarks: the way of the products that start from now on, in this library.
KORVEX_HOST_API void korvex_host_set_product_way(int way);

// What residues are multiplied as here: "bytes" or "doubles"; "" where neither can be.
KORVEX_HOST_API const char* korvex_host_residues_of_products(void);

// "base", "fma" or "avx512": which of the libraries this is.
KORVEX_HOST_API const char* korvex_host_instruction_set(void);

// The last of them that this processor and system can run. Ask the base library.
KORVEX_HOST_API const char* korvex_host_best_instruction_set(void);

#ifdef __cplusplus
}
#endif
