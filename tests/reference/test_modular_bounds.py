# SPDX-License-Identifier: Apache-2.0
"""The bounds of the matrix product by residues hold, and the script sees where one does not."""

import math

import pytest

from korvex_tools import modular_bounds


def test_every_bound_holds(capsys):
    assert modular_bounds.main() == 0
    lines = capsys.readouterr().out.splitlines()
    assert len(lines) > 20
    assert not any("DOES NOT HOLD" in line for line in lines)


@pytest.mark.parametrize(
    ("name", "value"),
    [
        ("kDepth", 2048),
        ("kHighest", 600),
        ("kDigits", 40),
        ("kFractionBits", 8),
        ("kDoubleDepth", 257),
        ("kDoubleDigitBits", 30),
        ("kMostDoubleDigits", 6),
        ("kMostDoubles", 7),
    ],
)
def test_a_worse_constant_breaks_a_bound(monkeypatch, capsys, name, value):
    monkeypatch.setitem(modular_bounds.CONSTANTS, name, value)
    assert modular_bounds.main() == 1
    assert "DOES NOT HOLD" in capsys.readouterr().out


def test_a_larger_modulus_breaks_a_bound(monkeypatch, capsys):
    monkeypatch.setattr(modular_bounds, "MODULI", [255, *modular_bounds.MODULI[:3]])
    assert modular_bounds.main() == 1
    assert "any residue, a signed byte" in capsys.readouterr().out


def test_moduli_are_those_of_the_header():
    found = modular_bounds.MODULI
    assert found[:6] == [251, 250, 249, 247, 241, 239]
    assert len(found) == 48
    assert math.lcm(*found) == math.prod(found)
    assert math.prod(found).bit_length() == 335


def test_moduli_of_doubles_are_those_of_the_header():
    found = modular_bounds.DOUBLE_MODULI
    assert len(found) == modular_bounds.DOUBLE["kMostModuli"] == 15
    assert found[0] == 11863000 and found == sorted(found, reverse=True)
    assert math.lcm(*found) == math.prod(found)
    assert math.prod(found).bit_length() == 353


def test_a_larger_modulus_of_doubles_breaks_a_bound(monkeypatch, capsys):
    larger = [11864000, *modular_bounds.DOUBLE_MODULI[1:]]
    monkeypatch.setattr(modular_bounds, "DOUBLE_MODULI", larger)
    assert modular_bounds.main() == 1
    assert "sum of products, and what the plane held, doubles" in capsys.readouterr().out


def test_a_redundant_modulus_of_doubles_needs_its_bits(monkeypatch, capsys):
    monkeypatch.setitem(modular_bounds.DOUBLE, "kLargestModulus", 2**26)
    assert modular_bounds.main() == 1
    assert "a wrong element in units of B, doubles" in capsys.readouterr().out
