# SPDX-License-Identifier: Apache-2.0
"""One interpreter per process may load the module; every other one is refused."""

import textwrap

import pytest
from subprocess_run import run_python

INSTALL_TEXT = (
    "Interpreter change detected - this module can only be loaded into one interpreter per process."
)

PRELUDE = f"""
import os, sys, tempfile
import fake_siblings as fake
from fake_siblings import MODULE, RELATIVE
INSTALL_TEXT = {INSTALL_TEXT!r}

try:
    import _interpreters
except ImportError:
    import _xxsubinterpreters as _interpreters

def make_interpreter(isolated):
    # Isolated: with a GIL of its own. The argument's form changed with CPython 3.13.
    if sys.version_info >= (3, 13):
        return _interpreters.create("isolated" if isolated else "legacy")
    return _interpreters.create(isolated=isolated)

def import_there(interpreter, arrange=""):
    '''How the import ends in another interpreter: "imported" or the type and text of the error.'''
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "outcome")
        _interpreters.run_string(interpreter, f'''
import sys
sys.path[:] = {{sys.path!r}}
{{arrange}}
try:
    import {{MODULE}}
    outcome = "imported"
except BaseException as error:
    outcome = type(error).__name__ + ": " + str(error)
with open({{path!r}}, "w") as file:
    file.write(outcome)
''')
        with open(path) as file:
            return file.read()
"""


def run_interpreters(script):
    run_python(PRELUDE + textwrap.dedent(script))


@pytest.mark.parametrize("isolated", [False, True], ids=["shared GIL", "own GIL"])
def test_second_interpreter_is_refused(isolated):
    run_interpreters(f"""
        fake.add_all()
        module = fake.import_module()
        other = make_interpreter(isolated={isolated})
        assert import_there(other) == "ImportError: " + INSTALL_TEXT
        assert import_there(other) == "ImportError: " + INSTALL_TEXT
        _interpreters.destroy(other)
        assert module.get_backend_info()["native_arch"] == "fake_arch"
        assert fake.import_module() is module
    """)


@pytest.mark.parametrize("isolated", [False, True], ids=["shared GIL", "own GIL"])
def test_interpreter_of_a_failed_import_stays_the_only_one(isolated):
    run_interpreters(f"""
        fake.add_all()
        fake.hide(RELATIVE)
        assert isinstance(fake.import_error(), ImportError)
        other = make_interpreter(isolated={isolated})
        assert import_there(other) == "ImportError: " + INSTALL_TEXT
        _interpreters.destroy(other)
        fake.add_all()
        assert fake.import_module()._USE_NATIVE_CUBIN is True
    """)


def test_main_interpreter_is_refused_after_another_one_imported():
    run_interpreters("""
        other = make_interpreter(isolated=False)
        arrange = "import fake_siblings; fake_siblings.add_all()"
        assert import_there(other, arrange) == "imported"
        fake.add_all()
        error = fake.import_error()
        assert type(error) is ImportError and error.args == (INSTALL_TEXT,), error
        os._exit(0)  # leaves the other interpreter, and the module in it, as they are
    """)
