# SPDX-License-Identifier: Apache-2.0
"""`make mutation` makes the mutants that it should, and tells a killed one from a survivor; the
document says what the record of its run says."""

import json
import subprocess
import sys
from pathlib import Path

import pytest

from korvex_tools.mutation import command, record, trial
from korvex_tools.mutation.mutants import mutants_of, spread
from korvex_tools.mutation.prepared import EQUAL, Prepared, Request
from korvex_tools.mutation.programs import PROGRAMS, FailsUnchanged, Program, Tree
from korvex_tools.mutation.workers import Workers

TREE = Path(__file__).resolve().parent.parent
FILE = "korvex/arithmetic/bignum/truncated_float.h"
CARRY = "word[size] = carry;"
SIZE = "size = count - excess;"
AT = "return index < kWords && index < size ? word[index] : 0;"
SOURCE = """\
#define NOT_HERE (1 + 2)  // a + b
template <int kWords>
int f(int a, const int* b) {
  static_assert(sizeof(int) == 4, "a + b");
  if (a < 3 && *b != 0) {
    g(a);
  }
  return a - b[0] * 2;
}
"""
EXPECTED = {
    ("condition", "a < 3 && *b != 0", "true"),
    ("condition", "a < 3 && *b != 0", "false"),
    ("comparison", "<", "<="),
    ("constant", "3", "4"),
    ("constant", "3", "2"),
    ("operator", "&&", "||"),
    ("dropped term", "&& *b != 0", ""),
    ("dropped term", "a < 3 &&", ""),
    ("comparison", "!=", "=="),
    ("constant", "0", "1"),
    ("dropped statement", "g(a)", ""),
    ("operator", "-", "+"),
    ("dropped term", "- b[0] * 2", ""),
    ("dropped term", "a -", ""),
    ("operator", "*", "+"),
    ("constant", "2", "3"),
    ("constant", "2", "1"),
}


def test_mutants_are_small_changes_of_code_alone():
    mutants = mutants_of("f.h", SOURCE)
    assert {(m.kind, m.before, m.after) for m in mutants} == EXPECTED
    assert {m.line for m in mutants} == {5, 6, 8}


@pytest.mark.parametrize(
    "text, others",
    [
        ("0x1p-960", {"0x1p-959", "0x1p-961", "0x1p-920", "0x1p-1000"}),
        ("0x1.8p+2", {"0x1.8p+3", "0x1.8p+1", "0x1.8p+42", "0x1.8p-38", "0x1.9p+2"}),
        ("0x7fff", {"0x7ffe"}),
        ("0", {"1"}),
        ("0.5", {"1.5", "0.25"}),
    ],
)
def test_constants_move_in_their_last_place_and_far(text, others):
    found = {m.after for m in mutants_of("f.h", f"double f() {{ return {text}; }}\n")}
    assert found == others


def test_every_target_has_mutants_and_a_sample_takes_of_each():
    names = command.target_files([])
    of_file = {name: mutants_of(name, (TREE / name).read_text()) for name in names}
    with_some = {name for name, mutants in of_file.items() if mutants}
    assert len(with_some) > 40
    sample = spread([m for mutants in of_file.values() for m in mutants], 1, len(with_some))
    assert {mutant.file for mutant in sample} == with_some
    assert sample == spread([m for ms in of_file.values() for m in ms], 1, len(with_some))


@pytest.fixture(scope="module")
def trials(tmp_path_factory):
    tree = Tree(tmp_path_factory.mktemp("mutation") / "tree", command.compiler())
    tree.fill()
    made = trial.Trials(tree, ["base"])
    yield made
    made.close()


def planted(line, before, after):
    """A mutant of FILE."""
    source = (TREE / FILE).read_text()
    assert source.count(line) == 1
    begin = source.index(line) + line.index(before)
    return type(mutants_of(FILE, source)[0])(FILE, 0, 0, "planted", before, after, line, begin)


