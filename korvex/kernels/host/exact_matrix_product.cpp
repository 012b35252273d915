// SPDX-License-Identifier: Apache-2.0
// The product of two matrices of any number formats and layouts, each element rounded once.
//
// Operands that are not aligned doubles are converted piece by piece as the kernel reads them. A
// matrix of 64-bit integers is two, of the upper and of the lower halves, one after the other along
// the dimension that is summed over; the other operand is repeated to meet both.
#include <algorithm>
#include <cstdint>
#include <optional>

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

// How many doubles an element of each operand is: 1 or 2. Each of one meets each of the other.
struct Halves {
  int of_a;
  int of_b;
  int products() const { return of_a * of_b; }
};

// An operand that is converted as it is read.
class ConvertedFactor final : public Factor {
 public:
  // half_of: for each of the products along k, which half of an element meets the other operand.
  ConvertedFactor(const korvex_exact_array& operand, int k_dimension, Content content,
                  const int* half_of)
      : operand_(operand),
        k_(operand.extents[k_dimension]),
        k_stride_(operand.byte_strides[k_dimension]),
        line_stride_(operand.byte_strides[1 - k_dimension]),
        content_(content),
        half_of_(half_of) {}

  const double* along(std::int64_t line, std::int64_t k, std::int64_t count,
                      double* buffer) const override {
    for (std::int64_t done = 0; done < count;) {
      const std::int64_t product = (k + done) / k_;
      const std::int64_t begin = (k + done) % k_;
      const std::int64_t piece = std::min(count - done, k_ - begin);
      read(line, begin, product, k_stride_, piece, buffer + done);
      done += piece;
    }
    return buffer;
  }
  const double* across(std::int64_t line, std::int64_t k, std::int64_t count,
                       double* buffer) const override {
    read(line, k % k_, k / k_, line_stride_, count, buffer);
    return buffer;
  }
  bool is_along_lines() const override { return std::abs(k_stride_) <= std::abs(line_stride_); }

 private:
  void read(std::int64_t line, std::int64_t k, std::int64_t product, std::int64_t stride,
            std::int64_t count, double* buffer) const {
    const char* from =
        static_cast<const char*>(operand_.data) + line * line_stride_ + k * k_stride_;
    ConvertedBlock block;
    block.gather(operand_.format, from, stride, count);
    if (content_ != Content::kHalves) {
      select(block, count);
    }
    const double* half = half_of_[product] == 0 ? block.high : block.low;
    std::copy(half, half + count, buffer);
  }

  void select(ConvertedBlock& block, std::int64_t count) const {
    for (std::int64_t i = 0; i < count; ++i) {
      const bool is_dropped =
          arithmetic::is_finite(block.high[i]) == (content_ == Content::kSpecials);
      block.high[i] = content_ == Content::kRounded ? block.rounded(i)
                      : is_dropped                  ? 0.0
                                                    : block.high[i];
    }
  }

  const korvex_exact_array& operand_;
  std::int64_t k_;
  std::int64_t k_stride_;  // in bytes, as the other one
  std::int64_t line_stride_;
  Content content_;
  const int* half_of_;
};

// One of the two, as an operand needs it.
class AnyFactor {
 public:
  AnyFactor(const korvex_exact_array& operand, int k_dimension, Content content, const int* half_of,
            int products) {
    if (content == Content::kHalves && products == 1 && is_in_memory(operand)) {
      memory_.emplace(static_cast<const double*>(operand.data),
                      operand.byte_strides[1 - k_dimension] / kBytes,
                      operand.byte_strides[k_dimension] / kBytes);
    } else {
      converted_.emplace(operand, k_dimension, content, half_of);
    }
  }

  const Factor& operator*() const {
    return memory_ ? static_cast<const Factor&>(*memory_) : *converted_;
  }

 private:
  static constexpr std::int64_t kBytes = sizeof(double);

  static bool is_in_memory(const korvex_exact_array& operand) {
    return operand.format == KORVEX_FORMAT_FLOAT64 &&
           reinterpret_cast<std::uintptr_t>(operand.data) % kBytes == 0 &&
           operand.byte_strides[0] % kBytes == 0 && operand.byte_strides[1] % kBytes == 0;
  }

  std::optional<FactorInMemory> memory_;
  std::optional<ConvertedFactor> converted_;
};

// Both operands, and how their halves meet.
class Product {
 public:
  Product(const korvex_exact_array& a, Content content_of_a, const korvex_exact_array& b,
          Content content_of_b, const Halves& halves)
      : a_(a, 1, content_of_a, kHalfOfA[halves.of_a - 1], halves.products()),
        b_(b, 0, content_of_b, kHalfOfB[halves.of_a - 1], halves.products()),
        product_{*a_, *b_, a.extents[0], b.extents[1], a.extents[1] * halves.products()} {}
  Product(const Product&) = delete;
  Product& operator=(const Product&) = delete;

