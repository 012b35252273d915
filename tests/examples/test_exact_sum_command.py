# SPDX-License-Identifier: Apache-2.0
"""The command line of the example: refusals with their exit codes, checksums, digits, the demo."""

import gzip
import os
import pty
import re
import struct
import subprocess
import sys
from decimal import Decimal
from fractions import Fraction
from hashlib import sha256
from pathlib import Path

import numpy as np
import pytest

EXAMPLES = Path(__file__).resolve().parent.parent.parent / "examples"

# Source, content of its file (None: no file), and the line on standard error.
REFUSED = {
    "missing.txt": (None, "missing.txt: No such file or directory"),
    "missing.csv:a": (None, "missing.csv: No such file or directory"),
    "folder": ("folder", "folder: Is a directory"),
    "empty.txt": (b"", "empty.txt: no values: the file is empty"),
    "blank.txt": (b"\n \n", "blank.txt: no values: the file is empty"),
    "empty.csv:a": (b"", "empty.csv: no values: the file is empty"),
    "header_only.csv:a": (b"a,b\n", "header_only.csv: no values: the file is empty"),
    "word.txt": (b"1\n\n2\nthree\n", "word.txt, line 4: 'three' is no number"),
    "two.txt": (b"1 2\n", "two.txt, line 1: '1 2' is no number"),
    "comma.txt": (b"1,5\n", "comma.txt, line 1: '1,5' is no number"),
    "underscore.txt": (b"1_000\n", "underscore.txt, line 1: '1_000' is no number"),
    "long.txt": (b"x" * 99, f"long.txt, line 1: '{'x' * 37}...' is no number"),
    "bytes.txt": (b"1\n\xff\xfe\n", "bytes.txt, line 2: '\ufffd\ufffd' is no number"),
    "range.txt": (b"1e308\n-1e309\n", "range.txt, line 2: -1e309 is beyond the range of float64"),
    "word.csv:b": (b"a,b\n1,2\n3,x\n", "word.csv, line 3: 'x' is no number"),
    "cell.csv:b": (b"a,b\n1,\n", "cell.csv, line 2: '' is no number"),
    "quoted.csv:b": (b'a,b\n"two\nlines",1\n3,x\n', "quoted.csv, line 4: 'x' is no number"),
    "short.csv:2": (b"a,b\n1,2\n\n3\n", "short.csv, line 4: 1 columns, and column 2 wanted"),
    "no_column.csv:c": (b"a,b\n", "no_column.csv: no column c; the first row: a, b"),
    "no_column.csv:3": (b"a,b\n", "no_column.csv: no column 3; the first row: a, b"),
    "no_column.csv:0": (b"a,b\n", "no_column.csv: no column 0; the first row: a, b"),
    "twice.csv:a": (b"a,a\n1,2\n", "twice.csv: more than one column is named a; count it, from 1"),
    "which.csv": (
        b"a,b\n1,2\n",
        "which.csv: name a column, as in which.csv:a; the first row: a, b",
    ),
    "damaged.txt.gz": (
        gzip.compress(b"1\n")[:10] + b"\xff" * 20,
        re.compile(r"damaged\.txt\.gz: damaged gzip data: .+"),
    ),
    "cut.txt.gz": (gzip.compress(b"1\n" * 999)[:-6], "cut.txt.gz: the file ends too early"),
    "other.txt.gz": (
        gzip.compress(b"1\n")[:-8] + gzip.compress(b"2\n")[-8:],
        re.compile(r"other\.txt\.gz: CRC check failed .+"),
    ),
    "no_array.npy": (b"1\n2\n", re.compile(r"no_array\.npy: not a \.npy file of numbers: .+")),
    "complex.npy": (
        np.ones(2, complex),
        "complex.npy: holds complex128, and real numbers are wanted",
    ),
    "words.npy": (np.array(["1", "2"]), "words.npy: holds <U1, and real numbers are wanted"),
    "empty.npy": (np.ones((0, 3)), "empty.npy: no values: the file is empty"),
}
GOOD = "good.txt"


@pytest.fixture(scope="module")
def folder(tmp_path_factory):
    folder = tmp_path_factory.mktemp("command")
    (folder / GOOD).write_text("0.1\n0.2\n0.3\n")
    for source, (content, _) in REFUSED.items():
        path = folder / source.partition(":")[0]
        if isinstance(content, bytes):
            path.write_bytes(content)
        elif isinstance(content, np.ndarray):
            np.save(path, content)
        elif content == "folder":
            path.mkdir()
    return folder


