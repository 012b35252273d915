// SPDX-License-Identifier: Apache-2.0
// tqx_fft, tqx_ifft, tqx_rfft and tqx_irfft: the radix-2 transform where it serves, else torch's.
//
// The radix-2 route needs a power-of-two length and dim given as -1 itself. The forward and the
// inverse transform are no mirror images: only the forward one widens, pads, truncates and makes a
// real input complex.
#include "korvex/functions/spectral/rows.h"
#include "korvex/runtime/definitions.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object length_along(const Object& x, const Object& dim) { return x.get(names().shape).at(dim); }

// ((size & (size - 1)) == 0) and (size > 0)
bool is_power_of_two(const Object& size) {
  const Object below = subtract(size, names().one);
  return equal(bit_and(size, below), names().zero) && greater(size, names().zero);
}

bool takes_butterfly(const Object& size, const Object& dim) {
  const bool is_pow2 = is_power_of_two(size);
  return is_pow2 && equal(dim, names().minus_one);
}

// torch.cat([first(), second()], dim=dim), with torch.cat looked up before its arguments
template <typename Second>
Object concatenated(const Object& first, const Second& second, const Object& dim) {
  const Object cat = global(names().torch).get(names().cat);
  const Object parts = list(first, second());
  return cat.call_with(names().dim_keyword, parts, dim);
}

Object padded(const Object& x, const Object& n, const Object& dim) {
  const Object pad_shape = checked(PySequence_List(x.get(names().shape)));
  set_item(pad_shape, dim, subtract(n, length_along(x, dim)));
  return concatenated(
      x,
      [&] {
        const Object zeros = global(names().torch).get(names().zeros);
        const Object dtype = x.get(names().dtype);
        const Object device = x.get(names().device);
        return zeros.call_with(names().dtype_device_keywords, pad_shape, dtype, device);
      },
      dim);
}

Object with_length(const Object& x, const Object& n, const Object& dim) {
  if (greater(n, length_along(x, dim))) return padded(x, n, dim);
  return x.method(names().narrow, dim, names().zero, n);
}

Object as_complex(const Object& x) {
  if (truth(x.method(names().is_complex))) return x;
  const Object complex = global(names().torch).get(names().complex);
  const Object imaginary = global(names().torch).get(names().zeros_like).call(x);
  return complex.call(x, imaginary);
}

Object run_butterfly(const Object& butterfly, const Object& x, bool inverse) {
  return butterfly.call_with(names().inverse_keyword, x, boolean(inverse));
}

// torch.fft.name(x, n=n, dim=dim)
Object library_transform(Handle name, const Object& x, const Object& n, const Object& dim) {
  const Object transform = global(names().torch).get(names().fft).get(name);
  return transform.call_with(names().n_dim_keywords, x, n, dim);
}

// The cast drops the imaginary part of a complex input.
Object tqx_fft(const Arguments& arguments) {
  const Object& n = arguments[1];
  const Object& dim = arguments[2];
  require_cuda(arguments[0]);
  Object x = arguments[0].method(names().double_);
  if (!is_none(n)) x = with_length(x, n, dim);
  const Object size = length_along(x, dim);
  if (takes_butterfly(size, dim)) {
    x = as_complex(x);
    return run_butterfly(global(names().tqx_fft_butterfly), x, false);
  }
  return library_transform(names().fft, x, n, dim);
}

// On the radix-2 route n is ignored altogether.
Object tqx_ifft(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& dim = arguments[2];
  require_cuda(x);
  const Object size = length_along(x, dim);
  if (takes_butterfly(size, dim)) {
    return run_butterfly(global(names().tqx_fft_butterfly), x, true);
  }
  return library_transform(names().ifft, x, arguments[1], dim);
}

// The cut is always made on the last axis, whatever dim says.
Object tqx_rfft(const Arguments& arguments) {
  require_cuda(arguments[0]);
  const Object transform = global(names().tqx_fft);
  const Object full_fft =
      transform.call_with(names().n_dim_keywords, arguments[0], arguments[1], arguments[2]);
  const Object bins = full_fft.get(names().shape).at(names().minus_one);
  const Object stop = add(floor_divide(bins, integer(2)), names().one);
  const Object range = checked(PySlice_New(nullptr, stop, nullptr));
  return full_fft.at(tuple(Py_Ellipsis, range));
}

// The bins between the first and the last, conjugated and reversed: the slice is on the last axis,
// the flip on dim.
Object negative_frequencies(const Object& x, const Object& dim) {
  const Object flip = global(names().torch).get(names().flip);
  const Object inner = checked(PySlice_New(names().one, names().minus_one, nullptr));
  const Object bins = x.at(tuple(Py_Ellipsis, inner)).method(names().conj);
  return flip.call_with(names().dims_keyword, bins, list(dim));
}

Object tqx_irfft(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& dim = arguments[2];
  require_cuda(x);
  Object n = arguments[1];
  if (is_none(n)) n = multiply(integer(2), subtract(length_along(x, dim), names().one));
  const Object neg_freq = negative_frequencies(x, dim);
  const Object full_spectrum = concatenated(x, [&] { return neg_freq; }, dim);
  const Object transform = global(names().tqx_ifft);
  return transform.call_with(names().n_dim_keywords, full_spectrum, n, dim).get(names().real);
}

constexpr Parameter kX{"x", Kind::kAny, "torch.Tensor"};
constexpr Parameter kN{"n", Kind::kOptionalInt, "Optional[int]", Default::none()};
constexpr Parameter kDim{"dim", Kind::kInt, "int", Default::integer(-1)};

constexpr Signature kFft{"tqx_fft",
                         {kX, kN, kDim},
                         "torch.Tensor",
                         "TRUE TQX 1D FFT using compensated Cooley-Tukey butterfly.\n"
                         "Falls back to FP64 FFT for non-power-of-2 sizes.",
                         tqx_fft};

constexpr Signature kIfft{"tqx_ifft",
                          {kX, kN, kDim},
                          "torch.Tensor",
                          "TRUE TQX Inverse FFT using compensated butterfly.",
                          tqx_ifft};

constexpr Signature kRfft{
    "tqx_rfft", {kX, kN, kDim}, "torch.Tensor", "TRUE TQX Real FFT.", tqx_rfft};

constexpr Signature kIrfft{
    "tqx_irfft", {kX, kN, kDim}, "torch.Tensor", "TRUE TQX Inverse Real FFT.", tqx_irfft};

}  // namespace

void define_transforms() {
  define_function(kFft);
  define_function(kIfft);
  define_function(kRfft);
  define_function(kIrfft);
}

}  // namespace korvex
