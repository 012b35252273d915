// SPDX-License-Identifier: Apache-2.0
// The matrix product on the host: tiles of the output for the threads, and within a tile blocks
// that stay in the first cache, columns side by side in vector lanes.
//
// Phases: the exponents of each row of a and of each column of b; then for each tile of 64 rows and
// a panel of columns, 128 products deep at a time, the panel is copied side by side and each row of
// the tile passes over it (ElementSlices); rows with an element that three slices did not hold pass
// once more with six; then each element is rounded, or summed product by product where even those
// did not hold it. No result depends on which thread takes which tile.
#include "korvex/kernels/host/matrix_product.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "korvex/arithmetic/exact/dot.h"
#include "korvex/arithmetic/exact/matrix_product.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {
namespace {

static_assert(arithmetic::kElementLimbs == sizeof MatrixProduct::limbs / sizeof(double*));

class MatrixOnHost {
 public:
  explicit MatrixOnHost(const MatrixProduct& product)
      : product_(product), rows_(size(product.m)), columns_(size(product.n)) {
    std::vector<arithmetic::FactorRangeOf> columns(size(product.n));
    for (std::int64_t k = 0; k < product.k; ++k) {
      for (std::int64_t j = 0; j < product.n; ++j) {
        columns[size(j)].note(product.b[k * product.n + j]);
      }
    }
    for (std::int64_t j = 0; j < product.n; ++j) {
      columns_[size(j)] = columns[size(j)].range();
    }
    for (std::int64_t i = 0; i < product.m; ++i) {
      arithmetic::FactorRangeOf row;
      for (std::int64_t k = 0; k < product.k; ++k) {
        row.note(product.a[i * product.k + k]);
      }
      rows_[size(i)] = row.range();
    }
  }

  std::int64_t panels() const { return (product_.n + kPanel - 1) / kPanel; }
  std::int64_t tiles() const { return panels() * ((product_.m + kTileRows - 1) / kTileRows); }

  // Memory of one thread.
  class Workspace {
   public:
    Workspace() : memory_(std::make_unique<Memory>()) {}

   private:
    friend class MatrixOnHost;
    struct Memory;
    std::unique_ptr<Memory> memory_;
  };

  // Writes the elements of one tile; tiles of one panel follow each other.
  void run_tile(std::int64_t tile, Workspace& workspace) const;

 private:
  using Lanes = arithmetic::HostLanes;
  static constexpr std::int64_t kVectors = 2;
  static constexpr std::int64_t kPanel = kVectors * Lanes::kCount;  // columns
  static constexpr std::int64_t kTileRows = 64;
  static constexpr std::int64_t kDepth = arithmetic::kCascadeSteps;
  static constexpr std::int64_t kGathered = 1024;  // elements of a column that are copied at a time

  struct Tile {
    std::int64_t first_row, rows, first_column, columns;
  };

  static std::size_t size(std::int64_t n) { return static_cast<std::size_t>(n); }

  // A tile of few columns would leave most lanes empty: there the lanes go along a column.
  bool is_for_slices(const Tile& tile) const {
    return 2 * tile.columns >= kPanel && product_.k <= arithmetic::kLongestElement;
  }

  arithmetic::ElementPlan plan(const Tile& tile, std::int64_t row, std::int64_t column) const {
    return arithmetic::ElementPlan::of(rows_[size(tile.first_row + row)],
                                       columns_[size(tile.first_column + column)]);
  }

  void copy_panel(const Tile& tile, std::int64_t first_k, std::int64_t depth,
                  Workspace::Memory& memory) const;
  void sum_along_columns(const Tile& tile, Workspace::Memory& memory) const;
  template <int kSlices>
  void pass(const Tile& tile, Workspace::Memory& memory) const;
  template <int kSlices>
  void plan_row(const Tile& tile, std::int64_t row, Workspace::Memory& memory) const;
  template <int kSlices>
  void pass_row(const Tile& tile, std::int64_t row, std::int64_t first_k, std::int64_t depth,
                Workspace::Memory& memory) const;
  template <int kSlices>
  bool finish_row(const Tile& tile, std::int64_t row, Workspace::Memory& memory) const;

  void write(std::int64_t i, std::int64_t j, const double* limbs) const {
    for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
      product_.limbs[limb][i * product_.n + j] = limbs[limb];
    }
  }