# --- Refusals


@pytest.fixture(scope="module")
def refusals(exact_sum, folder):
    """One run over all of them, and a good file last."""
    return exact_sum(*REFUSED, GOOD, folder=folder)


@pytest.mark.parametrize("index", range(len(REFUSED)), ids=REFUSED)
def test_refusal_is_one_clear_line(refusals, index):
    expected = list(REFUSED.values())[index][1]
    line = refusals.errors.splitlines()[index]
    program, _, message = line.partition(": ")
    assert program == "exact_sum.py"
    if isinstance(expected, re.Pattern):
        assert expected.fullmatch(message)
    else:
        assert message == expected


def test_nothing_else_is_printed_on_standard_error(refusals):
    assert len(refusals.errors.splitlines()) == len(REFUSED)


def test_good_file_is_summed_after_bad_ones_and_the_code_tells(refusals):
    assert refusals.figures(GOOD)["title"] == "good.txt: 3 values"
    assert refusals.code == 2


def test_single_missing_file_has_exit_code_2(exact_sum, folder):
    assert exact_sum("missing.txt", folder=folder).code == 2


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ([], "give files or --demo"),
        (["--demo", GOOD], "give files or --demo"),
        ([GOOD, GOOD, "--verify", "0" * 16], "--verify goes with one file"),
        ([GOOD, "--verify", "ABCDEF0123456789"], "16 to 64 lower-case hexadecimal characters"),
        ([GOOD, "--digits", "0"], "at least 1 digit is shown"),
    ],
)
def test_unusable_arguments_are_refused(exact_sum, folder, arguments, message):
    run = exact_sum(*arguments, folder=folder)
    assert run.code == 2
    assert message in run.errors.splitlines()[-1]


# --- Checksums


@pytest.fixture(scope="module")
def checksum():
    """That of the float64 nearest to the sum of the good file."""
    total = sum(map(Fraction, [0.1, 0.2, 0.3]))
    return sha256(struct.pack("<d", total.numerator / total.denominator)).hexdigest()


@pytest.mark.parametrize("length", [16, 64])
def test_verify_accepts_the_checksum(exact_sum, folder, checksum, length):
    run = exact_sum(GOOD, "--verify", checksum[:length], folder=folder)
    assert run.code == 0
    assert run.output.endswith(f"verified: {checksum[:length]}\n")


def test_verify_refuses_another_checksum_with_exit_code_1(exact_sum, folder, checksum):
    other = checksum[:15] + ("0" if checksum[15] != "0" else "1")
    run = exact_sum(GOOD, "--verify", other, folder=folder)
    assert run.code == 1
    assert f"TQX checksum mismatch!\n  Got:      {checksum[:16]}\n  Expected: {other}" in run.output
    assert run.errors == ""


def test_verify_of_unreadable_file_has_exit_code_2(exact_sum, folder):
    assert exact_sum("missing.txt", "--verify", "0" * 16, folder=folder).code == 2


# --- Digits


NOTATION = {
    "0": "0",
    "-0.001": "-0.00100000000... (first 9 of 58 digits)",
    "0.5": "0.5",
    "-1200": "-1200",
    "123456789": "123456789",
    "1234567890": "1.23456789E+9",
    "1e20": "1E+20",
    "1.5e-7": "1.49999999...E-7 (first 9 of 68 digits)",
    "0.1": "0.100000000... (first 9 of 55 digits)",
    "33.3": "33.2999999... (first 9 of 48 digits)",
}


@pytest.fixture(scope="module")
def notation_run(exact_sum, folder):
    for index, value in enumerate(NOTATION):
        (folder / f"n{index}").write_text(value)
    names = [f"n{index}" for index in range(len(NOTATION))]
    return exact_sum(*names, "--digits", 9, folder=folder)


@pytest.mark.parametrize("index", range(len(NOTATION)), ids=NOTATION)
def test_decimal_is_shown_in_full_or_with_the_count_of_its_digits(notation_run, index):
    value, expected = list(NOTATION.items())[index]
    count = re.search(r"of (\d+) digits", expected)
    if count:
        assert len(Decimal(float(value)).as_tuple().digits) == int(count[1])
    assert notation_run.figures(f"n{index}")["exact sum"] == expected


# --- Progress