@pytest.mark.parametrize(
    "line, before, after, outcome",
    [
        (CARRY, "word[size] = carry", "", "killed"),
        (AT, "index < kWords &&", "", "survived"),
        (SIZE, "count - excess", "count - wrong", "not compiled"),
        (SIZE, "count - excess", "count  -  excess", "equivalent"),
    ],
)
def test_a_planted_fault_is_told_from_a_survivor(trials, line, before, after, outcome):
    mutant = planted(line, before, after)
    assert trials.try_tests(mutant, ["bignum"])["outcome"] == outcome
    assert (trials.tree.folder / FILE).read_text() == (TREE / FILE).read_text()


def test_workers_try_mutants_and_keep_objects_of_the_originals(tmp_path, monkeypatch):
    monkeypatch.setitem(trial.OWN_TESTS, FILE, "bignum")
    killed, left = planted(CARRY, "word[size] = carry", ""), planted(AT, "index < kWords &&", "")
    workers = Workers(tmp_path, command.compiler(), 2)
    try:
        found = {mutant: outcome for mutant, outcome, _ in workers.own_tests([killed, left])}
    finally:
        workers.close()
    assert found[killed] == {"outcome": "killed", "by": "bignum base"}
    assert found[left]["outcome"] == "survived its own tests"
    assert len([*(tmp_path / "originals").glob("*.o")]) == len(PROGRAMS["bignum"].sources)


def test_a_survivor_is_compared_as_object_code_and_then_meets_all_other_tests(trials, monkeypatch):
    programs = {name: PROGRAMS[name] for name in ("bignum", "eft")}
    programs["golden"] = Program("golden", programs["bignum"].sources, is_library=True)
    monkeypatch.setattr(trial, "PROGRAMS", programs)
    monkeypatch.setattr(trial, "LIBRARY_CHECKS", ())
    monkeypatch.setitem(trial.OWN_TESTS, FILE, "bignum golden")
    same, other = planted(SIZE, "count - excess", "count  -  excess"), planted(AT, "0;", "1;")
    assert trials.other_tests(FILE) == []
    assert trials.try_all_tests(same) == {"outcome": "equivalent"}
    assert trials.try_all_tests(other) == {"outcome": "survived", "passed": []}
    killed = planted(CARRY, "word[size] = carry", "")
    monkeypatch.setattr(trials, "other_tests", lambda _: ["bignum"])
    assert trials.try_all_tests(killed) == {"outcome": "killed", "by": "bignum base"}


# --- What fails on the tree as it is tells nothing of mutants


def test_a_program_that_fails_unchanged_ends_the_run(trials):
    source = trials.tree.folder / "tests/cpp/test_eft.cpp"
    before = source.read_text()
    source.write_text("#include <cstdlib>\nnamespace korvex::test { void test_eft() { exit(3); } }")
    try:
        with pytest.raises(FailsUnchanged, match="eft base fails on the tree as it is: status 3"):
            trials.try_own_tests(mutants_of("korvex/arithmetic/base/eft.h", SOURCE)[0])
    finally:
        source.write_text(before)
        trials.tree.objects.clear()


@pytest.mark.parametrize("name", ["golden", "exact"])
def test_a_python_check_that_fails_unchanged_ends_the_run(trials, monkeypatch, name):
    answers = ["ModuleNotFoundError: No module named 'korvex'", EQUAL]
    monkeypatch.setattr(trials.tree, "original", lambda *_: b"")
    monkeypatch.setattr(trials.tree, "link", lambda *_: Path("library.so"))
    monkeypatch.setattr(trials.checks[name], "answer", lambda _: (answers.pop(0), 1.5))
    with pytest.raises(FailsUnchanged, match=f"{name} base fails.*No module named 'korvex'"):
        trials.prepare(PROGRAMS[name], "base")
    trials.prepare(PROGRAMS[name], "base")
    assert answers == [] and trials.tree.seconds.pop(f"{name} base") == 1.5
    trials.tree.folder.with_name(f"seconds of {name} base").unlink()


