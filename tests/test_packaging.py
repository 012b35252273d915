# SPDX-License-Identifier: Apache-2.0
"""What the distribution declares and holds, and how its build and set-up fail."""

import base64
import hashlib
import importlib.metadata
import os
import re
import shutil
import subprocess
import sys
import zipfile
from importlib.machinery import EXTENSION_SUFFIXES
from pathlib import Path

import pytest

SOURCE_TREE = Path(__file__).resolve().parent.parent
SCRIPTS = SOURCE_TREE / "scripts"
VERSION = importlib.metadata.version("korvex-tqx")
INFORMATION = f"korvex_tqx-{VERSION}.dist-info"
OTHER_NAME = f"Name: other\nVersion: {VERSION}\n"
INSTALLED_SUFFIXES = {".cubin", ".json", ".ptx", ".py", ".pyi", ".so", ".typed"}


def distribution() -> importlib.metadata.Distribution:
    return importlib.metadata.distribution("korvex-tqx")


# --- What is installed


def test_only_python_files_and_built_objects_are_installed():
    files = [path for path in distribution().files if path.parts[0] == "korvex"]
    sources = [path for path in files if "__pycache__" not in path.parts]
    assert {path.suffix for path in sources} <= INSTALLED_SUFFIXES
    assert "korvex/py.typed" in map(str, sources)


def test_nothing_is_installed_outside_the_package():
    """Save for the command, which lies where the interpreter's own programs do."""
    files = distribution().files
    inside = {"korvex", INFORMATION}
    assert {path.name for path in files if path.parts[0] not in inside} <= {"korvex"}
    assert {path.parts[0] for path in files} >= inside


def test_licence_text_is_installed():
    metadata = distribution().metadata
    assert metadata["License-Expression"] == "Apache-2.0"
    [licence] = [path for path in distribution().files if path.name == "LICENSE"]
    assert licence.read_text() == (SOURCE_TREE / "LICENSE").read_text()


def test_required_interpreter_and_packages():
    metadata = distribution().metadata
    always = [text for text in distribution().requires if "extra ==" not in text]
    assert metadata["Requires-Python"] == ">=3.12"
    assert {re.match("[a-z-]+", text).group() for text in always} == {"numpy"}


@pytest.mark.parametrize(
    ("extra", "package"),
    [("cuda11", "cupy-cuda11x"), ("cuda12", "cupy-cuda12x"), ("cuda13", "cupy-cuda13x")],
)
def test_extra_brings_the_cupy_of_its_cuda_release(extra, package):
    assert f'{package}; extra == "{extra}"' in [
        text.replace("'", '"') for text in distribution().requires
    ]


@pytest.mark.parametrize("extra", ["torch", "cuda11", "cuda12", "cuda13", "test"])
def test_extra_brings_torch(extra):
    required = [text.replace("'", '"') for text in distribution().requires]
    assert [t for t in required if t.startswith("torch") and t.endswith(f'extra == "{extra}"')]


def test_no_release_of_torch_is_asked_for():
    """`korvex.emulation.activate` says which were tried, and how to go on with others."""
    for extra in ("torch", "cuda11", "cuda12", "cuda13"):
        required = [
            text
            for text in distribution().requires
            if f"extra == '{extra}'" in text.replace('"', "'")
        ]
        assert [text.partition(";")[0].strip() for text in required if "torch" in text] == ["torch"]


def test_constraints_name_a_version_of_each_requirement():
    """And those that this environment has, if it was set up with them."""
    lines = (SOURCE_TREE / "constraints.txt").read_text().splitlines()[1:]
    versions = {canonical(name): version for name, version in (line.split("==") for line in lines)}
    listed = subprocess.run(
        [sys.executable, SCRIPTS / "list_requirements.py", "test", "dev", "docs"],
        capture_output=True,
        text=True,
        check=True,
    ).stdout.split("\n")
    names = [canonical(re.match(r"[\w.-]+", line)[0]) for line in listed if line]
    assert set(names) <= set(versions) and len(names) > 20
    assert "korvex-tqx" not in versions


