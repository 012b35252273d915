# SPDX-License-Identifier: Apache-2.0
"""Compile device_compile.cu to PTX and hold the double arithmetic in it against the source.

usage: check_device_ptx.py NVCC INCLUDE_ROOT SOURCE. Each kernel, with all that it calls, must hold
as many fused multiply-adds as its source; no operation may be open to contraction, flushed or
approximate; and nothing may be called that is not defined in the file.
"""

import re
import subprocess
import sys
import tempfile
from pathlib import Path

ARCHITECTURE = "sm_90"
FUSED_IN_SOURCE = {
    "korvex_check_sum_seq": 0,
    "korvex_check_two_product": 1,
    "korvex_check_contraction": 0,
}
DEFINITION = re.compile(r"^(?:\.\w+ )*\.(?:entry|func)\s+(?:\([^)]*\)\s*)?([\w$]+)", re.MULTILINE)


def compile_to_ptx(nvcc: str, include_root: str, source: str, *more: str) -> str:
    with tempfile.TemporaryDirectory() as folder:
        target = Path(folder) / "device.ptx"
        flags = ["-ptx", f"-arch={ARCHITECTURE}", "-std=c++20", "-O3", "-I", include_root]
        subprocess.run([nvcc, *flags, *more, source, "-o", str(target)], check=True)
        return re.sub(r"//.*", "", target.read_text())  # comments name other kernels


def bodies(ptx: str) -> dict[str, str]:
    """Each function that the text defines, with the text up to the next one."""
    starts = list(DEFINITION.finditer(ptx))
    ends = [match.start() for match in starts[1:]] + [len(ptx)]
    found: dict[str, str] = {}
    for match, end in zip(starts, ends, strict=True):
        text = ptx[match.start() : end]
        if "{" in text:
            found[match.group(1)] = text
    return found


def with_callees(name: str, functions: dict[str, str]) -> str:
    reached = [name]
    for caller in reached:
        for callee, text in functions.items():
            if text and callee not in reached and re.search(rf"\b{callee}\b", functions[caller]):
                reached.append(callee)
    return "".join(functions[function] for function in reached)


def problems(ptx: str) -> list[str]:
    found = []
    functions = bodies(ptx)
    for kernel, expected in FUSED_IN_SOURCE.items():
        fused = len(re.findall(r"\bfma\.", with_callees(kernel, functions)))
        if fused != expected:
            found.append(f"{kernel}: {fused} fused multiply-adds, {expected} in the source")
    for line in ptx.splitlines():
        operation = line.strip()
        if re.match(r"\.extern\s+\.func", operation):
            found.append(f"a call of what is not ours: {operation}")
        if re.match(r"(add|sub|mul|mad)\.f64", operation):
            found.append(f"open to contraction: {operation}")
        if re.search(r"\.(ftz|approx)\b", operation):
            found.append(f"flushed or approximate: {operation}")
    found += [f"a library's function: {name}" for name in functions if "korvex" not in name]
    return found


def main() -> int:
    nvcc, include_root, source = sys.argv[1:]
    found = problems(compile_to_ptx(nvcc, include_root, source, "-fmad=false"))
    print(*found, sep="\n", end="\n" if found else "")
    # The check must be able to fail: with contraction allowed, the third kernel betrays it.
    if not problems(compile_to_ptx(nvcc, include_root, source, "-fmad=true")):
        print("contraction was allowed, and the check did not notice")
        return 1
    print(f"{len(found)} problems")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
