# SPDX-License-Identifier: Apache-2.0
"""A process whose modules of korvex were taken out of sys.modules after the activation."""

from subprocess_run import run_python

IMPORT_AGAIN = """
import sys
import korvex.emulation
import torch
old = korvex.emulation
device = old.activate(threads=2)
import korvex.tqx_runtime as runtime
for name in [name for name in sys.modules if name == "korvex" or name.startswith("korvex.")]:
    if name not in {kept}:
        del sys.modules[name]
import korvex.emulation
assert korvex.emulation is not old
changed = torch.zeros, torch.Tensor.to, torch.cuda.is_available
try:
    korvex.emulation.activate()
except RuntimeError as error:
    assert "already has the emulated device" in str(error), error
else:
    raise AssertionError("activated twice")
assert korvex.emulation.active_device() is None
assert changed == (torch.zeros, torch.Tensor.to, torch.cuda.is_available)
assert old.activate() is device
assert runtime.tqx_sum(torch.ones(3, device="cuda")).item() == 3.0
"""


def test_second_import_of_all_modules_is_refused_at_once():
    run_python(IMPORT_AGAIN.format(kept=set()))


def test_second_import_beside_the_runtime_is_refused_at_once():
    run_python(IMPORT_AGAIN.format(kept={"korvex.tqx_runtime"}))


def test_reload_of_the_package_keeps_the_device():
    run_python("""
        import importlib
        import korvex.emulation
        device = korvex.emulation.activate()
        assert importlib.reload(korvex.emulation).active_device() is device
        assert korvex.emulation.activate() is device
    """)
