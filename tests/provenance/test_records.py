# SPDX-License-Identifier: Apache-2.0
"""Records of provenance: what they hold, and that every change of one is found by its name."""

import copy
import ctypes
import doctest
import hashlib
import importlib.metadata
import json
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from fractions import Fraction
from pathlib import Path

import numpy as np
import page_code
import pytest
import torch

from korvex import exact, provenance
from korvex.provenance import _environment

TREE = Path(__file__).resolve().parents[2]
PAGE = (TREE / "docs" / "provenance_records.md").read_text()
SCHEMA = Path(provenance.__file__).with_name("record-1.schema.json")


def total_of(*values):
    return exact.Sum.from_chunks([np.array(values)])


@pytest.fixture
def values():
    return {
        "total": total_of(1e16, 1.0, 2.0**-60),
        "weights": np.arange(6.0).reshape(2, 3),
        "many": np.arange(100, dtype=np.int32).reshape(4, 25),
        "number": 0.1,
    }


@pytest.fixture
def record(values):
    made = provenance.Record()
    for name, value in values.items():
        made.add(name, value)
    return made


def kinds(faults):
    return [(fault.kind, fault.result) for fault in faults]


# ---- what a record holds ----


def test_record_verifies_with_the_same_results_and_by_itself(record, values):
    read = provenance.loads(record.dumps())
    assert record.verify(values) == read.verify(values) == read.verify() == []


def test_shape_dtype_limbs_and_digits_are_there(record):
    weights = record.results["weights"]
    assert (weights["shape"], weights["dtype"], weights["kind"]) == ([2, 3], "float64", "array")
    assert weights["limbs"][0]["bits"][1] == "3ff0000000000000"
    assert weights["limbs"][0]["sha256"] == hashlib.sha256(np.arange(6.0).tobytes()).hexdigest()
    total = record.results["total"]
    assert len(total["limbs"]) == 4 and total["count"] == 3
    assert total["state_sha256"] == total_of(1e16, 1.0, 2.0**-60).checksum()
    assert "bits" not in record.results["many"]["limbs"][0]
    for entry in record.results.values():
        assert re.fullmatch("[0-9a-f]{64}", entry["sha256"])


def test_limbs_in_a_record_are_those_of_the_exact_value(record):
    limbs = [
        np.array([int(limb["bits"][0], 16)], np.uint64).view(np.float64)[0]
        for limb in record.results["total"]["limbs"]
    ]
    assert sum(map(Fraction, limbs)) == Fraction(10**16 + 1) + Fraction(2) ** -60


def test_results_of_the_runtime_are_recorded_with_all_their_limbs(module):
    x = torch.tensor([1.0, 2.0**-60, 2.0**-120], dtype=torch.float64, device="cuda")
    result = module.tqx_sum(x, return_tqx=True)
    made = provenance.Record()
    made.add("sum", result)
    made.add("tensor", x)
    made.add("verified", module.TQXVerifiedResult(x, ""))
    entries = made.results
    assert entries["sum"]["kind"] == "limbs" and len(entries["sum"]["limbs"]) == 4
    assert entries["sum"]["shape"] == []
    assert entries["tensor"]["limbs"][0]["sha256"] == module.tqx_checksum_hex(x)
    assert entries["verified"]["sha256"] == entries["tensor"]["sha256"]
    for limb, tensor in zip(entries["sum"]["limbs"], result.limbs, strict=True):
        assert limb["sha256"] == module.tqx_checksum_hex(tensor)
    other = module.tqx_sum(x[:2], return_tqx=True)
    assert kinds(made.verify({"sum": other})) == [("limb", "sum")]
    environment = made.environment
    info = module.get_backend_info()
    kernels = Path(info["native_cubin"])
    assert environment["torch"] == module.torch.__version__
    assert environment["device"] == info["device"]
    assert environment["kernel file"] == kernels.name
    for line, path in (("kernel", kernels), ("runtime", Path(module.__file__))):
        digest = hashlib.sha256(path.read_bytes()).hexdigest()
        assert environment[f"{line} file sha256"] == digest
    emulated = info["native_arch"].startswith("emulated-")
    assert (environment["driver"] == "not used") is emulated


def test_tensors_of_several_libraries_are_one_result():
    array = np.arange(4, dtype=np.float32).reshape(2, 2)
    made = provenance.Record()
    made.add("x", array)
    assert made.verify({"x": torch.from_numpy(array)}) == []
    assert made.verify({"x": array.astype(">f4")}) == []
    assert made.verify({"x": np.asfortranarray(array)}) == []
    made.add("half", torch.tensor([1.5], dtype=torch.bfloat16))
    assert made.results["half"]["limbs"][0]["bits"] == ["3fc0"]


