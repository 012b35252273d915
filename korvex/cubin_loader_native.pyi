# SPDX-License-Identifier: Apache-2.0
# Types of the kernel loader, an extension module.
from pathlib import Path
from typing import Any, Literal, final

HAS_CUPY: bool
UNAVAILABLE_REASON: str | None

@final
class Kernel:
    @property
    def name(self) -> str: ...
    @property
    def form(self) -> Literal["launch", "function"]: ...
    @property
    def parameters(self) -> str: ...
    @property
    def block(self) -> tuple[int, int, int] | None: ...
    @property
    def blocks_per_multiprocessor(self) -> int | None: ...
    def launch(self, *args: Any, grid: tuple[int, int, int]) -> None: ...
    def function(
        self,
        grid: tuple[int, int, int],
        block: tuple[int, int, int],
        args: tuple[Any, ...],
        /,
    ) -> None: ...

@final
class NativeCubinLoader:
    def __init__(self) -> None: ...
    @property
    def arch(self) -> str: ...
    @property
    def cubin_path(self) -> Path: ...
    def get_kernel(self, name: str, /) -> Kernel: ...
