# SPDX-License-Identifier: Apache-2.0
"""How `make wheels` names, compiles, packs and tries: each step by itself, no compiler."""

import hashlib
import json
import os
import shutil
import subprocess
import sys
import zipfile
from pathlib import Path

import pytest

from korvex_tools.check_wheel import Wheel, record_faults
from korvex_tools.wheels import build, compiler, interpreters, make, notes, trial
from korvex_tools.wheels.interpreters import Missing
from korvex_tools.wheels.make import Outcome
from korvex_tools.wheels.pack import pack
from korvex_tools.wheels.targets import PROCESSORS, VERSIONS, Target, targets

SOURCE_TREE = Path(__file__).resolve().parent.parent
ARM = Target("aarch64", "3.14")


@pytest.fixture
def bare_path(tmp_path, monkeypatch):
    """A search path with a shell and its tools alone, and no interpreter anywhere else."""
    tools = tmp_path / "bin"
    tools.mkdir()
    for name in ("bash", "cat", "dirname", "realpath"):
        (tools / name).symlink_to(shutil.which(name))
    monkeypatch.setenv("PATH", str(tools))
    monkeypatch.setenv("HOME", str(tmp_path))
    monkeypatch.setenv("PYENV_ROOT", str(tmp_path / "pyenv"))
    return tools


# --- Names


def test_a_target_names_its_files():
    assert (ARM.tag, ARM.platform) == ("cp314", "manylinux_2_28_aarch64")
    assert ARM.module_suffix == "cpython-314-aarch64-linux-gnu.so"
    assert str(ARM) == "CPython 3.14 on aarch64"


def test_there_is_a_wheel_for_each_processor_and_version():
    assert len(set(targets(PROCESSORS, VERSIONS))) == 6
    assert targets(PROCESSORS, VERSIONS)[:2] == [Target("x86_64", "3.12"), Target("x86_64", "3.13")]


def test_metadata_names_the_same_versions():
    text = (SOURCE_TREE / "pyproject.toml").read_text()
    assert all(f'"Programming Language :: Python :: {version}"' in text for version in VERSIONS)


# --- The compiler


@pytest.fixture
def zig(tmp_path, monkeypatch):
    """Writes down how it is called, and makes the file that it is to make."""
    program = tmp_path / "zig"
    program.write_text(
        f'#!/bin/sh\necho "$@" >>"{tmp_path}/calls"\nfor last; do :; done\n: >"$last"\n'
    )
    program.chmod(0o755)
    monkeypatch.setattr(compiler, "find_zig", lambda: program)
    return tmp_path / "calls"


@pytest.mark.parametrize("processor", PROCESSORS)
def test_every_call_of_the_compiler_names_processor_and_c_library(zig, tmp_path, processor):
    made = compiler.make_compiler(processor, tmp_path / processor)
    subprocess.run([made.path, "-c", tmp_path / "made.o"], check=True)
    for line in zig.read_text().splitlines():
        assert line.startswith(
            f"c++ -target {processor}-linux-gnu.2.28 -O2 -fno-sanitize=undefined "
        )


def test_the_system_s_unwinder_stands_before_the_compiler_s(zig, tmp_path):
    made = compiler.make_compiler("x86_64", tmp_path)
    assert made.link_options[0] == str(tmp_path / "libgcc_s.so.1")
    assert "-Wl,-soname,libgcc_s.so.1" in zig.read_text()
    versions = (tmp_path / "unwinder.map").read_text()
    assert versions.startswith("GCC_3.0 { global: _Unwind_DeleteException; ")
    assert "GCC_4.2.0 { global: _Unwind_GetIPInfo; } GCC_3.3;" in versions
    source = (tmp_path / "unwinder.cpp").read_text()
    assert source.count("_Unwind_") == sum(map(len, compiler.UNWINDER.values()))


def test_a_compiler_that_did_not_change_keeps_its_date(zig, tmp_path):
    path = compiler.make_compiler("x86_64", tmp_path).path
    os.utime(path, (1, 1))
    assert compiler.make_compiler("x86_64", tmp_path).path.stat().st_mtime == 1


def test_no_zig_is_one_line(monkeypatch):
    monkeypatch.setattr("importlib.util.find_spec", lambda name: None)
    with pytest.raises(SystemExit, match="pip install ziglang"):
        compiler.find_zig()


def test_a_build_that_fails_shows_the_end_of_its_log(tmp_path):
    log = tmp_path / "log"
    program = "print(*range(99), sep=chr(10)); raise SystemExit(3)"
    with pytest.raises(SystemExit, match="(?s)^69\n.*98\nfailed, as .*log says"):
        build.run(log, sys.executable, "-c", program)


# --- Interpreters and headers


