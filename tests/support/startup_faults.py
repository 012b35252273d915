# SPDX-License-Identifier: Apache-2.0
"""Start-up with a failure at each of its calls out of the module, in a process that forks for each.

Spies stand for all that start-up imports. The module, and a reference implementation of start-up in
Python, meet the same failure at the same call and must end alike; what an exception may become is
stated here once more, on its own. `main` prints how many faults it injected.
The process never imports torch, so a fork costs little.
"""

import _imp
import builtins
import json
import os
import sys
import types

from fake_siblings import ABSOLUTE, INSTALL_TEXT, MODULE, RELATIVE, extension_file

REFERENCE = """
import torch
import struct
import hashlib
from decimal import Decimal, getcontext
from typing import Optional, List, Union, Tuple
getcontext().prec = 1000
__version__ = "3.4.8"
_USE_NATIVE_CUBIN = False
_NATIVE_LOADER = None
try:
    from .cubin_loader_native import NativeCubinLoader, HAS_CUPY
    if HAS_CUPY:
        _NATIVE_LOADER = NativeCubinLoader()
        _USE_NATIVE_CUBIN = True
except ImportError:
    try:
        from cubin_loader_native import NativeCubinLoader, HAS_CUPY
        if HAS_CUPY:
            _NATIVE_LOADER = NativeCubinLoader()
            _USE_NATIVE_CUBIN = True
    except ImportError:
        pass
if not _USE_NATIVE_CUBIN:
    raise ImportError(INSTALL_TEXT)
TQXResult = None
__all__ = None
_TRITON_BACKEND_OK = False
import cupy as cp
"""
BOUND_NAMES = """
    torch struct hashlib Decimal getcontext Optional List Union Tuple __version__ _USE_NATIVE_CUBIN
    _NATIVE_LOADER NativeCubinLoader HAS_CUPY TQXResult __all__ _TRITON_BACKEND_OK cp
""".split()


class Fault(Exception):
    """No exception that any code could expect."""


class Stop(BaseException):
    """Like the interpreter's own ways out: KeyboardInterrupt, SystemExit."""


KINDS = (Fault, Stop, RuntimeError, AttributeError, TypeError, ImportError, ModuleNotFoundError)


class Recording:
    """What start-up does to the outside, one event each; the one at `place` raises `fault`."""

    def __init__(self, place=None, fault=None, **behaviour):
        self.events = []
        self._place, self._fault = place, fault
        self._behaviour = behaviour  # of an event: what it raises, or the value of a truth test

    def note(self, event):
        self.events.append(event)
        if len(self.events) - 1 == self._place:
            raise self._fault
        error = self._behaviour.get(event)
        if isinstance(error, BaseException):
            raise error

    def truth(self, event):
        self.note(event)
        return self._behaviour.get(event, True)

    def import_(self, name, names, level):
        """Stands for `__import__`; the interpreter reads the names of `from` one by one."""
        name = f"korvex.{name}" if level else name
        self.note(f"import {name}")
        return Spy(self, name)


class Spy:
    """Each read of a name, call, truth test and assignment is an event."""

    def __init__(self, recording, path):
        object.__setattr__(self, "_recording", recording)
        object.__setattr__(self, "_path", path)

    def __getattr__(self, name):
        if name.startswith("__"):  # the interpreter's own questions
            raise AttributeError(name)
        self._recording.note(f"{self._path}.{name}")
        return Spy(self._recording, f"{self._path}.{name}")

    def __setattr__(self, name, value):
        self._recording.note(f"{self._path}.{name} = {value!r}")

    def __call__(self, *args, **kwargs):
        self._recording.note(f"{self._path}({', '.join(map(repr, [*args, *kwargs.items()]))})")
        return Spy(self._recording, f"{self._path}()")

    def __bool__(self):
        return self._recording.truth(f"bool({self._path})")


class Spec:
    """The spec of the module, each read of which is an event."""

    values = {"name": MODULE, "loader": None, "parent": "korvex", "submodule_search_locations": []}

    def __init__(self, recording):
        self._recording = recording

    def __getattr__(self, name):
        self._recording.note(f"spec.{name}")
        return extension_file() if name == "origin" else self.values[name]


# --- How a start-up ends


def ending(recording, namespace, error):
    bound = [name for name in namespace if name in BOUND_NAMES]
    loader = namespace.get("_NATIVE_LOADER")
    return {
        "events": recording.events,
        "error": error and [type(error).__name__, str(error)],
        "causes": [repr(error and error.__cause__), error and error.__suppress_context__],
        "bound": bound,
        "loader": None if loader is None else loader._path,
        "flag": namespace.get("_USE_NATIVE_CUBIN"),
    }


def with_imports(recording, work):
    """Runs work() with the imports of start-up going to the recording; returns what it raised."""
    original = builtins.__import__

    def import_(name, namespace=None, local=None, names=(), level=0):
        if namespace is None or namespace.get("__name__") != MODULE:
            return original(name, namespace, local, names, level)
        return recording.import_(name, names, level)

    builtins.__import__ = import_
    try:
        work()
    except BaseException as error:
        return error
    finally:
        builtins.__import__ = original


def record_module(recording):
    module = _imp.create_dynamic(Spec(Recording()))
    error = with_imports(recording, lambda: _imp.exec_dynamic(module))
    if error is None:
        assert callable(module.tqx_sum) and callable(module.get_backend_info)
    else:
        assert not hasattr(module, "tqx_sum")
    return ending(recording, vars(module), error), error


