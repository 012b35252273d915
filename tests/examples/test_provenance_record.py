# SPDX-License-Identifier: Apache-2.0
"""Records of results: written, verified, tampered with, and carried to another environment."""

import ctypes
import dataclasses
import hashlib
import json
import sys
import types
from pathlib import Path

import pytest
from example_run import EXAMPLES, run_example


@pytest.fixture(scope="module")
def seeded(tmp_path_factory):
    """A folder with one record, made as a user makes it, and what stands in it."""
    folder = tmp_path_factory.mktemp("seeded")
    process = run_program("record", "made.json", "--seed", "7", folder=folder)
    assert process.returncode == 0 and process.stderr == ""
    return folder, json.loads((folder / "made.json").read_text())


def run_program(*arguments, folder):
    return run_example("provenance_record", *arguments, folder=folder)


@pytest.fixture
def example(monkeypatch, module):
    """The example's modules in this process, on the device of the tests."""
    monkeypatch.syspath_prepend(EXAMPLES)
    import audited_results
    import provenance_record
    import run_environment
    import sum_device

    device = sum_device.SumDevice(module, "of the tests")
    monkeypatch.setattr(provenance_record, "choose_device", lambda emulated: device)
    return Example(provenance_record, audited_results, run_environment, device)


@dataclasses.dataclass
class Example:
    program: types.ModuleType
    results: types.ModuleType
    environment: types.ModuleType
    device: object


@pytest.fixture
def run(example, capsys, monkeypatch):
    """A function that runs the program in a folder: exit code, output, error output."""

    def run(*arguments, folder):
        monkeypatch.chdir(folder)
        code = example.program.main([*map(str, arguments)])
        return code, *capsys.readouterr()

    return run


@pytest.fixture
def altered(seeded, run, tmp_path):
    """A function that verifies the record after a change of it."""

    def verify(change):
        record = json.loads(json.dumps(seeded[1]))
        change(record)
        (tmp_path / "made.json").write_text(json.dumps(record))
        return run("verify", "made.json", folder=tmp_path)

    return verify


# ---- what a record holds ----


def test_record_holds_what_the_library_computes(seeded, example):
    """Same inputs, computed in this process: every entry, the limbs' own hash included."""
    inputs, outputs = example.results.of_seed(example.device, 7)
    assert seeded[1]["inputs"] == inputs and seeded[1]["results"] == outputs
    assert outputs["tqx_sum(x)"]["limbs"] == 4 and outputs["tqx_matmul(a, b)"]["limbs"] == 3
    assert outputs["tqx_matmul(a, b)"]["shape"] == [24, 16]
    assert seeded[1]["seed"] == 7


def test_full_digest_starts_with_the_checksum(seeded):
    entries = [*seeded[1]["inputs"].values(), *seeded[1]["results"].values()]
    assert len(entries) == 9
    for entry in entries:
        assert len(entry["sha256"]) == 64 and entry["checksum"] == entry["sha256"][:16]


def test_record_names_versions_and_the_files_that_ran(seeded, module):
    environment = seeded[1]["environment"]
    info = module.get_backend_info()
    kernels = Path(info["native_cubin"])
    assert environment["korvex-tqx"] == module.__version__ == "3.4.8"
    assert environment["torch"] == module.torch.__version__
    assert environment["python"].endswith(sys.version.split()[0])
    assert environment["device"] == info["device"]
    assert environment["kernel file"] == kernels.name
    for line, path in (("kernel", kernels), ("runtime", Path(module.__file__))):
        digest = hashlib.sha256(path.read_bytes()).hexdigest()
        assert environment[f"{line} file sha256"] == digest
    emulated = info["native_arch"].startswith("emulated-")
    assert (environment["driver"] == "not used") is emulated


class StandInDriver:
    """Answers to `cuDriverGetVersion` as the driver's library does."""

    def __init__(self, version, code=0):
        self.version, self.code = version, code

    def cuDriverGetVersion(self, pointer):  # noqa: N802
        ctypes.cast(pointer, ctypes.POINTER(ctypes.c_int))[0] = self.version
        return self.code


@pytest.mark.parametrize(("release", "shown"), [("580.65.06\n", ", release 580.65.06"), (None, "")])
def test_driver_version(example, monkeypatch, tmp_path, release, shown):
    if release:
        (tmp_path / "version").write_text(release)
    monkeypatch.setattr(ctypes, "CDLL", lambda name: StandInDriver(13010))
    version = example.environment.driver_version(release=tmp_path / "version")
    assert version == "CUDA 13.1" + shown


def test_driver_that_fails_is_an_error(example, monkeypatch):
    monkeypatch.setattr(ctypes, "CDLL", lambda name: StandInDriver(0, code=999))
    with pytest.raises(RuntimeError, match="cuDriverGetVersion failed with code 999"):
        example.environment.driver_version()


# ---- verified ----


def test_record_verifies(seeded):
    process = run_program("verify", "made.json", folder=seeded[0])
    assert (process.returncode, process.stderr) == (0, "")
    lines = process.stdout.splitlines()
    assert lines[0] == f"record: made.json, made {seeded[1]['made']}"
    assert lines[2] == "environment, for information: no difference"
    assert lines[3:] == [
        "inputs and results: no difference",
        "verified: 5 results of 4 inputs",
    ]


