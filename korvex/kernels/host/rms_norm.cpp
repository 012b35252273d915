// SPDX-License-Identifier: Apache-2.0
// Shell of the normalisation by the root of the mean square for the host.
//
// The root of n / T, T = sum(x^2) + n eps, is known as two doubles and a bound: from quick squares
// where these are good enough, else from the exact sum. Several elements at a time are multiplied
// by it; those whose rounding that does not decide are taken by the exact root, which is made when
// it is first asked for.
#include "korvex/arithmetic/elementary/rms_norm.h"

#include <cstdint>
#include <mutex>

#include "korvex/arithmetic/exact/dot.h"
#include "korvex/kernels/host/elements.h"
#include "korvex/kernels/host/lanes.h"
#include "korvex/kernels/host/quick_squares.h"
#include "korvex/kernels/host/shells.h"
#include "korvex/kernels/host/threads.h"

namespace korvex::host {
namespace {

using arithmetic::ExactProductSum;
using arithmetic::HostLanes;
using arithmetic::InverseRoot;
using arithmetic::ValueAndError;

InverseRoot exact_root(const double* x, std::int64_t n, double eps, int threads) {
  ExactProductSum sum;
  for_each_range<ExactProductSum>(
      n, threads,
      [x](std::int64_t begin, std::int64_t end, ExactProductSum& part) {
        arithmetic::add_products<HostLanes>(x + begin, x + begin, end - begin, part);
      },
      [&sum](const ExactProductSum& part) { sum.add(part); });
  arithmetic::ProductAccumulator squares;
  squares.clear();
  sum.add_to(squares);
  const bool any_special = !sum.is_sum_of_finite();
  return arithmetic::inverse_root(squares, any_special && sum.is_decided(), any_special, n, eps);
}

// The root as high + low, off by less than error of itself.
struct QuickRoot {
  double high;
  double low;
  double error;
};

// One element in 2^22 is not decided by a root with this error, or one that is less good.
constexpr double kMostError = 0x1p-76;
constexpr double kLeastError = 0x1p-98;  // of the steps here, with room
constexpr double kLeastEps = 0x1p-600;
constexpr double kMostEps = 0x1p+900;

// From the root r of n / T, rounded three times, a step of Newton's iteration: r + r (n - r^2 T) /
// (2 n). What it leaves is below the square of the correction, 2^-102, and the steps of the residue
// round by 2^-53 of it, below 2^-50 n.
bool quick_root(const QuickSquares& squares, std::int64_t n, double eps, QuickRoot& root) {
  using namespace arithmetic;
  ValueAndError sum;
  double slack;
  if (!squares.result(sum, slack) || !(eps == 0 || (eps >= kLeastEps && eps <= kMostEps))) {
    return false;
  }
  const auto count = static_cast<double>(n);                     // exact
  const auto added = two_product(count, eps);                    // exact
  const auto upper = two_sum(sum.value, added.value);            // exact
  const double low_t = upper.error + (sum.error + added.error);  // rounded twice
  const auto t = fast_two_sum(upper.value, low_t);               // exact
  const double r = sqrt_rn(count / t.value);                     // rounded three times
  const auto square = two_product(r, r);                         // exact
  const auto product = two_product(square.value, t.value);       // exact
  const double left = sub_rn(count, product.value);              // exact
  const double cross = add_rn(mul_rn(square.value, t.error), mul_rn(square.error, t.value));
  const double residue = sub_rn(sub_rn(left, product.error), cross);
  root = {r, mul_rn(r, residue / (2 * count)), slack / t.value + kLeastError};
  return root.error <= kMostError;
}

// The same from an exact root, of which high + low are the first 106 bits; false where the root is
// a special one, or its power of two no double far inside of the range.
bool quick_root(const InverseRoot& exact, QuickRoot& root) {
  constexpr int kMostExponent = 900;
  if (exact.special != 1 || exact.exponent > kMostExponent || exact.exponent < -kMostExponent) {
    return false;
  }
  const double unit = arithmetic::power_of_two(exact.exponent);
  root = {exact.high * unit, exact.low * unit, kLeastError};  // exact
  return true;
}

// The exact root, made by the first thread that asks, where it is not known before.
class RootOnDemand {
 public:
  RootOnDemand(const double* x, std::int64_t n, double eps) : x_(x), n_(n), eps_(eps) {}

