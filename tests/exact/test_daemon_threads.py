# SPDX-License-Identifier: Apache-2.0
"""Daemon threads that are inside a call when the interpreter shuts down: the process ends well."""

import pytest
from subprocess_run import run_python

EXIT_DURING_CALLS = """
import threading, time
import numpy as np
from korvex import exact

x = np.random.default_rng(1).standard_normal({elements})
y = x.reshape(100, -1)
calls = [lambda: exact.sum(x), lambda: exact.Moments.from_chunks([x]), lambda: exact.matmul(y, y.T)]

def compute(call):
    while True:
        call()

for call in calls:
    threading.Thread(target=compute, args=(call,), daemon=True).start()
time.sleep(0.2)
print("done")
"""


# The lock stays held over the shortest calls; the longest last while the interpreter is taken down.
@pytest.mark.parametrize("elements", [100, 10_000, 1_000_000])
def test_process_ends_well_while_daemon_threads_compute(elements):
    for _ in range(3):
        assert run_python(EXIT_DURING_CALLS.format(elements=elements)) == "done\n"
