# SPDX-License-Identifier: Apache-2.0
"""`korvex record` and `korvex verify`, as an auditor uses them."""

import hashlib
import json

import numpy as np
import pytest

from korvex import exact, provenance


@pytest.fixture(scope="module")
def recorded(korvex, tmp_path_factory):
    """A folder with two files and a record of them."""
    folder = tmp_path_factory.mktemp("recorded")
    (folder / "data").mkdir()
    (folder / "data" / "masses.csv").write_text("kg,m\n1e16,1\n1.0,2\n-1e16,3\n")
    np.save(folder / "x.npy", np.arange(6.0).reshape(2, 3))
    run = korvex("record", "data/masses.csv", "x.npy", "-o", "record.json", folder=folder)
    assert (run.code, run.output, run.errors) == (0, "", "")
    return folder, json.loads((folder / "record.json").read_text())


@pytest.fixture
def copied(recorded, tmp_path):
    """The same, to be changed."""
    import shutil

    folder = tmp_path / "elsewhere"
    shutil.copytree(recorded[0], folder)
    return folder


def test_record_has_sums_and_checksums_of_columns_and_files(recorded):
    folder, document = recorded
    entries = {entry["name"]: entry for entry in document["results"]}
    assert list(entries) == ["data/masses.csv:kg", "data/masses.csv:m", "x.npy"]
    kg = entries["data/masses.csv:kg"]
    assert (kg["value"], kg["kind"], kg["count"]) == ("1.0", "Sum", 3)
    data = (folder / "data" / "masses.csv").read_bytes()
    assert kg["source"] == {
        "file": "data/masses.csv",
        "column": "kg",
        "sha256": hashlib.sha256(data).hexdigest(),
        "bytes": len(data),
    }
    total = exact.Sum.from_chunks([np.arange(6.0)])
    assert entries["x.npy"]["state_sha256"] == total.checksum()


def test_files_move_with_their_record(korvex, copied, tmp_path):
    run = korvex("verify", "elsewhere/record.json", folder=tmp_path)
    assert (run.code, run.errors) == (0, "")
    made = json.loads((copied / "record.json").read_text())["made"]
    assert run.output.splitlines() == [
        f"record: elsewhere/record.json, made {made}",
        "environment, for information: no difference",
        "results: 3 computed anew from files, 0 as they were recorded",
        "verified: 3 results",
    ]


def test_paths_of_a_redirected_record_start_at_its_folder(command, copied, tmp_path):
    import subprocess

    with (copied / "other.json").open("w") as stream:
        arguments = ["record", "elsewhere/x.npy"]
        subprocess.run([*command, *arguments], cwd=tmp_path, stdout=stream, check=True)
    document = json.loads((copied / "other.json").read_text())
    assert document["results"][0]["source"]["file"] == "x.npy"


def test_a_changed_file_is_found_by_its_bytes_and_its_sums(korvex, copied):
    path = copied / "data" / "masses.csv"
    path.write_text(path.read_text().replace("1.0", "1.5"))
    run = korvex("verify", "record.json", folder=copied)
    assert run.code == 1
    lines = run.output.splitlines()
    assert sum(line.startswith("  file: data/masses.csv:kg: SHA-256 of the file") for line in lines)
    assert "  limb: data/masses.csv:kg: limb 0: element 0 has the bits 3ff8000000000000, and" in (
        run.output
    )
    assert not any("limb: data/masses.csv:m" in line for line in lines)
    assert lines[-1] == "NOT VERIFIED: 3 faults"


def test_a_changed_record_is_found(korvex, copied):
    text = (copied / "record.json").read_text()
    (copied / "record.json").write_text(text.replace('"shape": []', '"shape": [1]', 1))
    run = korvex("verify", "--no-files", "record.json", folder=copied)
    assert run.code == 1
    assert "  shape: data/masses.csv:kg: shape [1] is not the recorded one" in run.output


def test_a_file_that_is_gone_is_one_line(korvex, copied):
    (copied / "x.npy").unlink()
    run = korvex("verify", "record.json", folder=copied)
    assert (run.code, run.errors) == (2, "korvex: x.npy: No such file or directory\n")
    assert "NOT VERIFIED: 1 fault\n" in run.output