def canonical(name):
    return re.sub(r"[-_.]+", "-", name).lower()


def test_each_extra_has_a_trial():
    from korvex_tools import try_extras

    assert set(try_extras.TRIALS) == {"", *distribution().metadata.get_all("Provides-Extra")}


def test_working_tree_has_torch():
    """By the extras that the set-up installs where none is named: test, dev and docs."""
    listed = subprocess.run(
        [sys.executable, SCRIPTS / "list_requirements.py", "test", "dev", "docs"],
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    assert re.search("^torch>=", listed, re.MULTILINE)


def test_tag_is_that_of_this_interpreter():
    tags = re.findall("^Tag: (.*)$", distribution().read_text("WHEEL"), re.MULTILINE)
    version = "cp{}{}".format(*sys.version_info)
    assert tags and all(
        re.fullmatch(rf"{version}-{version}-(many)?linux\w*_x86_64", tag) for tag in tags
    )


def test_command_is_a_console_script():
    [entry_point] = distribution().entry_points.select(group="console_scripts")
    assert (entry_point.name, entry_point.value) == ("korvex", "korvex.command:run")


@pytest.mark.parametrize("package", ["pyarrow", "rich", "tqdm"])
def test_extra_brings_what_the_command_needs(package):
    required = [text.replace("'", '"') for text in distribution().requires]
    assert [t for t in required if t.startswith(package) and t.endswith('extra == "cli"')]


def test_pytest_finds_the_emulated_device():
    [entry_point] = distribution().entry_points.select(group="pytest11")
    assert entry_point.value == "korvex.emulation.pytest_plugin"


# --- How the build fails


def configure(source: Path, build: Path, *definitions: str) -> subprocess.CompletedProcess:
    places = os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]])
    cmake = shutil.which("cmake", path=places)
    command = [cmake, "-S", source, "-B", build, f"-DPython_EXECUTABLE={sys.executable}"]
    return subprocess.run([*command, *definitions], capture_output=True, text=True)


@pytest.mark.parametrize(
    ("system", "processor"), [("Linux", "riscv64"), ("FreeBSD", "x86_64"), ("Generic", "x86_64")]
)
def test_another_platform_is_refused(tmp_path, system, processor):
    run = configure(
        SOURCE_TREE,
        tmp_path,
        f"-DCMAKE_SYSTEM_NAME={system}",
        f"-DCMAKE_SYSTEM_PROCESSOR={processor}",
    )
    assert run.returncode != 0
    assert "korvex builds on 64-bit x86 and Arm Linux only" in run.stderr
    assert f"{system} on {processor}" in " ".join(run.stderr.split())


def test_flags_that_would_change_results_are_refused(tmp_path):
    run = configure(SOURCE_TREE, tmp_path, "-DCMAKE_CXX_FLAGS=-O2 -ffast-math")
    assert run.returncode != 0
    assert "-ffast-math would change results" in run.stderr


def test_a_missing_source_folder_is_refused(tmp_path):
    tree = tmp_path / "tree"
    shutil.copytree(SOURCE_TREE / "cmake", tree / "cmake")
    shutil.copytree(SOURCE_TREE / "korvex", tree / "korvex")
    shutil.copy(SOURCE_TREE / "CMakeLists.txt", tree)
    shutil.rmtree(tree / "korvex" / "functions" / "provenance")
    run = configure(tree, tmp_path / "build")
    assert run.returncode != 0
    assert "korvex/functions/provenance holds no C++ source" in run.stderr


# --- How the set-up fails: one line that says what to install


@pytest.fixture
def bare_machine(tmp_path):
    """An environment whose PATH holds a shell and its tools: no Python, compiler or CMake."""
    tools = tmp_path / "bin"
    tools.mkdir()
    for name in ("bash", "cat", "dirname", "head", "mkdir", "realpath", "rm", "sed", "sort"):
        (tools / name).symlink_to(shutil.which(name))
    return {"PATH": str(tools), "HOME": str(tmp_path), "PYENV_ROOT": str(tmp_path / "pyenv")}


