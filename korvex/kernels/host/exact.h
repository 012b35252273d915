// SPDX-License-Identifier: Apache-2.0
// C interface of exact sums and functions of arrays of any layout and format: every host library
// has it beside the kernels of launch.h.
//
// One symbol gives a table of functions. A state is an array of 64-bit integers, as
// korvex/arithmetic/exact/exact_state.h describes it; a call that does not return KORVEX_EXACT_DONE
// has changed no state; outputs may be written in part then. Each call runs under the default
// floating-point environment and leaves the caller's as it was; no result depends on the number of
// threads.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
  KORVEX_EXACT_DONE = 0,
  KORVEX_EXACT_OUT_OF_MEMORY = 1,
  KORVEX_EXACT_NO_STATE = 2,  // the words are no state, nor the sum of some
};

// Kinds of states.
enum { KORVEX_EXACT_SUM = 0, KORVEX_EXACT_DOT = 1, KORVEX_EXACT_MOMENTS = 2 };

enum {
  KORVEX_FORMAT_BOOL,
  KORVEX_FORMAT_INT8,
  KORVEX_FORMAT_INT16,
  KORVEX_FORMAT_INT32,
  KORVEX_FORMAT_INT64,
  KORVEX_FORMAT_UINT8,
  KORVEX_FORMAT_UINT16,
  KORVEX_FORMAT_UINT32,
  KORVEX_FORMAT_UINT64,
  KORVEX_FORMAT_FLOAT16,
  KORVEX_FORMAT_BFLOAT16,
  KORVEX_FORMAT_FLOAT32,
  KORVEX_FORMAT_FLOAT64,
};

enum { KORVEX_EXACT_MAX_RANK = 64 };

// An array. The strides are in bytes and may be negative or zero; elements need not be aligned.
typedef struct {
  const void* data;  // the element of index (0, ..., 0)
  int format;
  int rank;  // at most KORVEX_EXACT_MAX_RANK
  const int64_t* extents;
  const int64_t* byte_strides;
} korvex_exact_array;

// What an output of a reduction is, rounded once.
enum {
  KORVEX_EXACT_TOTAL,
  KORVEX_EXACT_MEAN,
  KORVEX_EXACT_VARIANCE,
  KORVEX_EXACT_DEVIATION,
  KORVEX_EXACT_DOT_PRODUCT,
  KORVEX_EXACT_NORM,
};

typedef struct {
  int function;
  // Of one shape. One array; two for a dot product, or four, two pairs whose products are added up.
  const korvex_exact_array* operands[4];
  int operand_count;
  int is_negative;  // the products of the last pair are taken away; all are floating-point numbers
  int kept;         // leading dimensions, with an output for each index
  // Of a variance of n elements, which has the divisor divisor / scale; NaN where divisor is 0.
  // Both below 2^63.
  uint64_t divisor;
  uint64_t scale;
} korvex_exact_reduction;

// Functions of one element, numbered as in korvex/arithmetic/elementary/any_format.h.
enum {
  KORVEX_EXACT_EXP,
  KORVEX_EXACT_LOG,
  KORVEX_EXACT_SQRT,
  KORVEX_EXACT_SIGMOID,
  KORVEX_EXACT_TANH,
};

// Running sums along a dimension of a result.
typedef struct {
  int format;       // of the result: float64, float32, float16 or bfloat16
  int has_initial;  // a sum of nothing stands before the others
  // Elements of the result from one sum to the next: those of the dimensions inside, which are the
  // last but one and so on of the array that is given.
  int64_t inner;
} korvex_exact_running;

typedef struct {
  int (*words)(int kind);

  // Adds to a state, with sign 1, or takes away, with sign -1: the elements of x, for a sum or
  // moments; products of x and y, index by index, for a dot product. Precondition: y is null but
  // for a dot product, and then has the extents of x. threads: at most; 0: all processors.
  int (*accumulate)(int kind, int64_t* state, const korvex_exact_array* x,
                    const korvex_exact_array* y, int sign, int threads);

  int (*settle)(int kind, int64_t* state);
  int (*merge)(int kind, int64_t* state, const int64_t* other, int sign);

  // Writes `count` canonical limbs, 1 to 4, of the sum or, with of_products, of the products or
  // squares. In a narrow format (float16, bfloat16, float32) count is 1. Precondition: no count of
  // the state is below zero.
  int (*limbs)(int kind, const int64_t* state, int of_products, int count, int format,
               double* limbs);

  // limbs(1) of a state of the kind that holds nothing but these arrays.
  int (*reduce)(int kind, const korvex_exact_array* x, const korvex_exact_array* y, int format,
                int threads, double* result);

  // Writes RN(x[0] + ... + x[i]) for each i along the last dimension of x to an array that lies
  // side by side. Precondition: x has a dimension.
  int (*cumulative_sum)(const korvex_exact_array* x, const korvex_exact_running* running,
                        int threads, void* out);

  // Writes the product of two matrices, each element rounded once, row by row. Preconditions: both
  // have two dimensions, and b has as many rows as a has columns.
  int (*matrix_product)(const korvex_exact_array* a, const korvex_exact_array* b, int format,
                        int threads, void* out);

  // Writes the sum of each column of a matrix, rounded once, as cumulative_sum does. Precondition:
  // x has two dimensions.
  int (*column_sums)(const korvex_exact_array* x, int format, int threads, void* out);

  // Writes the outputs of a reduction in the order of their indices, as cumulative_sum does.
  int (*reduce_axes)(const korvex_exact_reduction* reduction, int format, int threads, void* out);

  // Adds up the rows x[i] of one segment ids[i], and those of `initial` unless that is null, and
  // writes the sums as cumulative_sum does, segment by segment. The first i whose ids[i] is not in
  // [0, segments) goes to *out_of_range, or -1; nothing is written if there is one. Preconditions:
  // x has a dimension, ids one dimension as long and integers; initial has that many segments as
  // its first extent, and else the extents of x.
  int (*segment_sums)(const korvex_exact_array* x, const korvex_exact_array* ids, int64_t segments,
                      const korvex_exact_array* initial, int format, int threads, void* out,
                      int64_t* out_of_range);

  // Writes a function of each element, rounded once, as cumulative_sum does.
  int (*map)(int function, const korvex_exact_array* x, int format, int threads, void* out);
} korvex_exact_functions;

__attribute__((visibility("default"))) const korvex_exact_functions* korvex_host_exact(void);

#ifdef __cplusplus
}
#endif
