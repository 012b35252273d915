# SPDX-License-Identifier: Apache-2.0
"""The module's functions once more, in plain Python, statement by statement.

Slow and plain on purpose: tests and fuzzers compare the built module with it. `torch`, `cp` and
`_NATIVE_LOADER` are globals here as they are there, so a spy can stand in for each of them;
`bind` takes them over from the built module.
"""

from __future__ import annotations

import hashlib
import struct
import sys
from decimal import Decimal
from typing import Any, List, Optional, Tuple, Union  # noqa: UP035

from calling_convention import korvex_function, type_name

torch: Any = None
cp: Any = None
_NATIVE_LOADER: Any = None

__version__ = "3.4.8"

_NOT_CUDA = "TQX requires CUDA tensor. Move tensor to GPU with .cuda()"


def bind(module):
    """Work with the tensors, arrays and kernels of the built module."""
    for name in ("torch", "cp", "_NATIVE_LOADER"):
        globals()[name] = getattr(module, name)


class TQXResult:
    @korvex_function
    def __init__(self, limbs: List[torch.Tensor], device: str = "cuda"):
        self.limbs = limbs
        self.device = device
        self.n_limbs = len(limbs)
        self.shape = limbs[0].shape if limbs else ()
        self.dtype = torch.float64

    @korvex_function
    def collapse(self):
        if self.n_limbs == 0:
            return torch.tensor(0.0, dtype=torch.float64)
        if self.n_limbs == 1:
            return self.limbs[0].double()
        result = self.limbs[0].double()
        carry = torch.zeros_like(result)
        for i in range(1, self.n_limbs):
            limb = self.limbs[i].double()
            s = result + limb
            v = s - result
            e = (result - (s - v)) + (limb - v)
            result = s
            carry = carry + e
        return result + carry

    @korvex_function
    def item(self):
        collapsed = self.collapse()
        if collapsed.numel() == 1:
            return collapsed.item()
        return collapsed.flatten()[0].item()

    @korvex_function
    def __float__(self):
        return self.item()

    @korvex_function
    def squeeze(self, dim: Optional[int] = None):
        if dim is None:
            new_limbs = [limb.squeeze() for limb in self.limbs]
        else:
            new_limbs = [limb.squeeze(dim) for limb in self.limbs]
        return TQXResult(new_limbs, self.device)

    @korvex_function
    def unsqueeze(self, dim: int):
        return TQXResult([limb.unsqueeze(dim) for limb in self.limbs], self.device)

    @korvex_function
    def view(self, *shape):
        return TQXResult([limb.view(*shape) for limb in self.limbs], self.device)

    @korvex_function
    def reshape(self, *shape):
        return TQXResult([limb.reshape(*shape) for limb in self.limbs], self.device)

    @korvex_function
    def __repr__(self):
        return f"TQXResult(n_limbs={self.n_limbs}, shape={self.shape})"

    @korvex_function
    def to_decimal(self, index: Optional[Tuple] = None):
        total = Decimal(0)
        for limb in self.limbs:
            if index is not None:
                val = limb[index].item()
            elif limb.numel() == 1:
                val = limb.item()
            else:
                val = limb.flatten()[0].item()
            total += self._fp64_to_decimal(val)
        return total

    @staticmethod
    @korvex_function
    def _fp64_to_decimal(f: float):
        if f == 0.0:
            return Decimal(0)
        bits = struct.unpack("Q", struct.pack("d", f))[0]
        sign = -1 if bits >> 63 else 1
        exp = ((bits >> 52) & 2047) - 1023 - 52
        mantissa = (bits & 4503599627370495) | 4503599627370496
        return Decimal(sign * mantissa) * (Decimal(2) ** exp)


@korvex_function
def tqx_sum(
    x: torch.Tensor,
    dim: Optional[int] = None,
    keepdim: bool = False,
    return_tqx: bool = False,
    exact: bool = True,
) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    if dim is not None:
        x_f64 = x.double()
        return x_f64.sum(dim=dim, keepdim=keepdim)
    x_flat = x.double().contiguous().view(-1)
    n = x_flat.numel()
    if exact:
        out = torch.zeros(4, dtype=torch.float64, device=x.device)
        kernel = _NATIVE_LOADER.get_kernel("tqx_sum_seq_kernel")
        kernel.function((1, 1, 1), (1, 1, 1), (cp.from_dlpack(x_flat), cp.from_dlpack(out), n))
        cp.cuda.Stream.null.synchronize()
        result = TQXResult([out[0], out[1], out[2], out[3]], str(x.device))
        if return_tqx:
            return result
        return result.collapse()
    out = torch.zeros(1, dtype=torch.float64, device=x.device)
    out_err = torch.zeros(1, dtype=torch.float64, device=x.device)
    BLOCK = 256
    num_blocks = (n + BLOCK - 1) // BLOCK
    kernel = _NATIVE_LOADER.get_kernel("tqx_sum_kernel")
    kernel.launch(
        cp.from_dlpack(x_flat),
        cp.from_dlpack(out),
        cp.from_dlpack(out_err),
        n,
        grid=(num_blocks, 1, 1),
    )
    cp.cuda.Stream.null.synchronize()
    if return_tqx:
        return TQXResult([out.squeeze(), out_err.squeeze()], str(x.device))
    return (out + out_err).squeeze()


@korvex_function
def tqx_mean(
    x: torch.Tensor,
    dim: Optional[int] = None,
    keepdim: bool = False,
    return_tqx: bool = False,
) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    if dim is None:
        n = x.numel()
        sum_result = tqx_sum(x, return_tqx=True)
        if return_tqx:
            return TQXResult([limb / n for limb in sum_result.limbs], str(x.device))
        return sum_result.collapse() / n
    n = x.shape[dim]
    return tqx_sum(x, dim=dim, keepdim=keepdim) / n


@korvex_function
def tqx_sum_exact(x: torch.Tensor) -> Decimal:
    result = tqx_sum(x, return_tqx=True)
    return result.to_decimal()