def add_program(path: Path, text: str) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"#!{shutil.which('bash')}\n{text}\n")
    path.chmod(0o755)


def run_script(name: str, *arguments, environment: dict) -> subprocess.CompletedProcess:
    return subprocess.run(
        [SCRIPTS / name, *arguments], capture_output=True, text=True, env=environment
    )


def assert_one_line(run: subprocess.CompletedProcess, *words: str) -> None:
    assert run.returncode != 0
    [line] = run.stderr.splitlines()
    assert all(word in line for word in words)


def test_no_python(bare_machine):
    run = run_script("find_python.sh", environment=bare_machine)
    assert_one_line(run, "No CPython 3.12 or newer", "install python3.12")


def test_a_shim_that_does_not_run_is_passed_over(bare_machine, tmp_path):
    real = tmp_path / "pyenv" / "versions" / "3.12.99" / "bin" / "python3.12"
    add_program(Path(bare_machine["PATH"]) / "python3.12", "exit 127")
    add_program(real, f'exec "{sys.executable}" "$@"')
    run = run_script("find_python.sh", environment=bare_machine)
    assert run.stdout.strip() == str(real)


def test_a_named_python_that_does_not_run_is_refused(bare_machine):
    broken = Path(bare_machine["PATH"]) / "python3"
    add_program(broken, "exit 127")
    run = run_script("find_python.sh", environment=bare_machine | {"PYTHON": str(broken)})
    assert_one_line(run, f"PYTHON={broken}", "3.12 or newer")


def test_a_python_of_one_version_is_asked_for(bare_machine, tmp_path):
    for minor in (12, 13):
        real = tmp_path / "pyenv" / "versions" / f"3.{minor}.99" / "bin" / f"python3.{minor}"
        add_program(real, f'exec "{sys.executable}" "$@"')
    run = run_script("find_python.sh", "3.13", environment=bare_machine | {"PYTHON": "python3"})
    assert run.stdout.strip() == str(real)


def test_no_compiler(bare_machine):
    run = run_script("find_compiler.sh", environment=bare_machine)
    assert_one_line(run, "No C++20 compiler", "install g++")


def test_a_compiler_that_is_too_old_is_refused(bare_machine):
    compiler = Path(bare_machine["PATH"]) / "c++"
    add_program(compiler, "exit 1")
    run = run_script("find_compiler.sh", environment=bare_machine | {"CXX": str(compiler)})
    assert_one_line(run, f"CXX={compiler}", "C++20")


@pytest.mark.parametrize("version", [None, "3.24.4"])
def test_no_cmake_or_an_old_one(bare_machine, tmp_path, version):
    tools = Path(bare_machine["PATH"])
    add_program(tools / "python", f'exec "{sys.executable}" "$@"')
    add_program(tools / "g++", "exit 0")
    if version is not None:
        add_program(tools / "cmake", f"echo cmake version {version}")
    run = run_script("install_tree.sh", tools / "python", tmp_path, environment=bare_machine)
    assert_one_line(run, "No CMake 3.25 or newer", "install cmake")


