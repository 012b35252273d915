# SPDX-License-Identifier: Apache-2.0
"""`korvex devices`: what can run on this machine, and why not what cannot."""

from __future__ import annotations

import argparse
import importlib
import importlib.metadata
import importlib.util
import json
import os
import platform
import re
import warnings
from pathlib import Path
from typing import Any

from korvex import exact
from korvex.command._codes import DONE
from korvex.command._gpus import driver
from korvex.command._output import Output, write_whole_text, written
from korvex.exact import _native
from korvex.provenance._environment import cupy_version, host_library, processor_name

INSTRUCTION_SETS = ("base", "fma", "avx512")
_PACKAGES = ("numpy", "torch", "pyarrow", "rich", "tqdm")
_LOADER = "korvex.cubin_loader_native"
_MISSING_TORCH = "torch is not installed: pip install 'korvex-tqx[torch]'"


def run(options: argparse.Namespace) -> int:
    found = survey()
    if options.json:
        with written():
            write_whole_text(json.dumps(found, indent=2) + "\n")
    else:
        _show(Output(), found)
    return DONE


def survey() -> dict[str, Any]:
    """All that the command shows, as texts and lists of texts."""
    asked = driver()
    gpus = [
        f"{gpu.name}, compute capability {gpu.capability[0]}.{gpu.capability[1]}, "
        f"{gpu.memory_bytes / 2**30:.1f} GiB"
        for gpu in asked.gpus
    ]
    return {
        "versions": _versions(),
        "processor": processor_name(),
        "processors": len(os.sched_getaffinity(0)),
        "instruction_sets": _instruction_sets(),
        "driver": asked.version or asked.problem,
        "gpus": gpus,
        "gpu_kernels": _kernel_files(),
        "runs": _runs(),
    }


def _versions() -> dict[str, str]:
    versions = {
        "korvex-tqx": importlib.metadata.version("korvex-tqx"),
        "python": f"{platform.python_implementation()} {platform.python_version()}",
    }
    for name in _PACKAGES:
        versions[name] = _version(name) or "not installed"
    return versions | {"cupy": cupy_version() or "not installed"}


def _version(name: str) -> str | None:
    try:
        return importlib.metadata.version(name)
    except importlib.metadata.PackageNotFoundError:
        return None


# --- Kernels


def _instruction_sets() -> dict[str, str]:
    """Of the host libraries: which one runs, and why another one does not."""
    active = _native.instruction_set()
    folder = host_library().parent
    found = {}
    for name in INSTRUCTION_SETS:
        if not (folder / f"libkorvex_host_kernels_{name}.so").exists():
            found[name] = "not in this installation"
        elif name == active:
            found[name] = "runs"
        elif INSTRUCTION_SETS.index(name) < INSTRUCTION_SETS.index(active):
            found[name] = f"could run; {active} is faster"
        else:
            found[name] = "this processor lacks the instructions"
    return found


def _kernel_files() -> list[str]:
    folder = Path(str(_native.__file__)).resolve().parents[1] / "cubins"
    return sorted(
        path.name for path in folder.glob("korvex_*") if path.suffix in (".cubin", ".ptx")
    )


# --- What would run


def _runs() -> dict[str, str]:
    threads = exact.get_threads() or len(os.sched_getaffinity(0))
    return {
        "korvex.exact": f"on the host: {_native.instruction_set()}, up to {threads} threads",
        "korvex.tqx_runtime": _tqx_runtime(),
        "korvex.emulation": _emulation(),
    }


def _tqx_runtime() -> str:
    """Where tensors on CUDA devices would be computed, or every reason why not."""
    unavailable, loaded = _loader()
    reasons = _why_torch_has_no_cuda() + unavailable
    return f"not on a GPU: {'; '.join(reasons)}" if loaded is None or reasons else loaded


def _loader() -> tuple[list[str], str | None]:
    """The reasons of the kernel loader, or the GPU and the file that it would launch from."""
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")  # what it warns of is shown as the reason
        try:
            module = importlib.import_module(_LOADER)
            if not module.HAS_CUPY:
                return [str(module.UNAVAILABLE_REASON)], None
            loader = module.NativeCubinLoader()
            return [], f"on the GPU {loader.arch}, kernels of {loader.cubin_path.name}"
        except (ImportError, RuntimeError) as error:
            return [str(error).partition("\n")[0]], None


def _why_torch_has_no_cuda() -> list[str]:
    """Looked up in torch's own file of versions: importing torch takes seconds."""
    found = importlib.util.find_spec("torch")
    if found is None or found.origin is None:
        return [_MISSING_TORCH]
    text = Path(found.origin).with_name("version.py").read_text()
    if re.search(r"^cuda\b[^=]*=\s*None", text, re.MULTILINE):
        return [f"torch {_version('torch')} was built without CUDA"]
    return []


def _emulation() -> str:
    if importlib.util.find_spec("torch") is None:
        return f"not here: {_MISSING_TORCH}"
    return f"emulated device on the host: {_native.instruction_set()}"


# --- For a reader


def _show(output: Output, found: dict[str, Any]) -> None:
    output.title("what would run")
    for name, text in found["runs"].items():
        output.wide_row(name, text)
    output.title("host")
    output.wide_row("processor", f"{found['processor']}, {found['processors']} usable")
    for name, text in found["instruction_sets"].items():
        output.wide_row(f"kernels, {name}", text)
    output.title("GPUs")
    output.wide_row("driver", found["driver"])
    for number, text in enumerate(found["gpus"]):
        output.wide_row(f"GPU {number}", text)
    output.wide_row("kernels", ", ".join(found["gpu_kernels"]) or "none in this installation")
    output.title("versions")
    for name, text in found["versions"].items():
        output.wide_row(name, text)
