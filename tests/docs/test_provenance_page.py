# SPDX-License-Identifier: Apache-2.0
"""docs/provenance.md, line by line: its code is run, its odds are worked out."""

import doctest
import math
import re
from fractions import Fraction
from pathlib import Path

import page_code
import pytest
import torch

TREE = Path(__file__).resolve().parents[2]
PAGE = (TREE / "docs" / "provenance.md").read_text()


def blocks(language):
    return page_code.blocks_of(PAGE, language)


def prose():
    return " ".join(re.sub(r"^```.*?^```$", "", PAGE, flags=re.MULTILINE | re.DOTALL).split())


def test_code_on_the_page_gives_what_stands_there(module):
    """All blocks in order, with the names of those before."""
    assert len(blocks("pycon")) == 13
    names, examples = page_code.run_code(PAGE)
    assert examples > 40
    assert names["tqx"] is module


def test_a_wrong_line_would_be_noticed():
    text = blocks("pycon")[1].replace("True", "False", 1)
    names = {}
    exec("import hashlib, struct, torch, korvex.tqx_runtime as tqx", names)
    test = doctest.DocTestParser().get_doctest(text, names, "planted", None, 0)
    runner = doctest.DocTestRunner()
    runner.run(test, out=lambda text: None)
    assert runner.failures == 1


def test_odds_are_those_of_64_bits():
    """Some pair among n texts of b bits is equal with about n^2 / 2^(b + 1), if that is small."""
    values = 16**16
    million = Fraction(10**6 * (10**6 - 1), 2) / values
    as_likely_as_not = math.sqrt(2 * math.log(2) * values)
    assert values == 2**64 and f"one in {values:.1e}".replace("e+", "e") in prose()
    assert f"a probability of {float(million):.1e}".replace("e-0", "e-") in prose()
    assert f"it takes {as_likely_as_not:.1e} results".replace("e+0", "e") in prose()
    assert f"about 2^32, {2**32:.1e}".replace("e+0", "e") in prose()


@pytest.mark.usefixtures("every_warning")
def test_complex_tensor_loses_its_imaginary_parts(module):
    z = torch.tensor([1 + 2j, 3 + 4j], dtype=torch.complex128)
    with pytest.warns(UserWarning, match="discards the imaginary part"):
        assert module.tqx_checksum(z) == module.tqx_checksum(torch.tensor([1.0, 3.0]))


def test_tensor_that_requires_grad_is_refused(module):
    x = torch.ones(3, requires_grad=True)
    with pytest.raises(RuntimeError, match="requires grad"):
        module.tqx_checksum(x)
    assert module.tqx_checksum(x.detach()) == module.tqx_checksum(torch.ones(3))


def test_checksum_does_not_depend_on_the_device(module):
    host = torch.arange(5, dtype=torch.float64)
    assert module.tqx_checksum(host) == module.tqx_checksum(host.to("cuda"))
