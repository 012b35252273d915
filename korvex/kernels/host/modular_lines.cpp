// SPDX-License-Identifier: Apache-2.0
// The lines of an operand of a modular product: their extents, and their elements side by side.
#include "korvex/kernels/host/modular_lines.h"

#include <algorithm>
#include <cstring>

namespace korvex::host {
namespace {

std::size_t size(std::int64_t n) { return static_cast<std::size_t>(n); }

}  // namespace

ModularLines::ModularLines(const Factor& factor, std::int64_t lines, std::int64_t k)
    : factor_(factor), extents_(size(lines)), lines_by_bits_(modular::kMostBits + 1) {
  if (factor.is_along_lines()) {
    collect_along(k);
  } else {
    collect_across(k);
  }
  for (const modular::Extent& extent : extents_) {
    if (suits(extent)) {
      ++lines_by_bits_[size(extent.bits())];
    }
  }
}

void ModularLines::collect_along(std::int64_t k) {
  double buffer[Factor::kAlong];
  for (std::int64_t line = 0; line < count(); ++line) {
    modular::ExtentCollector found;
    for (std::int64_t first = 0; first < k; first += Factor::kAlong) {
      const std::int64_t piece = std::min(Factor::kAlong, k - first);
      modular::collect_along(factor_.along(line, first, piece, buffer), piece, found);
    }
    extents_[size(line)] = found.extent();
  }
}

void ModularLines::collect_across(std::int64_t k) {
  double buffer[Factor::kAcross];
  std::int64_t largest[Factor::kAcross];
  std::int64_t lowest[Factor::kAcross];
  for (std::int64_t first = 0; first < count(); first += Factor::kAcross) {
    const std::int64_t lines = std::min(Factor::kAcross, count() - first);
    const modular::ExtentCollector none;
    std::fill(largest, largest + lines, none.largest);
    std::fill(lowest, lowest + lines, none.lowest);
    for (std::int64_t i = 0; i < k; ++i) {
      modular::collect_across(factor_.across(first, i, lines, buffer), lines, largest, lowest);
    }
    for (std::int64_t line = 0; line < lines; ++line) {
      const modular::ExtentCollector found = {largest[line], lowest[line]};
      extents_[size(first + line)] = found.extent();
    }
  }
}

std::vector<std::int64_t> ModularLines::left_out() const {
  std::vector<std::int64_t> lines;
  for (std::int64_t line = 0; line < count(); ++line) {
    if (!takes_part(extents_[size(line)])) {
      lines.push_back(line);
    }
  }
  return lines;
}

modular::LineScales ModularLines::scales(std::int64_t first) const {
  modular::LineScales scales{};
  for (int i = 0; i < modular::kLines && first + i < count(); ++i) {
    const modular::Extent& extent = extents_[size(first + i)];
    if (takes_part(extent)) {
      scales.minus_exponent[i] = -extent.lowest;
      scales.mask = static_cast<std::uint16_t>(scales.mask | 1 << i);
    }
  }
  return scales;
}

void ModularLines::read(std::int64_t first, std::int64_t k, std::int64_t count,
                        modular::ElementChunk& chunk) const {
  const std::int64_t lines = std::clamp<std::int64_t>(this->count() - first, 0, modular::kLines);
  chunk.count = static_cast<int>(count);
  if (lines < modular::kLines || count < modular::kChunk) {
    std::memset(chunk.x, 0, sizeof chunk.x);
  }
  if (factor_.is_along_lines()) {
    read_along(first, lines, k, count, chunk);
  } else {
    read_across(first, lines, k, count, chunk);
  }
}

void ModularLines::read_along(std::int64_t first, std::int64_t lines, std::int64_t k,
                              std::int64_t count, modular::ElementChunk& chunk) const {
  double buffer[modular::kLines][modular::kChunk];
  const double* x[modular::kLines];
  for (std::int64_t line = 0; line < lines; ++line) {
    x[line] = factor_.along(first + line, k, count, buffer[line]);
  }
  for (int begin = 0; begin < modular::kLines; begin += 8) {
    std::int64_t i = 0;
    if (begin + 8 <= lines) {
      const double* const eight[8] = {x[begin],     x[begin + 1], x[begin + 2], x[begin + 3],
                                      x[begin + 4], x[begin + 5], x[begin + 6], x[begin + 7]};
      for (; i + 8 <= count; i += 8) {
        modular::transpose_eight(eight, static_cast<int>(i), chunk, begin);
      }
    }
    for (; i < count; ++i) {
      for (std::int64_t line = begin; line < std::min<std::int64_t>(begin + 8, lines); ++line) {
        chunk.x[i][line] = x[line][i];
      }
    }
  }
}

void ModularLines::read_across(std::int64_t first, std::int64_t lines, std::int64_t k,
                               std::int64_t count, modular::ElementChunk& chunk) const {
  double buffer[modular::kLines];
  for (std::int64_t i = 0; i < count && lines > 0; ++i) {
    const double* x = factor_.across(first, k + i, lines, buffer);
    if (lines == modular::kLines) {
      std::memcpy(chunk.x[i], x, sizeof chunk.x[i]);
    } else {
      std::copy(x, x + lines, chunk.x[i]);
    }
  }
}

}  // namespace korvex::host
