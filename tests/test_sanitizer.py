# SPDX-License-Identifier: Apache-2.0
"""The sanitized build sees a fault: one is planted in a scratch copy of the host kernels."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

TREE = Path(__file__).resolve().parent.parent
FLAGS = "-std=c++20 -O1 -g -ffp-contract=off -fPIC -shared -fsanitize=address,undefined".split()
RIGHT = "out[i] = operation(x[i]);"
CALL = """
import ctypes, sys
library = ctypes.CDLL(sys.argv[1])
library.korvex_host_kernel_name.restype = ctypes.c_char_p
names = [library.korvex_host_kernel_name(i) for i in range(library.korvex_host_kernel_count())]
x, out, n = (ctypes.c_double * 64)(), (ctypes.c_double * 64)(), ctypes.c_int64(64)
pointers = [ctypes.c_void_p(ctypes.addressof(a)) for a in (x, out)]
values = (ctypes.c_void_p * 3)(*(ctypes.addressof(v) for v in (*pointers, n)))
extents = (ctypes.c_uint * 3)(1, 1, 1)
index = names.index(b"tqx_relu_kernel")
assert library.korvex_host_launch(index, extents, extents, values, 1) == 0
print("ended")
"""


def compiler():
    found = subprocess.run(
        [TREE / "scripts" / "find_compiler.sh"], capture_output=True, text=True, cwd=TREE
    )
    return found.stdout.strip()


def run_on_copy(folder, text):
    """Build the host kernels with that loop over elements; run one kernel under the sanitizer."""
    shutil.copytree(TREE / "korvex", folder / "korvex", ignore=shutil.ignore_patterns("*.so"))
    host = folder / "korvex" / "kernels" / "host"
    loop = host / "elements.h"
    assert loop.read_text().count(f" {RIGHT}\n") == 1
    loop.write_text(loop.read_text().replace(f" {RIGHT}\n", f" {text}\n"))
    library = folder / "kernels.so"
    sources = sorted(host.glob("*.cpp"))
    subprocess.run([compiler(), *FLAGS, f"-I{folder}", *sources, "-o", library], check=True)
    query = [compiler(), "-print-file-name=libasan.so"]
    runtime = subprocess.run(query, capture_output=True, text=True).stdout.strip()
    environment = {"LD_PRELOAD": runtime, "ASAN_OPTIONS": "detect_leaks=0"}
    return subprocess.run(
        [sys.executable, "-P", "-c", CALL, library],
        env=os.environ | environment | {"PYTHONMALLOC": "malloc"},
        capture_output=True,
        text=True,
    )


@pytest.mark.long
def test_write_past_an_array_is_reported(tmp_path):
    ended = run_on_copy(tmp_path, RIGHT.replace("out[i]", "out[i + 1]"))
    assert ended.returncode != 0 and "heap-buffer-overflow" in ended.stderr


@pytest.mark.long
def test_kernels_as_they_are_run_without_a_word(tmp_path):
    ended = run_on_copy(tmp_path, RIGHT)
    assert (ended.returncode, ended.stdout, ended.stderr) == (0, "ended\n", "")
