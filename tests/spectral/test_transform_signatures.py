# SPDX-License-Identifier: Apache-2.0
"""Doc strings and signatures of the transforms, to the letter.

The doc strings state more than the functions do; they are the texts that callers see all the same.
"""

import inspect

import pytest

DOC_STRINGS = {
    "_tqx_fft_butterfly": [
        "TRUE TQX FFT using Cooley-Tukey with compensated arithmetic.",
        "Each butterfly operation uses TwoSum for accumulation.",
    ],
    "tqx_fft": [
        "TRUE TQX 1D FFT using compensated Cooley-Tukey butterfly.",
        "Falls back to FP64 FFT for non-power-of-2 sizes.",
    ],
    "tqx_ifft": ["TRUE TQX Inverse FFT using compensated butterfly."],
    "tqx_rfft": ["TRUE TQX Real FFT."],
    "tqx_irfft": ["TRUE TQX Inverse Real FFT."],
}


@pytest.mark.parametrize("name", DOC_STRINGS)
def test_doc_string(module, name):
    lines = [line.strip() for line in getattr(module, name).__doc__.strip().splitlines()]
    assert lines == DOC_STRINGS[name]


@pytest.mark.parametrize("name", [name for name in DOC_STRINGS if name.startswith("tqx_")])
def test_signature(module, name):
    assert str(inspect.signature(getattr(module, name))) == (
        "(x: 'torch.Tensor', n: 'Optional[int]' = None, dim: 'int' = -1) -> 'torch.Tensor'"
    )


def test_radix_two_transform_is_internal(module):
    assert "_tqx_fft_butterfly" not in module.__all__
    assert str(inspect.signature(module._tqx_fft_butterfly)) == (
        "(x: 'torch.Tensor', inverse: 'bool' = False) -> 'torch.Tensor'"
    )
