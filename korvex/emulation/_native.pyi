# SPDX-License-Identifier: Apache-2.0
"""What torch calls for each operation on a tensor of the emulated device."""

from collections.abc import Callable
from typing import Any

import torch

ROOT: int
FMOD: int
REMAINDER: int
REFLECTED_REMAINDER: int

def adopter(
    tensor: type[torch.Tensor], host_tensor: type[torch.Tensor], /
) -> Callable[[Any], Any]: ...
def torch_function(
    short_ways: dict[Callable[..., Any], Callable[..., Any]],
    call_as_host: Callable[..., Any],
    whole_way: Callable[..., Any],
    adopt: Callable[[Any], Any],
    plain_types: tuple[type, ...],
    /,
) -> Callable[..., Any]: ...
def division(
    function: Callable[..., Any],
    multiply: Callable[..., Any],
    tensor: type[torch.Tensor],
    dtype_of: Callable[..., Any],
    float64: torch.dtype,
    float32: torch.dtype,
    /,
) -> Callable[..., Any]: ...
def replacing(
    function: Callable[..., Any],
    kind: int,
    tensor: type[torch.Tensor],
    dtype_of: Callable[..., Any],
    float64: torch.dtype,
    float32: torch.dtype,
    is_contiguous: Callable[..., Any],
    is_neg: Callable[..., Any],
    shape_of: Callable[..., Any],
    numel: Callable[..., Any],
    data_ptr: Callable[..., Any],
    /,
) -> Callable[..., Any]: ...
