# SPDX-License-Identifier: Apache-2.0
"""The table of how long each part of `make test` takes, and the script that takes the times."""

import subprocess
import sys
from pathlib import Path

from korvex_tools import times_of_tests

TREE = Path(__file__).resolve().parent.parent
JUNIT = """<testsuites><testsuite>
<testcase file="tests/limbs/test_a.py" classname="tests.limbs.test_a" time="60.0"/>
<testcase file="tests/limbs/test_b.py" classname="tests.limbs.test_b" time="30.0"/>
<testcase classname="tests.linalg.test_c" time="120.0"/>
<testcase file="tests/test_d.py" classname="tests.test_d" time="6.0"/>
<testcase file=".venv/lib/python3.12/site-packages/korvex/e.py" classname="korvex.e" time="3.0"/>
</testsuite></testsuites>
"""
EXPECTED = [
    "| part | minutes |",
    "|---|---|",
    "| build and installation | 1.5 |",
    "| Python tests | 3.0 |",
    "| … `tests/linalg` | 2.0 |",
    "| … `tests/limbs` | 1.5 |",
    "| … `tests` | 0.1 |",
    "| … doc strings | 0.1 |",
    "| together | 4.5 |",
]


def build_folder(folder):
    (folder / "times").mkdir()
    (folder / "times" / "build").write_text("90000\n")
    (folder / "times" / "python-tests").write_text("180000\n")
    (folder / "pytest.xml").write_text(JUNIT)
    return folder


def run(folder, *options):
    command = [sys.executable, "-P", "-m", "korvex_tools.times_of_tests", "--build", folder]
    return subprocess.run([*command, *options], capture_output=True, text=True, check=True).stdout


def test_parts_and_folders_are_added_up(tmp_path):
    assert run(build_folder(tmp_path)).splitlines() == EXPECTED


def test_table_is_written_between_its_marks(tmp_path):
    page = tmp_path / "page.md"
    mark = times_of_tests.MARK
    page.write_text(f"# Before\n\n<!-- {mark} -->\n\nold\n\n<!-- end of {mark} -->\n\nafter\n")
    run(build_folder(tmp_path), "--page", page, "--write")
    lines = page.read_text().splitlines()
    assert lines[:3] == ["# Before", "", f"<!-- {mark} -->"] and lines[-1] == "after"
    assert lines[6:-4] == EXPECTED and "old" not in lines


def test_document_has_the_marks():
    text = times_of_tests.PAGE.read_text()
    assert times_of_tests.filled(text, times_of_tests.MARK, ["x"]) != text


def timed(folder, *command):
    return subprocess.run([TREE / "scripts" / "timed.sh", "part", *command], cwd=folder).returncode


def test_time_of_a_command_that_succeeds_is_kept(tmp_path):
    assert timed(tmp_path, "sleep", "0.3") == 0
    assert 300 <= int((tmp_path / "build" / "times" / "part").read_text()) < 60_000


def test_run_that_finds_nothing_to_do_leaves_the_time_before(tmp_path):
    time = tmp_path / "build" / "times" / "part"
    time.parent.mkdir(parents=True)
    time.write_text("90000\n")
    assert timed(tmp_path, "true") == 0 and time.read_text() == "90000\n"
    assert timed(tmp_path, "sleep", "1") == 0 and 1000 <= int(time.read_text()) < 60_000


def test_command_that_fails_leaves_no_time_and_its_status(tmp_path):
    assert timed(tmp_path, "bash", "-c", "exit 3") == 3
    assert not (tmp_path / "build").exists()
