# SPDX-License-Identifier: Apache-2.0
"""The list of promises against the module, the golden cases, the kernels and the page."""

import re
from collections import Counter

import pytest
from public_signatures import METHODS

from korvex.emulation._library import HostLibrary
from korvex_tools.verify import golden, promises, report

CASES = [
    (maker.stem.removeprefix("make_"), case)
    for maker in golden.makers()
    for case in golden.load_script(maker).CASES
]
NO_RESULT = {"__version__", "TQXResult", "TQXVerifiedResult"}
NAMES = {row.name.partition(",")[0] for row in promises.PROMISES}


def test_every_public_function_has_a_row(module):
    assert set(module.__all__) - NO_RESULT - NAMES == set()


def test_every_method_that_yields_something_has_a_row():
    methods = {row.path for row in METHODS if not row.name.startswith("__") or "float" in row.name}
    assert methods - NAMES == set()


def test_every_row_is_of_something_that_exists(module):
    for name in NAMES:
        owner = module
        for part in name.split("."):
            owner = vars(owner)[part]


@pytest.mark.parametrize(
    "row", [row for row in promises.PROMISES if row.is_promised], ids=lambda row: row.call
)
def test_what_is_promised_is_compared_by_each_case_named(row):
    for beginning in row.cases:
        some = promises.Promise(row.call, True, row.why, (beginning,))
        assert any(some.covers(folder, case.name) and not case.long for folder, case in CASES)
    assert row.cases and row.why


def test_every_case_belongs_to_a_row():
    others = [(f, c.name) for f, c in CASES if f != promises.KERNEL_FOLDER]
    assert [case for case in others if not any(r.covers(*case) for r in promises.PROMISES)] == []


def test_no_case_is_both_promised_and_not():
    for folder, case in CASES:
        rows = [row for row in promises.PROMISES if row.covers(folder, case.name)]
        assert len({row.is_promised for row in rows}) <= 1, case.name


def test_a_beginning_ends_where_a_word_ends():
    row = promises.Promise("tqx_min", True, "", ("composed: tqx_min",))
    assert row.covers("composed", "tqx_min, ties") and not row.covers("composed", "tqx_minus")


def test_cases_that_divide_by_numbers_as_cuda_does_are_not_compared():
    marked = [(f, c.name) for f, c in CASES if "divides by numbers" in c.name]
    assert marked and not any(promises.is_compared(*case) for case in marked)


def test_every_kernel_has_a_million_values_in_the_long_form():
    counted = Counter()
    for folder, case in CASES:
        size = re.search(r", (\d+) (?:values|elements)$", case.name)
        if folder == promises.KERNEL_FOLDER and size:
            counted[case.name.partition(",")[0]] += int(size[1]) * case.long
    kernels = HostLibrary("base", 1).kernels
    assert set(counted) == set(kernels) and len(kernels) == 23
    assert min(counted.values()) >= 10**6


def test_page_shows_these_promises_and_the_reports_that_are_there():
    text = report.PAGE.read_text()
    assert report.page(text) == text, "run python -P -m korvex_tools.verify.report"
