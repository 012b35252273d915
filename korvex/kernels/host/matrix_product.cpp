// SPDX-License-Identifier: Apache-2.0
// The matrix product on the host: tiles of the output for the threads, and within a tile blocks
// that stay in the first cache, columns side by side in vector lanes.
//
// Phases: the exponents of each row of a and of each column of b; then for each tile of 64 rows and
// a panel of columns, 128 products deep at a time, the panel is copied side by side and each row of
// the tile passes over it (ElementSlices); rows with an element that three slices did not hold pass
// once more with six; then each element is rounded, or summed product by product where even those
// did not hold it. Operands that are not doubles in memory are converted as they are read, the left
// one once for each panel. No result depends on which thread takes which tile.
#include "korvex/kernels/host/matrix_product.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "korvex/arithmetic/exact/dot.h"
#include "korvex/arithmetic/exact/matrix_product.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/modular_product.h"
#include "korvex/kernels/host/product_way.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {
namespace {

class MatrixOnHost {
 public:
  MatrixOnHost(const MatrixProduct& product, const ProductSink& sink)
      : product_(product),
        sink_(sink),
        rows_(ranges_of(product.a, product.m, product.k)),
        columns_(ranges_of(product.b, product.n, product.k)) {}

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

  using Tile = ProductTile;

  static std::size_t size(std::int64_t n) { return static_cast<std::size_t>(n); }

  static std::vector<arithmetic::FactorRange> ranges_of(const Factor& factor, std::int64_t lines,
                                                        std::int64_t k);
  static arithmetic::FactorRange range_along(const Factor& factor, std::int64_t line,
                                             std::int64_t k);
  static void ranges_across(const Factor& factor, std::int64_t first, std::int64_t count,
                            std::int64_t k, arithmetic::FactorRange* ranges);

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

  static void write(const Tile& tile, std::int64_t row, std::int64_t column, const double* limbs) {
    for (int limb = 0; limb < arithmetic::kElementLimbs; ++limb) {
      tile.limbs[limb][row * tile.row_stride + column] = limbs[limb];
    }
  }

  const MatrixProduct& product_;
  const ProductSink& sink_;
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
  double a_piece[Factor::kAlong];
  double b_piece[Factor::kAlong];
  double limbs[arithmetic::kElementLimbs][kTileRows * kPanel];
};

// Each line by itself, or several side by side where that is how they lie in memory: so a matrix is
// read once, and in its own order.
std::vector<arithmetic::FactorRange> MatrixOnHost::ranges_of(const Factor& factor,
                                                             std::int64_t lines, std::int64_t k) {
  std::vector<arithmetic::FactorRange> ranges(size(lines));
  const std::int64_t side_by_side = factor.is_along_lines() ? 1 : Factor::kAcross;
  for (std::int64_t first = 0; first < lines; first += side_by_side) {
    const std::int64_t count = std::min(side_by_side, lines - first);
    if (count == 1) {
      ranges[size(first)] = range_along(factor, first, k);
    } else {
      ranges_across(factor, first, count, k, ranges.data() + first);
    }
  }
  return ranges;
}

arithmetic::FactorRange MatrixOnHost::range_along(const Factor& factor, std::int64_t line,
                                                  std::int64_t k) {
  arithmetic::FactorRangeOf found;
  double buffer[Factor::kAlong];
  for (std::int64_t first = 0; first < k; first += Factor::kAlong) {
    const std::int64_t count = std::min(Factor::kAlong, k - first);
    const double* x = factor.along(line, first, count, buffer);
    for (std::int64_t i = 0; i < count; ++i) {
      found.note(x[i]);
    }
  }
  return found.range();
}

void MatrixOnHost::ranges_across(const Factor& factor, std::int64_t first, std::int64_t count,
                                 std::int64_t k, arithmetic::FactorRange* ranges) {
  arithmetic::FactorRangeOf found[Factor::kAcross];
  double buffer[Factor::kAcross];
  for (std::int64_t i = 0; i < k; ++i) {
    const double* x = factor.across(first, i, count, buffer);
    for (std::int64_t line = 0; line < count; ++line) {
      found[line].note(x[line]);
    }
  }
  for (std::int64_t line = 0; line < count; ++line) {
    ranges[line] = found[line].range();
  }
}

void MatrixOnHost::run_tile(std::int64_t tile, Workspace& workspace) const {
  const std::int64_t row_blocks = tiles() / panels();
  const std::int64_t first_row = tile % row_blocks * kTileRows;
  const std::int64_t first_column = tile / row_blocks * kPanel;
  Workspace::Memory& memory = *workspace.memory_;
  Tile place = {first_row,
                std::min(kTileRows, product_.m - first_row),
                first_column,
                std::min(kPanel, product_.n - first_column),
                {memory.limbs[0], memory.limbs[1], memory.limbs[2]},
                kPanel};
  sink_.place(place);
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
  sink_.take(place);
}

void MatrixOnHost::copy_panel(const Tile& tile, std::int64_t first_k, std::int64_t depth,
                              Workspace::Memory& memory) const {
  for (std::int64_t k = 0; k < depth; ++k) {
    double* to = memory.panel + k * kPanel;
    const double* from = product_.b.across(tile.first_column, first_k + k, tile.columns, to);
    if (from != to) {
      std::copy(from, from + tile.columns, to);
    }
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
  const double* a = product_.a.along(tile.first_row + row, first_k, depth, memory.a_piece);
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
    const arithmetic::ElementPlan element = plan(tile, row, column);
    double limbs[arithmetic::kElementLimbs];
    if (!arithmetic::has_rest(memory.lost[row][column])) {
      memory.counts[row][column].round<kSlices>(element.bias_exponent, limbs);
    } else if (kSlices < arithmetic::kManySlices && element.suits(arithmetic::kManySlices)) {
      is_finished = false;
      continue;
    } else {
      arithmetic::ExactProductSum sum;
      add_element(product_, tile.first_row + row, tile.first_column + column, sum);
      sum.round<arithmetic::kElementLimbs>(limbs);
    }
    write(tile, row, column, limbs);
  }
  return is_finished;
}

// The lanes go along the columns.
void MatrixOnHost::sum_along_columns(const Tile& tile, Workspace::Memory& memory) const {
  for (std::int64_t column = 0; column < tile.columns; ++column) {
    for (std::int64_t row = 0; row < tile.rows; ++row) {
      arithmetic::ExactProductSum sum;
      arithmetic::ChunkedSum<Lanes, arithmetic::kDotStreams, arithmetic::Products> chunks(sum);
      for (std::int64_t k = 0; k < product_.k && !sum.is_decided(); k += Factor::kAlong) {
        const std::int64_t count = std::min(Factor::kAlong, product_.k - k);
        const double* a = product_.a.along(tile.first_row + row, k, count, memory.a_piece);
        const double* b = product_.b.along(tile.first_column + column, k, count, memory.b_piece);
        chunks.add({a, b}, count);
      }
      double limbs[arithmetic::kElementLimbs];
      sum.round<arithmetic::kElementLimbs>(limbs);
      write(tile, row, column, limbs);
    }
  }
}

// Fewer products are not worth a thread.
constexpr std::int64_t kLeastProductsOfThread = 1 << 18;

}  // namespace

