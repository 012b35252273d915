# SPDX-License-Identifier: Apache-2.0
"""A tensor on the emulated device and the same one in host memory."""

import device
import pytest
import torch


@pytest.fixture
def x():
    return device.tensor([1.0, 2.0, 3.0])


@pytest.fixture
def host():
    return torch.tensor([1.0, 2.0, 3.0], dtype=torch.float64)