  const MatrixProduct& operator*() const { return product_; }

 private:
  // By the number of products: where an element of a is two doubles, these come in turn, and each
  // half of b meets both.
  static constexpr int kHalfOfA[2][4] = {{0, 0, 0, 0}, {0, 1, 0, 1}};
  static constexpr int kHalfOfB[2][4] = {{0, 1, 0, 0}, {0, 0, 1, 1}};

  AnyFactor a_;
  AnyFactor b_;
  MatrixProduct product_;
};

// Rounds each element once, to the format of the result.
class RoundedElements final : public ProductSink {
 public:
  RoundedElements(const MatrixProduct& product, const ResultArray& result,
                  const arithmetic::NarrowFormat* narrow)
      : product_(product), result_(result), narrow_(narrow) {}

  void place(ProductTile&) const override {}
  void take(const ProductTile& tile) const override {
    for (std::int64_t row = 0; row < tile.rows; ++row) {
      for (std::int64_t column = 0; column < tile.columns; ++column) {
        const std::int64_t place = row * tile.row_stride + column;
        const std::int64_t i = tile.first_row + row;
        const std::int64_t j = tile.first_column + column;
        const double first = tile.limbs[0][place];
        const double second = tile.limbs[1][place];
        result_.write(i * product_.n + j, is_in_doubt(first, second)
                                              ? summed_anew(i, j)
                                              : rounded_once(first, sign_of(second), narrow_));
      }
    }
  }

 private:
  // The largest double may stand for an element that rounds to an infinity; and a second limb of 0
  // may hide something below 2^-1074, which counts where the first limb is a midpoint.
  bool is_in_doubt(double first, double second) const {
    if (arithmetic::absolute(first) == arithmetic::kLargest) {
      return true;
    }
    return narrow_ != nullptr && second == 0 && arithmetic::is_finite(first) &&
           rounded_once(first, 1, narrow_) != rounded_once(first, -1, narrow_);
  }

  double summed_anew(std::int64_t i, std::int64_t j) const {
    arithmetic::ExactProductSum sum;
    add_element(product_, i, j, sum);
    arithmetic::ProductAccumulator value;
    value.clear();
    sum.add_to(value);
    double nearest;
    value.round(&nearest, 1);
    const int sign_of_rest = arithmetic::is_finite(nearest) ? value.sign() : 0;
    return rounded_once(nearest, sign_of_rest, narrow_);
  }

  const MatrixProduct& product_;
  const ResultArray& result_;
  const arithmetic::NarrowFormat* narrow_;
};

// Writes the elements that are infinities or NaN, and leaves the others.
class SpecialElements final : public ProductSink {
 public:
  SpecialElements(const ResultArray& result, std::int64_t columns)
      : result_(result), columns_(columns) {}

  void place(ProductTile&) const override {}
  void take(const ProductTile& tile) const override {
    for (std::int64_t row = 0; row < tile.rows; ++row) {
      for (std::int64_t column = 0; column < tile.columns; ++column) {
        const double first = tile.limbs[0][row * tile.row_stride + column];
        if (!arithmetic::is_finite(first)) {
          result_.write((tile.first_row + row) * columns_ + tile.first_column + column, first);
        }
      }
    }
  }

 private:
  const ResultArray& result_;
  std::int64_t columns_;
};

bool is_all_zero(const Factor& factor, std::int64_t lines, std::int64_t k) {
  double buffer[Factor::kAlong];
  for (std::int64_t line = 0; line < lines; ++line) {
    for (std::int64_t first = 0; first < k; first += Factor::kAlong) {
      const std::int64_t count = std::min(Factor::kAlong, k - first);
      const double* x = factor.along(line, first, count, buffer);
      if (!std::all_of(x, x + count, [](double each) { return each == 0; })) {
        return false;
      }
    }
  }
  return true;
}

// The product of integers and other numbers, where an infinity or a NaN among these decides an
// element: it must meet a whole integer, not its halves, which may be 0 or of the other sign.
void write_specials(const korvex_exact_array& a, const korvex_exact_array& b, int threads,
                    const ResultArray& result) {
  const Product product(a, is_wide(a.format) ? Content::kRounded : Content::kSpecials, b,
                        is_wide(b.format) ? Content::kRounded : Content::kSpecials, {1, 1});
  const MatrixProduct& p = *product;
  if (is_wide(a.format) ? is_all_zero(p.b, p.n, p.k) : is_all_zero(p.a, p.m, p.k)) {
    return;
  }
  multiply_on_host(p, SpecialElements(result, p.n), threads);
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
    const Product product(*a, content(a), *b, content(b), halves);
    const ResultArray result(out, format);
    multiply_on_host(*product, RoundedElements(*product, result, narrow_format(format)),
                     usable_threads(threads));
    if (is_mixed) {
      write_specials(*a, *b, usable_threads(threads), result);
    }
    return KORVEX_EXACT_DONE;
  });
}

}  // namespace korvex::host