def test_environment_names_versions_and_the_files_that_ran(record):
    environment = record.environment
    assert environment["korvex-tqx"] == importlib.metadata.version("korvex-tqx")
    assert environment["numpy"] == np.__version__
    assert environment["python"].endswith(sys.version.split()[0])
    library = _environment.host_library()
    assert environment["host kernel file"] == library.name
    digest = hashlib.sha256(library.read_bytes()).hexdigest()
    assert environment["host kernel file sha256"] == digest


class StandInDriver:
    """Answers to `cuDriverGetVersion` as the driver's library does."""

    def __init__(self, version, code=0):
        self.version, self.code = version, code

    def cuDriverGetVersion(self, pointer):  # noqa: N802
        ctypes.cast(pointer, ctypes.POINTER(ctypes.c_int))[0] = self.version
        return self.code


@pytest.mark.parametrize(("release", "shown"), [("580.65.06\n", ", release 580.65.06"), (None, "")])
def test_driver_version(monkeypatch, tmp_path, release, shown):
    if release:
        (tmp_path / "version").write_text(release)
    monkeypatch.setattr(ctypes, "CDLL", lambda name: StandInDriver(13010))
    version = _environment.driver_version(release=tmp_path / "version")
    assert version == "CUDA 13.1" + shown


def test_driver_that_fails_is_an_error(monkeypatch):
    monkeypatch.setattr(ctypes, "CDLL", lambda name: StandInDriver(0, code=999))
    with pytest.raises(RuntimeError, match="cuDriverGetVersion failed with code 999"):
        _environment.driver_version()


def test_another_environment_is_reported_and_is_no_fault(record):
    document = json.loads(record.dumps())
    document["environment"] |= {"numpy": "1.0", "x": "y"}
    read = resealed(document)
    assert read.verify() == []
    assert read.environment_changes() == [("numpy", "1.0", np.__version__), ("x", "y", None)]


def resealed(document):
    """As somebody writes it who knows the format."""
    from korvex.provenance._check import document_sha256

    document["sha256"] = document_sha256(document)
    return provenance.loads(json.dumps(document))


# ---- results that differ ----


@pytest.mark.parametrize("limb", range(4))
@pytest.mark.parametrize("bit", [0, 51, 63])
def test_a_changed_bit_of_any_limb_is_named(record, limb, bit):
    entry = record.results["total"]
    recorded = entry["limbs"][limb]["bits"][0]
    document = json.loads(record.dumps())
    changed = f"{int(recorded, 16) ^ (1 << bit):016x}"
    document["results"][0]["limbs"][limb]["bits"][0] = changed
    [fault] = provenance.loads(json.dumps(document)).verify()
    assert (fault.kind, fault.result) == ("limb", "total")
    assert fault.text == f"limb {limb}: its bits are not those that its SHA-256 was taken of"


def test_a_changed_bit_of_an_array_is_named_with_its_element(record, values):
    changed = values["weights"].copy()
    changed.view(np.uint64)[1, 2] ^= 1
    [fault] = record.verify({"weights": changed})
    assert str(fault) == (
        "weights: limb 0: element 5 has the bits 4014000000000001, and 4014000000000000 is recorded"
    )
    many = values["many"].copy()
    many[3, 24] ^= 1
    assert kinds(record.verify({"many": many})) == [("limb", "many")]


CHANGES = {
    "shape": ("weights", lambda x: x.reshape(3, 2)),
    "dtype": ("number", lambda x: np.array(x)[None].view(np.int64)[0]),
    "count": ("total", lambda x: x + total_of(0.0)),
}


@pytest.mark.parametrize("kind", CHANGES)
def test_another_form_of_a_result_is_named(record, values, kind):
    name, change = CHANGES[kind]
    assert kinds(record.verify({name: change(values[name])})) == [(kind, name)]


def test_an_exact_value_beyond_four_limbs_is_compared():
    wide = [2.0**k for k in (900, 600, 300, 0)]
    made = provenance.Record()
    made.add("wide", total_of(*wide, 2.0**-300))
    assert kinds(made.verify({"wide": total_of(*wide, 2.0**-301)})) == [("state", "wide")]


def test_a_result_under_another_name_is_named(record):
    assert kinds(record.verify({"weight": np.ones(3)})) == [("unknown", "weight")]


# ---- records that were changed ----


def change_shape(document):
    document["results"][1]["shape"] = [3, 2]


def cut_checksum(document):
    document["results"][1]["sha256"] = document["results"][1]["sha256"][:16]


def cut_limb_checksum(document):
    document["results"][2]["limbs"][0]["sha256"] = "0" * 63


def other_digits(document):
    document["results"][2]["limbs"][0]["sha256"] = "0" * 64


def upper_case(document):
    document["results"][1]["sha256"] = document["results"][1]["sha256"].upper()


