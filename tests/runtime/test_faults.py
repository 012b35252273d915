# SPDX-License-Identifier: Apache-2.0
"""A failure at every call out of the module, one after the other.

Each function takes its plain routes (`call_routes.py`) with spies; then again and again with the
first, the second, ... the last operation failing. The exception must come out as the very object
that was raised, nothing may follow it, and blocks of memory must not add up. Two places treat an
exception in another way, and there the reference implementation says how it must end.
"""

import gc
import sys

import call_routes
import pytest
import reference_runtime
from public_signatures import ROWS

pytestmark = pytest.mark.usefixtures("quick_collections")


class Fault(Exception):
    """No exception that any code could expect."""


class Stop(BaseException):
    """Like the interpreter's own ways out: KeyboardInterrupt, SystemExit."""


KINDS = [Fault, Stop, RuntimeError, AttributeError, TypeError, ImportError]

# Long sequences are loops of like steps: the ordinary run takes so many places of each, spread out.
MOST_PLACES = 120


@pytest.fixture(autouse=True)
def _restored(module):
    reference_runtime.bind(module)
    with call_routes.restored(module, reference_runtime):
        yield


def places_of_faults(row, module, most=MOST_PLACES):
    """Each distinct route of a function with its calls at which no earlier route has failed.

    Up to a fault, two routes with the same calls do the same.
    """
    seen = set()
    for route in call_routes.distinct_routes(row, module):
        places, calls = [], 0
        for place, event in enumerate(call_routes.record(route, module)[0].events):
            calls = hash((calls, call_routes.without_numbers(event)))
            if calls not in seen:
                places.append(place)
                seen.add(calls)
        yield route, places[:: max(1, len(places) // most)]


def count_of_events(route, module):
    return len(call_routes.record(route, module)[0].events)


def may_become_another(event, kind):
    """torch.broadcast_shapes may be reworded; hasattr takes an AttributeError for a no."""
    return (kind is RuntimeError and "broadcast_shapes(" in event) or (
        kind is AttributeError and "(" not in event
    )


def check_fault(route, module, place, kind):
    fault = kind("fault")
    recorder, result, error = call_routes.record(route, module, place, fault)
    if error is not fault and may_become_another(recorder.events[place], kind):
        check_against_reference(route, module, place, kind)
        return
    assert error is fault, f"{route}, event {place}: {recorder.events[place]}"
    assert error.__context__ is None and error.__cause__ is None
    assert len(recorder.events) == place + 1, f"{route} went on after {recorder.events[place]}"


def check_against_reference(route, module, place, kind):
    endings = []
    for runtime in (module, reference_runtime):
        recorder, _, error = call_routes.record(route, runtime, place, kind("fault"))
        endings.append(
            (
                recorder.events,
                type(error),
                str(error),
                type(error and error.__cause__),
                type(error and error.__context__),
            )
        )
    assert endings[0] == endings[1], f"{route}, event {place}"


@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_fault_at_every_call_comes_out_unchanged(module, row, record_property):
    injected = 0
    for route, places in places_of_faults(row, module):
        count = count_of_events(route, module)
        for place in places:
            check_fault(route, module, place, KINDS[injected % len(KINDS)])
            injected += 1
        for kind in KINDS:  # each kind at the last call too
            if count:
                check_fault(route, module, count - 1, kind)
                injected += 1
        assert count_of_events(route, module) == count  # it works as before
    record_property("faults injected", injected)


@pytest.mark.long
@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_fault_of_every_kind_at_every_call(module, row, record_property):
    injected = 0
    for route in call_routes.distinct_routes(row, module):
        for place in range(count_of_events(route, module)):
            for kind in KINDS:
                check_fault(route, module, place, kind)
                injected += 1
    record_property("faults injected", injected)


def all_faults(found, module):
    """A fault at every place of every route, one after the other."""
    injected = 0
    for route, places in found:
        for place in places:
            call_routes.record(route, module, place, Fault())
            injected += 1
    gc.collect()
    return injected


@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_faults_leave_nothing(module, row, record_property):
    found = list(places_of_faults(row, module, most=30))
    injected = all_faults(found, module)
    for _ in range(4):  # free lists fill in some rounds, a leak shows in all
        before = sys.getallocatedblocks()
        all_faults(found, module)
        if sys.getallocatedblocks() - before < max(injected / 2, 5):
            break
    else:
        pytest.fail("memory grows with every round of faults")
    record_property("faults injected", 2 * injected)


def test_wrong_exception_would_be_noticed(module, monkeypatch):
    """A runtime that rewords a failure does not pass."""

    class Rewording:
        def __init__(self, row):
            self.row, self.path = row, row.path

        def __getattr__(self, name):
            return getattr(self.row, name)

        def call(self, runtime, *args, **kwargs):
            try:
                return self.row.call(runtime, *args, **kwargs)
            except Exception as error:
                raise ValueError("reworded") from error

    row = next(row for row in ROWS if row.path == "tqx_sum")
    with pytest.raises(AssertionError):
        check_fault(call_routes.Route(Rewording(row)), module, 3, Fault)
