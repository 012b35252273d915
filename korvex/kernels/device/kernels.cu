// SPDX-License-Identifier: Apache-2.0
// All kernels for a GPU, as one file to compile, in the order of korvex/kernels/table.h; then those
// of korvex/kernels/whole_device.h.
//
// A kernel here is a thin shell that names its memory and calls a body. Functions of one element,
// and whatever rounds a result, are the bodies that the host runs (korvex/arithmetic). How threads
// share the work differs from the host: sum and dot over a whole grid have algorithms of their own
// (parallel_sum.h, parallel_dot.h), and so has the sum of squares of tqx_rms_norm_kernel. Partial
// sums are exact on both sides, so the bits are the same.
//
// Every kernel takes n and indices as 64-bit numbers, runs on any grid of at least one block, and
// leaves the same bits for each. Blocks: see the launch shapes in table.h.
#include "korvex/kernels/device/dot.cuh"
#include "korvex/kernels/device/matrix_product.cuh"
#include "korvex/kernels/device/pairs.cuh"
#include "korvex/kernels/device/reductions.cuh"
#include "korvex/kernels/device/rms_norm.cuh"
#include "korvex/kernels/device/sum.cuh"
#include "korvex/kernels/device/unary.cuh"
#include "korvex/kernels/device/whole_device.cuh"
#include "korvex/kernels/device/whole_log_sum.cuh"
#include "korvex/kernels/device/whole_product.cuh"
#include "korvex/kernels/device/whole_scan.cuh"
