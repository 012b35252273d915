// SPDX-License-Identifier: Apache-2.0
// The product of two matrices of any number formats and layouts, each element rounded once.
//
// Operands that are not float64 side by side are converted to such matrices for the kernel. A
// matrix of 64-bit integers becomes two, of the upper and of the lower halves, side by side along
// the dimension that is summed over; the other operand is repeated to meet both.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "korvex/arithmetic/exact/exact_product_sum.h"
#include "korvex/kernels/host/converted_block.h"
#include "korvex/kernels/host/exact_calls.h"
#include "korvex/kernels/host/matrix_product.h"
#include "korvex/kernels/host/result_format.h"

namespace korvex::host {
namespace {

bool is_wide(int format) { return format == KORVEX_FORMAT_INT64 || format == KORVEX_FORMAT_UINT64; }

// What of an operand a matrix holds.
enum class Content {
  kHalves,    // every element; where it is two doubles, both in turn
  kFinite,    // the same, with zeros for infinities and NaN
  kSpecials,  // infinities and NaN, with zeros for all else
  kRounded,   // every element as one double, rounded
};

// How many doubles an element of each operand is, and which of them meet in which of the products
// that lie after each other along the dimension that is summed over.
struct Halves {
  int of_a;  // 1 or 2
  int of_b;
  int products() const { return of_a * of_b; }
  int half_of_a(int product) const { return product % of_a; }
  int half_of_b(int product) const { return product / of_a; }
};

// An operand as doubles, row by row. Either its own memory or a copy.
class Matrix {
 public:
  // halves(i) says which half of the operand the i-th of `repeats` copies of it holds; the copies
  // lie side by side in each row, or below each other.
  template <class HalfOf>
  Matrix(const korvex_exact_array& operand, Content content, int repeats, bool below,
         const HalfOf& half_of)
      : rows_(operand.extents[0]), columns_(operand.extents[1]) {
    if (content == Content::kHalves && repeats == 1 && is_in_place(operand)) {
      data_ = static_cast<const double*>(operand.data);
      return;
    }
    copy_.resize(static_cast<std::size_t>(rows_ * columns_ * repeats));
    data_ = copy_.data();
    const std::int64_t row_length = below ? columns_ : columns_ * repeats;
    for (std::int64_t row = 0; row < rows_; ++row) {
      for_blocks(operand, row, [&](ConvertedBlock& block, std::int64_t first, std::int64_t count) {
        select(block, content, count);
        for (int copy = 0; copy < repeats; ++copy) {
          const std::int64_t to_row = below ? row + copy * rows_ : row;
          const std::int64_t to_column = (below ? 0 : copy * columns_) + first;
          const double* from = half_of(copy) == 0 ? block.high : block.low;
          std::copy(from, from + count, copy_.data() + to_row * row_length + to_column);
        }
      });
    }
  }

  const double* data() const { return data_; }
  std::int64_t size() const { return rows_ * columns_; }  // of one copy

 private:
  static bool is_in_place(const korvex_exact_array& operand) {
    constexpr std::int64_t kBytes = sizeof(double);
    return operand.format == KORVEX_FORMAT_FLOAT64 &&
           reinterpret_cast<std::uintptr_t>(operand.data) % kBytes == 0 &&
           (operand.extents[1] <= 1 || operand.byte_strides[1] == kBytes) &&
           (operand.extents[0] <= 1 || operand.byte_strides[0] == kBytes * operand.extents[1]);
  }

  template <class Visit>
  static void for_blocks(const korvex_exact_array& operand, std::int64_t row, const Visit& visit) {
    ConvertedBlock block;
    const std::int64_t stride = operand.byte_strides[1];
    const char* const begin =
        static_cast<const char*>(operand.data) + row * operand.byte_strides[0];
    for (std::int64_t first = 0; first < operand.extents[1]; first += kBlock) {
      const std::int64_t count = std::min(kBlock, operand.extents[1] - first);
      block.gather(operand.format, begin + first * stride, stride, count);
      visit(block, first, count);
    }
  }

  static void select(ConvertedBlock& block, Content content, std::int64_t count) {
    for (std::int64_t i = 0; i < count && content != Content::kHalves; ++i) {
      const bool is_dropped =
          arithmetic::is_finite(block.high[i]) == (content == Content::kSpecials);
      block.high[i] = content == Content::kRounded ? block.rounded(i)
                      : is_dropped                 ? 0.0
                                                   : block.high[i];
    }
  }