  MatrixProduct product_;
  std::vector<arithmetic::FactorRange> rows_;
  std::vector<arithmetic::FactorRange> columns_;
};

struct MatrixOnHost::Workspace::Memory {
  double panel[kDepth * kPanel];   // kPanel columns of b, zeros beyond the last
  double bias[kTileRows][kPanel];  // of the first slice of each element
  arithmetic::ElementCounts counts[kTileRows][kPanel];
  std::uint64_t lost[kTileRows][kPanel];  // zero but for the sign bit where nothing was lost
  std::int64_t pending_rows[kTileRows];   // that are not finished
  std::int64_t pending;
  double gathered[kGathered];
};

void MatrixOnHost::run_tile(std::int64_t tile, Workspace& workspace) const {
  const std::int64_t row_blocks = tiles() / panels();
  const std::int64_t first_row = tile % row_blocks * kTileRows;
  const std::int64_t first_column = tile / row_blocks * kPanel;
  const Tile place = {first_row, std::min(kTileRows, product_.m - first_row), first_column,
                      std::min(kPanel, product_.n - first_column)};
  Workspace::Memory& memory = *workspace.memory_;
  if (is_for_slices(place)) {
    memory.pending = place.rows;
    for (std::int64_t row = 0; row < place.rows; ++row) {
      memory.pending_rows[row] = row;
    }
    pass<arithmetic::kFewSlices>(place, memory);
    pass<arithmetic::kManySlices>(place, memory);
  } else {
    sum_along_columns(place, memory);
  }
}

void MatrixOnHost::copy_panel(const Tile& tile, std::int64_t first_k, std::int64_t depth,
                              Workspace::Memory& memory) const {
  const double* from = product_.b + first_k * product_.n + tile.first_column;
  for (std::int64_t k = 0; k < depth; ++k, from += product_.n) {
    double* to = memory.panel + k * kPanel;
    std::copy(from, from + tile.columns, to);
    std::fill(to + tile.columns, to + kPanel, 0.0);
  }
}

// Passes the pending rows of a tile with so many slices; those that must pass again stay pending.
template <int kSlices>
void MatrixOnHost::pass(const Tile& tile, Workspace::Memory& memory) const {
  for (std::int64_t place = 0; place < memory.pending; ++place) {
    plan_row<kSlices>(tile, memory.pending_rows[place], memory);
  }
  for (std::int64_t k = 0; k < product_.k && memory.pending > 0; k += kDepth) {
    const std::int64_t depth = std::min(kDepth, product_.k - k);
    copy_panel(tile, k, depth, memory);
    for (std::int64_t place = 0; place < memory.pending; ++place) {
      pass_row<kSlices>(tile, memory.pending_rows[place], k, depth, memory);
    }
  }
  std::int64_t left = 0;
  for (std::int64_t place = 0; place < memory.pending; ++place) {
    const std::int64_t row = memory.pending_rows[place];
    if (!finish_row<kSlices>(tile, row, memory)) {
      memory.pending_rows[left++] = row;
    }
  }
  memory.pending = left;
}

template <int kSlices>
void MatrixOnHost::plan_row(const Tile& tile, std::int64_t row, Workspace::Memory& memory) const {
  for (std::int64_t column = 0; column < kPanel; ++column) {
    memory.counts[row][column] = {};
    memory.lost[row][column] = 0;
    memory.bias[row][column] = arithmetic::slice_bias(0);
    if (column >= tile.columns) {
      continue;
    }
    const arithmetic::ElementPlan element = plan(tile, row, column);
    if (element.suits(kSlices)) {
      memory.bias[row][column] = arithmetic::slice_bias(element.bias_exponent);
    } else {
      memory.lost[row][column] = ~std::uint64_t{0};
    }
  }
}

template <int kSlices>
void MatrixOnHost::pass_row(const Tile& tile, std::int64_t row, std::int64_t first_k,
                            std::int64_t depth, Workspace::Memory& memory) const {
  using Slices = arithmetic::ElementSlices<Lanes, kSlices>;
  const double* a = product_.a + (tile.first_row + row) * product_.k + first_k;
  const double* b = memory.panel;
  Slices first(Lanes::load(memory.bias[row]));
  Slices second(Lanes::load(memory.bias[row] + Lanes::kCount));
  for (std::int64_t k = 0; k < depth; ++k, b += kPanel) {
    const Lanes::Value factor = Lanes::Value(a[k]);
    first.add_product(factor, Lanes::load(b));
    second.add_product(factor, Lanes::load(b + Lanes::kCount));
  }
  for (int lane = 0; lane < Lanes::kCount; ++lane) {
    arithmetic::keep_counts<0>(first, lane, memory.counts[row][lane]);
    arithmetic::keep_counts<0>(second, lane, memory.counts[row][Lanes::kCount + lane]);
    memory.lost[row][lane] |= arithmetic::lane(first.lost(), lane);
    memory.lost[row][Lanes::kCount + lane] |= arithmetic::lane(second.lost(), lane);
  }
}

