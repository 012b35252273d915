# SPDX-License-Identifier: Apache-2.0
"""As many processes as no machine here has: their messages are states, added up word by word."""

import threading
from fractions import Fraction

import numpy as np
import pytest

from korvex import exact
from korvex.exact import _processes

MAX = (2.0 - 2.0**-52) * 2.0**1023
MOST_RANKS = 2**31 - 1
KINDS = (exact.Sum, exact.Dot, exact.Moments)


def filled(kind, x):
    total = kind()
    total.add(*[x] * (2 if kind is exact.Dot else 1))
    return total


def wide(count):
    generator = np.random.default_rng(8)
    return generator.standard_normal(count) * 2.0 ** generator.uniform(-500, 500, count)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("ranks", [64, 1000])
def test_states_of_many_add_up(kind, ranks):
    x = wide(10_000)
    generator = np.random.default_rng(ranks)
    cuts = np.sort(generator.integers(0, x.size + 1, ranks - 1))
    states = [filled(kind, piece).state for piece in np.split(x, cuts)]
    generator.shuffle(states)
    total = kind()
    total.state[:] = np.sum(states, axis=0)
    assert total == filled(kind, x)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("ranks", [64, 1000])
def test_pairs_merge_in_any_tree(kind, ranks):
    x = wide(5000)
    parts = [filled(kind, piece) for piece in np.array_split(x, ranks)]
    generator = np.random.default_rng(ranks)
    while len(parts) > 1:
        left = parts.pop(generator.integers(len(parts)))
        parts[generator.integers(len(parts))] += left
    assert parts[0] == filled(kind, x)


@pytest.mark.parametrize(
    "values",
    [[MAX], [-MAX], [2.0**-1074], [-(2.0**-1074)], [MAX, -(2.0**-1074)], [-MAX, 2.0**-1074]],
)
@pytest.mark.parametrize("kind", KINDS)
def test_the_most_processes_fit(kind, values):
    """The words of as many equal messages as there may be, which is what the engine leaves.

    -2^-1074 has every digit but the top one at its largest, 2^32 - 1.
    """
    x = np.array(values)
    total = filled(kind, x)
    words = [int(word) * MOST_RANKS for word in total.state]
    assert max(map(abs, words)) < 2**63
    total.state[:] = words
    assert total.count == len(values) * MOST_RANKS
    exact_sum = sum(map(Fraction, values)) * MOST_RANKS
    squares = sum(Fraction(value) ** 2 for value in values) * MOST_RANKS
    if kind is exact.Moments:
        assert total.sum().to_fraction() == exact_sum
        assert total.sum_of_squares().to_fraction() == squares
    else:
        assert total.to_fraction() == (exact_sum if kind is exact.Sum else squares)


def test_every_settled_digit_has_room_for_the_most_processes():
    """By construction: no settled digit is above 2^32 - 1, and the top one is far from its end."""
    assert (2**32 - 1) * MOST_RANKS < 2**63
    for kind in KINDS:
        state = filled(kind, np.full(1000, MAX)).state
        assert abs(int(state[-5])) * MOST_RANKS < 2**63


class FakeEngine:
    """What a group of 2^31 - 1 processes with equal states would leave in the message."""

    class ReduceOp:
        SUM = "sum"

    def get_rank(self, group=None):
        return 0

    def get_world_size(self, group=None):
        return MOST_RANKS

    def get_backend(self, group=None):
        return "gloo"

    def all_reduce(self, tensor, op, group, async_op):
        assert op == "sum" and not async_op
        tensor *= MOST_RANKS


def test_all_reduce_of_the_most_processes(monkeypatch):
    monkeypatch.setattr(_processes, "distributed", FakeEngine)
    total = filled(exact.Sum, np.array([-(2.0**-1074), 1 / 3]))
    expected = total.to_fraction() * MOST_RANKS
    total.all_reduce()
    assert total.to_fraction() == expected and total.count == 2 * MOST_RANKS


def test_a_call_that_fails_leaves_the_state(monkeypatch):
    """Also where the engine has written into its message already."""

    class Failing(FakeEngine):
        def all_reduce(self, tensor, op, group, async_op):
            tensor[:] = 7
            raise RuntimeError("the peer is gone")

        def reduce(self, tensor, dst, op, group):
            self.all_reduce(tensor, op, group, False)

    monkeypatch.setattr(_processes, "distributed", Failing)
    total = filled(exact.Moments, np.array([0.5]))
    before = total.copy()
    for call in (total.all_reduce, lambda: total.reduce(0)):
        with pytest.raises(RuntimeError, match="^the peer is gone$"):
            call()
        assert total == before


def test_a_process_outside_of_the_group(monkeypatch):
    class Outside(FakeEngine):
        def get_rank(self, group=None):
            return -1

    monkeypatch.setattr(_processes, "distributed", Outside)
    with pytest.raises(ValueError, match="group does not have this process in it"):
        exact.Sum().all_reduce()


# --- Works of asynchronous calls


def test_the_step_after_an_engines_work_is_made_once():
    import torch.distributed as dist

    from korvex.exact._works import WorkWithStep

    class EnginesWork(dist.Work):
        is_over, error = False, None

        def is_completed(self):
            return self.is_over

        def wait(self, *arguments):
            if self.error:
                raise self.error
            self.is_over = True
            return True

    steps = []
    work = WorkWithStep(EnginesWork(), lambda: steps.append(1))
    assert isinstance(work, dist.Work) and not work.is_completed() and not steps
    assert work.wait() and work.wait() and work.is_completed() and steps == [1]

    failing = EnginesWork()
    failing.error = RuntimeError("the peer is gone")
    work = WorkWithStep(failing, lambda: steps.append(2))
    for _ in range(2):
        with pytest.raises(RuntimeError, match="the peer is gone"):
            work.wait()
    assert steps == [1]


def test_a_call_that_fails_on_its_thread_says_so_where_it_is_waited_for():
    import datetime

    import torch

    from korvex.exact._works import WorkOnThread

    begin = threading.Event()

    def fail():
        begin.wait(60)
        raise ConnectionError("the peer is gone")

    work = WorkOnThread(fail, torch.zeros(1))
    assert not work.is_completed()
    with pytest.raises(RuntimeError, match="not completed after 0:00:00.01"):
        work.wait(datetime.timedelta(seconds=0.01))
    begin.set()
    with pytest.raises(ConnectionError, match="the peer is gone"):
        work.wait()
    assert work.is_completed()
    with pytest.raises(ConnectionError, match="the peer is gone"):
        work.get_future().wait()
