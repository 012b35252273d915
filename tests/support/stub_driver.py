# SPDX-License-Identifier: Apache-2.0
"""The kernel loader over a stub of the CUDA driver, for tests in a process of their own.

`build` makes the stub libraries: of the driver, and of the management library, which says nothing
unless a test lets it. In the process, whose LD_LIBRARY_PATH leads to them, `StubDriver`
controls the driver, `import_loader` imports the loader's module from a scratch installation, and
`DeviceArray` is an array that the loader takes, in host memory.
"""

import ctypes
import fcntl
import importlib.machinery
import importlib.util
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

NAME = "korvex.cubin_loader_native"
DRIVER = "libcuda.so.1"
MANAGEMENT = "libnvidia-ml.so.1"
LEGACY_STREAM = 1

_SOURCE = Path(__file__).resolve().parent.parent / "loader" / "stub_cuda"


def installed_folder():
    return Path(importlib.util.find_spec("korvex").origin).parent


def installed_extension():
    suffix = importlib.machinery.EXTENSION_SUFFIXES[0]
    return installed_folder() / (NAME.rpartition(".")[2] + suffix)


def host_kernels():
    return installed_folder() / "emulation" / "libkorvex_host_kernels_base.so"


def build(folder):
    """Build both stub libraries in `folder`, once for all processes of a run; return it."""
    folder.mkdir(exist_ok=True)
    with open(folder / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        tools = os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]])
        cmake = shutil.which("cmake", path=tools)
        _run(cmake, "-S", _SOURCE, "-B", folder / "build", "-DCMAKE_BUILD_TYPE=Release")
        _run(cmake, "--build", folder / "build")
    return folder / "build"


def _run(*command):
    run = subprocess.run(command, capture_output=True, text=True)
    assert run.returncode == 0, run.stdout + run.stderr


def install(folder, *files):
    """A scratch installation: the built extension beside a `cubins` folder of dummy files.

    A file is named as in `sm_90` or `compute_80`; its content tells the stub which one it is.
    """
    (folder / "cubins").mkdir(parents=True)
    extension = installed_extension()
    (folder / extension.name).symlink_to(extension)
    for name in files:
        suffix = "ptx" if name.startswith("compute") else "cubin"
        (folder / "cubins" / f"korvex_{name}.{suffix}").write_text(f"stub {name}\n")
    return folder / extension.name


def import_loader(cupy=True):
    """Import the loader's module from the scratch installation that the test has named."""
    if cupy:
        sys.modules.setdefault("cupy", importlib.util.module_from_spec(_spec("cupy")))
    path = os.environ["KORVEX_TEST_LOADER"]
    spec = importlib.util.spec_from_file_location(NAME, path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    sys.modules[NAME] = module
    return module


def _spec(name):
    return importlib.machinery.ModuleSpec(name, None)


class StubDriver:
    """The stub driver of this process, with the kernels of the emulated device."""

    def __init__(self):
        self._library = ctypes.CDLL(DRIVER)
        self._library.stub_take_log.restype = ctypes.c_char_p
        self._library.stub_wait_until_blocked.argtypes = [ctypes.c_double]
        self._library.stub_register_memory.argtypes = [
            ctypes.c_void_p,
            ctypes.c_size_t,
            ctypes.c_int,
        ]
        assert self._library.stub_use_host_kernels(bytes(host_kernels()))

    def set_devices(self, *models):
        """Devices as (major, minor, multiprocessors); 9.0 with 4 and 8.0 with 2 at first."""
        self._library.stub_clear_devices()
        for model in models:
            self._library.stub_add_device(*model)

    def set_device(self, ordinal):
        """Make the device current on this thread, as cudaSetDevice does."""
        self._library.stub_set_device(ordinal)

    def register_memory(self, address, size, ordinal):
        self._library.stub_register_memory(address, size, ordinal)

    def fail(self, call, result=2, calls_before=0):
        """Make one call fail: the next of that function, or of any ("*"), or a later one."""
        self._library.stub_fail(call.encode(), result, calls_before)

    def failures_left(self):
        """How many of these have not happened; forgets them."""
        left = self._library.stub_failures_left()
        self._library.stub_fail_no_more()
        return left

    def block(self, call):
        self._library.stub_block(call.encode())

    def wait_until_blocked(self):
        return bool(self._library.stub_wait_until_blocked(10.0))

    def unblock(self):
        self._library.stub_unblock()

    def take_log(self):
        """The calls since the last time, each as one line."""
        return self._library.stub_take_log().decode().splitlines()

    def take_calls(self):
        """The names of the calls since the last time."""
        return [line.split()[0] for line in self.take_log()]

    def synchronize(self):
        """Wait on the null stream of the current device, if there is one, as a caller does."""
        if self._library.stub_context_depth() > 0:
            assert self._library.cuStreamSynchronize(LEGACY_STREAM) == 0

    def state(self):
        """What a failed call must leave as it was."""
        devices = range(2)
        return {
            "context depth": self._library.stub_context_depth(),
            "modules": self._library.stub_module_count(),
            "retained": [self._library.stub_retained(i) for i in devices],
            "pending": [self._library.stub_pending_launches(i) for i in devices],
        }


class DeviceArray:
    """Float64 elements on a stub device; `interface` replaces entries of its protocol."""

    def __init__(self, driver, values, device=0, **interface):
        self._memory = (ctypes.c_double * max(len(values), 1))(*values)
        self._count = len(values)
        self._interface = interface
        driver.register_memory(self.address, ctypes.sizeof(self._memory), device)

    @property
    def address(self):
        return ctypes.addressof(self._memory)

    @property
    def __cuda_array_interface__(self):
        entries = {
            "shape": (self._count,),
            "typestr": "<f8",
            "data": (self.address if self._count else 0, False),
            "strides": None,
            "stream": LEGACY_STREAM,
            "version": 3,
        }
        return {**entries, **self._interface}

    def tolist(self):
        return self._memory[: self._count]


def queued(log):
    """What a log queued on streams, in order: ("clear", variable) and ("launch", kernel)."""
    words = [line.split() for line in log]
    names = {"cuMemsetD8Async": "clear", "cuLaunchKernel": "launch"}
    return [(names[line[0]], line[1]) for line in words if line[0] in names]


def launches(log):
    """The launches in a log, each as (kernel, grid, block, stream)."""
    pattern = re.compile(
        r"cuLaunchKernel (\w+) grid (\d+) (\d+) (\d+) block (\d+) (\d+) (\d+) stream (\d+)"
    )
    found = [pattern.fullmatch(line) for line in log]
    return [
        (m[1], tuple(map(int, m.group(2, 3, 4))), tuple(map(int, m.group(5, 6, 7))), int(m[8]))
        for m in found
        if m
    ]