// False where a later pass is to finish the row.
template <int kSlices>
bool MatrixOnHost::finish_row(const Tile& tile, std::int64_t row, Workspace::Memory& memory) const {
  bool is_finished = true;
  for (std::int64_t column = 0; column < tile.columns; ++column) {
    const std::int64_t i = tile.first_row + row;
    const std::int64_t j = tile.first_column + column;
    const arithmetic::ElementPlan element = plan(tile, row, column);
    double limbs[arithmetic::kElementLimbs];
    if (!arithmetic::has_rest(memory.lost[row][column])) {
      memory.counts[row][column].round<kSlices>(element.bias_exponent, limbs);
    } else if (kSlices < arithmetic::kManySlices && element.suits(arithmetic::kManySlices)) {
      is_finished = false;
      continue;
    } else {
      arithmetic::ExactProductSum sum;
      arithmetic::sum_element({product_.a + i * product_.k, product_.b + j, product_.n, product_.k},
                              sum, limbs);
    }
    write(i, j, limbs);
  }
  return is_finished;
}

// The lanes go along the columns, which are copied piece by piece.
void MatrixOnHost::sum_along_columns(const Tile& tile, Workspace::Memory& memory) const {
  for (std::int64_t column = 0; column < tile.columns; ++column) {
    for (std::int64_t row = 0; row < tile.rows; ++row) {
      const double* a = product_.a + (tile.first_row + row) * product_.k;
      const double* b = product_.b + tile.first_column + column;
      arithmetic::ExactProductSum sum;
      arithmetic::ChunkedSum<Lanes, arithmetic::kDotStreams, arithmetic::Products> chunks(sum);
      for (std::int64_t k = 0; k < product_.k && !sum.is_decided(); k += kGathered) {
        const std::int64_t count = std::min(kGathered, product_.k - k);
        for (std::int64_t place = 0; place < count; ++place) {
          memory.gathered[place] = b[(k + place) * product_.n];
        }
        chunks.add({a + k, memory.gathered}, count);
      }
      double limbs[arithmetic::kElementLimbs];
      sum.round<arithmetic::kElementLimbs>(limbs);
      write(tile.first_row + row, tile.first_column + column, limbs);
    }
  }
}

// Fewer products are not worth a thread.
constexpr std::int64_t kLeastProductsOfThread = 1 << 18;

}  // namespace

void multiply_on_host(const MatrixProduct& product, int threads) {
  if (product.m <= 0 || product.n <= 0) {
    return;
  }
  const MatrixOnHost matrix(product);
  const std::int64_t tiles = matrix.tiles();
  const std::int64_t products = product.m * product.n * std::max<std::int64_t>(product.k, 1);
  const std::int64_t useful = std::min(tiles, products / kLeastProductsOfThread);
  const std::int64_t ranges = std::max<std::int64_t>(1, std::min<std::int64_t>(useful, threads));
  for_each_of_ranges<MatrixOnHost::Workspace>(
      tiles, static_cast<int>(ranges),
      [&matrix](std::int64_t begin, std::int64_t end, MatrixOnHost::Workspace& workspace) {
        for (std::int64_t tile = begin; tile < end; ++tile) {
          matrix.run_tile(tile, workspace);
        }
      },
      [](const MatrixOnHost::Workspace&) {});
}

// Arguments: a, b, c0, c1, c2, M, N, K.
void run_matmul(const Arguments& arguments) {
  const MatrixProduct product = {
      arguments.array(0),
      arguments.array(1),
      {arguments.array(2), arguments.array(3), arguments.array(4)},
      arguments.integer(5),
      arguments.integer(6),
      arguments.integer(7),
  };
  multiply_on_host(product, arguments.threads());
}

}  // namespace korvex::host
