// SPDX-License-Identifier: Apache-2.0
// Exact sums of several outputs at a time, whose elements lie anywhere: a block of them is copied,
// so that those of one output lie side by side and the adders of long rows can have them. Where
// neighbours lie side by side instead, each line of a cache is read once for all of them.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "korvex/kernels/host/exact_axes.h"

namespace korvex::host {
namespace {

constexpr std::int64_t kLineBytes = kTileElements * std::int64_t{sizeof(double)};

// The copies: of each array and output, up to kTileElements elements. 64 KiB an array.
template <int kArrays>
struct Copies {
  alignas(64) char line[kArrays][kTile][kLineBytes];
};

constexpr std::int64_t kRowsAhead = 16;  // far apart, rows are not foreseen by the processor

template <std::int64_t kBytes>
void copy_across(char (*lines)[kLineBytes], const char* const* from, int outputs,
                 std::int64_t stride, std::int64_t first, std::int64_t count) {
  for (std::int64_t i = 0; i < count; ++i) {
    __builtin_prefetch(from[0] + (i + kRowsAhead) * stride);  // reads nothing, wherever it points
    __builtin_prefetch(from[outputs - 1] + (i + kRowsAhead) * stride);
    for (int g = 0; g < outputs; ++g) {
      std::memcpy(lines[g] + (first + i) * kBytes, from[g] + i * stride, kBytes);
    }
  }
}

// Copies `count` elements of each output to its line, from place `first` on.
void copy_run(char (*lines)[kLineBytes], const char* const* from, int outputs, std::int64_t bytes,
              std::int64_t stride, std::int64_t first, std::int64_t count) {
  if (std::abs(stride) <= 2 * bytes) {
    for (int g = 0; g < outputs; ++g) {
      copy_elements(lines[g] + first * bytes, from[g], bytes, stride, count);
    }
    return;
  }
  switch (bytes) {
    case 1:
      return copy_across<1>(lines, from, outputs, stride, first, count);
    case 2:
      return copy_across<2>(lines, from, outputs, stride, first, count);
    case 4:
      return copy_across<4>(lines, from, outputs, stride, first, count);
    default:
      return copy_across<8>(lines, from, outputs, stride, first, count);
  }
}

// The sign is the last bit of each floating-point format.
void negate(char* line, std::int64_t bytes, std::int64_t count) {
  for (std::int64_t i = 1; i <= count; ++i) {
    line[i * bytes - 1] = static_cast<char>(line[i * bytes - 1] ^ 0x80);
  }
}

template <int kArrays>
class TileSum {
 public:
  TileSum(const AxisReduction<kArrays>& reduction, const Tile<kArrays>& tile, StateKind kind,
          TileParts& parts)
      : reduction_(reduction),
        tile_(tile),
        kind_(kind),
        parts_(parts),
        copies_(std::make_unique_for_overwrite<Copies<kArrays>>()) {}

  void add(std::int64_t begin, std::int64_t end) {
    reduction_.elements.runs(begin, end, [this](GridPosition<kArrays> at, std::int64_t count) {
      while (count > 0) {
        const std::int64_t taken = std::min(count, kTileElements - filled_);
        copy(at, taken);
        at.move(reduction_.elements.last(), taken);
        count -= taken;
      }
    });
    flush();
  }

 private:
  void copy(const GridPosition<kArrays>& at, std::int64_t count) {
    for (int a = 0; a < kArrays; ++a) {
      const char* from[kTile];
      for (int g = 0; g < tile_.count; ++g) {
        from[g] = reduction_.base[a] + tile_.at[g].offset[a] + at.offset[a];
      }
      copy_run(copies_->line[a], from, tile_.count, reduction_.bytes[a],
               reduction_.elements.last().stride[a], filled_, count);
    }
    filled_ += count;
    if (filled_ == kTileElements) {
      flush();
    }
  }

  void flush() {
    for (int g = 0; g < tile_.count && filled_ > 0; ++g) {
      if (reduction_.is_negative) {
        constexpr int kNegated = kArrays < 2 ? 0 : kArrays - 2;
        negate(copies_->line[kNegated][g], reduction_.bytes[kNegated], filled_);
      }
      for (int a = 0; a < kArrays; a += kOperands) {
        add_line(a, g);
      }
    }
    filled_ = 0;
  }

  static constexpr int kOperands = kArrays == 1 ? 1 : 2;

  void add_line(int first_array, int g) {
    korvex_exact_array lines[kOperands];
    const korvex_exact_array* operands[kOperands];
    int formats[kOperands];
    for (int o = 0; o < kOperands; ++o) {
      const int a = first_array + o;
      formats[o] = reduction_.formats[a];
      lines[o] = {copies_->line[a][g], formats[o], 1, &filled_, &reduction_.bytes[a]};
      operands[o] = &lines[o];
    }
    const ArrayWalk<kOperands> walk(operands);
    add_terms(kind_, formats, walk, 0, filled_, parts_.part[g]);
  }

  const AxisReduction<kArrays>& reduction_;
  const Tile<kArrays>& tile_;
  StateKind kind_;
  TileParts& parts_;
  std::unique_ptr<Copies<kArrays>> copies_;
  std::int64_t filled_ = 0;  // elements of each line
};

}  // namespace

template <int kArrays>
void add_tile(const AxisReduction<kArrays>& reduction, const Tile<kArrays>& tile, StateKind kind,
              std::int64_t begin, std::int64_t end, TileParts& parts) {
  TileSum<kArrays>(reduction, tile, kind, parts).add(begin, end);
}

template void add_tile(const AxisReduction<1>&, const Tile<1>&, StateKind, std::int64_t,
                       std::int64_t, TileParts&);
template void add_tile(const AxisReduction<2>&, const Tile<2>&, StateKind, std::int64_t,
                       std::int64_t, TileParts&);
template void add_tile(const AxisReduction<4>&, const Tile<4>&, StateKind, std::int64_t,
                       std::int64_t, TileParts&);

}  // namespace korvex::host
