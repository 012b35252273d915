# SPDX-License-Identifier: Apache-2.0
"""Stand-ins for what the module imports, for start-up tests in a process of their own.

Each fake is put straight into `sys.modules`, so the import statements of the module find it
there. The fake `torch` keeps such a process quick; nothing at import needs more of it.
"""

import importlib
import importlib.util
import sys
import types

MODULE = "korvex.tqx_runtime"
RELATIVE = "korvex.cubin_loader_native"
ABSOLUTE = "cubin_loader_native"
INSTALL_TEXT = (
    "TQX requires cupy for exact GPU arithmetic. Install with:\n"
    "  pip install korvex-tqx[cuda12]  # For CUDA 12\n"
    "  pip install korvex-tqx[cuda11]  # For CUDA 11\n"
    "\n"
    "Or install cupy directly:\n"
    "  pip install cupy-cuda12x  # For CUDA 12\n"
    "  pip install cupy-cuda11x  # For CUDA 11"
)


class Loader:
    """The least that the module asks of its loader."""

    arch = "fake_arch"
    cubin_path = "/fake/path"
    made = []

    def __init__(self):
        Loader.made.append(self)


def add_module(name, **content):
    module = types.ModuleType(name)
    vars(module).update(content)
    sys.modules[name] = module
    return module


def add_torch():
    cuda = types.SimpleNamespace(is_available=lambda: False)
    return add_module("torch", float64="float64", cuda=cuda)


def add_cupy():
    return add_module("cupy")


def add_loader(name, has_cupy=True, loader=Loader):
    return add_module(name, NativeCubinLoader=loader, HAS_CUPY=has_cupy)


def add_lazy_loader(name, **getters):
    """A loader module whose names are worked out, and may fail, when they are imported."""

    def get(attribute):
        if attribute in getters:
            return getters[attribute]()
        raise AttributeError(attribute)

    return add_module(name, __getattr__=get)


def hide(name):
    """Make every import of `name` fail as that of a missing module does."""
    sys.modules[name] = None


def add_all():
    """Everything in place: an import of the module succeeds through the relative name."""
    add_torch()
    add_cupy()
    add_loader(RELATIVE)
    hide(ABSOLUTE)


def import_module():
    return importlib.import_module(MODULE)


def import_error():
    """The exception that an import of the module ends with."""
    try:
        import_module()
    except BaseException as error:
        return error
    raise AssertionError("the import succeeded")


def raiser(error):
    def fail(*args, **kwargs):
        raise error

    return fail


def extension_file():
    return importlib.util.find_spec(MODULE).origin
