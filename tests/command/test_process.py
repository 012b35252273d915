# SPDX-License-Identifier: Apache-2.0
"""The process as its surroundings see it: terminal, pipe, full disk, signals, missing packages."""

import fcntl
import importlib.metadata
import json
import os
import pty
import re
import resource
import signal
import struct
import subprocess
import sys
import termios
import time

import numpy as np
import pytest

VERSION = importlib.metadata.version("korvex-tqx")


@pytest.fixture
def large(tmp_path):
    """A file whose reading takes a while: many numbers as text."""
    block = "".join(f"{n / 7!r}\n" for n in range(100_000))
    path = tmp_path / "large.txt"
    with path.open("w") as stream:
        for _ in range(60):
            stream.write(block)
    return path


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


def on_a_terminal(command, *arguments, output=False):
    terminal, of_process = pty.openpty()
    fcntl.ioctl(of_process, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 80, 0, 0))
    process = subprocess.Popen(
        [*command, *map(str, arguments)],
        stdout=of_process if output else subprocess.PIPE,
        stderr=of_process,
        env=os.environ | {"TERM": "xterm", "TQDM_MININTERVAL": "0", "TQDM_DELAY": "0"},
    )
    os.close(of_process)
    shown = read_terminal(terminal)
    output = process.communicate(timeout=300)[0]
    return process.returncode, shown, output


# --- Progress


def test_progress_shows_on_a_terminal_and_goes_away(command, large):
    code, shown, output = on_a_terminal(command, "sum", large)
    assert code == 0
    percents = [int(text) for text in re.findall(r"reading large\.txt: +(\d+)%", shown)]
    assert len(percents) > 2 and percents == sorted(percents)
    assert shown.rpartition("\r")[0].rpartition("\r")[2].strip() == ""
    assert f"{large}: 6000000 values".encode() in output


def test_no_progress_in_a_pipe(korvex, large):
    assert korvex("sum", large).errors == ""


def test_a_terminal_has_colours_and_whole_checksums(command, tmp_path):
    (tmp_path / "a.txt").write_text("1\n")
    _, shown, _ = on_a_terminal(command, "sum", tmp_path / "a.txt", output=True)
    assert "\x1b[" in shown
    assert re.search(r"checksum +(\x1b\[[0-9;]*m)*[0-9a-f]{64}", shown)


def test_a_pipe_has_no_colours(korvex, tmp_path):
    (tmp_path / "a.txt").write_text("1\n")
    assert "\x1b" not in korvex("sum", "a.txt", folder=tmp_path).output


# --- Output that cannot be written


def test_a_reader_that_goes_away_ends_the_command_in_silence(command, tmp_path):
    (tmp_path / "a.txt").write_text("1\n")
    process = subprocess.Popen(
        [*command, "sum", "a.txt"],
        cwd=tmp_path,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    process.stdout.close()
    with process:
        assert process.stderr.read() == b""
        assert process.wait(timeout=60) == -signal.SIGPIPE


@pytest.mark.parametrize("arguments", [["sum"], ["sum", "--json"], ["record"]])
def test_a_full_disk_is_one_line(command, tmp_path, arguments):
    (tmp_path / "a.txt").write_text("1\n")
    with open("/dev/full", "w") as full:
        run = subprocess.run(
            [*command, *arguments, "a.txt"],
            cwd=tmp_path,
            stdout=full,
            stderr=subprocess.PIPE,
            text=True,
        )
    assert (run.returncode, run.stderr) == (3, "korvex: standard output: No space left on device\n")


def limit_files():
    resource.setrlimit(resource.RLIMIT_FSIZE, (200, 200))


def test_nothing_is_left_of_a_record_that_does_not_fit(command, tmp_path):
    (tmp_path / "a.txt").write_text("1\n")
    with (tmp_path / "record.json").open("w") as stream:
        run = subprocess.run(
            [*command, "record", "a.txt"],
            cwd=tmp_path,
            stdout=stream,
            stderr=subprocess.PIPE,
            text=True,
            preexec_fn=limit_files,
        )
    assert (run.returncode, run.stderr) == (3, "korvex: standard output: File too large\n")
    assert (tmp_path / "record.json").read_text() == ""
    run = subprocess.run(
        [*command, "record", "a.txt", "-o", "other.json"],
        cwd=tmp_path,
        capture_output=True,
        text=True,
        preexec_fn=limit_files,
    )
    assert (run.returncode, run.stderr) == (3, "korvex: other.json: File too large\n")
    assert sorted(os.listdir(tmp_path)) == ["a.txt", "record.json"]


def test_what_stood_in_a_file_before_is_kept(command, tmp_path):
    (tmp_path / "a.txt").write_text("1\n")
    (tmp_path / "log").write_text("before\n")
    with (tmp_path / "log").open("a") as stream:
        run = subprocess.run(
            [*command, "sum", "--json", "a.txt"],
            cwd=tmp_path,
            stdout=stream,
            stderr=subprocess.DEVNULL,
            preexec_fn=limit_files,
        )
    assert run.returncode == 3
    assert (tmp_path / "log").read_text() == "before\n"


# --- Signals


@pytest.mark.parametrize(
    ("number", "code", "line"),
    [(signal.SIGINT, 130, "interrupted"), (signal.SIGTERM, 143, "ended by SIGTERM")],
)
def test_an_interrupted_run_leaves_nothing(command, tmp_path, number, code, line):
    """It waits for numbers that do not come."""
    process = subprocess.Popen(
        [*command, "record", "-", "-o", "record.json"],
        cwd=tmp_path,
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        # Tests that run in the background ignore interrupts, and so would what they start.
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),
    )
    process.stdin.write(b"1\n" * 5_000_000)
    process.stdin.flush()
    time.sleep(0.2)
    process.send_signal(number)
    output, errors = process.communicate(timeout=60)
    assert (process.returncode, output) == (code, b"")
    assert errors.decode() == f"korvex: {line}\n"
    assert os.listdir(tmp_path) == []


