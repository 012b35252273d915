# SPDX-License-Identifier: Apache-2.0
"""`make verify` sees a difference of one bit, and counts as equal only what it compared."""

import json
import os
import shutil
import subprocess
import sys
import types
from pathlib import Path

import pytest

from korvex_tools.verify import comparison, configurations, golden
from korvex_tools.verify import report as verify_report
from korvex_tools.verify import run as one_run

TREE = Path(__file__).resolve().parent.parent
FLAGS = "-std=c++20 -O1 -ffp-contract=off -fPIC -shared -pthread".split()


def verify(folder, *options):
    """Status, lines of output, and the report."""
    ended = subprocess.run(
        [
            sys.executable,
            "-P",
            "-m",
            "korvex_tools.verify",
            "--results",
            folder / "report",
            *options,
        ],
        env=os.environ | {"CUDA_VISIBLE_DEVICES": ""},
        capture_output=True,
        text=True,
    )
    (report,) = (folder / "report").glob("*.json")
    return ended.returncode, ended.stdout.splitlines(), json.loads(report.read_text())


def changed(digest):
    """The digest with its last bit turned."""
    return f"{int(digest, 16) ^ 1:064x}"


def test_changed_digest_is_the_one_difference(tmp_path):
    shutil.copytree(golden.FOLDER, tmp_path / "golden")
    file = tmp_path / "golden" / "reductions.json"
    content = json.loads(file.read_text())
    case = content["cases"]["tqx_sum limbs, wide"]
    case["sha256"] = changed(case["sha256"])
    file.write_text(json.dumps(content))
    status, lines, report = verify(tmp_path, "--only", "base-all", "--golden", tmp_path / "golden")
    row = report["configurations"]["base-all"]
    assert status == 1 and row["outcome"] == "different" and row["cases"] > 800
    (difference,) = row["differences"]
    assert difference.startswith("reductions: tqx_sum limbs, wide: sha256 ")
    assert any(difference in line for line in lines)
    assert lines[-1].startswith("verify: 0 configurations equal, 1 different, 0 failed, 0 skipped;")
    assert " 1 differences; report: " in lines[-1]
    assert {"date", "machine", "gpu", "driver", "toolkit", "commit", "versions"} <= set(report)


def test_what_cannot_run_is_skipped_and_not_equal(tmp_path):
    status, lines, report = verify(tmp_path, "--only", "gpu")
    assert report["configurations"]["gpu"]["outcome"] == "skipped"
    assert "skipped: torch sees no GPU" in lines[0]
    assert "0 configurations equal, 0 different, 0 failed, 1 skipped" in lines[-1]
    assert status == 1, "nothing was compared"


def test_gpu_without_cupy_or_kernels_is_absent_and_says_why(monkeypatch):
    monkeypatch.setattr("torch.cuda.is_available", lambda: True)
    monkeypatch.setitem(sys.modules, "cupy", None)
    with pytest.raises(one_run.Absent, match="a GPU, but no CuPy: "):
        one_run.gpu(None)
    loader = types.SimpleNamespace(HAS_CUPY=False, UNAVAILABLE_REASON="no file fits")
    monkeypatch.setitem(sys.modules, "cupy", types.ModuleType("cupy"))
    monkeypatch.setitem(sys.modules, "korvex.cubin_loader_native", loader)
    monkeypatch.setattr("korvex.cubin_loader_native", loader, raising=False)
    with pytest.raises(one_run.Absent, match="a GPU, but no kernels: no file fits"):
        one_run.gpu(None)


def test_what_is_needed_must_not_be_skipped(tmp_path):
    status, _, report = verify(tmp_path, "--only", "gpu", "--need", "gpu")
    assert (status, report["configurations"]["gpu"]["outcome"]) == (1, "failed")


def test_kernels_that_do_not_load_are_a_failure(tmp_path):
    (tmp_path / "kernels.so").write_text("no library")
    status, lines, report = verify(tmp_path, "--only", "gpu", "--library", tmp_path / "kernels.so")
    assert status == 1 and "ImportError" in "\n".join(lines)
    assert [row["outcome"] for row in report["configurations"].values()] == ["skipped", "failed"]


# --- Planted faults, compiled


