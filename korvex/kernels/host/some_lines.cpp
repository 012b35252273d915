// SPDX-License-Identifier: Apache-2.0
// Some rows and some columns of a matrix product: factors and sinks that skip the other lines.
#include "korvex/kernels/host/some_lines.h"

#include <cstring>

namespace korvex::host {
namespace {

std::size_t size(std::int64_t n) { return static_cast<std::size_t>(n); }

// Some lines of a factor.
class SomeLines final : public Factor {
 public:
  SomeLines(const Factor& factor, const std::vector<std::int64_t>& lines)
      : factor_(factor), lines_(lines) {}

  const double* along(std::int64_t line, std::int64_t k, std::int64_t count,
                      double* buffer) const override {
    return factor_.along(lines_[size(line)], k, count, buffer);
  }
  const double* across(std::int64_t line, std::int64_t k, std::int64_t count,
                       double* buffer) const override {
    for (std::int64_t i = 0; i < count; ++i) {
      buffer[i] = *factor_.along(lines_[size(line + i)], k, 1, buffer + i);
    }
    return buffer;
  }
  bool is_along_lines() const override { return true; }

 private:
  const Factor& factor_;
  const std::vector<std::int64_t>& lines_;
};

// Takes the elements of a product of some rows, or of some columns, to their places in the whole.
class SomeElements final : public ProductSink {
 public:
  // The lines that are not all.
  SomeElements(const ProductSink& sink, const std::vector<std::int64_t>* rows,
               const std::vector<std::int64_t>* columns)
      : sink_(sink), rows_(rows), columns_(columns) {}

  void place(ProductTile&) const override {}
  void take(const ProductTile& tile) const override {
    for (std::int64_t i = 0; i < (rows_ != nullptr ? tile.rows : 1); ++i) {
      for (std::int64_t j = 0; j < (columns_ != nullptr ? tile.columns : 1); ++j) {
        take_part(tile, i, j);
      }
    }
  }

 private:
  // A row of the tile, or a column.
  void take_part(const ProductTile& tile, std::int64_t i, std::int64_t j) const {
    ProductTile part = tile;
    if (rows_ != nullptr) {
      part.first_row = (*rows_)[size(tile.first_row + i)];
      part.rows = 1;
    }
    if (columns_ != nullptr) {
      part.first_column = (*columns_)[size(tile.first_column + j)];
      part.columns = 1;
    }
    for (double*& limb : part.limbs) {
      limb += i * tile.row_stride + j;
    }
    ProductTile placed = part;
    sink_.place(placed);
    for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
      for (std::int64_t row = 0; row < part.rows; ++row) {
        std::memmove(placed.limbs[limb] + row * placed.row_stride,
                     part.limbs[limb] + row * part.row_stride, size(part.columns) * sizeof(double));
      }
    }
    sink_.take(placed);
  }

  const ProductSink& sink_;
  const std::vector<std::int64_t>* rows_;
  const std::vector<std::int64_t>* columns_;
};

}  // namespace

void multiply_some_lines(const MatrixProduct& product, const ProductSink& sink,
                         const std::vector<std::int64_t>& rows,
                         const std::vector<std::int64_t>& columns, int threads) {
  if (!rows.empty()) {
    const SomeLines a(product.a, rows);
    multiply_by_slices({a, product.b, static_cast<std::int64_t>(rows.size()), product.n, product.k},
                       SomeElements(sink, &rows, nullptr), threads);
  }
  if (!columns.empty()) {
    const SomeLines b(product.b, columns);
    multiply_by_slices(
        {product.a, b, product.m, static_cast<std::int64_t>(columns.size()), product.k},
        SomeElements(sink, nullptr, &columns), threads);
  }
}

}  // namespace korvex::host
