# SPDX-License-Identifier: Apache-2.0
"""Files as other libraries write them, whole, by columns, compressed and through a pipe."""

import gzip
import io
import math
import subprocess
from fractions import Fraction

import numpy as np
import pytest

from korvex import exact
from korvex_tools.references.exact_arithmetic import exact_sum

pytest.importorskip("pyarrow")
import pyarrow as pa  # noqa: E402
import pyarrow.parquet  # noqa: E402

COUNT = 20_000


@pytest.fixture(scope="module")
def values():
    generator = np.random.default_rng(3)
    return generator.standard_normal(COUNT) * 2.0 ** generator.uniform(-60, 60, COUNT)


@pytest.fixture(scope="module")
def table(values):
    """Columns of each kind: numbers, numbers with gaps, and what is passed over."""
    return pa.table(
        {
            "day": [f"day {n}" for n in range(COUNT)],
            "price": values,
            "count": np.arange(COUNT, dtype=np.int64) + 2**60,
            "single": values.astype(np.float32),
            "gaps": [None if n % 3 else float(n) for n in range(COUNT)],
            "flag": np.arange(COUNT) % 2 == 0,
            "kind": pa.array([n % 7 for n in range(COUNT)]).dictionary_encode(),
        }
    )


COLUMNS = ("price", "count", "single", "gaps", "flag", "kind")


@pytest.fixture(scope="module")
def expected(table):
    sums = {}
    for name in COLUMNS:
        column = table.column(name).combine_chunks()
        if isinstance(column, pa.DictionaryArray):
            column = column.dictionary_decode()
        sums[name] = exact.Sum()
        sums[name].add(column.drop_null().to_numpy(zero_copy_only=False))
    assert sums["gaps"].count == math.ceil(COUNT / 3)
    return {name: (total.count, total.checksum()) for name, total in sums.items()}


def parquet(table):
    stream = io.BytesIO()
    pa.parquet.write_table(table, stream, row_group_size=7000)
    return stream.getvalue()


def arrow_file(table):
    stream = io.BytesIO()
    with pa.ipc.new_file(stream, table.schema) as writer:
        writer.write_table(table, max_chunksize=3000)
    return stream.getvalue()


def arrow_stream(table):
    stream = io.BytesIO()
    with pa.ipc.new_stream(stream, table.schema) as writer:
        writer.write_table(table, max_chunksize=3000)
    return stream.getvalue()


def npz(table):
    stream = io.BytesIO()
    arrays = {"day": np.array(["a", "b"])}
    for name in COLUMNS:
        column = table.column(name).combine_chunks()
        if isinstance(column, pa.DictionaryArray):
            column = column.dictionary_decode()
        arrays[name] = column.drop_null().to_numpy(zero_copy_only=False)
    np.savez_compressed(stream, **arrays)
    return stream.getvalue()


FORMS = {
    "parquet": parquet,
    "arrow": arrow_file,
    "arrows": arrow_stream,
    "npz": npz,
}
COMPRESSIONS = {
    "": lambda data: data,
    ".gz": gzip.compress,
    ".zst": lambda data: pa.compress(data, "zstd", asbytes=True),
}


@pytest.fixture(scope="module")
def folder(table, tmp_path_factory):
    folder = tmp_path_factory.mktemp("tables")
    for form, write in FORMS.items():
        for ending, compress in COMPRESSIONS.items():
            (folder / f"t.{form}{ending}").write_bytes(compress(write(table)))
    return folder


def found(run, name):
    """Count and checksum of each column of a file."""
    assert (run.code, run.errors) == (0, ""), run.errors
    results = [result for result in run.json["results"] if result["file"] == name]
    return {result["column"]: (result["count"], result["checksum"]) for result in results}


@pytest.fixture(scope="module")
def all_files(korvex, folder):
    return korvex("sum", "--json", *sorted(path.name for path in folder.iterdir()), folder=folder)


@pytest.mark.parametrize("ending", COMPRESSIONS)
@pytest.mark.parametrize("form", FORMS)
def test_all_columns_of_a_file(all_files, expected, form, ending):
    assert found(all_files, f"t.{form}{ending}") == expected


@pytest.mark.parametrize("form", FORMS)
def test_all_columns_through_a_pipe(korvex, folder, expected, form):
    data = (folder / f"t.{form}").read_bytes()
    assert found(korvex("sum", "--json", "-", folder=folder, data=data), "-") == expected


def test_chosen_columns_by_name_and_number(korvex, folder, expected):
    sources = [f"t.{form}:{column}" for form in FORMS for column in ("single", "2")]
    run = korvex("sum", "--json", *sources, folder=folder)
    for form in FORMS:
        assert found(run, f"t.{form}") == {name: expected[name] for name in ("single", "price")}