@korvex_function
def tqx_mean_exact(x: torch.Tensor) -> Decimal:
    sum_result = tqx_sum(x, return_tqx=True)
    n = Decimal(x.numel())
    return sum_result.to_decimal() / n


@korvex_function
def _two_sum(a: torch.Tensor, b: torch.Tensor) -> Tuple[torch.Tensor, torch.Tensor]:
    s = a + b
    v = s - a
    e = (a - (s - v)) + (b - v)
    return s, e


@korvex_function
def _two_product(a: torch.Tensor, b: torch.Tensor) -> Tuple[torch.Tensor, torch.Tensor]:
    p = a * b
    if hasattr(torch, "fma"):
        e = torch.fma(a, b, -p)
    else:
        factor = 134217729.0
        ah = (factor * a) - ((factor * a) - a)
        al = a - ah
        bh = (factor * b) - ((factor * b) - b)
        bl = b - bh
        e = (al * bl) - (((p - (ah * bh)) - (al * bh)) - (ah * bl))
    return p, e


@korvex_function
def tqx_sin(x: torch.Tensor, n_terms: int = 20, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x = x.double()
    x_red = torch.remainder(x, 2 * torch.pi)
    x_red = torch.where(x_red > torch.pi, x_red - 2 * torch.pi, x_red)
    result = torch.zeros_like(x)
    error = torch.zeros_like(x)
    term = x_red.clone()
    factorial = torch.tensor(1.0, dtype=torch.float64, device=x.device)  # noqa: F841
    x_squared, x_sq_err = _two_product(x_red, x_red)
    for n in range(n_terms):
        result, e = _two_sum(result, term)
        error = error + e
        power = 2 * n + 2
        divisor = torch.tensor(power * (power + 1), dtype=torch.float64, device=x.device)
        term_x2, err1 = _two_product(term, x_squared)
        term = (-term_x2) / divisor
    final = result + error
    if return_tqx:
        return TQXResult([final], device=str(x.device))
    return final


@korvex_function
def tqx_cos(x: torch.Tensor, n_terms: int = 20, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x = x.double()
    x_red = torch.remainder(x, 2 * torch.pi)
    x_red = torch.where(x_red > torch.pi, x_red - 2 * torch.pi, x_red)
    result = torch.ones_like(x)
    error = torch.zeros_like(x)
    x_squared, _ = _two_product(x_red, x_red)
    term = (-x_squared) / 2.0
    for n in range(1, n_terms):
        result, e = _two_sum(result, term)
        error = error + e
        power = 2 * n
        divisor = torch.tensor((power + 1) * (power + 2), dtype=torch.float64, device=x.device)
        term_x2, _ = _two_product(term, x_squared)
        term = (-term_x2) / divisor
    final = result + error
    if return_tqx:
        return TQXResult([final], device=str(x.device))
    return final


@korvex_function
def tqx_tan(x: torch.Tensor, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    result = tqx_sin(x) / tqx_cos(x)
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_asin(x: torch.Tensor, n_terms: int = 25, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x = x.double()
    result = x.clone()
    error = torch.zeros_like(x)
    term = x.clone()
    x_squared, _ = _two_product(x, x)
    for n in range(1, n_terms):
        coeff_num = (2 * n - 1) ** 2
        coeff_den = (2 * n) * (2 * n + 1)
        term_x2, _ = _two_product(term, x_squared)
        term = (term_x2 * coeff_num) / coeff_den
        result, e = _two_sum(result, term)
        error = error + e
    final = result + error
    if return_tqx:
        return TQXResult([final], device=str(x.device))
    return final


@korvex_function
def tqx_acos(x: torch.Tensor, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    pi_half = torch.tensor(torch.pi / 2, dtype=torch.float64, device=x.device)
    result = pi_half - tqx_asin(x)
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_atan(x: torch.Tensor, n_terms: int = 30, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x = x.double()
    pi_half = torch.tensor(torch.pi / 2, dtype=torch.float64, device=x.device)
    large_x = x.abs() > 1
    x_adj = torch.where(large_x, 1.0 / x, x)
    result = x_adj.clone()
    error = torch.zeros_like(x)
    term = x_adj.clone()
    x_squared, _ = _two_product(x_adj, x_adj)
    neg_x_squared = -x_squared
    for n in range(1, n_terms):
        term_x2, _ = _two_product(term, neg_x_squared)
        divisor = torch.tensor(2 * n + 1, dtype=torch.float64, device=x.device)
        term = term_x2 / divisor
        result, e = _two_sum(result, term)
        error = error + e
    final = result + error
    final = torch.where(large_x & (x > 0), pi_half - final, final)
    final = torch.where(large_x & (x < 0), -pi_half - final, final)
    if return_tqx:
        return TQXResult([final], device=str(x.device))
    return final


@korvex_function
def tqx_atan2(y: torch.Tensor, x: torch.Tensor, return_tqx: bool = False):
    if isinstance(y, TQXResult):
        y = y.collapse()
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not y.is_cuda or not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    y = y.double()
    x = x.double()
    pi = torch.tensor(torch.pi, dtype=torch.float64, device=y.device)
    base = tqx_atan(y / x)
    result = torch.where(x > 0, base, base)
    result = torch.where((x < 0) & (y >= 0), base + pi, result)
    result = torch.where((x < 0) & (y < 0), base - pi, result)
    result = torch.where((x == 0) & (y > 0), pi / 2, result)
    result = torch.where((x == 0) & (y < 0), -pi / 2, result)
    result = torch.where((x == 0) & (y == 0), torch.tensor(0.0, device=y.device), result)
    if return_tqx:
        return TQXResult([result], device=str(y.device))
    return result


@korvex_function
def tqx_sinh(x: torch.Tensor, n_terms: int = 20, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x = x.double()
    result = x.clone()
    error = torch.zeros_like(x)
    term = x.clone()
    x_squared, _ = _two_product(x, x)
    for n in range(1, n_terms):
        power = 2 * n
        divisor = torch.tensor(power * (power + 1), dtype=torch.float64, device=x.device)
        term_x2, _ = _two_product(term, x_squared)
        term = term_x2 / divisor
        result, e = _two_sum(result, term)
        error = error + e
    final = result + error
    if return_tqx:
        return TQXResult([final], device=str(x.device))
    return final


@korvex_function
def tqx_cosh(x: torch.Tensor, n_terms: int = 20, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x = x.double()
    result = torch.ones_like(x)
    error = torch.zeros_like(x)
    x_squared, _ = _two_product(x, x)
    term = x_squared / 2.0
    for n in range(1, n_terms):
        result, e = _two_sum(result, term)
        error = error + e
        power = 2 * n
        divisor = torch.tensor((power + 1) * (power + 2), dtype=torch.float64, device=x.device)
        term_x2, _ = _two_product(term, x_squared)
        term = term_x2 / divisor
    final = result + error
    if return_tqx:
        return TQXResult([final], device=str(x.device))
    return final


@korvex_function
def _tqx_fft_butterfly(x: torch.Tensor, inverse: bool = False) -> torch.Tensor:
    n = x.shape[-1]
    if n <= 1:
        return x
    x = x.clone()
    bits = int(torch.log2(torch.tensor(n)).item())
    for i in range(n):
        j = int("{:0{width}b}".format(i, width=bits)[::-1], 2)
        if i < j:
            x[..., i], x[..., j] = x[..., j].clone(), x[..., i].clone()
    size = 2
    while size <= n:
        half = size // 2
        angle_base = (2.0 if inverse else -2.0) * torch.pi / size
        for start in range(0, n, size):
            for k in range(half):
                angle = angle_base * k
                w_real = torch.cos(torch.tensor(angle, dtype=torch.float64, device=x.device))
                w_imag = torch.sin(torch.tensor(angle, dtype=torch.float64, device=x.device))
                w = torch.complex(w_real, w_imag)
                idx1 = start + k
                idx2 = start + k + half
                t = x[..., idx2] * w
                u = x[..., idx1].clone()
                x[..., idx1] = u + t
                x[..., idx2] = u - t
        size *= 2
    if inverse:
        x = x / n
    return x


@korvex_function
def tqx_fft(x: torch.Tensor, n: Optional[int] = None, dim: int = -1) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x = x.double()
    if n is not None:
        if n > x.shape[dim]:
            pad_shape = list(x.shape)
            pad_shape[dim] = n - x.shape[dim]
            x = torch.cat([x, torch.zeros(pad_shape, dtype=x.dtype, device=x.device)], dim=dim)
        else:
            x = x.narrow(dim, 0, n)
    size = x.shape[dim]
    is_pow2 = ((size & (size - 1)) == 0) and (size > 0)
    if is_pow2 and dim == -1:
        if not x.is_complex():
            x = torch.complex(x, torch.zeros_like(x))
        return _tqx_fft_butterfly(x, inverse=False)
    return torch.fft.fft(x, n=n, dim=dim)


@korvex_function
def tqx_ifft(x: torch.Tensor, n: Optional[int] = None, dim: int = -1) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    size = x.shape[dim]
    is_pow2 = ((size & (size - 1)) == 0) and (size > 0)
    if is_pow2 and dim == -1:
        return _tqx_fft_butterfly(x, inverse=True)
    return torch.fft.ifft(x, n=n, dim=dim)


@korvex_function
def tqx_rfft(x: torch.Tensor, n: Optional[int] = None, dim: int = -1) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    full_fft = tqx_fft(x, n=n, dim=dim)
    return full_fft[..., : full_fft.shape[-1] // 2 + 1]


@korvex_function
def tqx_irfft(x: torch.Tensor, n: Optional[int] = None, dim: int = -1) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    if n is None:
        n = 2 * (x.shape[dim] - 1)
    neg_freq = torch.flip(x[..., 1:-1].conj(), dims=[dim])
    full_spectrum = torch.cat([x, neg_freq], dim=dim)
    return tqx_ifft(full_spectrum, n=n, dim=dim).real


# ---- reductions by kernels ----


@korvex_function
def tqx_var(x: torch.Tensor, unbiased: bool = True, return_tqx: bool = False) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x_flat = x.double().contiguous().view(-1)
    n = x_flat.numel()
    out_mean = torch.zeros(1, dtype=torch.float64, device=x.device)
    out_var = torch.zeros(1, dtype=torch.float64, device=x.device)
    kernel = _NATIVE_LOADER.get_kernel("tqx_var_kernel")
    kernel.launch(
        cp.from_dlpack(x_flat),
        cp.from_dlpack(out_mean),
        cp.from_dlpack(out_var),
        n,
        grid=(1, 1, 1),
    )
    cp.cuda.Stream.null.synchronize()
    return out_var.squeeze()


@korvex_function
def tqx_std(x: torch.Tensor, unbiased: bool = True, return_tqx: bool = False) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return torch.sqrt(tqx_var(x, unbiased=unbiased))


@korvex_function
def tqx_norm(x: torch.Tensor, p: int = 2, return_tqx: bool = False) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x_flat = x.double().contiguous().view(-1)
    n = x_flat.numel()
    out = torch.zeros(1, dtype=torch.float64, device=x.device)
    kernel = _NATIVE_LOADER.get_kernel("tqx_norm_kernel")
    kernel.launch(cp.from_dlpack(x_flat), cp.from_dlpack(out), n, grid=(1, 1, 1))
    cp.cuda.Stream.null.synchronize()
    return out.squeeze()


@korvex_function
def tqx_prod(x: torch.Tensor, return_tqx: bool = False) -> torch.Tensor:
    x_flat = x.double().contiguous().view(-1)
    n = x_flat.numel()
    out = torch.zeros(1, dtype=torch.float64, device=x.device)
    out_err = torch.zeros(1, dtype=torch.float64, device=x.device)
    kernel = _NATIVE_LOADER.get_kernel("tqx_prod_kernel")
    kernel.launch(
        cp.from_dlpack(x_flat),
        cp.from_dlpack(out),
        cp.from_dlpack(out_err),
        n,
        grid=(1, 1, 1),
    )
    cp.cuda.Stream.null.synchronize()
    if return_tqx:
        return TQXResult([out.squeeze(), out_err.squeeze()], str(x.device))
    return (out + out_err).squeeze()


@korvex_function
def tqx_cumsum(x: torch.Tensor, return_tqx: bool = False) -> torch.Tensor:
    x_flat = x.double().contiguous().view(-1)
    n = x_flat.numel()
    out = torch.empty(n, dtype=torch.float64, device=x.device)
    out_err = torch.empty(n, dtype=torch.float64, device=x.device)
    kernel = _NATIVE_LOADER.get_kernel("tqx_cumsum_kernel")
    kernel.launch(
        cp.from_dlpack(x_flat),
        cp.from_dlpack(out),
        cp.from_dlpack(out_err),
        n,
        grid=(1, 1, 1),
    )
    cp.cuda.Stream.null.synchronize()
    if return_tqx:
        return TQXResult([out.view(x.shape), out_err.view(x.shape)], str(x.device))
    return out.view(x.shape)


@korvex_function
def tqx_logsumexp(x: torch.Tensor, return_tqx: bool = False) -> torch.Tensor:
    x_flat = x.double().contiguous().view(-1)
    n = x_flat.numel()
    out = torch.zeros(1, dtype=torch.float64, device=x.device)
    kernel = _NATIVE_LOADER.get_kernel("tqx_logsumexp_kernel")
    kernel.launch(cp.from_dlpack(x_flat), cp.from_dlpack(out), n, grid=(1, 1, 1))
    cp.cuda.Stream.null.synchronize()
    return out.squeeze()


# ---- reductions as decimals ----


@korvex_function
def tqx_var_exact(x: torch.Tensor, unbiased: bool = True) -> Decimal:
    x_f64 = x.double().flatten()
    n = x_f64.numel()
    mean_dec = tqx_mean_exact(x)
    mean_tensor = torch.tensor(float(mean_dec), dtype=torch.float64, device=x.device)
    diff = x_f64 - mean_tensor
    diff_sq = diff * diff
    sum_sq = tqx_sum_exact(diff_sq)
    divisor = Decimal(n - 1) if unbiased else Decimal(n)
    return sum_sq / divisor


@korvex_function
def tqx_std_exact(x: torch.Tensor, unbiased: bool = True) -> Decimal:
    var = tqx_var_exact(x, unbiased=unbiased)
    return var.sqrt()


@korvex_function
def tqx_norm_exact(x: torch.Tensor, p: int = 2) -> Decimal:
    x_f64 = x.double().flatten()
    x_sq = x_f64 * x_f64
    sum_sq = tqx_sum_exact(x_sq)
    return sum_sq.sqrt()


@korvex_function
def tqx_prod_exact(x: torch.Tensor) -> Decimal:
    result = tqx_prod(x, return_tqx=True)
    return result.to_decimal()


@korvex_function
def tqx_cumsum_exact(x: torch.Tensor) -> List[Decimal]:
    result = tqx_cumsum(x, return_tqx=True)
    x_flat = x.flatten()
    n = x_flat.numel()
    decimals = []
    for i in range(n):
        decimals.append(result.to_decimal(index=(i,)))
    return decimals


@korvex_function
def tqx_trace_exact(x: torch.Tensor) -> Decimal:
    diag = torch.diag(x.double())
    return tqx_sum_exact(diag)


@korvex_function
def tqx_logsumexp_exact(x: torch.Tensor) -> Decimal:
    result = tqx_logsumexp(x, return_tqx=False)
    return TQXResult._fp64_to_decimal(result.item())


# ---- extrema and trace ----


@korvex_function
def tqx_min(x: torch.Tensor) -> torch.Tensor:
    return x.double().min()


@korvex_function
def tqx_max(x: torch.Tensor) -> torch.Tensor:
    return x.double().max()


@korvex_function
def tqx_argmin(x: torch.Tensor) -> torch.Tensor:
    return x.flatten().argmin()


@korvex_function
def tqx_argmax(x: torch.Tensor) -> torch.Tensor:
    return x.flatten().argmax()


@korvex_function
def tqx_trace(x: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return tqx_sum(torch.diag(x.double()))


# ---- unary operators by kernels ----


def _launch_unary(x, kernel_name, return_tqx, *parameters):
    if isinstance(x, TQXResult):
        x = x.collapse()
    x_f64 = x.double().contiguous().view(-1)
    n = x_f64.numel()
    BLOCK = 256
    num_blocks = (n + BLOCK - 1) // BLOCK
    out = torch.empty(n, dtype=torch.float64, device=x.device)
    kernel = _NATIVE_LOADER.get_kernel(kernel_name)
    kernel.launch(
        cp.from_dlpack(x_f64), *parameters, cp.from_dlpack(out), n, grid=(num_blocks, 1, 1)
    )
    cp.cuda.Stream.null.synchronize()
    result = out.view(x.shape)
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_relu(x: torch.Tensor, return_tqx: bool = False):
    return _launch_unary(x, "tqx_relu_kernel", return_tqx)


@korvex_function
def tqx_neg(x: torch.Tensor, return_tqx: bool = False):
    return _launch_unary(x, "tqx_neg_kernel", return_tqx)


@korvex_function
def tqx_exp(x: torch.Tensor, terms: int = 30, return_tqx: bool = False):
    return _launch_unary(x, "tqx_exp_kernel", return_tqx)


@korvex_function
def tqx_log(x: torch.Tensor, terms: int = 30, return_tqx: bool = False):
    return _launch_unary(x, "tqx_log_kernel", return_tqx)


@korvex_function
def tqx_sqrt(x: torch.Tensor, iterations: int = 5, return_tqx: bool = False):
    return _launch_unary(x, "tqx_sqrt_kernel", return_tqx)


@korvex_function
def tqx_sigmoid(x: torch.Tensor, return_tqx: bool = False):
    return _launch_unary(x, "tqx_sigmoid_kernel", return_tqx)


@korvex_function
def tqx_tanh(x: torch.Tensor, return_tqx: bool = False):
    return _launch_unary(x, "tqx_tanh_kernel", return_tqx)


@korvex_function
def tqx_leaky_relu(x: torch.Tensor, negative_slope: float = 0.01, return_tqx: bool = False):
    return _launch_unary(x, "tqx_leaky_relu_kernel", return_tqx, negative_slope)


# ---- rounding, comparison and selection ----


@korvex_function
def tqx_floor(x: torch.Tensor, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    result = torch.floor(x.double())
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_ceil(x: torch.Tensor, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    result = torch.ceil(x.double())
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_round(x: torch.Tensor, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    result = torch.round(x.double())
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_trunc(x: torch.Tensor, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    result = torch.trunc(x.double())
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_fmod(x: torch.Tensor, y: torch.Tensor, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    if isinstance(y, TQXResult):
        y = y.collapse()
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    result = torch.fmod(x.double(), y.double())
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_sign(x: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return torch.sign(x.double())


@korvex_function
def tqx_eq(x: torch.Tensor, y: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return torch.eq(x.double(), y.double())


@korvex_function
def tqx_ne(x: torch.Tensor, y: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return torch.ne(x.double(), y.double())


@korvex_function
def tqx_lt(x: torch.Tensor, y: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return torch.lt(x.double(), y.double())


@korvex_function
def tqx_le(x: torch.Tensor, y: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return torch.le(x.double(), y.double())


@korvex_function
def tqx_gt(x: torch.Tensor, y: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return torch.gt(x.double(), y.double())


@korvex_function
def tqx_ge(x: torch.Tensor, y: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return torch.ge(x.double(), y.double())


@korvex_function
def tqx_where(condition: torch.Tensor, x: torch.Tensor, y: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    return torch.where(condition, x.double(), y.double())


# ---- composed operators ----


@korvex_function
def tqx_abs(x: torch.Tensor, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    result = torch.abs(x.double())
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_rsqrt(x: torch.Tensor, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    result = 1.0 / tqx_sqrt(x)
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_pow(x: torch.Tensor, exponent: float, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    result = tqx_exp(exponent * tqx_log(x))
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def tqx_clamp(x: torch.Tensor, min_val: float, max_val: float, return_tqx: bool = False):
    if isinstance(x, TQXResult):
        x = x.collapse()
    result = torch.clamp(x.double(), min_val, max_val)
    if return_tqx:
        return TQXResult([result], device=str(x.device))
    return result


@korvex_function
def _placeholder_rms_norm(x: torch.Tensor, eps: float = 1e-06) -> torch.Tensor:
    x_f64 = x.double().contiguous().view(-1)
    n = x_f64.numel()
    out = torch.empty(n, dtype=torch.float64, device=x.device)
    kernel = _NATIVE_LOADER.get_kernel("tqx_rms_norm_kernel")
    kernel.launch(cp.from_dlpack(x_f64), cp.from_dlpack(out), n, eps, grid=(1, 1, 1))
    cp.cuda.Stream.null.synchronize()
    return out.view(x.shape)


# ---- products ----


@korvex_function
def tqx_dot(
    x: torch.Tensor, y: torch.Tensor, return_tqx: bool = False, exact: bool = True
) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x_flat = x.double().contiguous().view(-1)
    y_flat = y.double().contiguous().view(-1)
    n = x_flat.numel()
    if exact:
        out = torch.zeros(4, dtype=torch.float64, device=x.device)
        kernel = _NATIVE_LOADER.get_kernel("tqx_dot_seq_kernel")
        kernel.function(
            (1, 1, 1),
            (1, 1, 1),
            (cp.from_dlpack(x_flat), cp.from_dlpack(y_flat), cp.from_dlpack(out), n),
        )
        cp.cuda.Stream.null.synchronize()
        result = TQXResult([out[0], out[1], out[2], out[3]], str(x.device))
        if return_tqx:
            return result
        return result.collapse()
    out = torch.zeros(1, dtype=torch.float64, device=x.device)
    out_err = torch.zeros(1, dtype=torch.float64, device=x.device)
    out_err2 = torch.zeros(1, dtype=torch.float64, device=x.device)
    BLOCK = 256
    num_blocks = (n + BLOCK - 1) // BLOCK
    kernel = _NATIVE_LOADER.get_kernel("tqx_dot_kernel")
    kernel.launch(
        cp.from_dlpack(x_flat),
        cp.from_dlpack(y_flat),
        cp.from_dlpack(out),
        cp.from_dlpack(out_err),
        cp.from_dlpack(out_err2),
        n,
        grid=(num_blocks, 1, 1),
    )
    cp.cuda.Stream.null.synchronize()
    if return_tqx:
        return TQXResult([out.squeeze(), out_err.squeeze(), out_err2.squeeze()], str(x.device))
    return (out + out_err + out_err2).squeeze()


def _unpack(values, expected):
    found = []
    for value in values:
        if len(found) == expected:
            raise ValueError("too many values to unpack (expected %d)" % expected)
        found.append(value)
    count = len(found)
    if count < expected:
        plural = "" if count == 1 else "s"
        raise ValueError("need more than %d value%.1s to unpack" % (count, plural))
    return found


@korvex_function
def _tqx_matmul_2d(a: torch.Tensor, b: torch.Tensor, return_tqx: bool = False) -> torch.Tensor:
    M, K = _unpack(a.shape, 2)
    K2, N = _unpack(b.shape, 2)
    assert K == K2, f"Inner dimensions must match: {K} vs {K2}"
    a_fp64 = a.double().contiguous()
    b_fp64 = b.double().contiguous()
    C0 = torch.zeros(M, N, device=a.device, dtype=torch.float64)
    C1 = torch.zeros(M, N, device=a.device, dtype=torch.float64)
    C2 = torch.zeros(M, N, device=a.device, dtype=torch.float64)
    BLOCK = 16
    grid = ((N + BLOCK - 1) // BLOCK, (M + BLOCK - 1) // BLOCK, 1)
    block = (BLOCK, BLOCK, 1)
    kernel = _NATIVE_LOADER.get_kernel("tqx_matmul_kernel")
    kernel.function(
        grid,
        block,
        (
            cp.from_dlpack(a_fp64),
            cp.from_dlpack(b_fp64),
            cp.from_dlpack(C0),
            cp.from_dlpack(C1),
            cp.from_dlpack(C2),
            M,
            N,
            K,
        ),
    )
    cp.cuda.Stream.null.synchronize()
    result = TQXResult([C0, C1, C2], str(a.device))
    if return_tqx:
        return result
    return result.collapse()


@korvex_function
def tqx_matmul(a: torch.Tensor, b: torch.Tensor, return_tqx: bool = False) -> torch.Tensor:
    if not a.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    squeeze_a = squeeze_b = False
    if a.ndim == 1 and b.ndim == 1:
        return tqx_dot(a, b)
    if a.ndim == 1:
        a = a.unsqueeze(0)
        squeeze_a = True
    if b.ndim == 1:
        b = b.unsqueeze(-1)
        squeeze_b = True
    if a.ndim == 2 and b.ndim == 2:
        result = _tqx_matmul_2d(a, b, return_tqx)
    else:
        result = _matmul_of_batches(a, b, return_tqx)
    if squeeze_a:
        result = result.squeeze(-2)
    if squeeze_b:
        result = result.squeeze(-1)
    return result


def _matmul_of_batches(a, b, return_tqx):
    a_batch = a.shape[:-2]
    b_batch = b.shape[:-2]
    if a_batch or b_batch:
        try:
            batch_shape = torch.broadcast_shapes(a_batch, b_batch)
        except RuntimeError:
            raise RuntimeError(f"Cannot broadcast batch shapes {a_batch} and {b_batch}")  # noqa: B904
    else:
        batch_shape = ()
    if a_batch != batch_shape:
        a = a.expand(*batch_shape, a.shape[-2], a.shape[-1])
    if b_batch != batch_shape:
        b = b.expand(*batch_shape, b.shape[-2], b.shape[-1])
    batch_size = 1
    for extent in batch_shape:
        batch_size *= extent
    M = a.shape[-2]
    K = a.shape[-1]
    K2 = b.shape[-2]
    N = b.shape[-1]
    assert K == K2, f"Inner dimensions must match: {K} vs {K2}"
    a_flat = a.reshape(batch_size, M, K)
    b_flat = b.reshape(batch_size, K, N)
    results = []
    for i in range(batch_size):
        results.append(_tqx_matmul_2d(a_flat[i], b_flat[i], return_tqx))
    if return_tqx:
        limbs0 = torch.stack([r.limbs[0] for r in results])
        limbs1 = torch.stack([r.limbs[1] for r in results])
        limbs2 = torch.stack([r.limbs[2] for r in results])
        return TQXResult(
            [
                limbs0.reshape(*batch_shape, M, N),
                limbs1.reshape(*batch_shape, M, N),
                limbs2.reshape(*batch_shape, M, N),
            ],
            str(a.device),
        )
    return torch.stack(results).reshape(*batch_shape, M, N)


@korvex_function
def tqx_bmm(a: torch.Tensor, b: torch.Tensor, return_tqx: bool = False) -> torch.Tensor:
    assert a.ndim == 3 and b.ndim == 3
    B, M, K = _unpack(a.shape, 3)
    B2, K2, N = _unpack(b.shape, 3)
    assert B == B2 and K == K2
    results = []
    for i in range(B):
        results.append(tqx_matmul(a[i], b[i], return_tqx=False))
    return torch.stack(results)


@korvex_function
def tqx_dot_exact(x: torch.Tensor, y: torch.Tensor) -> Decimal:
    result = tqx_dot(x, y, return_tqx=True)
    return result.to_decimal()


@korvex_function
def tqx_matmul_exact(a: torch.Tensor, b: torch.Tensor, i: int, j: int) -> Decimal:
    result = tqx_matmul(a, b, return_tqx=True)
    return result.to_decimal(index=(i, j))


@korvex_function
def tqx_bmm_exact(a: torch.Tensor, b: torch.Tensor, batch: int, i: int, j: int) -> Decimal:
    result = tqx_matmul(a[batch], b[batch], return_tqx=True)
    return result.to_decimal(index=(i, j))


# ---- contractions and loss ----


@korvex_function
def tqx_linear(
    x: torch.Tensor, weight: torch.Tensor, bias: Optional[torch.Tensor] = None
) -> torch.Tensor:
    result = tqx_matmul(x, weight.t())
    if bias is None:
        return result
    return tqx_add(result.double(), bias.double().expand_as(result))


@korvex_function
def tqx_einsum(equation: str, *operands, return_tqx: bool = False):
    if equation == "i,i->":
        return tqx_dot(operands[0], operands[1], return_tqx=return_tqx)
    if equation in ("ij,jk->ik", "mk,kn->mn"):
        return tqx_matmul(operands[0], operands[1], return_tqx=return_tqx)
    if equation == "bij,bjk->bik":
        return tqx_bmm(operands[0], operands[1], return_tqx=return_tqx)
    tensors = [op.double() for op in operands]
    return torch.einsum(equation, *tensors)


@korvex_function
def tqx_mse_loss(
    pred: torch.Tensor,
    target: torch.Tensor,
    reduction: str = "mean",
    return_tqx: bool = False,
) -> torch.Tensor:
    diff = tqx_sub(pred, target)
    sq = tqx_mul(diff.double(), diff.double())
    if reduction == "mean":
        return tqx_mean(sq)
    return tqx_sum(sq)


# ---- convolutions ----


@korvex_function
def tqx_conv2d(
    x: torch.Tensor,
    weight: torch.Tensor,
    stride: int = 1,
    padding: int = 0,
    return_tqx: bool = False,
) -> torch.Tensor:
    x = x.double()
    weight = weight.double()
    batch_size, in_channels, h_in, w_in = _unpack(x.shape, 4)
    out_channels, _, kh, kw = _unpack(weight.shape, 4)
    if padding > 0:
        x = torch.nn.functional.pad(x, (padding, padding, padding, padding))
        h_in += 2 * padding
        w_in += 2 * padding
    h_out = (h_in - kh) // stride + 1
    w_out = (w_in - kw) // stride + 1
    x_col = torch.nn.functional.unfold(x, (kh, kw), stride=stride)
    weight_mat = weight.view(out_channels, -1)
    output = torch.zeros(
        batch_size, out_channels, h_out * w_out, dtype=torch.float64, device=x.device
    )
    for b in range(batch_size):
        output[b] = tqx_matmul(weight_mat, x_col[b], return_tqx=False)
    return output.view(batch_size, out_channels, h_out, w_out)


@korvex_function
def tqx_conv_transpose2d(
    x: torch.Tensor,
    weight: torch.Tensor,
    stride: int = 1,
    padding: int = 0,
    output_padding: int = 0,
    return_tqx: bool = False,
) -> torch.Tensor:
    x = x.double()
    weight = weight.double()
    batch_size, in_channels, h_in, w_in = _unpack(x.shape, 4)
    _, out_channels, kh, kw = _unpack(weight.shape, 4)
    h_out = (h_in - 1) * stride - 2 * padding + kh + output_padding
    w_out = (w_in - 1) * stride - 2 * padding + kw + output_padding
    x_flat = x.view(batch_size, in_channels, -1)
    weight_mat = weight.view(in_channels, -1)
    output_col = torch.zeros(
        batch_size, out_channels * kh * kw, h_in * w_in, dtype=torch.float64, device=x.device
    )
    for b in range(batch_size):
        output_col[b] = tqx_matmul(weight_mat.t(), x_flat[b], return_tqx=False)
    return torch.nn.functional.fold(
        output_col, (h_out, w_out), (kh, kw), stride=stride, padding=padding
    )


# ---- solvers ----


@korvex_function
def tqx_solve(A: torch.Tensor, B: torch.Tensor, max_iter: int = 3) -> torch.Tensor:
    if not A.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    A = A.double()
    B = B.double()
    x = torch.linalg.solve(A, B)
    x_tqx = TQXResult([x], str(A.device))
    for _ in range(max_iter):
        x_current = x_tqx.collapse()
        Ax_tqx = tqx_matmul(A, x_current, return_tqx=True)
        residual_tqx = tqx_sub(B, Ax_tqx, return_tqx=True)
        residual = residual_tqx.collapse()
        if residual.abs().max() < 1e-15:
            break
        correction = torch.linalg.solve(A, residual)
        x_tqx = tqx_add(x_tqx, correction, return_tqx=True)
    return x_tqx.collapse()


@korvex_function
def tqx_inv(x: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    n = x.shape[-1]
    I = torch.eye(n, dtype=torch.float64, device=x.device)  # noqa: E741
    return tqx_solve(x, I)


@korvex_function
def tqx_det(x: torch.Tensor) -> torch.Tensor:
    if not x.is_cuda:
        raise RuntimeError(_NOT_CUDA)
    x = x.double()
    LU, pivots = torch.linalg.lu_factor(x)
    diag = torch.diag(LU)
    det_abs = tqx_prod(diag)
    n = x.shape[-1]
    sign = 1
    for i in range(n):
        if pivots[i] != i + 1:
            sign *= -1
    return det_abs * sign


# ---- module and provenance ----


@korvex_function
def _twosum_f64(a: torch.Tensor, b: torch.Tensor):
    s = a + b
    v = s - a
    e = (a - (s - v)) + (b - v)
    return s, e


@korvex_function
def _compensated_sum(terms: List[torch.Tensor]) -> Tuple[torch.Tensor, torch.Tensor]:
    if not terms:
        return torch.tensor(0.0), torch.tensor(0.0)
    s = terms[0].clone()
    e = torch.zeros_like(s)
    for t in terms[1:]:
        s_new, e_new = _two_sum(s, t)
        e = e + e_new
        s = s_new
    return s, e


@korvex_function
def _extract_tqx_tensor(x):
    if isinstance(x, TQXResult):
        return x.collapse(), True
    return x, False


@korvex_function
def _get_tqx_limbs(x):
    if isinstance(x, TQXResult):
        return x.limbs
    return [x.double()]


@korvex_function
def _tqx_add_limbs(x_limbs, y_limbs, device):
    all_limbs = x_limbs + y_limbs
    if len(all_limbs) == 1:
        return TQXResult(all_limbs, device)
    all_limbs = sorted(all_limbs, key=lambda t: -t.abs().max().item())
    result_limbs = []
    acc = all_limbs[0].clone()
    for limb in all_limbs[1:]:
        s = acc + limb
        v = s - acc
        e = (acc - (s - v)) + (limb - v)
        acc = s
        if e.abs().max().item() > 0:
            result_limbs.append(e)
    result_limbs.insert(0, acc)
    if len(result_limbs) > 4:
        result_limbs = sorted(result_limbs, key=lambda t: -t.abs().max().item())[:4]
    return TQXResult(result_limbs, device)


@korvex_function
def _tqx_sub_limbs(x_limbs, y_limbs, device):
    neg_y_limbs = [-limb for limb in y_limbs]
    return _tqx_add_limbs(x_limbs, neg_y_limbs, device)


def _pair_operand(x):
    if hasattr(x, "double"):
        return x.double()
    return torch.tensor(x, dtype=torch.float64, device="cuda")


def _limb_device(x, x_limbs):
    return str(x.device) if hasattr(x, "device") else str(x_limbs[0].device)


def _launch_pair(name, x, y, device_source):
    """Flat value and error of a kernel with two operands, and the shape that they stand for."""
    if x.shape != y.shape:
        x, y = torch.broadcast_tensors(x, y)
    output_shape = x.shape
    x_flat = x.contiguous().view(-1)
    y_flat = y.contiguous().view(-1)
    n = x_flat.numel()
    BLOCK = 256
    num_blocks = (n + BLOCK - 1) // BLOCK
    out = torch.empty(n, dtype=torch.float64, device=device_source.device)
    out_err = torch.empty(n, dtype=torch.float64, device=device_source.device)
    kernel = _NATIVE_LOADER.get_kernel(name)
    kernel.launch(
        cp.from_dlpack(x_flat),
        cp.from_dlpack(y_flat),
        cp.from_dlpack(out),
        cp.from_dlpack(out_err),
        n,
        grid=(num_blocks, 1, 1),
    )
    cp.cuda.Stream.null.synchronize()
    return out, out_err, output_shape


@korvex_function
def tqx_add(x, y, return_tqx: bool = False):
    x_is_tqx = isinstance(x, TQXResult)
    y_is_tqx = isinstance(y, TQXResult)
    if x_is_tqx or y_is_tqx:
        x_limbs = _get_tqx_limbs(x)
        y_limbs = _get_tqx_limbs(y)
        result = _tqx_add_limbs(x_limbs, y_limbs, _limb_device(x, x_limbs))
        return result if return_tqx else result.collapse()
    if return_tqx:
        x_t = _pair_operand(x)
        y_t = _pair_operand(y)
        s, e = _twosum_f64(x_t, y_t)
        return TQXResult([s, e], str(x_t.device))
    x_f64 = x.double()
    y_f64 = y.double()
    out, out_err, output_shape = _launch_pair("tqx_add_kernel", x_f64, y_f64, x)
    return (out + out_err).view(output_shape)


@korvex_function
def tqx_sub(x, y, return_tqx: bool = False):
    x_is_tqx = isinstance(x, TQXResult)
    y_is_tqx = isinstance(y, TQXResult)
    if x_is_tqx or y_is_tqx:
        x_limbs = _get_tqx_limbs(x)
        y_limbs = _get_tqx_limbs(y)
        result = _tqx_sub_limbs(x_limbs, y_limbs, _limb_device(x, x_limbs))
        return result if return_tqx else result.collapse()
    if return_tqx:
        x_t = _pair_operand(x)
        y_t = _pair_operand(y)
        s, e = _twosum_f64(x_t, -y_t)
        return TQXResult([s, e], str(x_t.device))
    x_f64 = x.double()
    y_f64 = y.double()
    out, out_err, output_shape = _launch_pair("tqx_sub_kernel", x_f64, y_f64, x)
    return (out + out_err).view(output_shape)


def _product_or_quotient(name, x, y, return_tqx):
    x_tensor, x_is_tqx = _extract_tqx_tensor(x)
    y_tensor, y_is_tqx = _extract_tqx_tensor(y)
    propagate_tqx = bool(x_is_tqx) or bool(y_is_tqx) or return_tqx
    x_t = x_tensor.double()
    y_t = y_tensor.double()
    out, out_err, output_shape = _launch_pair(name, x_t, y_t, x_tensor)
    if propagate_tqx:
        limbs = [out.view(output_shape), out_err.view(output_shape)]
        return TQXResult(limbs, str(x_tensor.device))
    return (out + out_err).view(output_shape)


@korvex_function
def tqx_mul(x, y, return_tqx: bool = False):
    return _product_or_quotient("tqx_mul_kernel", x, y, return_tqx)


@korvex_function
def tqx_div(x, y, return_tqx: bool = False):
    return _product_or_quotient("tqx_div_kernel", x, y, return_tqx)


@korvex_function
def get_backend_info():
    return {
        "version": __version__,
        "backend": "native_cuda",
        "cuda_available": torch.cuda.is_available(),
        "device": torch.cuda.get_device_name(0) if torch.cuda.is_available() else None,
        "native_arch": _NATIVE_LOADER.arch if _NATIVE_LOADER else None,
        "native_cubin": str(_NATIVE_LOADER.cubin_path) if _NATIVE_LOADER else None,
    }


@korvex_function
def tqx_checksum(x: Union[torch.Tensor, TQXResult], truncate: int = 16) -> str:
    if isinstance(x, TQXResult):
        tensor = x.collapse()
    else:
        tensor = x
    tensor_f64 = tensor.double().cpu().contiguous()
    data_bytes = tensor_f64.numpy().tobytes()
    full_hash = hashlib.sha256(data_bytes).hexdigest()
    return full_hash[: min(truncate, 64)]


@korvex_function
def tqx_checksum_hex(x: Union[torch.Tensor, TQXResult]) -> str:
    return tqx_checksum(x, truncate=64)


@korvex_function
def tqx_verify(
    x: Union[torch.Tensor, TQXResult],
    expected: str,
    truncate: int = 16,
    raise_on_mismatch: bool = True,
) -> bool:
    actual = tqx_checksum(x, truncate=truncate)
    if truncate > sys.maxsize:
        raise OverflowError("Python int too large to convert to C ssize_t")
    expected_truncated = expected[:truncate]
    match = bool(actual == expected_truncated)
    if not match and raise_on_mismatch:
        raise ValueError(
            "TQX checksum mismatch!\n"
            f"  Got:      {actual}\n"
            f"  Expected: {expected_truncated}\n"
            "  This indicates non-reproducible computation."
        )
    return match


class TQXVerifiedResult:
    @korvex_function
    def __init__(self, value: Union[torch.Tensor, TQXResult], checksum: Optional[str] = None):
        self.value = value
        self._checksum = checksum if checksum else tqx_checksum(value)
        self._device = str(value.device) if hasattr(value, "device") else "cpu"

    @property
    @korvex_function
    def checksum(self):
        if self._checksum is not None and type(self._checksum) is not str:
            raise TypeError("Expected %s, got %.200s" % ("str", type_name(self._checksum)))
        return self._checksum

    @property
    @korvex_function
    def checksum_full(self):
        return tqx_checksum_hex(self.value)

    @korvex_function
    def verify(self):
        return tqx_verify(self.value, self._checksum, raise_on_mismatch=True)

    @korvex_function
    def item(self):
        if isinstance(self.value, TQXResult):
            return self.value.item()
        return self.value.item()

    @korvex_function
    def __repr__(self):
        return f"TQXVerifiedResult(checksum='{self._checksum}', device='{self._device}')"
