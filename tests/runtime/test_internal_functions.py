# SPDX-License-Identifier: Apache-2.0
"""Doc strings of the functions that are not public, to the letter.

Those of the public ones, and their signatures, stand in tests/golden/surface.json.
"""

import inspect

import pytest

DOC_STRINGS = {
    "_twosum_f64": [
        "TwoSum in FP64: a + b = s + e EXACTLY.",
        "Uses Knuth's algorithm. All operations in FP64.",
    ],
    "_two_sum": ["TwoSum: Error-free addition.", "Returns (s, e) where a + b = s + e EXACTLY."],
    "_two_product": [
        "TwoProduct: Error-free multiplication.",
        "Returns (p, e) where a * b = p + e EXACTLY.",
        "Uses FMA if available, otherwise Veltkamp split.",
    ],
    "_compensated_sum": [
        "Sum a list of terms with full error tracking.",
        "Returns (sum, error) where true_sum = sum + error.",
    ],
    "_extract_tqx_tensor": [
        "Extract tensor from TQXResult or return tensor as-is. Returns (tensor, is_tqx)."
    ],
    "_get_tqx_limbs": [
        "Get all limbs from TQXResult or wrap tensor as single-limb.",
        "Returns list of tensors (the limbs) - NO COLLAPSE.",
    ],
    "_tqx_add_limbs": [
        "Add two sets of TQX limbs using TwoSum cascade.",
        "Preserves full precision by keeping all error terms.",
    ],
    "_tqx_sub_limbs": [
        "Subtract y_limbs from x_limbs using TwoSum cascade.",
        "Equivalent to adding x_limbs + (-y_limbs).",
    ],
    "_tqx_fft_butterfly": [
        "TRUE TQX FFT using Cooley-Tukey with compensated arithmetic.",
        "Each butterfly operation uses TwoSum for accumulation.",
    ],
}


@pytest.mark.parametrize("name", DOC_STRINGS)
def test_doc_string(module, name):
    lines = getattr(module, name).__doc__.strip().splitlines()
    assert [line for line in lines if line] == DOC_STRINGS[name]
    assert name not in module.__all__


def test_signature_of_the_radix_two_transform(module):
    assert str(inspect.signature(module._tqx_fft_butterfly)) == (
        "(x: 'torch.Tensor', inverse: 'bool' = False) -> 'torch.Tensor'"
    )