def test_the_folder_can_be_named(korvex, copied, tmp_path):
    (copied / "record.json").rename(tmp_path / "record.json")
    run = korvex("verify", "record.json", "--folder", "elsewhere", folder=tmp_path)
    assert run.code == 0


def test_another_environment_is_shown_and_verifies(korvex, copied):
    from korvex.provenance._check import document_sha256

    document = json.loads((copied / "record.json").read_text())
    document["environment"] |= {"numpy": "1.0", "x": "y"}
    document["sha256"] = document_sha256(document)
    (copied / "record.json").write_text(json.dumps(document))
    run = korvex("verify", "record.json", folder=copied)
    assert run.code == 0
    for line in ("numpy  recorded 1.0", f"now      {np.__version__}", "now      (absent)"):
        assert line in run.output
    assert run.output.endswith("verified: 3 results\n")


def test_standard_input_is_recorded_with_its_checksum(korvex, tmp_path):
    data = b"a,b\n0.5,1\n0.25,2\n"
    run = korvex("record", "-:a", folder=tmp_path, data=data)
    [entry] = json.loads(run.output)["results"]
    assert (entry["name"], entry["value"]) == ("-:a", "0.75")
    assert entry["source"]["sha256"] == hashlib.sha256(data).hexdigest()
    assert (entry["source"]["file"], entry["source"]["bytes"]) == (None, len(data))
    run = korvex("verify", "-", folder=tmp_path, data=run.output.encode())
    assert run.code == 0
    assert "results: 0 computed anew from files, 1 as they were recorded" in run.output


def test_results_of_python_are_verified_beside_files(korvex, copied):
    record = provenance.Record(copied)
    record.add("weights", np.ones((2, 2)))
    record.add_file(copied / "x.npy")
    record.write(copied / "mixed.json")
    run = korvex("verify", "mixed.json", folder=copied)
    assert run.code == 0
    assert "results: 1 computed anew from files, 1 as they were recorded" in run.output


def test_how_a_file_was_read_is_part_of_the_record(korvex, tmp_path):
    (tmp_path / "t.txt").write_text("2020\t1\n3\tNA\n")
    arguments = ["--format", "tsv", "--header", "--missing", "NA", "t.txt:1"]
    run = korvex("record", *arguments, "t.txt:2020", "-o", "r.json", folder=tmp_path)
    assert run.code == 0, run.errors
    assert korvex("verify", "r.json", folder=tmp_path).code == 0
    document = json.loads((tmp_path / "r.json").read_text())
    source = document["results"][0]["source"]
    assert (source["format"], source["header"], source["missing"]) == ("tsv", True, ["NA"])


def test_a_record_is_not_overwritten(korvex, recorded):
    before = (recorded[0] / "record.json").read_bytes()
    run = korvex("record", "x.npy", "-o", "record.json", folder=recorded[0])
    assert run.code == 2
    assert run.errors == ("korvex: record.json: exists already, and a record is not overwritten\n")
    assert (recorded[0] / "record.json").read_bytes() == before


def test_record_into_no_folder_is_one_line(korvex, recorded):
    run = korvex("record", "x.npy", "-o", "none/made.json", folder=recorded[0])
    assert (run.code, run.errors) == (2, "korvex: none/made.json: there is no folder none\n")


def test_a_bad_input_leaves_no_record(korvex, tmp_path):
    (tmp_path / "a.txt").write_text("1\nx\n")
    run = korvex("record", "a.txt", "-o", "r.json", folder=tmp_path)
    assert (run.code, run.output) == (2, "")
    assert run.errors == "korvex: a.txt, line 2: 'x' is no number\n"
    assert not (tmp_path / "r.json").exists()


@pytest.mark.parametrize(
    ("text", "reason"),
    [
        (None, "No such file or directory"),
        (b"{", "not a JSON text: "),
        (b'{"format": "korvex provenance record", "version": 9}', "version 9 of the format, and"),
        (b"\xff\xfe", "not a JSON text: "),
    ],
)
def test_a_file_that_is_no_record_is_one_line(korvex, tmp_path, text, reason):
    if text is not None:
        (tmp_path / "r.json").write_bytes(text)
    run = korvex("verify", "r.json", folder=tmp_path)
    assert (run.code, run.output) == (2, "")
    [line] = run.errors.splitlines()
    assert line.startswith(f"korvex: r.json: {reason}")