def test_progress_bar_shows_on_a_terminal_for_a_large_file(folder):
    path = folder / "large.npy"
    array = np.lib.format.open_memmap(path, mode="w+", dtype=np.float64, shape=(6_300_000,))
    array[-1] = 2.0
    array.flush()
    terminal, terminal_of_process = pty.openpty()
    process = subprocess.Popen(
        [sys.executable, EXAMPLES / "exact_sum.py", path],
        stdout=subprocess.PIPE,
        stderr=terminal_of_process,
        text=True,
    )
    os.close(terminal_of_process)
    shown = read_terminal(terminal)
    output, _ = process.communicate(timeout=300)
    assert process.returncode == 0
    steps = re.findall(r"\rreading \[(#*)\.*\] +(\d+) % large\.npy", shown)
    percents = [int(percent) for _, percent in steps]
    assert len(percents) > 20 and percents == sorted(set(percents)) and percents[-1] == 100
    assert [len(bar) for bar, _ in steps][-1] == 40
    assert shown.endswith("\r\x1b[K")
    assert f"{path}: 6300000 values\n  exact sum        2\n" in output


def read_terminal(terminal):
    """Everything up to the end of the process, which a terminal reports as an error."""
    parts = []
    try:
        while part := os.read(terminal, 1 << 16):
            parts.append(part)
    except OSError:
        pass
    os.close(terminal)
    return b"".join(parts).decode()


# --- The demonstration


DATA = EXAMPLES / "data"
DATA_FILES = sorted(path.name for path in DATA.glob("*.txt"))


@pytest.fixture(scope="module")
def demo(exact_sum):
    return exact_sum("--demo", "--digits", 2000)


def decimal_mean(name):
    """The mean of the decimals in a file as published, which is what NIST certifies."""
    values = [Fraction(line) for line in (DATA / name).read_text().split()]
    return sum(values) / len(values)


def test_demo_succeeds(demo):
    assert (demo.code, demo.errors) == (0, "")


def test_three_data_sets_are_there():
    assert DATA_FILES == ["Lew.txt", "Michelso.txt", "NumAcc4.txt"]


@pytest.mark.parametrize("name", DATA_FILES)
def test_demo_shows_the_certified_mean(demo, name):
    certified, _, verdict = demo.figures(name)["certified mean"].partition(" ")
    assert Fraction(certified) == decimal_mean(name)
    assert verdict.strip() == "agrees in every digit"


@pytest.mark.parametrize("name", DATA_FILES)
def test_demo_agrees_with_the_certified_mean_to_its_digits(demo, name):
    rows = demo.figures(name)
    mean = Decimal(rows["exact mean"].partition(" (")[0].replace("...", ""))
    certified = Decimal(rows["certified mean"].split()[0])
    assert round(mean, -certified.as_tuple().exponent) == certified


@pytest.mark.parametrize("name", DATA_FILES)
def test_demo_sums_the_float64_values_of_the_file(demo, name):
    values = [Fraction(float(line)) for line in (DATA / name).read_text().split()]
    rows = demo.figures(name)
    assert Fraction(Decimal(rows["exact sum"])) == sum(values)
    assert rows["title"] == f"{name}: {len(values)} values"


def test_readme_of_the_data_tells_the_certified_means():
    lines = (DATA / "README.md").read_text().splitlines()
    rows = [re.split(r"\s*\|\s*", line)[1:-1] for line in lines if line.startswith("| `")]
    documented = {row[0].strip("`"): (int(row[2]), Fraction(row[3])) for row in rows}
    counts = {name: len((DATA / name).read_text().split()) for name in DATA_FILES}
    assert documented == {name: (counts[name], decimal_mean(name)) for name in DATA_FILES}


def test_demo_finds_the_known_sum_of_ill_conditioned_values_in_both_orders(demo):
    shuffled = demo.figures("ill-conditioned, shuffled")
    ascending = demo.figures("ill-conditioned, ascending")
    known = 1 + Fraction(2) ** -75
    assert Fraction(Decimal(shuffled["known sum"])) == known
    assert Fraction(Decimal(shuffled["exact sum"])) == known
    assert Fraction(Decimal(ascending["exact sum"])) == known
    assert shuffled["checksum"] == ascending["checksum"]
    assert shuffled["title"].endswith(": 1000000 values")


def test_ill_conditioned_values_defeat_the_float_sums(demo):
    for order in ("shuffled", "ascending"):
        rows = demo.figures(f"ill-conditioned, {order}")
        for name in ("numpy.sum", "torch.sum"):
            assert abs(float(rows[name].split()[0]) - 1.0) > 0.5