def test_a_killed_run_leaves_nothing(command, tmp_path):
    process = subprocess.Popen(
        [*command, "record", "-", "-o", "record.json"], cwd=tmp_path, stdin=subprocess.PIPE
    )
    process.stdin.write(b"1\n" * 5_000_000)
    process.stdin.flush()
    process.kill()
    process.communicate(timeout=60)
    assert os.listdir(tmp_path) == []


# --- What is installed


@pytest.mark.parametrize("package", ["pyarrow", "rich", "tqdm"])
def test_a_missing_package_is_one_line_that_says_what_to_install(tmp_path, package):
    program = (
        "import sys, importlib.util as u; find = u.find_spec\n"
        f"u.find_spec = lambda name, *a: None if name == {package!r} else find(name, *a)\n"
        "from korvex.command import main; sys.exit(main(['sum', 'a.txt']))"
    )
    run = subprocess.run([sys.executable, "-P", "-c", program], capture_output=True, text=True)
    assert run.returncode == 4
    [line] = run.stderr.splitlines()
    assert package in line and "pip install 'korvex-tqx[cli]'" in line


def test_help_and_version_need_no_extra():
    program = (
        "import sys\nfor name in ('pyarrow', 'rich', 'tqdm', 'torch'): sys.modules[name] = None\n"
        "from korvex.command import main; main(['--version'])"
    )
    run = subprocess.run([sys.executable, "-P", "-c", program], capture_output=True, text=True)
    assert (run.returncode, run.stdout) == (0, f"korvex {VERSION}\n"), run.stderr


def test_the_command_imports_no_torch(command, tmp_path):
    np.save(tmp_path / "a.npy", np.ones(3))
    program = (
        "import sys; sys.modules['torch'] = None; sys.modules['cupy'] = None\n"
        "from korvex.command import main\n"
        "sys.exit(main(['sum', 'a.npy']) or main(['record', 'a.npy', '-o', 'r.json'])"
        " or main(['verify', 'r.json']))"
    )
    run = subprocess.run(
        [sys.executable, "-P", "-c", program], cwd=tmp_path, capture_output=True, text=True
    )
    assert (run.returncode, run.stderr) == (0, "")
    assert run.stdout.endswith("verified: 1 result\n")


def test_help_says_what_a_decimal_is_first(korvex):
    run = korvex("sum", "--help")
    assert run.code == 0
    assert "A decimal in a text is first rounded to the nearest float64" in run.output
    assert "exit codes: 0 done; 1 a checksum or a record is not met" in run.output


def test_json_is_one_text_with_errors_beside_results(korvex, tmp_path):
    (tmp_path / "a.txt").write_text("0.1\n0.2\n")
    run = korvex("sum", "--json", "a.txt", "b.txt", folder=tmp_path)
    assert run.code == 2
    document = json.loads(run.output)
    assert document["korvex"] == VERSION
    assert document["errors"] == [{"file": "b.txt", "error": "b.txt: No such file or directory"}]
    [result] = document["results"]
    assert result["exact_sum"] == "0.3000000000000000166533453693773481063544750213623046875"
    assert result["float_sums"]["one_by_one"] == {"value": "0.30000000000000004", "ulps_off": "0.5"}


def test_names_that_are_no_text_are_shown_escaped(command, tmp_path):
    name = b"\xff.txt"
    (tmp_path / os.fsdecode(name)).write_text("1\n")
    run = subprocess.run([*command, "sum", name], cwd=tmp_path, capture_output=True)
    assert (run.returncode, run.stderr) == (0, b"")
    assert run.stdout.startswith(rb"\udcff.txt: 1 value")
