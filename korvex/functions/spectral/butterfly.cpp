// SPDX-License-Identifier: Apache-2.0
// The radix-2 decimation-in-time transform along the last axis, for all leading axes at once.
//
// Host loops over small device operations: bit reversal, then one stage per power of two (Cooley
// and Tukey 1965). Every twiddle factor is computed afresh from its own angle by torch's cos and
// sin; nothing is cached, so nothing drifts. Sums are plain complex additions.
#include "korvex/functions/spectral/parts.h"
#include "korvex/runtime/runtime.h"

namespace korvex {
namespace {

// The index (..., position)
Object last_axis(long long position) { return tuple(Py_Ellipsis, integer(position)); }

// The binary digits of i, with leading zeros up to `bits`, read backwards.
long long reversed_digits(long long i, long long bits) {
  long long reversed = 0;
  for (long long digit = 0; digit < bits || (i >> digit) != 0; ++digit) {
    reversed = 2 * reversed + ((i >> digit) & 1);
  }
  return reversed;
}

// int(torch.log2(torch.tensor(n)).item()), on torch's default device
long long index_bits(const Object& n) {
  const Object log2 = torch_member("log2"_name);
  const Object scalar = torch_member("tensor"_name).call(n);
  const Object logarithm = log2.call(scalar).method("item"_name);
  return as_integer(checked(PyNumber_Long(logarithm)));
}

// x[..., i], x[..., j] = x[..., j].clone(), x[..., i].clone()
void swap(const Object& x, long long i, long long j) {
  const Object from_j = x.at(last_axis(j)).method("clone"_name);
  const Object from_i = x.at(last_axis(i)).method("clone"_name);
  set_item(x, last_axis(i), from_j);
  set_item(x, last_axis(j), from_i);
}

void permute(const Object& x, long long n, long long bits) {
  for (long long i = 0; i < n; ++i) {
    checked(PyErr_CheckSignals());
    const long long j = reversed_digits(i, bits);
    if (i < j) {
      swap(x, i, j);
    }
  }
}

// torch.function(torch.tensor(angle, dtype=torch.float64, device=x.device))
Object of_angle(Handle function_name, const Object& angle, const Object& x) {
  const Object function = torch_member(function_name);
  const Object tensor = torch_member("tensor"_name);
  return function.call(make_float64(tensor, x, angle));
}

Object twiddle(const Object& angle, const Object& x) {
  const Object w_real = of_angle("cos"_name, angle, x);
  const Object w_imag = of_angle("sin"_name, angle, x);
  return torch_member("complex"_name).call(w_real, w_imag);
}

void butterfly(const Object& x, const Object& w, long long idx1, long long idx2) {
  const Object t = multiply(x.at(last_axis(idx2)), w);
  const Object u = x.at(last_axis(idx1)).method("clone"_name);
  set_item(x, last_axis(idx1), add(u, t));
  set_item(x, last_axis(idx2), subtract(u, t));
}

// -2.0 * torch.pi / size, or with a positive sign for the inverse
Object angle_step(bool inverse, long long size) {
  const Object factor = floating(inverse ? 2.0 : -2.0);
  const Object turn = multiply(factor, torch_member("pi"_name));
  return divide(turn, integer(size));
}

void run_stage(const Object& x, long long n, long long size, bool inverse) {
  const long long half = size / 2;
  const Object angle_base = angle_step(inverse, size);
  for (long long start = 0; start < n; start += size) {
    for (long long k = 0; k < half; ++k) {
      checked(PyErr_CheckSignals());
      const Object angle = multiply(angle_base, integer(k));
      const Object w = twiddle(angle, x);
      butterfly(x, w, start + k, start + k + half);
    }
  }
}

Object tqx_fft_butterfly(const Arguments& arguments) {
  const bool inverse = arguments.flag(1);
  const Object n_object = arguments[0].get("shape"_name).at(kMinusOne);
  if (truth(compare(n_object, kOne, Py_LE))) {
    return arguments[0];
  }
  const Object x = arguments[0].method("clone"_name);
  const long long bits = index_bits(n_object);
  const long long n = as_integer(n_object);
  permute(x, n, bits);
  for (long long size = 2; size <= n; size *= 2) {
    run_stage(x, n, size, inverse);
  }
  return inverse ? divide(x, n_object) : x;
}

constexpr Signature kRows[] = {
    {"_tqx_fft_butterfly",
     {kX, {"inverse", Kind::kBool, "bool", Default::boolean(false)}},
     kTensor,
     "TRUE TQX FFT using Cooley-Tukey with compensated arithmetic.\n"
     "Each butterfly operation uses TwoSum for accumulation.",
     tqx_fft_butterfly},
};

}  // namespace

void define_butterfly() { define_functions(kRows); }

}  // namespace korvex
