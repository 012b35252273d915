# SPDX-License-Identifier: Apache-2.0
"""The order between torch's streams and a launch, as far as it shows without a GPU.

`cp.from_dlpack(t)` asks torch for `t.__dlpack__(stream=1)`, 1 being the legacy null stream, cupy's
current one. torch's side streams are non-blocking, so the null stream does not wait for them by
itself: what orders a launch behind them is the event that torch puts between its current stream
and the one it is asked for. That part of torch is pinned here; test_on_hardware.py tests the whole.
"""

import pytest
import subprocess_run

SCRIPT = """
import types
import torch

class CudaTensor(torch.Tensor):
    device = torch.device("cuda", 0)

calls = []

class Stream:
    def __init__(self, name):
        self.name = name
    def wait_event(self, event):
        calls.append(("wait", self.name, event.name))

class Event:
    def record(self, stream):
        self.name = f"behind {stream.name}"
        calls.append(("record", self.name))

null, side = Stream("null"), Stream("side")
torch.cuda.current_device = lambda: 0
torch.cuda.default_stream = lambda: null
torch.cuda.Event = Event

def export(current):
    torch.cuda.current_stream = lambda: current
    tensor = torch.zeros(3, dtype=torch.float64).as_subclass(CudaTensor)
    with torch._C.DisableTorchFunctionSubclass():
        torch.Tensor.__dlpack__(tensor, stream=1)
"""


@pytest.mark.parametrize(
    ("current", "expected"),
    [
        ("side", [("record", "behind side"), ("wait", "null", "behind side")]),
        ("null", []),
    ],
)
def test_torch_orders_the_null_stream_behind_its_current_one(current, expected):
    subprocess_run.run_python(SCRIPT + f"export({current})\nassert calls == {expected}, calls\n")
