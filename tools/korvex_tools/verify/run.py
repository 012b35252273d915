# SPDX-License-Identifier: Apache-2.0
"""One configuration, in a process of its own: runs the cases and writes down their digests.

usage: python -P -m korvex_tools.verify.run {emulated,gpu} --output FILE [--threads N]
       [--instruction-set SET] [--library FILE] [--long]

The output is a JSON file: the device, and for every golden case of a promised function what its
file should say of it, or the exception that it raised; or the reason why there is no such device.
Nothing is compared here. Golden scripts come from the tree, korvex from where it is installed.
"""

import argparse
import json
import os
import sys
import time
import traceback
from pathlib import Path
from typing import Any

from korvex_tools.verify import golden, promises


class Absent(Exception):
    """The machine has no device of this configuration; says why."""


def emulated(options: argparse.Namespace) -> Any:
    import korvex.emulation
    from korvex.emulation import _library

    wanted = options.instruction_set
    if options.library is not None:
        wanted = _library.instruction_set_of(options.library)
    if wanted is not None and (reason := _library.why_unusable(wanted)):
        raise Absent(reason)
    device = korvex.emulation.activate(options.threads, wanted, options.library)

    import torch

    import korvex.tqx_runtime

    torch.set_num_threads(device.threads)
    return korvex.tqx_runtime


def gpu(options: argparse.Namespace) -> Any:
    import torch

    if not torch.cuda.is_available():
        raise Absent("torch sees no GPU")
    try:
        import cupy  # noqa: F401
    except ImportError as error:
        raise Absent(f"a GPU, but no CuPy: {error}") from error
    from korvex import cubin_loader_native

    if not cubin_loader_native.HAS_CUPY:
        raise Absent(f"a GPU, but no kernels: {cubin_loader_native.UNAVAILABLE_REASON}")
    import korvex.tqx_runtime

    return korvex.tqx_runtime


DEVICES = {"emulated": emulated, "gpu": gpu}


def describe(module: Any) -> dict[str, Any]:
    """Of the backend, with the kernels' file by its bare name: a report is read elsewhere."""
    info = module.get_backend_info()
    found = {name: info[name] for name in ("device", "native_arch", "version")}
    return found | {"kernels": Path(info["native_cubin"]).name}


def outcomes(module: Any, is_long: bool) -> dict[str, dict[str, Any]]:
    """By folder and name of the case."""
    import torch

    def to_tensor(values: Any) -> Any:
        return torch.tensor(values, dtype=torch.float64, device="cuda")

    found: dict[str, dict[str, Any]] = {}
    for maker in golden.makers():
        folder = maker.stem.removeprefix("make_")
        for case in golden.load_script(maker).CASES:
            if promises.is_compared(folder, case.name) and (is_long or not case.long):
                found.setdefault(folder, {})[case.name] = outcome(module, case, to_tensor)
    return found


def outcome(module: Any, case: Any, to_tensor: Any) -> dict[str, Any]:
    try:
        return golden.outcome(module, case, to_tensor)
    except Exception:
        return {"error": traceback.format_exc(limit=-2)}


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("device", choices=DEVICES)
    parser.add_argument("--output", type=Path, required=True)
    parser.add_argument("--threads", type=int)
    parser.add_argument("--instruction-set")
    parser.add_argument("--library", type=Path)
    parser.add_argument("--long", action="store_true")
    options = parser.parse_args()
    begin = time.monotonic()
    try:
        module = DEVICES[options.device](options)
    except Absent as reason:
        options.output.write_text(json.dumps({"skipped": str(reason)}))
        return 0
    found = {
        "device": describe(module),
        "torch_capability": os.environ.get("ATEN_CPU_CAPABILITY", "as the processor has it"),
        "cases": outcomes(module, options.long),
    }
    found["seconds"] = round(time.monotonic() - begin, 1)
    options.output.write_text(json.dumps(found))
    return 0


if __name__ == "__main__":
    sys.exit(main())
