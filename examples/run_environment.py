# SPDX-License-Identifier: Apache-2.0
"""What a computation ran on, for a record: versions, device, driver, and hashes of the code.

The kernels are identified by the bytes of the file that is loaded: on a GPU the one that the loader
chose for the device, on the emulated device the library of the host kernels.
"""

import ctypes
import hashlib
import importlib.metadata
import platform
from pathlib import Path

import numpy as np
import torch
from sum_device import SumDevice

_CUPY = ("cupy-cuda13x", "cupy-cuda12x", "cupy-cuda11x", "cupy")
_DRIVER_RELEASE = Path("/sys/module/nvidia/version")


def environment_of(device: SumDevice) -> dict[str, str]:
    """Every line is information for a reader; none of them takes part in a result."""
    runtime = device.runtime
    info = runtime.get_backend_info()
    kernels = Path(info["native_cubin"])
    emulated = info["native_arch"].startswith("emulated-")
    return {
        "korvex-tqx": runtime.__version__,
        "torch": str(torch.__version__),
        "numpy": np.__version__,
        "cupy": "not used" if emulated else _cupy_version(),
        "python": f"{platform.python_implementation()} {platform.python_version()}",
        "system": platform.platform(),
        "device": info["device"],
        "architecture": info["native_arch"],
        "driver": "not used" if emulated else driver_version(),
        "kernel file": kernels.name,
        "kernel file sha256": file_sha256(kernels),
        "runtime file sha256": file_sha256(Path(str(runtime.__file__))),
    }


def file_sha256(path: Path) -> str:
    with path.open("rb") as stream:
        return hashlib.file_digest(stream, "sha256").hexdigest()


def driver_version(library: str = "libcuda.so.1", release: Path = _DRIVER_RELEASE) -> str:
    """The CUDA version that the driver serves, and its own release where the system knows it."""
    version = ctypes.c_int()
    code = ctypes.CDLL(library).cuDriverGetVersion(ctypes.byref(version))
    if code != 0:
        raise RuntimeError(f"cuDriverGetVersion failed with code {code}")
    cuda = f"CUDA {version.value // 1000}.{version.value % 1000 // 10}"
    return f"{cuda}, release {release.read_text().strip()}" if release.exists() else cuda


def _cupy_version() -> str:
    """The distribution has one of several names; a cupy that none of them brought is named so."""
    for name in _CUPY:
        try:
            return f"{name} {importlib.metadata.version(name)}"
        except importlib.metadata.PackageNotFoundError:
            continue
    return "of unknown origin"
