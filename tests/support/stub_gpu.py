# SPDX-License-Identifier: Apache-2.0
"""GPUs for korvex.exact in host memory, for tests in a process of their own.

The driver is the stub of tests/exact/stub_cuda, which runs the code of the device. `install` puts
the launcher beside a folder of dummy kernel files; `cupy_module` is a stand-in for CuPy over NumPy,
and `pretend_torch_has_a_gpu` makes torch hand out tensors that say that they are on a GPU. Both
wait for a stream where the real library would: where elements are copied to the host.
"""

import contextlib
import ctypes
import fcntl
import importlib.machinery
import importlib.util
import os
import shutil
import subprocess
import sys
import types
from pathlib import Path

import numpy as np

_SOURCE = Path(__file__).resolve().parent.parent / "exact" / "stub_cuda"
NAME = "korvex.exact._cuda"

# How scripts for a process with the stub begin: for either library the last two together.
PREAMBLE = """
import os, sys
import numpy as np
import pytest
import stub_gpu

driver = stub_gpu.StubDriver()
stub_gpu.import_launcher(os.environ["KORVEX_TEST_LAUNCHER"])
"""
CUPY = """
cupy = stub_gpu.cupy_module(driver)
from korvex import exact

def on(values, device=0):
    return stub_gpu.CupyArray(values, device)

def value(array):
    with cupy.cuda.Device(array.device.id):
        return cupy.asnumpy(array)[()]

def bits(x):
    return np.asarray(x).tobytes()

rng = np.random.default_rng(5)
x = np.ldexp(rng.standard_normal(3000), rng.integers(-60, 60, 3000))
y = rng.standard_normal(3000)
"""
TORCH = """
torch, CudaTensor = stub_gpu.pretend_torch_has_a_gpu(driver)
from korvex import exact
"""


