# SPDX-License-Identifier: Apache-2.0
"""CHANGELOG.md keeps the form of Keep a Changelog: versions, newest first, with dates and kinds."""

import datetime
import re
from pathlib import Path

TEXT = (Path(__file__).resolve().parents[2] / "CHANGELOG.md").read_text()
VERSION = re.compile(r"^## \[(Unreleased|\d+\.\d+\.\d+)\](?: - (\d{4}-\d\d-\d\d))?$")
KINDS = {"Added", "Changed", "Deprecated", "Removed", "Fixed", "Security"}


def test_each_version_has_its_date():
    headings = [line for line in TEXT.splitlines() if line.startswith("## ")]
    found = [VERSION.match(line) for line in headings]
    assert all(found) and len(found) > 1, headings
    assert (found[0][1], found[0][2]) == ("Unreleased", None)
    dates = [datetime.date.fromisoformat(each[2]) for each in found[1:]]
    assert dates == sorted(dates, reverse=True)
    numbers = [tuple(map(int, each[1].split("."))) for each in found[1:]]
    assert numbers == sorted(numbers, reverse=True)


def test_every_change_has_its_kind():
    for section in re.split(r"^## .*$", TEXT, flags=re.MULTILINE)[1:]:
        kinds = re.findall(r"^### (.*)$", section, re.MULTILINE)
        assert kinds and set(kinds) <= KINDS and len(kinds) == len(set(kinds))
        assert not re.search(r"^- ", section.partition("### ")[0], re.MULTILINE)
