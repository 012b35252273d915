# SPDX-License-Identifier: Apache-2.0
"""Random steps on several accumulators, beside lists of rational numbers and counts."""

import copy
import math
import pickle
from collections import Counter
from fractions import Fraction

import numpy as np
import pytest
from exact_arrays import finite
from exact_oracle import bits, exact_sum, rounded
from hypothesis import settings
from hypothesis import strategies as st
from hypothesis.stateful import Bundle, RuleBasedStateMachine, rule

from korvex import exact

elements = st.lists(finite | st.floats(), max_size=6)
DUPLICATES = [
    copy.copy,
    copy.deepcopy,
    lambda a: exact.loads(bytes(a)),
    lambda a: pickle.loads(pickle.dumps(a)),
]


class Model:
    """The finite addends as one rational number, all others and the elements as counts."""

    def __init__(self, value=Fraction(), specials=(), count=0):
        self.value, self.specials, self.count = value, Counter(specials), count

    def apply(self, addends, count, sign):
        for addend in addends:
            if isinstance(addend, float) and not math.isfinite(addend):
                self.specials[str(addend)] += sign
            else:
                self.value += sign * Fraction(addend)
        self.count += sign * count

    def copy(self):
        return Model(self.value, self.specials, self.count)

    def check(self, accumulator):
        if self.count < 0 or any(count < 0 for count in self.specials.values()):
            with pytest.raises(ValueError, match="more were taken away than added"):
                float(accumulator)
            return
        assert accumulator.count == self.count
        present = [float(name) for name, count in self.specials.items() if count]
        expected = exact_sum(present) if present else self.value
        assert bits(float(accumulator)) == bits(rounded(expected))
        if not present:
            assert accumulator.to_fraction() == self.value


class SumMachine(RuleBasedStateMachine):
    """Steps of `Sum`; every result is checked at once."""

    KIND = exact.Sum
    accumulators = Bundle("accumulators")

    def arguments(self, values):
        return [np.array(values, np.float64)]

    def addends(self, values):
        return values

    @rule(target=accumulators)
    def make(self):
        return self.KIND(), Model()

    @rule(pair=accumulators, values=elements, sign=st.sampled_from([1, -1]))
    def step(self, pair, values, sign):
        accumulator, model = pair
        (accumulator.add if sign == 1 else accumulator.subtract)(*self.arguments(values))
        model.apply(self.addends(values), len(values), sign)
        model.check(accumulator)

    @rule(pair=accumulators, other=accumulators)
    def merge(self, pair, other):
        accumulator, model = pair
        added = other[1].copy()
        accumulator += other[0]
        model.value += added.value
        model.specials.update(added.specials)
        model.count += added.count
        model.check(accumulator)

    @rule(target=accumulators, pair=accumulators, duplicate=st.sampled_from(DUPLICATES))
    def go_on_with_a_copy(self, pair, duplicate):
        result = duplicate(pair[0])
        assert result == pair[0] and bytes(result) == bytes(pair[0])
        pair[1].check(result)
        return result, pair[1].copy()

    @rule(pair=accumulators, other=accumulators)
    def compare(self, pair, other):
        same = (pair[0] == other[0], pair[0].checksum() == other[0].checksum())
        (a, b) = ((m.value, +m.specials, -m.specials, m.count) for m in (pair[1], other[1]))
        assert same == (a == b, a == b)


class DotMachine(SumMachine):
    """Steps of `Dot`: each number times three quarters of the one before it."""

    KIND = exact.Dot

    def factors(self, values):
        return [0.75 * value for value in np.roll(values, 1).tolist()]

    def arguments(self, values):
        return [np.array(values, np.float64), np.array(self.factors(values), np.float64)]

    def addends(self, values):
        return [
            Fraction(a) * Fraction(b) if math.isfinite(a) and math.isfinite(b) else a * b
            for a, b in zip(values, self.factors(values), strict=True)
        ]


SETTINGS = settings(max_examples=60, stateful_step_count=20, deadline=None)
SumMachine.TestCase.settings = DotMachine.TestCase.settings = SETTINGS
TestSum = SumMachine.TestCase
TestDot = DotMachine.TestCase