def change_dtype(document):
    document["results"][2]["dtype"] = "uint32"


def change_count(document):
    document["results"][0]["count"] += 1


def change_value(document):
    document["results"][3]["value"] = "0.2"


def change_environment(document):
    document["environment"]["numpy"] = "1.0"


def change_name(document):
    document["results"][0]["name"] = "another"


def cut_record_checksum(document):
    document["sha256"] = document["sha256"][:-1]


@pytest.mark.parametrize(
    ("change", "kind", "words"),
    [
        (change_shape, "shape", "weights: shape [3, 2] is not the recorded one"),
        (cut_checksum, "checksum", "weights: the SHA-256 is cut: 16 of 64 digits"),
        (cut_limb_checksum, "checksum", "many: limb 0's SHA-256 is cut: 63 of 64 digits"),
        (other_digits, "checksum", "many: kind, dtype, count, exact value or a limb's SHA-256"),
        (upper_case, "checksum", "weights: the SHA-256 is not 64 hexadecimal digits"),
        (change_dtype, "checksum", "many: kind, dtype"),
        (change_count, "checksum", "total: kind, dtype, count"),
        (change_value, "record", "the record is not the one that its SHA-256 was taken of"),
        (change_environment, "record", "the record is not the one"),
        (change_name, "record", "the record is not the one"),
        (cut_record_checksum, "checksum", "the record's SHA-256 is cut: 63 of 64 digits"),
    ],
)
def test_a_changed_record_is_found_by_itself(record, change, kind, words):
    document = json.loads(record.dumps())
    change(document)
    [fault] = provenance.loads(json.dumps(document)).verify()
    assert fault.kind == kind
    assert str(fault).startswith(words)


def test_every_changed_text_of_a_record_is_noticed(record):
    """Each text and number of it in turn: refused, or at least one fault."""
    document = json.loads(record.dumps())
    places = list(leaves(document))
    assert len(places) > 40
    for path in places:
        changed = copy.deepcopy(document)
        holder = changed
        for key in path[:-1]:
            holder = holder[key]
        value = holder[path[-1]]
        holder[path[-1]] = value + 1 if isinstance(value, int) else value[:-1] + "\u00e9"
        try:
            assert provenance.loads(json.dumps(changed)).verify(), path
        except provenance.RecordError:
            pass


def leaves(value, path=()):
    items = value.items() if isinstance(value, dict) else enumerate(value)
    for key, inner in items:
        if isinstance(inner, (dict, list)):
            yield from leaves(inner, (*path, key))
        else:
            yield (*path, key)


# ---- what is no record ----


@pytest.mark.parametrize(
    ("text", "kind", "words"),
    [
        ("{", "json", "not a JSON text: "),
        (b"\xff\xfe", "json", "not a JSON text: "),
        ("NaN", "json", "not a JSON text: NaN is no number there"),
        ("[" * 100_000, "json", "not a JSON text: "),
        ("[]", "format", 'not a record: "format" is not "korvex provenance record"'),
        ('{"format": "another"}', "format", "not a record: "),
    ],
)
def test_a_text_that_is_no_record_is_refused(text, kind, words):
    with pytest.raises(provenance.RecordError) as refused:
        provenance.loads(text)
    assert refused.value.kind == kind and str(refused.value).startswith(words)


@pytest.mark.parametrize("version", [0, 2, "1", 1.0, True, None])
def test_a_foreign_version_is_refused_by_name(record, version):
    document = json.loads(record.dumps()) | {"version": version}
    with pytest.raises(provenance.RecordError) as refused:
        provenance.loads(json.dumps(document))
    assert refused.value.kind == "version"
    assert str(refused.value) == (
        f"version {json.dumps(version)} of the format, and this korvex reads version 1"
    )


@pytest.mark.parametrize(
    "change",
    [
        lambda d: d.pop("made"),
        lambda d: d.update(results={}),
        lambda d: d.update(more=1),
        lambda d: d["results"][0].pop("limbs"),
        lambda d: d["results"][0].update(limbs=[]),
        lambda d: d["results"][0].update(shape=[-1]),
        lambda d: d["results"][0].update(shape=[True]),
        lambda d: d["results"][0]["limbs"][0].update(bits=["x"]),
        lambda d: d["results"][0].update(name="weights"),
        lambda d: d["results"][0].update(source={}),
        lambda d: d["environment"].update(numpy=1),
    ],
)
def test_a_record_of_another_form_is_refused(record, change):
    document = json.loads(record.dumps())
    change(document)
    with pytest.raises(provenance.RecordError) as refused:
        provenance.loads(json.dumps(document))
    assert refused.value.kind == "content"


# ---- arguments ----