def build(folder):
    """Build the stub driver in `folder`, once for all processes of a run; return its folder."""
    folder.mkdir(exist_ok=True)
    with open(folder / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        tools = os.pathsep.join([str(Path(sys.executable).parent), os.environ["PATH"]])
        cmake = shutil.which("cmake", path=tools)
        for command in (
            [cmake, "-S", _SOURCE, "-B", folder / "build", "-DCMAKE_BUILD_TYPE=Release"],
            [cmake, "--build", folder / "build"],
        ):
            run = subprocess.run(command, capture_output=True, text=True)
            assert run.returncode == 0, run.stdout + run.stderr
    return folder / "build"


def install(folder, *files):
    """The built launcher with dummy files of kernels, as in `sm_90`: its path.

    Its own lie beside it, as in the package, and those of the table of kernels one folder up.
    """
    launcher = folder / "exact" / Path(importlib.util.find_spec(NAME).origin).name
    for kernels, kind in ((launcher.parent / "cubins", ""), (folder / "cubins", "table ")):
        kernels.mkdir(parents=True)
        for name in files:
            (kernels / f"korvex_{name}.cubin").write_text(f"{kind}{name}\n")
    launcher.symlink_to(importlib.util.find_spec(NAME).origin)
    return launcher


def import_launcher(path):
    """Import the launcher from the scratch installation."""
    spec = importlib.util.spec_from_file_location(NAME, path)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    sys.modules[NAME] = module
    return module


class StubDriver:
    def __init__(self):
        self._library = ctypes.CDLL("libcuda.so.1")
        self._library.stub_take_log.restype = ctypes.c_char_p
        for function in (self._library.stub_wait, self._library.stub_settle):
            function.argtypes = [ctypes.c_int, ctypes.c_uint64]

    def wait(self, device, stream):
        assert self._library.stub_wait(device, stream) == 0

    def settle(self, device, stream):
        """Run what is queued in a stream, before a function of a library that comes after it."""
        assert self._library.stub_settle(device, stream) == 0

    def fail(self, call, result=2):
        """Make a function fail from now on; no more where the result is 0."""
        self._library.stub_fail(call.encode(), result)

    def take_log(self):
        return self._library.stub_take_log().decode().splitlines()

    def take_launches(self):
        """The launches since the last time, as (kernel, device, stream, blocks)."""
        words = [line.split() for line in self.take_log()]
        return [
            (w[1], int(w[3]), int(w[5]), int(w[7])) for w in words if w[:1] == ["cuLaunchKernel"]
        ]

    def context_depth(self):
        return self._library.stub_context_depth()


# --- CuPy


# Memory of a GPU is given back in the order of a stream, so launches that wait there may use it.
# The memory here is that of NumPy and torch, so it is kept.
_kept = []


class CupyArray:
    """A NumPy array that only a stand-in for CuPy lets others see."""

    def __init__(self, values, device=0):
        _kept.append(values)
        self.values = values
        self.device = types.SimpleNamespace(id=device)
        self.data = types.SimpleNamespace(ptr=values.__array_interface__["data"][0])

    def __getattr__(self, name):
        if name in ("dtype", "shape", "strides", "itemsize", "ndim"):
            return getattr(self.values, name)
        raise AttributeError(name)

    def _like(self, values):
        return CupyArray(values, self.device.id)

    @property
    def __cuda_array_interface__(self):
        return self.values.__array_interface__

    real = property(lambda self: self._like(self.values.real))
    imag = property(lambda self: self._like(self.values.imag))

    def __len__(self):
        return len(self.values)

    def __getitem__(self, key):
        if isinstance(key, CupyArray):
            self._after_launches()
        return self._like(self.values[_host(key)])

    def __setitem__(self, key, values):
        self._after_launches()
        self.values[_host(key)] = _host(values)

    def __neg__(self):
        return self._like(-self.values)

    def __iadd__(self, other):
        self.values += other.values
        return self

    def __isub__(self, other):
        self.values -= other.values
        return self

    def copy(self):
        return self._like(self.values.copy())

    def _after_launches(self):
        """Functions of elements come after what the stream was given, on the current device."""
        sys.modules["cupy"].settle(self.device.id)

    def astype(self, dtype):
        self._after_launches()
        return self._like(self.values.astype(dtype))

    def min(self):
        return self.values.min()

    def max(self):
        return self.values.max()

    def set(self, values):
        self.values[...] = values

    def reshape(self, shape):
        return self._like(self.values.reshape(shape))

    def view(self, dtype):
        return self._like(self.values.view(dtype))

    def transpose(self, axes):
        return self._like(self.values.transpose(axes))

    def nonzero(self):
        self._after_launches()
        return tuple(self._like(places) for places in self.values.nonzero())

    def ravel(self):
        return self._like(self.values.ravel())


def _host(operand):
    return operand.values if isinstance(operand, CupyArray) else operand


def _of_elements(name):
    def method(self, *operands):
        self._after_launches()
        return self._like(getattr(self.values, name)(*map(_host, operands)))

    return method


for _name in "abs add and eq mul ne or rshift sub".split():
    setattr(CupyArray, f"__{_name}__", _of_elements(f"__{_name}__"))
CupyArray.clip = _of_elements("clip")


class CupyStream:
    def __init__(self, driver, ptr, device=0):
        self.driver, self.ptr, self.device = driver, ptr, device

    def record(self):
        return ("event of", self)

    def wait_event(self, event):
        self.driver.wait(self.device, event[1].ptr)


def cupy_module(driver):
    """A module that looks like cupy, with `streams`: the current stream of each device."""
    cupy = types.ModuleType("cupy")
    cupy.ndarray = CupyArray
    current = [0]
    cupy.streams = {0: CupyStream(driver, 0, 0), 1: CupyStream(driver, 0, 1)}

    class Device:
        def __init__(self, number=None):
            self.id = current[-1] if number is None else number

        def __enter__(self):
            current.append(self.id)

        def __exit__(self, *_):
            current.pop()

    def made(values):
        return CupyArray(values, current[-1])

    def on_host(array):
        stream = cupy.streams[current[-1]]
        driver.wait(current[-1], stream.ptr)
        return array.values.copy()

    def settle(device):
        assert device == current[-1]
        driver.settle(device, cupy.streams[device].ptr)

    cupy.settle = settle
    cupy.cuda = types.SimpleNamespace(
        Device=Device, get_current_stream=lambda: cupy.streams[current[-1]]
    )
    cupy.zeros = lambda count, dtype: made(np.zeros(count, dtype))
    cupy.empty = lambda count, dtype: made(np.full(count, 7, dtype))
    cupy.asarray = lambda values: made(np.array(values))
    cupy.ascontiguousarray = lambda array: array._like(np.ascontiguousarray(array.values))
    cupy.bincount = lambda array, minlength: array._like(
        np.bincount(array.values, minlength=minlength)
    )
    cupy.asnumpy = on_host
    sys.modules["cupy"] = cupy
    return cupy


# --- torch


@contextlib.contextmanager
def _no_overrides(torch):
    with torch._C.DisableTorchFunctionSubclass():
        yield


def pretend_torch_has_a_gpu(driver):
    """Let torch make tensors of a class that claims to be on cuda:0; return torch and the class."""
    import torch

    class CudaTensor(torch.Tensor):
        device = torch.device("cuda", 0)

        @classmethod
        def __torch_function__(cls, *arguments):
            driver.settle(0, streams[-1].cuda_stream)
            result = super().__torch_function__(*arguments)
            _kept.append(result)
            return result

        def cpu(self):
            driver.wait(0, torch.cuda.current_stream(0).cuda_stream)
            with _no_overrides(torch):
                return self.clone().as_subclass(torch.Tensor)

        def record_stream(self, stream):
            stream.recorded += 1

    class Stream:
        def __init__(self, cuda_stream):
            self.cuda_stream, self.recorded = cuda_stream, 0

        def wait_stream(self, earlier):
            driver.wait(0, earlier.cuda_stream)

    def maker(function):
        def make(*arguments, device=None, **keywords):
            result = function(*arguments, **keywords)
            _kept.append(result)
            return result if device is None else result.as_subclass(CudaTensor)

        return make

    torch.zeros, torch.empty = maker(torch.zeros), maker(torch.empty)
    streams = [Stream(0)]
    torch.cuda.current_stream = lambda device=None: streams[-1]
    torch.cuda.current_device = lambda: 0
    torch.Tensor.to = maker_of_to(torch.Tensor.to, CudaTensor)
    torch.streams, torch.Stream = streams, Stream
    return torch, CudaTensor


def maker_of_to(function, kind):
    def to(self, where, *arguments, **keywords):
        if where == "cuda:0":
            return self.as_subclass(kind)
        return function(self, where, *arguments, **keywords)

    return to