def test_headers_are_those_of_the_interpreter(tmp_path):
    headers = interpreters.copy_headers(Path(sys.executable), tmp_path / "headers")
    version = "{}.{}.{}".format(*sys.version_info)
    assert f'"{version}"' in (headers / "patchlevel.h").read_text()
    assert "#define SIZEOF_VOID_P 8" in (headers / "pyconfig.h").read_text()


def test_headers_of_debian_are_made_one_folder(tmp_path):
    """There pyconfig.h asks for the processor and includes a file of another folder."""
    include = tmp_path / "include" / "python3.14"
    beside = tmp_path / "include" / "x86_64-linux-gnu" / "python3.14"
    include.mkdir(parents=True)
    beside.mkdir(parents=True)
    (include / "Python.h").touch()
    (include / "pyconfig.h").write_text("#include <x86_64-linux-gnu/python3.14/pyconfig.h>")
    (beside / "pyconfig.h").write_text("#define SIZEOF_VOID_P 8")
    names = {"include": str(include), "MULTIARCH": "x86_64-linux-gnu"}
    probe = (
        f"import sysconfig, sys; names = {names!r};"
        "sysconfig.get_path = sysconfig.get_config_var = names.get; exec(sys.argv[3])"
    )
    interpreter = tmp_path / "python3.14"
    interpreter.write_text(f'#!/bin/sh\nexec "{sys.executable}" -c "{probe}" "$@"\n')
    interpreter.chmod(0o755)
    headers = interpreters.copy_headers(interpreter, tmp_path / "headers")
    assert (headers / "pyconfig.h").read_text() == "#define SIZEOF_VOID_P 8"
    assert (headers / "Python.h").exists()


def test_no_interpreter_ends_the_making_of_wheels_at_once(bare_path, tmp_path, monkeypatch):
    monkeypatch.setattr(make, "WORK", tmp_path / "work")
    with pytest.raises(SystemExit) as caught:
        make.main(["--versions", "3.14"])
    assert str(caught.value) == (
        "Debian's CPython 3.14 for x86_64: No apt-get and dpkg-deb here, so no packages of Debian."
    )


# --- Packing


@pytest.fixture
def base(tmp_path):
    information = "korvex_tqx-1.0.dist-info"
    path = tmp_path / "korvex_tqx-1.0-py3-none-any.whl"
    with zipfile.ZipFile(path, "w") as archive:
        archive.writestr("korvex/__init__.py", "")
        archive.writestr(
            f"{information}/METADATA", "Metadata-Version: 2.1\nName: korvex-tqx\nVersion: 1.0\n"
        )
        archive.writestr(
            f"{information}/WHEEL",
            "Wheel-Version: 1.0\nGenerator: backend\nRoot-Is-Purelib: true\nTag: py3-none-any\n",
        )
        archive.writestr(f"{information}/RECORD", "korvex/__init__.py,,\n")
    return path


@pytest.fixture
def tree(tmp_path):
    module = tmp_path / "tree" / "korvex" / "tqx_runtime.so"
    module.parent.mkdir(parents=True)
    module.write_bytes(b"built")
    return tmp_path / "tree"


def test_a_packed_wheel_says_for_what_it_is(base, tree, tmp_path):
    wheel = Wheel(pack(base, tree, ARM, tmp_path / "dist"))
    assert wheel.path.name == "korvex_tqx-1.0-cp314-cp314-manylinux_2_28_aarch64.whl"
    assert wheel.files["korvex/tqx_runtime.so"] == b"built"
    assert wheel.text("WHEEL") == (
        "Wheel-Version: 1.0\nGenerator: backend\nRoot-Is-Purelib: false\n"
        "Tag: cp314-cp314-manylinux_2_28_aarch64\n"
    )
    assert record_faults(wheel) == []
    assert len(wheel.text("RECORD").splitlines()) == len(wheel.files) == 5


def test_a_wheel_is_packed_the_same_each_time(base, tree, tmp_path):
    first = pack(base, tree, ARM, tmp_path / "dist").read_bytes()
    os.utime(tree / "korvex" / "tqx_runtime.so", (1e9, 1e9))
    assert pack(base, tree, ARM, tmp_path / "dist").read_bytes() == first


def test_pip_installs_what_was_packed_from_the_file(base, tree, tmp_path, monkeypatch):
    """For the processor that is named, and for no other; --no-index asks nobody."""
    wheel = pack(base, tree, ARM, tmp_path / "dist")
    trial.install_for(ARM, tmp_path / "site", str(wheel), "--no-index")
    assert (tmp_path / "site" / "korvex" / "tqx_runtime.so").read_bytes() == b"built"
    for other in (Target("x86_64", "3.14"), Target("aarch64", "3.13")):
        with pytest.raises(subprocess.CalledProcessError):
            trial.install_for(other, tmp_path / "other", str(wheel), "--no-index")


# --- What is said at the end


