// SPDX-License-Identifier: Apache-2.0
// How the lines of both operands of a modular product are scaled, and which of them take part.
#pragma once

#include <cstdint>
#include <vector>

#include "korvex/kernels/host/matrix_product.h"
#include "korvex/kernels/modular/elements.h"
#include "korvex/kernels/modular/extents.h"

namespace korvex::host {

// The lines of one operand.
class ModularLines {
 public:
  ModularLines(const Factor& factor, std::int64_t lines, std::int64_t k);

  const Factor& factor() const { return factor_; }
  std::int64_t count() const { return static_cast<std::int64_t>(extents_.size()); }

  // How many lines have so many bits after scaling: finite ones of moderate size.
  const std::vector<std::int64_t>& lines_by_bits() const { return lines_by_bits_; }
  // Lines of more bits are left out.
  void set_most_bits(int bits) { most_bits_ = bits; }
  int most_bits() const { return most_bits_; }
  std::vector<std::int64_t> left_out() const;

  // Of kLines lines from `first` on; lines that are left out, and those beyond the last, are zeros.
  modular::LineScales scales(std::int64_t first) const;
  // Exponent of the unit of a line.
  int exponent(std::int64_t line) const {
    const modular::Extent& extent = extents_[static_cast<std::size_t>(line)];
    return takes_part(extent) ? extent.lowest : 0;
  }

  // The elements k, ..., k + count - 1 of kLines lines from `first` on.
  void read(std::int64_t first, std::int64_t k, std::int64_t count,
            modular::ElementChunk& chunk) const;

 private:
  // Products of two elements below it are far from overflow.
  static constexpr int kHighest = 505;

  void read_along(std::int64_t first, std::int64_t lines, std::int64_t k, std::int64_t count,
                  modular::ElementChunk& chunk) const;
  void read_across(std::int64_t first, std::int64_t lines, std::int64_t k, std::int64_t count,
                   modular::ElementChunk& chunk) const;
  void collect_along(std::int64_t k);
  void collect_across(std::int64_t k);
  bool suits(const modular::Extent& extent) const {
    return extent.is_finite() && extent.highest <= kHighest && extent.bits() <= modular::kMostBits;
  }

  bool takes_part(const modular::Extent& extent) const {
    return suits(extent) && extent.bits() <= most_bits_;
  }

  const Factor& factor_;
  std::vector<modular::Extent> extents_;
  std::vector<std::int64_t> lines_by_bits_;
  int most_bits_ = modular::kMostBits;
};

}  // namespace korvex::host
