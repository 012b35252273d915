# SPDX-License-Identifier: Apache-2.0
"""Every operation of the inverse radix-2 transform of length two, in order.

All other lengths, and the transforms around it, are compared with the reference implementation, in
tests/runtime.
"""

import math

import torch


def test_inverse_transform_of_length_two(runtime, recorded):
    recorder = recorded(
        """
        x.shape
        x.clone
        c = x.clone()
        torch.log2
        torch.tensor
        n = torch.tensor(2)
        log = torch.log2(n)
        log.item
        bits = log.item()
        torch.pi
        torch.cos
        torch.tensor
        torch.float64
        c.device
        a1 = torch.tensor(0.0, dtype=torch.float64, device=c.device)
        w_real = torch.cos(a1)
        torch.sin
        torch.tensor
        torch.float64
        c.device
        a2 = torch.tensor(0.0, dtype=torch.float64, device=c.device)
        w_imag = torch.sin(a2)
        torch.complex
        w = torch.complex(w_real, w_imag)
        upper = c[(Ellipsis, 1)]
        t = upper * w
        lower = c[(Ellipsis, 0)]
        lower.clone
        u = lower.clone()
        sum = u + t
        c[(Ellipsis, 0)] := sum
        difference = u - t
        c[(Ellipsis, 1)] := difference
        mean = c / 2
        """,
        returns={"torch.pi": math.pi, "bits": 1.0, "x.shape": torch.Size((2,))},
    )
    assert repr(runtime._tqx_fft_butterfly(recorder.spy("x"), inverse=True)) == "<mean>"
    recorder.check()
