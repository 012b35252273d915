# SPDX-License-Identifier: Apache-2.0
"""Every function makes the calls of its reference implementation, one by one and in order.

All operations on operands and libraries are compared, on every route of `call_routes.py`. So each
launch, each wait and each allocation is covered. One sequence a family is written out by hand, in
`test_recorded_*.py` of the family's folder: it holds of both.
"""

import call_routes
import pytest
import reference_runtime
from call_recorder import Spy, text
from public_signatures import ROWS

LAUNCH = (".launch(", ".function(")
WAIT = [".cuda", ".cuda.Stream", ".cuda.Stream.null", ".cuda.Stream.null.synchronize"]


@pytest.fixture(autouse=True)
def _restored(module):
    reference_runtime.bind(module)
    with call_routes.restored(module, reference_runtime):
        yield


def shown(value):
    if isinstance(value, (Spy, tuple, list)):
        return text(value)
    if type(value).__name__ in ("TQXResult", "TQXVerifiedResult"):
        return {name: shown(part) for name, part in vars(value).items()}
    return repr(value)


def ending(recorded):
    _, result, error = recorded
    return shown(result), type(error).__name__, str(error)


def places_of_launches(events):
    return [place for place, event in enumerate(events) if any(mark in event for mark in LAUNCH)]


def unwaited_launches(events):
    """How many launches are not followed, at once, by the wait on the null stream."""
    wait = [f"cp{path}" for path in WAIT] + ["cp.cuda.Stream.null.synchronize()"]
    following = [events[place + 1 : place + 6] for place in places_of_launches(events)]
    return sum(events != wait for events in following)


@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_function_makes_the_calls_of_its_reference_implementation(module, row):
    for route in call_routes.routes_of(row):
        of_module = call_routes.record(route, module)
        of_reference = call_routes.record(route, reference_runtime)
        assert of_module[0].events == of_reference[0].events, str(route)
        assert ending(of_module) == ending(of_reference), str(route)


@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_each_launch_is_waited_for_at_once(module, row):
    for route in call_routes.distinct_routes(row, module):
        events = call_routes.record(route, module)[0].events
        fetched = sum("get_kernel(" in event for event in events)
        assert len(places_of_launches(events)) == fetched, str(route)
        assert unwaited_launches(events) == 0, str(route)


def test_every_kernel_is_reached_by_some_route(module):
    reached = set()
    for row in ROWS:
        for route in call_routes.distinct_routes(row, module):
            for event in call_routes.record(route, module)[0].events:
                if "get_kernel(" in event:
                    reached.add(event.partition("'")[2].rstrip("')"))
    assert len(reached) == 23


def test_launch_without_its_wait_would_be_noticed():
    assert unwaited_launches(["#1.launch(#2, grid=(1, 1, 1))", "#3 + #4"]) == 1
