// SPDX-License-Identifier: Apache-2.0
// A reduction of arrays along some of their dimensions, laid out for walks over memory; and the
// ways to work it out.
#pragma once

#include <algorithm>
#include <cstdint>

#include "korvex/kernels/host/axis_grid.h"
#include "korvex/kernels/host/exact_parts.h"
#include "korvex/kernels/host/exact_result.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {

// kArrays: one for sums and moments, two for products, four for two pairs whose products are added
// up. The arrays have one shape, and an output for each index of their first dimensions.
template <int kArrays>
struct AxisReduction {
  // kept: the number of these dimensions.
  AxisReduction(const korvex_exact_array* const (&operands)[kArrays], int kept) {
    for (int a = 0; a < kArrays; ++a) {
      base[a] = static_cast<const char*>(operands[a]->data);
      formats[a] = operands[a]->format;
      bytes[a] = bytes_of(formats[a]);
      of_one_output[a] = *operands[a];
      of_one_output[a].rank -= kept;
      of_one_output[a].extents += kept;
      of_one_output[a].byte_strides += kept;
    }
    std::int64_t out_step = 1;  // of the dimension at hand; without outputs any number will do
    for (int d = 0; d < kept; ++d) {
      out_step *= operands[0]->extents[d];
    }
    for (int d = 0; d < operands[0]->rank; ++d) {
      GridDimension<kArrays> dimension;
      dimension.extent = operands[0]->extents[d];
      for (int a = 0; a < kArrays; ++a) {
        dimension.stride[a] = operands[a]->byte_strides[d];
      }
      if (d < kept) {
        out_step /= std::max<std::int64_t>(dimension.extent, 1);
        dimension.out_step = out_step;
      }
      (d < kept ? outputs : elements).take_in(dimension);
    }
    outputs.arrange();
    elements.arrange();
  }

  const char* base[kArrays];
  int formats[kArrays];
  std::int64_t bytes[kArrays];  // of an element
  korvex_exact_array of_one_output[kArrays];
  Grid<kArrays> outputs;
  Grid<kArrays> elements;    // of one output
  bool is_negative = false;  // the products of the last pair are taken away; its formats are real

  // Whether the elements of one output lie nearer to each other than to those of neighbours.
  bool is_along_rows() const {
    return outputs.size() == 1 || elements.last().reach() < outputs.last().reach();
  }
  // Ranges of outputs, or of elements where outputs are too few for the threads that are usable.
  bool shares_outputs(int threads) const {
    return outputs.size() < 4 * std::int64_t{threads} && elements.size() >= 2 * kLeastRange;
  }
  int output_ranges(int threads) const {
    const int useful = range_count(outputs.size() * elements.size(), threads);
    return static_cast<int>(std::min<std::int64_t>(useful, outputs.size()));
  }
};

// Outputs in any places; their elements are copied so that those of each lie side by side.
constexpr int kTile = 16;
template <int kArrays>
struct Tile {
  GridPosition<kArrays> at[kTile];
  int count = 0;
};

// What a tile is made of, and what the copies need.
constexpr std::int64_t kTileElements = 512;
struct TileParts {
  Part part[kTile];
};

// exact_tiles.cpp: adds the elements of numbers begin to end - 1 of each output.
template <int kArrays>
void add_tile(const AxisReduction<kArrays>& reduction, const Tile<kArrays>& tile, StateKind kind,
              std::int64_t begin, std::int64_t end, TileParts& parts);

// exact_column_sums.cpp: sums and means, where many neighbours are added up side by side.
void reduce_columns(AxisReduction<1>& reduction, const ExactResult& result, int threads,
                    const ResultArray& out);

// exact_moments.cpp: variances and norms of at most kMostDeviations elements, of neighbours side by
// side and of rows one after the other.
constexpr std::int64_t kMostDeviations = std::int64_t{1} << 20;
void reduce_moment_columns(AxisReduction<1>& reduction, const ExactResult& result, int threads,
                           const ResultArray& out);
void reduce_moment_rows(const AxisReduction<1>& reduction, const ExactResult& result, int threads,
                        const ResultArray& out);

}  // namespace korvex::host