void add_element(const MatrixProduct& product, std::int64_t i, std::int64_t j,
                 arithmetic::ExactProductSum& sum) {
  double a_buffer[Factor::kAlong];
  double b_buffer[Factor::kAlong];
  for (std::int64_t k = 0; k < product.k; k += Factor::kAlong) {
    const std::int64_t count = std::min(Factor::kAlong, product.k - k);
    const double* a = product.a.along(i, k, count, a_buffer);
    const double* b = product.b.along(j, k, count, b_buffer);
    for (std::int64_t place = 0; place < count && !sum.is_decided(); ++place) {
      sum.add_wide_product(a[place], b[place]);
    }
  }
}

void multiply_on_host(const MatrixProduct& product, const ProductSink& sink, int threads) {
  const int way = product_settings.way;
  ModularOptions options;
  options.is_wanted =
      way == KORVEX_HOST_PRODUCTS_BY_RESIDUES || way == KORVEX_HOST_PRODUCTS_BY_DOUBLES;
  if (way == KORVEX_HOST_PRODUCTS_BY_DOUBLES) {
    options.engine = EngineChoice::kDoubles;
  }
  options.is_checked = product_settings.is_checked;
  options.threads = threads;
  if (way == KORVEX_HOST_PRODUCTS_BY_SLICES ||
      !multiply_by_residues(product, sink, options).is_done) {
    multiply_by_slices(product, sink, threads);
  }
}

void multiply_by_slices(const MatrixProduct& product, const ProductSink& sink, int threads) {
  if (product.m <= 0 || product.n <= 0) {
    return;
  }
  const MatrixOnHost matrix(product, sink);
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
  const std::int64_t m = arguments.integer(5);
  const std::int64_t n = arguments.integer(6);
  const std::int64_t k = arguments.integer(7);
  const FactorInMemory a(arguments.array(0), k, 1);
  const FactorInMemory b(arguments.array(1), 1, n);
  const LimbArrays limbs({arguments.array(2), arguments.array(3), arguments.array(4)}, n);
  multiply_on_host({a, b, m, n, k}, limbs, arguments.threads());
}

}  // namespace korvex::host
