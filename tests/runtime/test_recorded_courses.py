# SPDX-License-Identifier: Apache-2.0
"""Every function does to its operands and libraries what its plain-Python rendering does.

All operations on spies are compared, one by one and in order, on every route of a function that the
courses of `courses.py` reach. So each launch, each wait and each allocation is covered.
"""

import courses
import pytest
import reference_runtime
from call_recorder import Spy, text
from public_signatures import ROWS

LAUNCH = (".launch(", ".function(")
WAIT = [".cuda", ".cuda.Stream", ".cuda.Stream.null", ".cuda.Stream.null.synchronize"]


@pytest.fixture(autouse=True)
def _restored(module):
    reference_runtime.bind(module)
    with courses.restored(module, reference_runtime):
        yield


def shown(value):
    if isinstance(value, (Spy, tuple, list)):
        return text(value)
    if type(value).__name__ in ("TQXResult", "TQXVerifiedResult"):
        return {name: shown(part) for name, part in vars(value).items()}
    return repr(value)


def ending(walked):
    recorder, result, error = walked
    return shown(result), type(error).__name__, str(error)


def unwaited_launches(events):
    """How many launches are not followed, at once, by the wait on the null stream."""
    unwaited = 0
    for place, event in enumerate(events):
        if any(mark in event for mark in LAUNCH):
            following = events[place + 1 : place + 6]
            told = [f"cp{path}" for path in WAIT] + ["cp.cuda.Stream.null.synchronize()"]
            unwaited += following != told
    return unwaited


@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_function_takes_the_told_steps(module, row):
    for course in courses.distinct_courses(row, module):
        of_module = courses.walk(course, module)
        of_rendering = courses.walk(course, reference_runtime)
        assert of_module[0].events == of_rendering[0].events, str(course)
        assert ending(of_module) == ending(of_rendering), str(course)


@pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])
def test_each_launch_is_waited_for_at_once(module, row):
    for course in courses.distinct_courses(row, module):
        assert unwaited_launches(courses.walk(course, module)[0].events) == 0, str(course)


def test_every_kernel_is_reached_by_some_course(module):
    reached = set()
    for row in ROWS:
        for course in courses.distinct_courses(row, module):
            for event in courses.walk(course, module)[0].events:
                if "get_kernel(" in event:
                    reached.add(event.partition("'")[2].rstrip("')"))
    assert len(reached) == 23


def test_launch_without_its_wait_would_be_noticed():
    assert unwaited_launches(["#1.launch(#2, grid=(1, 1, 1))", "#3 + #4"]) == 1