def record_reference(recording):
    namespace = {"__name__": MODULE, "__package__": "korvex", "INSTALL_TEXT": INSTALL_TEXT}
    code = compile(REFERENCE, "reference", "exec")
    error = with_imports(recording, lambda: exec(code, namespace))
    return ending(recording, namespace, error), error


# --- What is expected


LOADERS = (f"import {RELATIVE}", f"import {ABSOLUTE}")


def is_in_a_loader_stage(event):
    return any(event.removeprefix("bool(").startswith(start.split()[1]) for start in LOADERS) or (
        event in LOADERS
    )


def expected_outcome(event, kind):
    """ "unchanged", or that the exception may become another: of an import, or of a loader."""
    is_name_of_from_import = "." in event and not event.endswith(")") and " " not in event
    if kind is AttributeError and is_name_of_from_import:
        kind = ImportError  # "cannot import name", as of every import statement
        if not is_in_a_loader_stage(event):
            return "import error"
    if issubclass(kind, ImportError) and is_in_a_loader_stage(event):
        return "next stage or the install text"
    return "unchanged"


def check_fault(behaviour, place, kind):
    """In a process of its own: the module ends as the reference does, and as expected."""
    fault = kind("fault")
    expected, _ = record_reference(Recording(place, kind("fault"), **behaviour))
    actual, error = record_module(Recording(place, fault, **behaviour))
    assert actual == expected, f"{actual}\nreference: {expected}"
    outcome = expected_outcome(actual["events"][place], kind)
    if outcome == "unchanged":
        assert error is fault and len(actual["events"]) == place + 1
        assert error.__context__ is None and error.__cause__ is None
    elif outcome == "import error":
        assert type(error) is ImportError and error is not fault
    elif error is not None and error is not behaviour.get("import cupy"):
        assert type(error) is ImportError and error.args == (INSTALL_TEXT,)
    assert (MODULE in sys.modules) == (error is None)


def check_create_fault(place, kind):
    """The four attributes that are copied may be missing; the rest must come out unchanged."""
    fault = kind("fault")
    recording = Recording(place, fault)
    try:
        module = _imp.create_dynamic(Spec(recording))
    except BaseException as error:
        assert error is fault and error.__context__ is None, repr(error)
        assert len(recording.events) == place + 1
        assert not (kind is AttributeError and place >= COUNT_OF_READS - 4)
    else:
        assert kind is AttributeError and place >= COUNT_OF_READS - 4
        assert isinstance(module, types.ModuleType) and len(recording.events) == COUNT_OF_READS


# --- Situations and faults

MISSING = ModuleNotFoundError("missing")
SITUATIONS = {
    "relative name": {},
    "absolute name": {f"import {RELATIVE}": MISSING},
    "relative name lacks the flag": {f"{RELATIVE}.HAS_CUPY": AttributeError("HAS_CUPY")},
    "relative constructor finds no driver": {f"{RELATIVE}.NativeCubinLoader()": ImportError("no")},
    "relative flag false": {f"bool({RELATIVE}.HAS_CUPY)": False},
    "absolute flag false": {f"import {RELATIVE}": MISSING, f"bool({ABSOLUTE}.HAS_CUPY)": False},
    "no loader": {f"import {RELATIVE}": MISSING, f"import {ABSOLUTE}": MISSING},
    "no cupy": {"import cupy": MISSING},
}
COUNT_OF_READS = 0  # of the spec, by a create step; found out by `main`


def in_child(work):
    """What work() raised, as text, or ""; it runs in a fork of this process."""
    read_end, write_end = os.pipe()
    child = os.fork()
    if child == 0:
        text = ""
        try:
            work()
        except BaseException as error:
            text = f"{type(error).__name__}: {error}"
        os.write(write_end, json.dumps(text)[:60_000].encode())
        os._exit(0)
    os.close(write_end)
    with os.fdopen(read_end) as pipe:
        text = pipe.read()
    os.waitpid(child, 0)
    return json.loads(text) if text else "the process ended"


def count_of_events(behaviour):
    recording = Recording(**behaviour)
    record_reference(recording)
    return len(recording.events)


def main():
    global COUNT_OF_READS
    faults, wrong = 0, []

    def note(what, text):
        nonlocal faults
        faults += 1
        if text:
            wrong.append(f"{what}: {text}")

    for name, behaviour in SITUATIONS.items():

        def undisturbed(behaviour=behaviour):
            expected = record_reference(Recording(**behaviour))
            actual = record_module(Recording(**behaviour))
            assert actual[0] == expected[0], f"{actual[0]}\nreference: {expected[0]}"

        if text := in_child(undisturbed):
            wrong.append(f"{name}: {text}")
        for place in range(count_of_events(behaviour)):
            for kind in KINDS:
                work = lambda: check_fault(behaviour, place, kind)  # noqa: B023, E731
                note(f"{name}, event {place}, {kind.__name__}", in_child(work))
    recording = Recording()
    _imp.create_dynamic(Spec(recording))
    COUNT_OF_READS = len(recording.events)
    for place in range(COUNT_OF_READS):
        for kind in KINDS:
            work = lambda: check_create_fault(place, kind)  # noqa: B023, E731
            note(f"create, read {place}, {kind.__name__}", in_child(work))
    print(json.dumps({"faults": faults, "wrong": wrong[:20], "reads": recording.events}))


if __name__ == "__main__":
    main()
