# SPDX-License-Identifier: Apache-2.0
"""What results were computed on: versions, processor, device, driver, and hashes of the code.

Kernels are identified by the bytes of the file that is loaded: the host library of `korvex.exact`,
and where `korvex.tqx_runtime` is imported also the file that its loader chose. Nothing is imported
for a record: what is not loaded has computed nothing.
"""

from __future__ import annotations

import ctypes
import hashlib
import importlib.metadata
import platform
import sys
from pathlib import Path
from typing import Any

import numpy as np

from korvex.exact import _native

_CUPY = ("cupy-cuda13x", "cupy-cuda12x", "cupy-cuda11x", "cupy")
_DRIVER_RELEASE = Path("/sys/module/nvidia/version")
_PROCESSOR = Path("/proc/cpuinfo")


def environment() -> dict[str, str]:
    """Every line is information for a reader; none of them takes part in a result."""
    library = host_library()
    return {
        "korvex-tqx": importlib.metadata.version("korvex-tqx"),
        "numpy": np.__version__,
        "python": f"{platform.python_implementation()} {platform.python_version()}",
        "system": platform.platform(),
        "processor": processor_name(),
        "instruction set": _native.instruction_set(),
        "host kernel file": library.name,
        "host kernel file sha256": file_sha256(library),
        **_environment_of_runtime(sys.modules.get("korvex.tqx_runtime")),
    }


def _environment_of_runtime(runtime: Any) -> dict[str, str]:
    """What stands beside it where tensors on a device, or an emulated one, may have been used."""
    if runtime is None:
        return {}
    info = runtime.get_backend_info()
    kernels = Path(info["native_cubin"])
    emulated = info["native_arch"].startswith("emulated-")
    return {
        "torch": str(runtime.torch.__version__),
        "cupy": "not used" if emulated else cupy_version() or "of unknown origin",
        "device": info["device"],
        "architecture": info["native_arch"],
        "driver": "not used" if emulated else driver_version(),
        "kernel file": kernels.name,
        "kernel file sha256": file_sha256(kernels),
        "runtime file sha256": file_sha256(Path(str(runtime.__file__))),
    }


def host_library() -> Path:
    """The file of kernels that `korvex.exact` runs."""
    folder = Path(str(_native.__file__)).resolve().parents[1] / "emulation"
    return folder / f"libkorvex_host_kernels_{_native.instruction_set()}.so"


def file_sha256(path: Path) -> str:
    with path.open("rb") as stream:
        return hashlib.file_digest(stream, "sha256").hexdigest()


def processor_name() -> str:
    try:
        lines = _PROCESSOR.read_text().splitlines()
    except OSError:
        lines = []
    names = (line.partition(":")[2].strip() for line in lines if line.startswith("model name"))
    return next(names, platform.machine())


def driver_version(library: str = "libcuda.so.1", release: Path = _DRIVER_RELEASE) -> str:
    """The CUDA version that the driver serves, and its own release where the system knows it."""
    version = ctypes.c_int()
    code = ctypes.CDLL(library).cuDriverGetVersion(ctypes.byref(version))
    if code != 0:
        raise RuntimeError(f"cuDriverGetVersion failed with code {code}")
    cuda = f"CUDA {version.value // 1000}.{version.value % 1000 // 10}"
    return f"{cuda}, release {release.read_text().strip()}" if release.exists() else cuda


def cupy_version() -> str | None:
    """The distribution has one of several names; None where none of them is installed."""
    for name in _CUPY:
        try:
            return f"{name} {importlib.metadata.version(name)}"
        except importlib.metadata.PackageNotFoundError:
            continue
    return None
