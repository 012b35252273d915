# SPDX-License-Identifier: Apache-2.0
"""Series functions and transforms in plain Python: the module's steps without its checks.

Written once more beside the reference implementation of the tests: that one binds and checks its
arguments in Python, which costs more than the steps: compared with it the module would look better
than it is.
"""

import torch


class TQXResult:
    """Stands in the tests of operands; nothing here makes one."""


def _require_cuda(x):
    if not x.is_cuda:
        raise RuntimeError("no CUDA tensor")


def _two_sum(a, b):
    s = a + b
    v = s - a
    e = (a - (s - v)) + (b - v)
    return s, e


def _two_product(a, b):
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


def tqx_sin(x, n_terms=20):
    if isinstance(x, TQXResult):
        x = x.collapse()
    _require_cuda(x)
    x = x.double()
    x_red = torch.remainder(x, 2 * torch.pi)
    x_red = torch.where(x_red > torch.pi, x_red - 2 * torch.pi, x_red)
    result = torch.zeros_like(x)
    error = torch.zeros_like(x)
    term = x_red.clone()
    torch.tensor(1.0, dtype=torch.float64, device=x.device)
    x_squared, _ = _two_product(x_red, x_red)
    for n in range(n_terms):
        result, e = _two_sum(result, term)
        error = error + e
        power = 2 * n + 2
        divisor = torch.tensor(power * (power + 1), dtype=torch.float64, device=x.device)
        term_x2, _ = _two_product(term, x_squared)
        term = (-term_x2) / divisor
    return result + error


def tqx_cos(x, n_terms=20):
    if isinstance(x, TQXResult):
        x = x.collapse()
    _require_cuda(x)
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
    return result + error


def tqx_tan(x):
    if isinstance(x, TQXResult):
        x = x.collapse()
    _require_cuda(x)
    return tqx_sin(x) / tqx_cos(x)


def tqx_asin(x, n_terms=25):
    if isinstance(x, TQXResult):
        x = x.collapse()
    _require_cuda(x)
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
    return result + error


def tqx_acos(x):
    if isinstance(x, TQXResult):
        x = x.collapse()
    _require_cuda(x)
    pi_half = torch.tensor(torch.pi / 2, dtype=torch.float64, device=x.device)
    return pi_half - tqx_asin(x)


def tqx_atan(x, n_terms=30):
    if isinstance(x, TQXResult):
        x = x.collapse()
    _require_cuda(x)
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
    return torch.where(large_x & (x < 0), -pi_half - final, final)


def tqx_atan2(y, x):
    if isinstance(y, TQXResult):
        y = y.collapse()
    if isinstance(x, TQXResult):
        x = x.collapse()
    _require_cuda(y)
    _require_cuda(x)
    y = y.double()
    x = x.double()
    pi = torch.tensor(torch.pi, dtype=torch.float64, device=y.device)
    base = tqx_atan(y / x)
    result = torch.where(x > 0, base, base)
    result = torch.where((x < 0) & (y >= 0), base + pi, result)
    result = torch.where((x < 0) & (y < 0), base - pi, result)
    result = torch.where((x == 0) & (y > 0), pi / 2, result)
    result = torch.where((x == 0) & (y < 0), -pi / 2, result)
    return torch.where((x == 0) & (y == 0), torch.tensor(0.0, device=y.device), result)


def tqx_sinh(x, n_terms=20):
    if isinstance(x, TQXResult):
        x = x.collapse()
    _require_cuda(x)
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
    return result + error


def tqx_cosh(x, n_terms=20):
    if isinstance(x, TQXResult):
        x = x.collapse()
    _require_cuda(x)
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
    return result + error


def _tqx_fft_butterfly(x, inverse=False):
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


def tqx_fft(x, n=None, dim=-1):
    _require_cuda(x)
    x = x.double()
    if n is not None:
        raise NotImplementedError("not timed")
    size = x.shape[dim]
    if ((size & (size - 1)) == 0) and (size > 0) and dim == -1:
        if not x.is_complex():
            x = torch.complex(x, torch.zeros_like(x))
        return _tqx_fft_butterfly(x, inverse=False)
    return torch.fft.fft(x, n=n, dim=dim)


def tqx_ifft(x, n=None, dim=-1):
    _require_cuda(x)
    size = x.shape[dim]
    if ((size & (size - 1)) == 0) and (size > 0) and dim == -1:
        return _tqx_fft_butterfly(x, inverse=True)
    return torch.fft.ifft(x, n=n, dim=dim)


def tqx_rfft(x, n=None, dim=-1):
    _require_cuda(x)
    full_fft = tqx_fft(x, n=n, dim=dim)
    return full_fft[..., : full_fft.shape[-1] // 2 + 1]