def test_columns_without_numbers_are_passed_over_and_named(korvex, folder):
    run = korvex("sum", "t.parquet", folder=folder)
    assert run.code == 0
    assert "t.parquet: passed over, no numbers: day\n" in run.output


def test_a_chosen_column_without_numbers_is_refused(korvex, folder):
    run = korvex("sum", "t.parquet:day", "t.arrow:none", folder=folder)
    assert run.code == 2
    assert run.errors.splitlines() == [
        "korvex: t.parquet: column day holds string, and real numbers are wanted",
        "korvex: t.arrow: no column none; the columns: day, price, count, single, gaps, flag, kind",
    ]


def test_cells_without_a_value_are_left_out_and_counted(korvex, folder):
    run = korvex("sum", "t.parquet:gaps", folder=folder)
    rows = run.figures("t.parquet:gaps")
    missing = COUNT - math.ceil(COUNT / 3)
    assert rows["missing"] == f"{missing} cells without a value, left out"
    assert rows["title"] == f"t.parquet:gaps: {COUNT - missing} values"


def test_float_sums_do_not_depend_on_the_format(korvex, folder, values):
    run = korvex("sum", "--json", *[f"t.{form}:price" for form in FORMS], folder=folder)
    shown = [result["float_sums"] for result in run.json["results"]]
    assert len(shown) == len(FORMS) and all(each == shown[0] for each in shown)
    assert float(shown[0]["numpy_sum"]["value"]) == np.sum(values)
    assert float(shown[0]["one_by_one"]["value"]) == np.cumsum(values)[-1]