def test_environment_finds_the_tools_without_a_search_path(tmp_path):
    """The list of requirements is there already, so that pip has nothing to do."""
    environment = tmp_path / "environment"
    subprocess.run([sys.executable, "-m", "venv", environment], check=True)
    listed = subprocess.run(
        [sys.executable, SCRIPTS / "list_requirements.py", "test", "dev", "docs"],
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    constraints = (SOURCE_TREE / "constraints.txt").read_text()
    (environment / "korvex-requirements.txt").write_text(listed + constraints)
    bare = {"PATH": os.environ["PATH"], "HOME": str(tmp_path)}
    run = run_script("set_up_environment.sh", environment, environment=bare)
    assert (run.returncode, run.stdout, run.stderr) == (0, "", "")
    subprocess.run(
        [environment / "bin" / "python", "-P", "-c", "import korvex_tools.source_tree"],
        check=True,
        env=bare,
        cwd=tmp_path,
    )


def test_scripts_are_executable():
    programs = [*SCRIPTS.glob("*.sh"), SOURCE_TREE / ".ci" / "run"]
    assert all(os.access(path, os.X_OK) for path in programs)


# --- The check of a wheel as a file

BUILT = (
    *("cubin_loader_native", "emulation/_native", "exact/_cuda", "exact/_native"),
    "tqx_runtime",
)
LIBRARIES = "korvex/emulation/libkorvex_host_kernels_"


@pytest.fixture
def wheel(tmp_path):
    """Makes a wheel out of installed files; the content None is that of a built module."""

    def make(tags="cp312-cp312-linux_x86_64", **changes):
        files = {
            str(path): path.read_binary()
            for path in distribution().files
            if path.suffix in (".py", ".pyi", ".typed")
        }
        module = Path(distribution().locate_file("korvex"))
        suffix = EXTENSION_SUFFIXES[0]
        for name in BUILT:
            built = (module / (name + suffix)).read_bytes()
            files[f"korvex/{name}.cpython-312-x86_64-linux-gnu.so"] = built
        for path in (module / "emulation").glob("libkorvex_host_kernels_*.so"):
            files[f"korvex/emulation/{path.name}"] = path.read_bytes()
        library = files["korvex/tqx_runtime.cpython-312-x86_64-linux-gnu.so"]
        files["korvex/cubins/korvex_sm_90.cubin"] = b"kernels"
        files[f"{INFORMATION}/METADATA"] = distribution().read_text("METADATA").encode()
        files[f"{INFORMATION}/WHEEL"] = (
            b"Wheel-Version: 1.0\nRoot-Is-Purelib: false\nTag: cp312-cp312-linux_x86_64\n"
        )
        added = changes.pop("added", {})
        for name, data in added.items():
            files[name] = library if data is None else data(files) if callable(data) else data
        record = [f"{name},sha256={digest(data)},{len(data)}" for name, data in files.items()]
        files |= changes.pop("after_the_record", {})
        record.append(f"{INFORMATION}/RECORD,,")
        files[f"{INFORMATION}/RECORD"] = "\n".join(record).encode()
        path = tmp_path / f"korvex_tqx-{VERSION}-{tags}.whl"
        with zipfile.ZipFile(path, "w") as archive:
            for name, data in files.items():
                archive.writestr(name, data)
        return path

    return make


def digest(data: bytes) -> str:
    return base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()


def check_wheel(path: Path, *options) -> subprocess.CompletedProcess:
    command = [sys.executable, "-P", "-m", "korvex_tools.check_wheel", path, *options]
    return subprocess.run(command, capture_output=True, text=True)


@pytest.fixture
def kernels(tmp_path):
    folder = tmp_path / "kernels"
    folder.mkdir()
    (folder / "korvex_sm_90.cubin").write_bytes(b"kernels")
    return folder


def test_a_sound_wheel_passes(wheel, kernels):
    run = check_wheel(wheel(), "--kernels", kernels)
    assert run.returncode == 0 and "1 of them kernels; no fault" in run.stdout, run.stderr


@pytest.mark.parametrize(
    ("changes", "fault"),
    [
        ({"added": {"korvex/sum.cpp": b""}}, "korvex/sum.cpp: neither Python nor built"),
        ({"added": {"tests/test.py": b""}}, "tests/test.py: not part of the package"),
        (
            {"added": {"korvex/tqx_runtime.cpython-313-x86_64-linux-gnu.so": None}},
            "objects: ",
        ),
        (
            {"added": {"korvex/exact/_native.cpython-312-x86_64-linux-gnu.so": None}},
            "shows PyInit_tqx_runtime to others",
        ),
        (
            {"added": {LIBRARIES + "base.so": lambda files: files[LIBRARIES + "fma.so"]}},
            "_base.so does not take fma from libm",
        ),
        (
            {"added": {LIBRARIES + "fma.so": lambda files: for_arm(files[LIBRARIES + "fma.so"])}},
            "_fma.so is for aarch64",
        ),
        (
            {"tags": "cp312-cp312-manylinux_2_5_x86_64"},
            "which manylinux_2_5_x86_64 does not promise",
        ),
        ({"tags": "cp312-cp312-manylinux_2_28_aarch64"}, "tqx_runtime.cpython-312-aarch64"),
        (
            {"after_the_record": {"korvex/__init__.py": b"import os"}},
            "korvex/__init__.py is not the file that RECORD lists",
        ),
        ({"after_the_record": {"korvex/more.py": b""}}, "RECORD lists other files"),
        ({"tags": "cp312-abi3-linux_x86_64"}, "tags cp312-abi3"),
        ({"tags": "cp312-cp312-any"}, "platform any: Linux on x86-64 or 64-bit Arm expected"),
        ({"tags": "cp312-cp312-manylinux_2_36_x86_64"}, "and the file another name"),
        (
            {"added": {"korvex/cubins/korvex_sm_90.cubin": b"other"}},
            "korvex_sm_90.cubin: not as in",
        ),
        (
            {
                "added": {
                    f"{INFORMATION}/METADATA": b"Name: other\nVersion: %s\n" % VERSION.encode()
                }
            },
            "METADATA: Name is other, and korvex-tqx in pyproject.toml",
        ),
    ],
)
def test_a_fault_of_a_wheel_is_reported(wheel, kernels, changes, fault):
    run = check_wheel(wheel(**changes), "--kernels", kernels)
    assert run.returncode == 1 and fault in run.stderr


def for_arm(image: bytes) -> bytes:
    """The same file, but for the number of the processor in its head."""
    return image[:0x12] + (183).to_bytes(2, "little") + image[0x14:]


@pytest.mark.parametrize("what", ["objects", "wheel"])
def test_a_wheel_that_is_too_large_is_reported(wheel, what, monkeypatch):
    from korvex_tools import check_wheel as module

    assert module.size_faults(module.Wheel(wheel())) == []
    monkeypatch.setitem(module.LARGEST, what, 1000)
    [fault] = module.size_faults(module.Wheel(wheel()))
    assert fault.startswith(f"{what} of ")


def test_a_library_that_a_wheel_may_not_need_is_reported(wheel):
    """The interpreter's own modules link to more than ours may."""
    import _ctypes

    name = "korvex/tqx_runtime.cpython-312-x86_64-linux-gnu.so"
    foreign = Path(_ctypes.__file__).read_bytes()
    run = check_wheel(wheel(added={name: foreign}))
    assert run.returncode == 1 and f"{name} needs libffi" in run.stderr


# --- How a run ends


def closing_line(tmp_path: Path, *cases: str) -> subprocess.CompletedProcess:
    junit_file = tmp_path / "run.xml"
    junit_file.write_text(f"<testsuites><testsuite>{''.join(cases)}</testsuite></testsuites>")
    command = [sys.executable, "-P", "-m", "korvex_tools.report_tests", f"Python={junit_file}"]
    return subprocess.run(command, capture_output=True, text=True)


def test_closing_line_counts_the_tests(tmp_path):
    run = closing_line(tmp_path, "<testcase/>", "<testcase/>", "<testcase><skipped/></testcase>")
    assert (run.returncode, run.stdout) == (0, "passed: 2 Python tests (1 skipped)\n")


@pytest.mark.parametrize("cases", [[], ["<testcase><skipped/></testcase>"]])
def test_a_run_without_tests_fails(tmp_path, cases):
    run = closing_line(tmp_path, *cases)
    assert run.returncode == 1
    assert run.stdout.startswith("FAILED: no Python test ran")