@pytest.mark.parametrize(
    ("value", "words"),
    [
        (exact.Moments(), "is two"),
        ("text", "not str"),
        ([1.0], "not list"),
        (np.array(["x"]), "dtype <U1"),
        (np.ones(2, np.longdouble), "other bits on other machines"),
    ],
)
def test_what_cannot_be_recorded_is_a_type_error(value, words):
    with pytest.raises(TypeError, match=words):
        provenance.Record().add("x", value)


def test_a_name_is_given_once(record):
    with pytest.raises(ValueError, match="a result named total is recorded already"):
        record.add("total", 1.0)


def test_a_record_that_was_read_is_not_added_to(record):
    with pytest.raises(ValueError, match="make a new one"):
        provenance.loads(record.dumps()).add("more", 1.0)


def test_a_record_is_not_overwritten(record, tmp_path):
    record.write(tmp_path / "r.json")
    before = (tmp_path / "r.json").read_bytes()
    with pytest.raises(FileExistsError):
        provenance.Record().write(tmp_path / "r.json")
    assert (tmp_path / "r.json").read_bytes() == before
    assert [path.name for path in tmp_path.iterdir()] == ["r.json"]
    assert provenance.load(tmp_path / "r.json").dumps() == before.decode()


def test_a_file_system_without_unnamed_files_leaves_nothing_half_written(
    record, tmp_path, monkeypatch
):
    import errno
    import os

    opened = os.open

    def refuse(path, flags, *more, **named):
        if flags & os.O_TMPFILE == os.O_TMPFILE:
            raise OSError(errno.EOPNOTSUPP, "no")
        return opened(path, flags, *more, **named)

    monkeypatch.setattr(os, "open", refuse)
    record.write(tmp_path / "r.json")
    with pytest.raises(FileExistsError):
        record.write(tmp_path / "r.json")
    assert [path.name for path in tmp_path.iterdir()] == ["r.json"]


# ---- documents, schema, imports ----


def test_records_have_the_form_of_the_schema(record, tmp_path):
    fastjsonschema = pytest.importorskip("fastjsonschema")
    validate = fastjsonschema.compile(json.loads(SCHEMA.read_text()))
    np.save(tmp_path / "x.npy", np.ones(3))
    record.add_file(tmp_path / "x.npy", missing=["NA"], header=True, format="npy")
    document = json.loads(record.dumps())
    validate(document)
    for key in document:
        with pytest.raises(fastjsonschema.JsonSchemaValueException):
            validate({name: value for name, value in document.items() if name != key})


def blocks(language):
    return page_code.blocks_of(PAGE, language)


def test_code_on_the_page_gives_what_stands_there():
    names, examples = page_code.run_code(PAGE)
    assert examples > 15
    shown = blocks("json")[0]  # the other one is the schema
    [(name, entry)] = json.loads("{" + shown + "}").items()
    assert names["record"].results[name] == {"name": name} | entry


@pytest.mark.parametrize("name", ["Record", "loads"])
def test_examples_of_doc_strings_give_what_stands_there(name):
    finder, runner, report = doctest.DocTestFinder(), doctest.DocTestRunner(), []
    for test in finder.find(getattr(provenance, name), name, globs={}):
        runner.run(test, out=report.append)
    assert runner.failures == 0 and runner.tries > 0, "".join(report)


def test_importing_and_verifying_need_numpy_alone(record, tmp_path):
    """Of the packages that the tests have."""
    (tmp_path / "r.json").write_text(record.dumps())
    program = (
        "import sys\n"
        "for name in ('torch', 'cupy', 'pyarrow', 'rich', 'tqdm'): sys.modules[name] = None\n"
        "from korvex import provenance\n"
        "assert provenance.load('r.json').verify() == []\n"
        "assert 'korvex.readers' not in sys.modules and 'korvex.tqx_runtime' not in sys.modules"
    )
    run = subprocess.run(
        [sys.executable, "-P", "-c", program], cwd=tmp_path, capture_output=True, text=True
    )
    assert (run.returncode, run.stderr) == (0, "")


# --- How a record shows


def test_a_record_shows_what_it_holds(values):
    record = provenance.Record()
    assert repr(record) == f"<Record of {record.made}: 0 results>"
    record.add("a < b", values["total"])
    assert repr(record) == f"<Record of {record.made}: 1 result>"
    record.add("weights", values["weights"])
    root = ElementTree.fromstring(record._repr_html_())
    rows = [["".join(cell.itertext()) for cell in row] for row in root.iter("tr")]
    digests = [record.results[name]["sha256"] for name in ("a < b", "weights")]
    assert rows == [
        ["name", "what", "value", "SHA-256"],
        ["a < b", "Sum float64 ()", "1.0000000000000002e+16", digests[0]],
        ["weights", "array float64 (2, 3)", "", digests[1]],
    ]