def kernels_from(sources, target, flags=()):
    """The host kernels compiled from a folder of sources."""
    folders = (sources / "korvex" / "kernels" / name for name in ("host", "modular"))
    files = sorted(path for folder in folders for path in folder.glob("*.cpp"))
    command = [configurations.compiler(), *FLAGS, *flags, f"-I{sources}", *files]
    subprocess.run([*command, "-o", target], check=True)
    return target


def differing(folder, library):
    """The kernels of which some case differs."""
    status, _, report = verify(folder, "--only", "gpu", "--library", library)
    row = report["configurations"][str(library)]
    assert status == 1 and row["outcome"] == "different"
    rows = [text for text in row["differences"] if text.startswith("million: ")]
    return {text.split(": ")[1].partition(",")[0] for text in rows}


# The last bit of one entry of a table of 64 or 256 entries.
ENTRIES = {
    "tqx_exp_kernel": ("{0x1.d072d4a07897cp+0,", "{0x1.d072d4a07897dp+0,"),
    "tqx_log_kernel": ("-0x1.1e0d0c33716bep-2,", "-0x1.1e0d0c33716bfp-2,"),
}


@pytest.mark.long
@pytest.mark.parametrize("kernel", ENTRIES)
def test_one_bit_of_a_table_is_seen(tmp_path, kernel):
    right, wrong = ENTRIES[kernel]
    shutil.copytree(TREE / "korvex", tmp_path / "korvex", ignore=shutil.ignore_patterns("*.so"))
    table = tmp_path / "korvex" / "arithmetic" / "elementary" / "elementary_tables.h"
    assert table.read_text().count(right) == 1
    table.write_text(table.read_text().replace(right, wrong))
    assert kernel in differing(tmp_path, kernels_from(tmp_path, tmp_path / "kernels.so"))


@pytest.mark.long
def test_compiler_that_reorders_additions_is_seen(tmp_path):
    flags = ["-fassociative-math", "-fno-signed-zeros", "-fno-trapping-math"]
    found = differing(tmp_path, kernels_from(TREE, tmp_path / "kernels.so", flags))
    assert {"tqx_add_kernel", "tqx_sub_kernel", "tqx_sum_seq_kernel"} <= found


# --- Parts


def test_difference_tells_what_differs():
    entry = {"inputs": "i", "count": 2, "sha256": "a" * 64, "first": ["0x1p+0", "0x1p+1"]}
    assert comparison.difference(entry, entry) is None
    other = entry | {"sha256": "b" * 64}
    assert "beyond the first values" in comparison.difference(other, entry)
    first = other | {"first": ["0x1p+0", "0x1p+2"]}
    assert comparison.difference(first, entry).endswith("value 1 is 0x1p+2, expected 0x1p+1")
    assert comparison.difference(entry | {"count": 3}, entry) == "3 values, expected 2"
    assert comparison.difference(entry | {"inputs": "j"}, entry).startswith("the inputs are not")
    assert comparison.difference(entry, None) == "not in the file of digests"
    assert comparison.difference({"error": "ValueError: no"}, entry) == "ValueError: no"


@pytest.mark.parametrize(
    "outcomes, good",
    [
        (["equal"], True),
        (["equal", "skipped"], True),
        (["equal", "different"], False),
        (["equal", "failed"], False),
        (["skipped"], False),
        ([], False),
    ],
)
def test_status(outcomes, good):
    rows = {str(i): {"outcome": outcome} for i, outcome in enumerate(outcomes)}
    assert verify_report.is_good({"configurations": rows}) is good


def test_configurations_are_those_the_page_names():
    text = verify_report.PAGE.read_text()
    names = [one.name for one in configurations.all_configurations()]
    assert len(names) == 13 and all(f"`{name}`" in text for name in names)


def test_reports_are_of_trees_without_changes_and_of_the_long_form():
    """An emulated processor would take a day for that: its reports are of the short form, and made
    in a root without git by a script that looked for changes before."""
    files = list(verify_report.FOLDER.glob("*.json"))
    reports = [json.loads(path.read_text()) for path in files]
    assert reports
    for path, report in zip(files, reports, strict=True):
        emulated = "qemu" in report["machine"]["processor"]
        assert report["form"] == ("short" if emulated else "long")
        assert report["tree_has_changes"] is (None if emulated else False)
        assert path.stem.endswith(report["commit"][:10])
