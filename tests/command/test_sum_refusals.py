# SPDX-License-Identifier: Apache-2.0
"""What `korvex sum` refuses, one clear line each, with exit codes; checksums and digits."""

import gzip
import io
import re
from decimal import Decimal

import numpy as np
import pytest

from korvex import exact


def npz(**arrays):
    stream = io.BytesIO()
    np.savez_compressed(stream, **arrays)
    return stream.getvalue()


def npy(array):
    stream = io.BytesIO()
    np.save(stream, array)
    return stream.getvalue()


SOME = npy(np.arange(100.0))

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
    "no_column.csv:c": (b"a,b\n", "no_column.csv: no column c; the columns: a, b"),
    "no_third.csv:3": (b"a,b\n", "no_third.csv: no column 3; the columns: a, b"),
    "no_zeroth.csv:0": (b"a,b\n", "no_zeroth.csv: no column 0; the columns: a, b"),
    "twice.csv:a": (b"a,a\n1,2\n", "twice.csv: more than one column is named a; count it, from 1"),
    "words.csv": (b"a,b\nx,y\n", "words.csv: holds text, and real numbers are wanted"),
    "later.csv": (b"a,b\n1,2\n3,x\n", "later.csv, line 3: 'x' is no number"),
    "text.txt:a": (b"1\n", "text.txt: no column a; the columns: 1"),
    "array.npy:a": (SOME, "array.npy: no column a: the file is one column without a name"),
    "damaged.txt.gz": (
        gzip.compress(b"1\n")[:10] + b"\xff" * 20,
        re.compile(r"damaged\.txt\.gz: not gzip data, or damaged: .+"),
    ),
    "cut.txt.gz": (
        gzip.compress(b"1\n" * 999)[:-6],
        re.compile(r"cut\.txt\.gz: the file ends too early: .+"),
    ),
    "other.txt.gz": (
        gzip.compress(b"1\n")[:-8] + gzip.compress(b"2\n")[-8:],
        re.compile(r"other\.txt\.gz: not gzip data, or damaged: .+"),
    ),
    "no_array.npy": (b"1\n2\n", "no_array.npy: not a .npy file: it does not begin as one"),
    "bad_header.npy": (
        SOME[:12] + b"x" * len(SOME[12:]),
        re.compile(r"bad_header\.npy: not a \.npy file, or damaged: .+"),
    ),
    "cut.npy": (SOME[:-1], "cut.npy: the file ends too early: 100 values are announced"),
    "cut_header.npy": (SOME[:40], re.compile(r"cut_header\.npy: .+")),
    "long.npy": (SOME + b"1", "long.npy: more bytes follow the array than its header says"),
    "complex.npy": (
        npy(np.ones(2, complex)),
        "complex.npy: holds complex128, and real numbers are wanted",
    ),
    "words.npy": (npy(np.array(["1", "2"])), "words.npy: holds <U1, and real numbers are wanted"),
    "empty.npy": (npy(np.ones((0, 3))), "empty.npy: no values: the file is empty"),
    "times.npy": (
        npy(np.array([1, 2], "M8[s]")),
        "times.npy: holds datetime64[s], and real numbers are wanted",
    ),
    "cut.npz": (npz(a=np.ones(99))[:-9], re.compile(r"cut\.npz: .+")),
    "changed.npz:a": (
        npz(a=np.arange(999.0)).replace(b"a.npy", b"b.npy", 1),
        re.compile(r"changed\.npz: .+"),
    ),
    "words.npz": (
        npz(a=np.array(["x"])),
        "words.npz: holds <U1, and real numbers are wanted",
    ),
    "feather1.arrow": (b"FEA1" + bytes(99), "feather1.arrow: Feather of version 1 is not read"),
    "short.parquet": (b"PAR1" + bytes(99), re.compile(r"short\.parquet: .+")),
    "short.arrow": (b"ARROW1\0\0" + bytes(99), re.compile(r"short\.arrow: .+")),
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
        elif content == "folder":
            path.mkdir()
    return folder


# --- Refusals


@pytest.fixture(scope="module")
def refusals(korvex, folder):
    """One run over all of them, and a good file last."""
    return korvex("sum", *REFUSED, GOOD, folder=folder)


@pytest.mark.parametrize("index", range(len(REFUSED)), ids=REFUSED)
def test_refusal_is_one_clear_line(refusals, index):
    expected = list(REFUSED.values())[index][1]
    line = refusals.errors.splitlines()[index]
    program, _, message = line.partition(": ")
    assert program == "korvex"
    if isinstance(expected, re.Pattern):
        assert expected.fullmatch(message)
    else:
        assert message == expected


def test_nothing_else_is_printed_on_standard_error(refusals):
    assert len(refusals.errors.splitlines()) == len(REFUSED)


def test_good_file_is_summed_after_bad_ones_and_the_code_tells(refusals):
    assert refusals.figures(GOOD)["title"] == "good.txt: 3 values"
    assert refusals.code == 2


def test_single_missing_file_has_exit_code_2(korvex, folder):
    run = korvex("sum", "missing.txt", folder=folder)
    assert (run.code, run.output) == (2, "")


@pytest.mark.parametrize(
    ("arguments", "message"),
    [
        ([], "the following arguments are required: FILE"),
        ([GOOD, "word.csv:a", "--verify", "0" * 16], "--verify goes with one column"),
        ([GOOD, "--verify", "ABCDEF0123456789"], "16 to 64 lower-case hexadecimal characters"),
        ([GOOD, "--digits", "0"], "at least 1 digit is shown"),
    ],
)
def test_unusable_arguments_are_refused(korvex, folder, arguments, message):
    run = korvex("sum", *arguments, folder=folder)
    assert run.code == 2
    assert message in run.errors.splitlines()[-1]


# --- Checksums


@pytest.fixture(scope="module")
def checksum():
    return exact.Sum.from_chunks([np.array([0.1, 0.2, 0.3])]).checksum()


@pytest.mark.parametrize("length", [16, 64])
def test_verify_accepts_the_checksum(korvex, folder, checksum, length):
    run = korvex("sum", GOOD, "--verify", checksum[:length], folder=folder)
    assert run.code == 0
    assert run.output.endswith(f"verified: {checksum[:length]}\n")


def test_verify_refuses_another_checksum_with_exit_code_1(korvex, folder, checksum):
    other = checksum[:15] + ("0" if checksum[15] != "0" else "1")
    run = korvex("sum", GOOD, "--verify", other, folder=folder)
    assert run.code == 1
    assert run.errors == f"korvex: good.txt: checksum {checksum[:16]}, and {other} expected\n"


def test_verify_of_unreadable_file_has_exit_code_2(korvex, folder):
    assert korvex("sum", "missing.txt", "--verify", "0" * 16, folder=folder).code == 2


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
def notation_run(korvex, folder):
    for index, value in enumerate(NOTATION):
        (folder / f"n{index}").write_text(value)
    names = [f"n{index}" for index in range(len(NOTATION))]
    return korvex("sum", *names, "--digits", 9, folder=folder)


@pytest.mark.parametrize("index", range(len(NOTATION)), ids=NOTATION)
def test_decimal_is_shown_in_full_or_with_the_count_of_its_digits(notation_run, index):
    value, expected = list(NOTATION.items())[index]
    count = re.search(r"of (\d+) digits", expected)
    if count:
        assert len(Decimal(float(value)).as_tuple().digits) == int(count[1])
    assert notation_run.figures(f"n{index}")["exact sum"] == expected