@pytest.mark.parametrize("name", ["golden", "exact"])
def test_a_library_that_is_none_does_not_pass_a_python_check(tmp_path, name):
    library = tmp_path / "library.so"
    library.write_text("no library")
    check = Prepared(f"korvex_tools.mutation.{name}_cases")
    try:
        said, _ = check.answer(Request("", str(library), "base", 100))
    finally:
        check.close()
    assert said == "pytest ended with 4" if name == "exact" else "library.so" in said


def test_command_says_what_fails_unchanged(monkeypatch, capsys, tmp_path):
    def fail(*_):
        raise FailsUnchanged("golden base fails on the tree as it is: because")

    monkeypatch.setattr(command.Workers, "own_tests", fail)
    arguments = ["mutation", "--files", "*/unary.h", "--output", str(tmp_path / "outcomes.jsonl")]
    monkeypatch.setattr(sys, "argv", [*arguments, "--folder", str(tmp_path)])
    with pytest.raises(SystemExit, match="mutation: golden base fails on the tree as it is"):
        command.main()


# --- The own tests of a file


def test_every_file_that_is_mutated_has_own_tests_that_include_it(trials):
    with_mutants = {n for n in command.target_files([]) if mutants_of(n, (TREE / n).read_text())}
    assert with_mutants == set(trial.OWN_TESTS)
    for file in with_mutants:
        for name in trials.own_tests(file):
            assert trials.tree.covers(PROGRAMS[name], file), f"{name} does not include {file}"


def test_an_outcome_holds_while_its_line_stands(tmp_path):
    mutants = mutants_of("f.h", SOURCE)
    rows = [{"mutant": m.name, "line": m.line_before, "outcome": "killed"} for m in mutants]
    rows[0]["line"] += "  // other code"
    rows[1]["mutant"] = rows[1]["mutant"].replace("f.h:", "f.h:9")
    output = tmp_path / "outcomes.jsonl"
    output.write_text("".join(json.dumps(row) + "\n" for row in rows))
    assert command.read(output, mutants) == {row["mutant"]: row for row in rows[2:]}
    assert command.read(tmp_path / "none", mutants) == {}


# --- Record


def test_an_unexplained_survivor_is_counted_and_an_explained_one_is_shown():
    row = {"mutant": "m", "file": FILE, "kind": "k", "line": "l", "before": "b", "after": "a"}
    killed, survived = row | {"outcome": "killed", "by": "t"}, row | {"outcome": "survived"}
    found = {"mutants": [killed, survived]}
    assert record.unexplained(found) == [survived]
    assert record.score(found["mutants"]) == "1 of 2 (50.0 %)"
    explained = survived | {"outcome": "explained", "why": "it cannot differ"}
    assert record.unexplained({"mutants": [killed, explained]}) == []
    assert "- it cannot differ" in record.lines_of_survivors([killed, explained])


def test_document_says_what_the_record_says():
    found = json.loads(record.RECORD.read_text())
    text = record.PAGE.read_text()
    assert record.page(text, found) == text
    assert len(found["mutants"]) == len({row["mutant"] for row in found["mutants"]})


def test_every_reason_is_for_code_that_is_there():
    for file, line, before, _ in record.reasons():
        lines = [text.strip() for text in (TREE / file).read_text().splitlines()]
        assert line in lines and before.split("\n")[0] in line


def test_command_refuses_a_file_that_has_no_mutants(tmp_path):
    program = [sys.executable, "-P", "-m", "korvex_tools.mutation", "--files", "nothing.h"]
    ended = subprocess.run([*program, "--folder", tmp_path], capture_output=True, text=True)
    assert ended.returncode == 1 and "nothing.h" in ended.stderr
    assert list(tmp_path.iterdir()) == []  # a run that goes on keeps its copy of the tree