  const InverseRoot& get(int threads = 1) const {
    std::call_once(once_, [&] { root_ = exact_root(x_, n_, eps_, threads); });
    return root_;
  }

 private:
  const double* x_;
  std::int64_t n_;
  double eps_;
  mutable std::once_flag once_;
  mutable InverseRoot root_{};
};

// Decided are results that are normal and far from overflow, and those of an element that is zero:
// they are the element.
template <class Lanes>
KORVEX_INLINE auto quick_normalised(typename Lanes::Value x, const QuickRoot& root) {
  using namespace arithmetic;
  using Value = typename Lanes::Value;
  const Value product = mul_rn(x, Value(root.high));                // rounded
  const Value error = product_error(x, Value(root.high), product);  // exact where usual
  const Value low = add_rn(mul_rn(x, Value(root.low)), error);      // rounded twice
  const Value size = absolute(product);
  const auto result = rounding_test(product, low, mul_rn(size, Value(root.error)));
  const auto is_usual = both(size > Value(0x1p-900), size < Value(0x1p+1000));
  const auto is_zero = absolute(x) <= Value(0.0);
  const Value decided = selected(result.is_decided, Value(1.0), Value(0.0));
  const Value usual = selected(is_usual, decided, Value(0.0));
  return RoundedOf<Value>{selected(is_zero, x, result.value),
                          selected(is_zero, Value(1.0), usual) > Value(0.0)};
}

__attribute__((noinline)) void finish_undecided(const double* x, double* out, int count,
                                                const RootOnDemand& root) {
  for (int i = 0; i < count; ++i) {
    out[i] = arithmetic::normalised(x[i], root.get());
  }
}

void normalise(const double* x, double* out, std::int64_t n, const QuickRoot& quick,
               const RootOnDemand& exact) {
  std::int64_t i = 0;
  for (; i + HostLanes::kCount <= n; i += HostLanes::kCount) {
    const auto argument = HostLanes::load(x + i);
    const auto tried = quick_normalised<HostLanes>(argument, quick);
    if (arithmetic::all(tried.is_decided)) [[likely]] {
      HostLanes::store(out + i, tried.value);
    } else {
      double elements[HostLanes::kCount];
      HostLanes::store(elements, argument);
      finish_undecided(elements, out + i, HostLanes::kCount, exact);
    }
  }
  for (; i < n; ++i) {
    const double element = x[i];
    const auto tried = quick_normalised<arithmetic::ScalarLanes>(element, quick);
    if (tried.is_decided) {
      out[i] = tried.value;
    } else {
      finish_undecided(&element, out + i, 1, exact);
    }
  }
}

void normalise_by_exact(const double* x, double* out, std::int64_t n, int threads,
                        const InverseRoot& root) {
  for_each_element(x, out, n, threads,
                   [&root](double value) { return arithmetic::normalised(value, root); });
}

}  // namespace

// Arguments: x, out, n, eps. Results may take the place of the elements; then the exact root comes
// before all of them.
void run_rms_norm(const Arguments& arguments) {
  const double* x = arguments.array(0);
  double* out = arguments.array(1);
  const std::int64_t n = arguments.integer(2);
  const double eps = arguments.number(3);
  if (n <= 0) {
    return;
  }
  QuickSquares squares;
  for_each_range<QuickSquares>(
      n, arguments.threads(),
      [x](std::int64_t begin, std::int64_t end, QuickSquares& part) {
        part.add(x + begin, end - begin);
      },
      [&squares](const QuickSquares& part) { squares.add(part); });
  const RootOnDemand exact(x, n, eps);
  QuickRoot quick;
  if (x == out || !quick_root(squares, n, eps, quick)) {
    const InverseRoot& root = exact.get(arguments.threads());
    if (!quick_root(root, quick)) {
      normalise_by_exact(x, out, n, arguments.threads(), root);
      return;
    }
  }
  for_each_range(n, arguments.threads(), [&](std::int64_t begin, std::int64_t end) {
    normalise(x + begin, out + begin, end - begin, quick, exact);
  });
}

}  // namespace korvex::host