def test_a_file_that_is_cut_anywhere_is_one_line(korvex, folder, tmp_path):
    """An Arrow stream alone may end with any batch: its last part may be missing."""
    names = []
    for form in FORMS:
        data = (folder / f"t.{form}").read_bytes()
        cuts = [9, 30, 400, len(data) // 2, len(data) - 1][: 4 if form == "arrows" else 5]
        for cut in cuts:
            names.append(f"{cut}.{form}")
            (tmp_path / names[-1]).write_bytes(data[:cut])
    run = korvex("sum", *names, folder=tmp_path)
    lines = run.errors.splitlines()
    assert (run.code, run.output) == (2, "")
    assert [line.split(":")[1].strip() for line in lines] == names


@pytest.mark.parametrize("form", ["parquet", "npz"])
def test_changed_bytes_end_in_one_line_or_in_a_sum(korvex, folder, tmp_path, form):
    """Not every format has checksums: what it takes for numbers is summed."""
    data = bytearray((folder / f"t.{form}").read_bytes())
    generator = np.random.default_rng(5)
    names = []
    for number in range(20):
        changed = bytearray(data)
        for place in generator.integers(4, len(data), 5):
            changed[place] ^= 1 << int(generator.integers(8))
        names.append(f"{number}.{form}")
        (tmp_path / names[-1]).write_bytes(changed)
    run = korvex("sum", "--json", *names, folder=tmp_path)
    assert "Traceback" not in run.errors
    ends = [line.split(":")[1].strip() for line in run.errors.splitlines()]
    assert run.code == (2 if ends else 0)
    assert set(ends) == {error["file"] for error in run.json["errors"]}
    assert {result["file"] for result in run.json["results"]} | set(ends) == set(names)


def test_exact_sums_are_those_of_rational_numbers(korvex, folder, values):
    run = korvex("sum", "--json", "t.parquet:price", "t.arrow:count", folder=folder)
    price, count = run.json["results"]
    assert Fraction(price["exact_sum"]) == exact_sum(values.tolist())
    assert Fraction(count["exact_sum"]) == COUNT * (COUNT - 1) // 2 + COUNT * 2**60


# --- CSV of tables


CSV = "day,price,note,count\nmon,1.5,,3\ntue,,x,4\nwed,2.5,,NA\n"


@pytest.fixture
def in_folder(korvex, tmp_path):
    def run(text, *arguments):
        (tmp_path / "t.csv").write_text(text)
        return korvex("sum", "--json", *arguments, folder=tmp_path)

    return run


def test_empty_cells_are_refused_by_their_line(in_folder):
    run = in_folder(CSV, "t.csv:price")
    assert (run.code, run.errors) == (2, "korvex: t.csv, line 3: '' is no number\n")


def test_cells_that_are_said_to_be_missing_are_counted(in_folder):
    run = in_folder(CSV, "t.csv:price", "t.csv:count", "--missing", "", "--missing", "NA")
    assert run.code == 0
    shown = [(r["column"], r["count"], r["missing"], r["exact_sum"]) for r in run.json["results"]]
    assert shown == [("price", 2, 1, "4"), ("count", 2, 1, "7")]


def test_all_columns_of_csv_are_those_whose_first_cell_is_a_number(in_folder):
    run = in_folder("day,a,b\nmon,1,2\ntue,3,4\n", "t.csv")
    assert {r["column"]: r["exact_sum"] for r in run.json["results"]} == {"a": "4", "b": "6"}


def test_rows_without_names_are_numbered_columns(in_folder):
    run = in_folder("1,x,2\n3,y,4\n", "t.csv")
    assert {r["column"]: r["exact_sum"] for r in run.json["results"]} == {"1": "4", "3": "6"}


def test_header_says_that_numbers_are_names(in_folder):
    run = in_folder("2020,2021\n3,4\n", "t.csv", "--header")
    assert {r["column"]: r["exact_sum"] for r in run.json["results"]} == {"2020": "3", "2021": "4"}
    run = in_folder("nan,inf\n3,4\n", "t.csv:2", "--no-header")
    assert run.json["results"][0]["float64"] == "inf"


def test_format_overrides_the_name(korvex, tmp_path):
    (tmp_path / "t.txt").write_text("a\tb\n1\t2\n")
    run = korvex("sum", "--json", "--format", "tsv", "t.txt:b", folder=tmp_path)
    assert run.json["results"][0]["exact_sum"] == "2"


def test_standard_input_is_read_once_for_several_columns(korvex):
    run = korvex("sum", "--json", "-:b", "-:a", data=b"a,b\n1,2\n3,4\n")
    assert {r["source"]: r["exact_sum"] for r in run.json["results"]} == {"-:b": "6", "-:a": "4"}


def test_long_text_in_many_blocks_is_one_sum(korvex, tmp_path):
    """Quoted values over several lines lie across the ends of blocks; every number is counted."""
    rows = 300_000
    text = "".join(f'"line {n}\nof ""two""",{n}.25\n' for n in range(rows))
    assert len(text) > 2 * 4_194_304
    (tmp_path / "t.csv").write_text("note,n\n" + text)
    run = korvex("sum", "--json", "t.csv:n", folder=tmp_path)
    [result] = run.json["results"]
    assert result["count"] == rows
    assert float(result["exact_sum"]) == rows * (rows - 1) // 2 + rows / 4


def test_line_of_a_fault_behind_many_blocks_is_named(korvex, tmp_path):
    lines = ["1.25"] * 2_000_000
    lines[1_900_000] = "1.2.5"
    (tmp_path / "t.txt").write_text("\n".join(lines))
    run = korvex("sum", "t.txt", folder=tmp_path)
    assert run.errors == "korvex: t.txt, line 1900001: '1.2.5' is no number\n"


def test_text_without_an_end_of_a_line_is_refused_in_constant_memory(command, tmp_path):
    """An endless input."""
    run = subprocess.run(
        [*command, "sum", "/dev/zero"], capture_output=True, text=True, timeout=120
    )
    assert run.returncode == 2
    assert run.stderr.startswith("korvex: /dev/zero: no line ends within 64 MiB")


# --- Other libraries


def test_files_of_pandas(korvex, values, tmp_path):
    pandas = pytest.importorskip("pandas")
    frame = pandas.DataFrame({"a": values, "b": np.arange(COUNT), "c": ["x"] * COUNT})
    frame.loc[5, "a"] = np.nan
    frame.to_csv(tmp_path / "p.csv", index=False)
    frame.to_csv(tmp_path / "p.tsv.gz", index=False, sep="\t")
    frame.to_parquet(tmp_path / "p.parquet")
    frame.to_feather(tmp_path / "p.feather")
    kept = np.delete(values, 5)
    whole = exact.Sum.from_chunks([kept])
    for name in ("p.csv", "p.tsv.gz", "p.parquet", "p.feather"):
        run = korvex("sum", "--json", "--missing", "", f"{name}:a", f"{name}:b", folder=tmp_path)
        a, b = run.json["results"]
        assert (a["count"], a["missing"], a["checksum"]) == (COUNT - 1, 1, whole.checksum()), name
        assert b["exact_sum"] == str(COUNT * (COUNT - 1) // 2)


def test_files_of_polars(korvex, values, tmp_path):
    polars = pytest.importorskip("polars")
    frame = polars.DataFrame({"a": values, "b": np.arange(COUNT), "c": ["x"] * COUNT})
    frame.write_csv(tmp_path / "p.csv")
    frame.write_parquet(tmp_path / "p.parquet")
    frame.write_ipc(tmp_path / "p.arrow", compression="zstd")
    frame.write_ipc_stream(tmp_path / "stream.arrow")
    whole = exact.Sum.from_chunks([values])
    for name in ("p.csv", "p.parquet", "p.arrow", "stream.arrow"):
        run = korvex("sum", "--json", name, folder=tmp_path)
        a, b = run.json["results"]
        assert (a["count"], a["checksum"]) == (COUNT, whole.checksum()), name
        assert b["exact_sum"] == str(COUNT * (COUNT - 1) // 2)
