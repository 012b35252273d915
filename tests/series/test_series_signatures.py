# SPDX-License-Identifier: Apache-2.0
"""Doc strings and signatures of the series functions, to the letter.

The doc strings state more than the functions do; they are the texts that callers see all the same.
"""

import inspect

import pytest

TERMS = [
    "Each term computed with TwoProduct, accumulated with TwoSum.",
    "Achieves ~1e-30 accuracy vs FP64's ~1e-16.",
]
DOC_STRINGS = {
    "tqx_sin": [
        "TRUE TQX sine using compensated Taylor series.",
        "sin(x) = x - x³/3! + x⁵/5! - x⁷/7! + ...",
        *TERMS,
    ],
    "tqx_cos": [
        "TRUE TQX cosine using compensated Taylor series.",
        "cos(x) = 1 - x²/2! + x⁴/4! - x⁶/6! + ...",
        TERMS[0],
    ],
    "tqx_tan": ["TRUE TQX tangent: sin(x)/cos(x) using compensated series."],
    "tqx_asin": [
        "TRUE TQX arcsine using compensated Taylor series.",
        "asin(x) = x + x³/6 + 3x⁵/40 + 15x⁷/336 + ...",
        "= sum_{n=0}^∞ (2n)! / (4^n (n!)² (2n+1)) * x^(2n+1)",
    ],
    "tqx_acos": ["TRUE TQX arccosine: acos(x) = π/2 - asin(x)."],
    "tqx_atan": [
        "TRUE TQX arctangent using compensated Taylor series.",
        "atan(x) = x - x³/3 + x⁵/5 - x⁷/7 + ... for |x| ≤ 1",
        "For |x| > 1: atan(x) = π/2 - atan(1/x)",
    ],
    "tqx_atan2": ["TRUE TQX atan2 using tqx_atan with quadrant handling."],
    "tqx_sinh": [
        "TRUE TQX hyperbolic sine using compensated Taylor series.",
        "sinh(x) = x + x³/3! + x⁵/5! + x⁷/7! + ...",
    ],
    "tqx_cosh": [
        "TRUE TQX hyperbolic cosine using compensated Taylor series.",
        "cosh(x) = 1 + x²/2! + x⁴/4! + x⁶/6! + ...",
    ],
}


@pytest.mark.parametrize("name", DOC_STRINGS)
def test_doc_string(module, name):
    lines = [line.strip() for line in getattr(module, name).__doc__.strip().splitlines()]
    assert lines == DOC_STRINGS[name]


WITH_TERMS = "(x: 'torch.Tensor', n_terms: 'int' = {}, return_tqx: 'bool' = False)"
SIGNATURES = {
    "tqx_sin": WITH_TERMS.format(20),
    "tqx_cos": WITH_TERMS.format(20),
    "tqx_tan": "(x: 'torch.Tensor', return_tqx: 'bool' = False)",
    "tqx_asin": WITH_TERMS.format(25),
    "tqx_acos": "(x: 'torch.Tensor', return_tqx: 'bool' = False)",
    "tqx_atan": WITH_TERMS.format(30),
    "tqx_atan2": "(y: 'torch.Tensor', x: 'torch.Tensor', return_tqx: 'bool' = False)",
    "tqx_sinh": WITH_TERMS.format(20),
    "tqx_cosh": WITH_TERMS.format(20),
}


@pytest.mark.parametrize("name", SIGNATURES)
def test_signature(module, name):
    assert str(inspect.signature(getattr(module, name))) == SIGNATURES[name]
