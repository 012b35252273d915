// SPDX-License-Identifier: Apache-2.0
// The matrix product on the host, over operands that are read piece by piece and results that are
// taken tile by tile: neither needs a copy of a whole matrix.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/arithmetic/exact/matrix_product.h"

namespace korvex::host {

// One operand as doubles: so many lines, rows of the left one or columns of the right one, of k
// elements each. A piece is returned where it lies, or written to the buffer and returned there.
class Factor {
 public:
  // The elements k, ..., k + count - 1 of a line. Precondition: count <= kAlong.
  virtual const double* along(std::int64_t line, std::int64_t k, std::int64_t count,
                              double* buffer) const = 0;
  // Element k of the lines line, ..., line + count - 1. Precondition: count <= kAcross.
  virtual const double* across(std::int64_t line, std::int64_t k, std::int64_t count,
                               double* buffer) const = 0;

  // Whether memory is read in its own order along a line, rather than across the lines.
  virtual bool is_along_lines() const = 0;

  static constexpr std::int64_t kAlong = 1024;
  static constexpr std::int64_t kAcross = 512;

 protected:
  ~Factor() = default;
};

// Doubles in memory; the strides count doubles.
class FactorInMemory final : public Factor {
 public:
  FactorInMemory(const double* data, std::int64_t line_stride, std::int64_t k_stride)
      : data_(data), line_stride_(line_stride), k_stride_(k_stride) {}

  const double* along(std::int64_t line, std::int64_t k, std::int64_t count,
                      double* buffer) const override {
    return piece(line, k, k_stride_, count, buffer);
  }
  const double* across(std::int64_t line, std::int64_t k, std::int64_t count,
                       double* buffer) const override {
    return piece(line, k, line_stride_, count, buffer);
  }
  bool is_along_lines() const override { return std::abs(k_stride_) <= std::abs(line_stride_); }

 private:
  const double* piece(std::int64_t line, std::int64_t k, std::int64_t stride, std::int64_t count,
                      double* buffer) const {
    const double* from = data_ + line * line_stride_ + k * k_stride_;
    if (stride == 1) {
      return from;
    }
    for (std::int64_t i = 0; i < count; ++i) {
      buffer[i] = from[i * stride];
    }
    return buffer;
  }

  const double* data_;
  std::int64_t line_stride_;
  std::int64_t k_stride_;
};

// A product of m rows and n columns.
struct MatrixProduct {
  const Factor& a;
  const Factor& b;
  std::int64_t m, n, k;
};

// Adds the products of element (i, j), one by one, to a sum to which nothing was added yet.
void add_element(const MatrixProduct& product, std::int64_t i, std::int64_t j,
                 arithmetic::ExactProductSum& sum);

// A rectangle of the product, and its canonical limbs, row by row.
struct ProductTile {
  std::int64_t first_row, rows, first_column, columns;
  double* limbs[arithmetic::kElementLimbs];
  std::int64_t row_stride;  // of the limbs
};

// Takes the elements, tile by tile; tiles of several threads at once. An element may come twice:
// the last one counts.
class ProductSink {
 public:
  // May have the limbs written elsewhere than to the thread's memory, to which they point.
  virtual void place(ProductTile& tile) const = 0;
  virtual void take(const ProductTile& tile) const = 0;

 protected:
  ~ProductSink() = default;
};

// Three arrays of the product's extents, one for each limb.
class LimbArrays final : public ProductSink {
 public:
  LimbArrays(double* const (&limbs)[arithmetic::kElementLimbs], std::int64_t columns)
      : columns_(columns) {
    std::copy(limbs, limbs + arithmetic::kElementLimbs, limbs_);
  }

  void place(ProductTile& tile) const override {
    for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
      tile.limbs[limb] = limbs_[limb] + tile.first_row * columns_ + tile.first_column;
    }
    tile.row_stride = columns_;
  }
  void take(const ProductTile&) const override {}

 private:
  double* limbs_[arithmetic::kElementLimbs];
  std::int64_t columns_;
};

// At most `threads` host threads work; the result does not depend on how many, nor on the way that
// is taken: by residues (modular_product.h) where the processor can and the product is large, else
// by slices.
void multiply_on_host(const MatrixProduct& product, const ProductSink& sink, int threads);
void multiply_by_slices(const MatrixProduct& product, const ProductSink& sink, int threads);

}  // namespace korvex::host
