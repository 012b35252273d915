// SPDX-License-Identifier: Apache-2.0
// tqx_fft, tqx_ifft, tqx_rfft and tqx_irfft: the radix-2 transform where it applies, else torch's.
//
// The radix-2 route needs a power-of-two length and dim given as -1 itself. The forward and the
// inverse transform differ: only the forward one widens, pads, truncates and makes a
// real input complex.
#include "korvex/functions/spectral/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

Object length_along(const Object& x, const Object& dim) { return x.get("shape"_name).at(dim); }

// ((size & (size - 1)) == 0) and (size > 0)
bool is_power_of_two(const Object& size) {
  const Object below = subtract(size, kOne);
  return equal(bit_and(size, below), kZero) && greater(size, kZero);
}

bool takes_butterfly(const Object& size, const Object& dim) {
  const bool is_pow2 = is_power_of_two(size);
  return is_pow2 && equal(dim, kMinusOne);
}

// torch.cat([first(), second()], dim=dim), with torch.cat looked up before its arguments
template <typename Second>
Object concatenated(const Object& first, const Second& second, const Object& dim) {
  const Object cat = torch_member("cat"_name);
  const Object parts = list(first, second());
  return cat.call_with(kKeywords<"dim">, parts, dim);
}

Object padded(const Object& x, const Object& n, const Object& dim) {
  const Object pad_shape = checked(PySequence_List(x.get("shape"_name)));
  set_item(pad_shape, dim, subtract(n, length_along(x, dim)));
  return concatenated(
      x,
      [&] {
        const Object zeros = torch_member("zeros"_name);
        const Object dtype = x.get("dtype"_name);
        const Object device = x.get("device"_name);
        return zeros.call_with(kKeywords<"dtype", "device">, pad_shape, dtype, device);
      },
      dim);
}

Object with_length(const Object& x, const Object& n, const Object& dim) {
  if (greater(n, length_along(x, dim))) {
    return padded(x, n, dim);
  }
  return x.method("narrow"_name, dim, kZero, n);
}

Object as_complex(const Object& x) {
  if (truth(x.method("is_complex"_name))) {
    return x;
  }
  const Object complex = torch_member("complex"_name);
  const Object imaginary = torch_member("zeros_like"_name).call(x);
  return complex.call(x, imaginary);
}

Object run_butterfly(const Object& butterfly, const Object& x, bool inverse) {
  return butterfly.call_with(kKeywords<"inverse">, x, boolean(inverse));
}

// torch.fft.name(x, n=n, dim=dim)
Object library_transform(Handle name, const Object& x, const Object& n, const Object& dim) {
  const Object transform = torch_member("fft"_name).get(name);
  return transform.call_with(kKeywords<"n", "dim">, x, n, dim);
}

// The cast drops the imaginary part of a complex input.
Object tqx_fft(const Arguments& arguments) {
  const Object& n = arguments[1];
  const Object& dim = arguments[2];
  require_cuda(arguments[0]);
  Object x = arguments[0].method("double"_name);
  if (!is_none(n)) {
    x = with_length(x, n, dim);
  }
  const Object size = length_along(x, dim);
  if (takes_butterfly(size, dim)) {
    x = as_complex(x);
    return run_butterfly(global("_tqx_fft_butterfly"_name), x, false);
  }
  return library_transform("fft"_name, x, n, dim);
}

// On the radix-2 route n is ignored altogether.
Object tqx_ifft(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& dim = arguments[2];
  require_cuda(x);
  const Object size = length_along(x, dim);
  if (takes_butterfly(size, dim)) {
    return run_butterfly(global("_tqx_fft_butterfly"_name), x, true);
  }
  return library_transform("ifft"_name, x, arguments[1], dim);
}

// The cut is always made on the last axis, whatever dim says.
Object tqx_rfft(const Arguments& arguments) {
  require_cuda(arguments[0]);
  const Object transform = global("tqx_fft"_name);
  const Object full_fft =
      transform.call_with(kKeywords<"n", "dim">, arguments[0], arguments[1], arguments[2]);
  const Object bins = full_fft.get("shape"_name).at(kMinusOne);
  const Object stop = add(floor_divide(bins, integer(2)), kOne);
  const Object range = checked(PySlice_New(nullptr, stop, nullptr));
  return full_fft.at(tuple(Py_Ellipsis, range));
}

// The bins between the first and the last, conjugated and reversed: the slice is on the last axis,
// the flip on dim.
Object negative_frequencies(const Object& x, const Object& dim) {
  const Object flip = torch_member("flip"_name);
  const Object inner = checked(PySlice_New(kOne, kMinusOne, nullptr));
  const Object bins = x.at(tuple(Py_Ellipsis, inner)).method("conj"_name);
  return flip.call_with(kKeywords<"dims">, bins, list(dim));
}

Object tqx_irfft(const Arguments& arguments) {
  const Object& x = arguments[0];
  const Object& dim = arguments[2];
  require_cuda(x);
  Object n = arguments[1];
  if (is_none(n)) {
    n = multiply(integer(2), subtract(length_along(x, dim), kOne));
  }
  const Object neg_freq = negative_frequencies(x, dim);
  const Object full_spectrum = concatenated(x, [&] { return neg_freq; }, dim);
  const Object transform = global("tqx_ifft"_name);
  return transform.call_with(kKeywords<"n", "dim">, full_spectrum, n, dim).get("real"_name);
}

constexpr Parameter kN{"n", Kind::kOptionalInt, "Optional[int]", Default::none()};
constexpr Parameter kDim{"dim", Kind::kInt, "int", Default::integer(-1)};

constexpr Signature kRows[] = {
    {"tqx_fft",
     {kX, kN, kDim},
     kTensor,
     "TRUE TQX 1D FFT using compensated Cooley-Tukey butterfly.\n"
     "Falls back to FP64 FFT for non-power-of-2 sizes.",
     tqx_fft},
    {"tqx_ifft",
     {kX, kN, kDim},
     kTensor,
     "TRUE TQX Inverse FFT using compensated butterfly.",
     tqx_ifft},
    {"tqx_rfft", {kX, kN, kDim}, kTensor, "TRUE TQX Real FFT.", tqx_rfft},
    {"tqx_irfft", {kX, kN, kDim}, kTensor, "TRUE TQX Inverse Real FFT.", tqx_irfft},
};

}  // namespace

void define_transforms() { define_functions(kRows); }

}  // namespace korvex