  std::int64_t rows_;
  std::int64_t columns_;
  std::vector<double> copy_;
  const double* data_;
};

// A product in progress: operands as doubles and three limbs of each element.
class Product {
 public:
  Product(const korvex_exact_array& a, Content content_of_a, const korvex_exact_array& b,
          Content content_of_b, const Halves& halves)
      : m_(a.extents[0]),
        n_(b.extents[1]),
        k_(a.extents[1] * halves.products()),
        a_(a, content_of_a, halves.products(), false,
           [&](int product) { return halves.half_of_a(product); }),
        b_(b, content_of_b, halves.products(), true,
           [&](int product) { return halves.half_of_b(product); }) {
    for (std::vector<double>& limbs : limbs_) {
      limbs.resize(static_cast<std::size_t>(m_ * n_));
    }
  }

  void multiply(int threads) {
    const MatrixProduct product = {
        a_.data(), b_.data(), {limbs_[0].data(), limbs_[1].data(), limbs_[2].data()}, m_, n_, k_};
    multiply_on_host(product, threads);
  }

  const Matrix& a() const { return a_; }
  const Matrix& b() const { return b_; }
  std::int64_t size() const { return m_ * n_; }
  double first_limb(std::int64_t i) const { return limbs_[0][static_cast<std::size_t>(i)]; }

  // Element i, rounded once.
  double rounded(std::int64_t i, const arithmetic::NarrowFormat* narrow) const {
    const double first = first_limb(i);
    const double second = limbs_[1][static_cast<std::size_t>(i)];
    if (is_in_doubt(first, second, narrow)) {
      return summed_anew(i, narrow);
    }
    return rounded_once(first, sign_of(second), narrow);
  }

 private:
  // The largest double may stand for an element that rounds to an infinity; and a second limb of 0
  // may hide something below 2^-1074, which counts where the first limb is a midpoint.
  static bool is_in_doubt(double first, double second, const arithmetic::NarrowFormat* narrow) {
    if (arithmetic::absolute(first) == arithmetic::kLargest) {
      return true;
    }
    return narrow != nullptr && second == 0 && arithmetic::is_finite(first) &&
           rounded_once(first, 1, narrow) != rounded_once(first, -1, narrow);
  }

  double summed_anew(std::int64_t i, const arithmetic::NarrowFormat* narrow) const {
    arithmetic::ExactProductSum sum;
    for (std::int64_t k = 0; k < k_; ++k) {
      sum.add_product(a_.data()[i / n_ * k_ + k], b_.data()[k * n_ + i % n_]);
    }
    arithmetic::ProductAccumulator value;
    value.clear();
    sum.add_to(value);
    double nearest;
    value.round(&nearest, 1);
    const int sign_of_rest = arithmetic::is_finite(nearest) ? value.sign() : 0;
    return rounded_once(nearest, sign_of_rest, narrow);
  }

  std::int64_t m_, n_, k_;
  Matrix a_;
  Matrix b_;
  std::vector<double> limbs_[3];
};

bool is_all_zero(const Matrix& matrix) {
  return std::all_of(matrix.data(), matrix.data() + matrix.size(), [](double x) { return x == 0; });
}

// The product of integers and other numbers, where an infinity or a NaN among these decides an
// element: it must meet a whole integer, not its halves, which may be 0 or of the other sign.
void write_specials(const korvex_exact_array& a, const korvex_exact_array& b, int threads,
                    const ResultArray& result) {
  Product product(a, is_wide(a.format) ? Content::kRounded : Content::kSpecials, b,
                  is_wide(b.format) ? Content::kRounded : Content::kSpecials, {1, 1});
  if (is_all_zero(is_wide(a.format) ? product.b() : product.a())) {
    return;
  }
  product.multiply(threads);
  for (std::int64_t i = 0; i < product.size(); ++i) {
    if (!arithmetic::is_finite(product.first_limb(i))) {
      result.write(i, product.first_limb(i));
    }
  }
}

}  // namespace

int matrix_product(const korvex_exact_array* a, const korvex_exact_array* b, int format,
                   int threads, void* out) {
  return run_guarded([&]() -> int {
    const Halves halves = {is_wide(a->format) ? 2 : 1, is_wide(b->format) ? 2 : 1};
    const bool is_mixed = halves.products() == 2;
    const auto content = [is_mixed](const korvex_exact_array* operand) {
      return is_mixed && !is_wide(operand->format) ? Content::kFinite : Content::kHalves;
    };
    Product product(*a, content(a), *b, content(b), halves);
    product.multiply(usable_threads(threads));
    const ResultArray result(out, format);
    const arithmetic::NarrowFormat* narrow = narrow_format(format);
    for (std::int64_t i = 0; i < product.size(); ++i) {
      result.write(i, product.rounded(i, narrow));
    }
    if (is_mixed) {
      write_specials(*a, *b, usable_threads(threads), result);
    }
    return KORVEX_EXACT_DONE;
  });
}

}  // namespace korvex::host