def attempted(monkeypatch, name, outcome, behaviour):
    def fail(*arguments):
        if isinstance(behaviour, Exception):
            raise behaviour
        return behaviour

    monkeypatch.setattr(trial, name, fail)
    make.attempt(outcome, Path("python3"), [])
    return outcome.state()


def test_a_trial_that_cannot_be_made_is_said_and_is_no_failure(monkeypatch):
    outcome = Outcome(ARM, Path("wheel"), ["0.9 MB without a fault"])
    text = attempted(monkeypatch, "emulated", outcome, Missing("no qemu"))
    assert text == "made; 0.9 MB without a fault; NOT TRIED: no qemu"
    assert not outcome.failed


def test_a_trial_that_fails_is_a_failure(monkeypatch):
    outcome = Outcome(Target("x86_64", "3.12"), Path("wheel"))
    error = subprocess.CalledProcessError(1, ["python", "-m", "pytest"])
    text = attempted(monkeypatch, "natively", outcome, error)
    assert text == "FAILED; tried, and python -m pytest failed"


def test_wheels_with_other_bits_fail():
    first, same, other, untried = (
        Outcome(target, Path()) for target in targets(PROCESSORS, VERSIONS)[:4]
    )
    first.checksum, same.checksum, other.checksum = "ab", "ab", "cd"
    make.compare([first, same, other, untried])
    assert [outcome.failed for outcome in (first, same, other, untried)] == [
        False,
        False,
        True,
        False,
    ]
    assert other.lines == ["its checksum is not that of CPython 3.12 on x86_64"]


def test_no_interpreter_for_arm_is_said(bare_path, tmp_path):
    with pytest.raises(Missing, match="^Debian's CPython 3.14 for aarch64: No apt-get"):
        trial.emulated(Path("wheel"), ARM, tmp_path)


# --- On another processor


def test_an_emulated_interpreter_is_one_program(tmp_path, monkeypatch):
    """It hands on its own name, which its children are started by, and all arguments."""
    programs = tmp_path / "root" / "usr" / "bin"
    programs.mkdir(parents=True)
    monkeypatch.setattr(trial, "fetch", lambda *arguments: tmp_path / "root")
    monkeypatch.setattr(trial, "fetch_emulator", lambda folder: tmp_path / "root")
    qemu = programs / "qemu-aarch64"
    qemu.write_text('#!/bin/sh\nprintf "%s\\n" "$@"\n')
    qemu.chmod(0o755)
    python = trial.emulated_interpreter(ARM, tmp_path)
    called = subprocess.check_output([python, "-c", "a b"], text=True).splitlines()
    assert called == ["-0", str(python), "-L", str(tmp_path / "root"), *called[4:]]
    assert called[4:] == [str(programs / "python3.14"), "-c", "a b"]


def test_packages_for_another_processor_have_the_versions_of_the_constraints():
    chosen = trial.constrained(trial.EMULATED_REQUIREMENTS)
    assert len(chosen) == len(trial.EMULATED_REQUIREMENTS)
    assert all("==" in line for line in chosen)
    assert set(chosen) <= set((SOURCE_TREE / "constraints.txt").read_text().splitlines())


# --- Notes of a release


def test_notes_say_what_became_of_each_wheel(base, tree, tmp_path):
    wheel = pack(base, tree, ARM, tmp_path / "dist")
    (tmp_path / "compilers.json").write_text(
        json.dumps({"a.cubin": "NVRTC 12.9", "b.cubin": "NVRTC 12.9", "c.cubin": "nvcc 13.0"})
    )
    rows = [(wheel, "made; 0.9 MB without a fault; NOT TRIED: no qemu")]
    path = notes.write(tmp_path / "dist", rows, tmp_path, "2.28")
    assert path.name == "release-notes-1.0.md"
    text = path.read_text()
    assert text.startswith("# korvex-tqx 1.0\n\nCommit ")
    digest = hashlib.sha256(wheel.read_bytes()).hexdigest()
    assert text.endswith(
        "All hold the same kernels for GPUs: 2 files by NVRTC 12.9, 1 files by nvcc 13.0.\n\n"
        "| wheel | SHA-256 | outcome |\n|---|---|---|\n"
        f"| `{wheel.name}` | `{digest}` | made; 0.9 MB without a fault; NOT TRIED: no qemu |\n"
    )


@pytest.mark.parametrize(("version", "expected"), [("1.0", "- one\n"), ("2.0", "- next\n")])
def test_notes_hold_the_changes_of_their_version(tmp_path, monkeypatch, version, expected):
    (tmp_path / "CHANGELOG.md").write_text(
        "# Changes\n\n## [Unreleased]\n\n- next\n\n## [1.0] - 2026-01-01\n\n- one\n"
    )
    monkeypatch.setattr(notes, "SOURCE_TREE", tmp_path)
    assert notes.changes(version) == expected


def test_notes_of_wheels_without_kernels_say_so():
    assert notes.sentence_on(None) == "They hold no kernels for GPUs."
