# SPDX-License-Identifier: Apache-2.0
"""Sum and mean in plain Python: the same steps as the module's, without its checks of arguments.

Written once more beside the reference implementation of the tests: that one binds and checks its
arguments in Python, which costs more than the steps: compared with it the module would look better
than it is.
"""

import torch

# The same stand-ins as the module works with; see bench_overhead.py.
cp = None
_NATIVE_LOADER = None


class TQXResult:
    def __init__(self, limbs, device="cuda"):
        self.limbs = limbs
        self.device = device
        self.n_limbs = len(limbs)
        self.shape = limbs[0].shape if limbs else ()
        self.dtype = torch.float64

    def collapse(self):
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


def tqx_sum(x, dim=None, keepdim=False, return_tqx=False, exact=True):
    if not x.is_cuda:
        raise RuntimeError("no CUDA tensor")
    if dim is not None:
        return x.double().sum(dim=dim, keepdim=keepdim)
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


def tqx_mean(x, dim=None, keepdim=False, return_tqx=False):
    if not x.is_cuda:
        raise RuntimeError("no CUDA tensor")
    if dim is not None:
        n = x.shape[dim]
        return tqx_sum(x, dim=dim, keepdim=keepdim) / n
    n = x.numel()
    sum_result = tqx_sum(x, return_tqx=True)
    if return_tqx:
        return TQXResult([limb / n for limb in sum_result.limbs], str(x.device))
    return sum_result.collapse() / n
