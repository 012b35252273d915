# SPDX-License-Identifier: Apache-2.0
"""Compile the kernels by NVIDIA's runtime compiler, a library that needs no toolkit and no GPU.

usage: compile_with_nvrtc.py LIBRARY --list
       compile_with_nvrtc.py LIBRARY SOURCE TARGET --gpu-architecture=sm_90 [OPTION...]

The first form prints the library's version and the numbers of the architectures that it makes code
for. The second writes a cubin for an architecture sm_XY, or PTX for compute_XY; further options go
along.
"""

import ctypes
import re
import sys
from pathlib import Path

# The library knows no standard headers; this file stands for each of them.
STANDARD_HEADERS = Path(__file__).resolve().parent / "nvrtc_standard_headers.h"
STANDARD_NAMES = ("cfloat", "cmath", "cstdint", "cstring", "limits", "new")


class Compiler:
    """The C interface of the library, with its error codes as exceptions."""

    def __init__(self, library: str):
        self._library = ctypes.CDLL(library)
        self._library.nvrtcGetErrorString.restype = ctypes.c_char_p

    def call(self, function: str, *arguments) -> None:
        code = getattr(self._library, function)(*arguments)
        if code != 0:
            text = self._library.nvrtcGetErrorString(code).decode()
            raise RuntimeError(f"{function}: {text}")

    def version(self) -> str:
        """As PTX tells it, to the last number; the library's own answer has but two."""
        ptx = self.compile("", "empty.cu", [], "PTX").decode()
        return re.search(r"release [\d.]+, V([\d.]+)", ptx).group(1)

    def architectures(self) -> list[int]:
        count = ctypes.c_int()
        self.call("nvrtcGetNumSupportedArchs", ctypes.byref(count))
        numbers = (ctypes.c_int * count.value)()
        self.call("nvrtcGetSupportedArchs", numbers)
        return list(numbers)

    def compile(self, source: str, name: str, options: list[str], kind: str) -> bytes:
        """What the compiler made of the source: its "CUBIN" or its "PTX"."""
        program = ctypes.c_void_p()
        text = STANDARD_HEADERS.read_bytes()
        count = len(STANDARD_NAMES)
        self.call(
            "nvrtcCreateProgram",
            ctypes.byref(program),
            source.encode(),
            name.encode(),
            count,
            (ctypes.c_char_p * count)(*([text] * count)),
            (ctypes.c_char_p * count)(*(name.encode() for name in STANDARD_NAMES)),
        )
        encoded = [option.encode() for option in options]
        try:
            self.call(
                "nvrtcCompileProgram",
                program,
                len(encoded),
                (ctypes.c_char_p * len(encoded))(*encoded),
            )
        except RuntimeError as error:
            log = self._text(program, "ProgramLog").rstrip(b"\0").decode()
            raise RuntimeError(f"{error}\n{log}") from None
        return self._text(program, kind)

    def _text(self, program: ctypes.c_void_p, kind: str) -> bytes:
        size = ctypes.c_size_t()
        self.call(f"nvrtcGet{kind}Size", program, ctypes.byref(size))
        text = ctypes.create_string_buffer(size.value)
        self.call(f"nvrtcGet{kind}", program, text)
        return text.raw


def main(arguments: list[str]) -> int:
    compiler = Compiler(arguments[0])
    if arguments[1:] == ["--list"]:
        print(compiler.version(), *compiler.architectures())
        return 0
    source, target, *options = arguments[1:]
    is_ptx = any(re.fullmatch(r"--gpu-architecture=compute_\d+", option) for option in options)
    text = Path(source).read_text()
    made = compiler.compile(text, source, options, "PTX" if is_ptx else "CUBIN")
    Path(target).write_bytes(made.rstrip(b"\0") if is_ptx else made)
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main(sys.argv[1:]))
    except RuntimeError as error:
        sys.exit(str(error))
