# SPDX-License-Identifier: Apache-2.0
"""What launches kernels: names and parameters are those of kernels/states.h and kernels/table.h."""

def launch(kernel: str, device: int, stream: int, *arguments: int) -> None: ...