def test_another_environment_is_told_and_verifies(altered):
    code, output, _ = altered(
        lambda r: r["environment"].update({"torch": "2.11.0", "kernel file sha256": "00", "x": "y"})
    )
    assert code == 0
    for line in ('torch               recorded "2.11.0"', "now      (absent)", 'recorded "00"'):
        assert line in output
    assert output.endswith("verified: 5 results of 4 inputs\n")


# ---- not verified ----

TAMPERED = [
    ("results", "tqx_sum(x)", "checksum"),
    ("results", "tqx_dot(x, y)", "limbs_sha256"),
    ("results", "tqx_matmul(a, b)", "shape"),
    ("inputs", "y", "sha256"),
]


def test_tampered_values_are_found(altered):
    """All at once; each is reported by its name, and nothing else is."""

    def tamper(record):
        for part, name, key in TAMPERED:
            value = record[part][name][key]
            record[part][name][key] = value[::-1]

    code, output, _ = altered(tamper)
    assert code == 1
    for part, name, key in TAMPERED:
        assert f"  {part}: {name}: {key} " in output
    assert output.endswith("NOT VERIFIED: 4 recorded values differ now\n")


@pytest.mark.parametrize(
    "change",
    [
        lambda r: r.update(seed=8),
        lambda r: r["results"].pop("tqx_var(x)"),
        lambda r: r["results"].update({"tqx_min(x)": {"checksum": "00"}}),
    ],
    ids=["another seed", "a result less", "a result more"],
)
def test_another_record_is_not_verified(altered, change):
    code, output, _ = altered(change)
    assert code == 1
    assert "NOT VERIFIED" in output


# ---- values from files ----


def test_files_move_with_their_record(run, tmp_path):
    """Paths start at the record's folder; a changed file is found by its bytes and its values."""
    first, second = tmp_path / "first", tmp_path / "second"
    first.mkdir()
    (first / "masses.csv").write_text("kg,m\n1e16,1\n1.0,2\n-1e16,3\n")
    source = "first/masses.csv:kg"
    assert run("record", "first/made.json", "--values", source, folder=tmp_path)[0] == 0
    made = json.loads((first / "made.json").read_text())
    assert made["files"] == ["masses.csv:kg"]
    assert made["results"]["tqx_sum(masses.csv:kg)"]["value"] == "1.0"
    first.rename(second)
    assert run("verify", "made.json", folder=second)[0] == 0

    (second / "masses.csv").write_text("kg,m\n1e16,1\n1.5,2\n-1e16,3\n")
    code, output, _ = run("verify", "second/made.json", folder=tmp_path)
    assert code == 1
    assert "inputs: masses.csv:kg: file_sha256" in output
    assert 'now      "1.5"' in output


# ---- unusable ----


def test_a_record_is_not_overwritten(seeded, run):
    before = (seeded[0] / "made.json").read_bytes()
    code, _, errors = run("record", "made.json", "--seed", "8", folder=seeded[0])
    assert code == 2
    assert errors.endswith("made.json: exists already, and a record is not overwritten\n")
    assert (seeded[0] / "made.json").read_bytes() == before


WHOLE = {
    "format": "korvex provenance record 1",
    "made": "",
    "seed": 1,
    "files": [],
    "inputs": {},
    "results": {},
    "environment": {},
}
UNUSABLE = [
    (None, "No such file or directory"),
    ("{", "not a JSON text: "),
    ("[]", 'not a record: "format" is not "korvex provenance record 1"'),
    (json.dumps(WHOLE | {"format": "another"}), 'not a record: "format" is not'),
    (json.dumps(WHOLE | {"results": []}), 'not a record: "results" is missing or of another kind'),
    (json.dumps(WHOLE | {"seed": "1"}), 'not a record: either "seed" or "files"'),
    (json.dumps(WHOLE | {"files": ["a"]}), 'not a record: either "seed" or "files"'),
    (json.dumps(WHOLE | {"seed": None, "files": [1]}), 'not a record: "files" holds something'),
    (json.dumps(WHOLE | {"seed": None, "files": ["gone.txt"]}), "gone.txt: No such file"),
    (b"\xff\xfe", "not a JSON text: "),
]


@pytest.mark.parametrize(("text", "reason"), UNUSABLE)
def test_a_file_of_no_use_is_one_line(run, tmp_path, text, reason):
    if text is not None:
        (tmp_path / "made.json").write_bytes(text if isinstance(text, bytes) else text.encode())
    code, _, errors = run("verify", "made.json", folder=tmp_path)
    assert code == 2
    [line] = errors.splitlines()
    assert line.startswith("provenance_record.py: ") and reason in line


def test_record_into_no_folder_is_one_line(run, tmp_path):
    code, _, errors = run("record", "none/made.json", "--seed", "1", folder=tmp_path)
    assert code == 2
    assert errors == "provenance_record.py: none/made.json: there is no folder none\n"
