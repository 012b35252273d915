# SPDX-License-Identifier: Apache-2.0
"""What launches the kernels of exact states: names and parameters are those of kernels/states.h."""

def launch(kernel: str, device: int, stream: int, *arguments: int) -> None: ...
