# SPDX-License-Identifier: Apache-2.0
"""What importing the module does, in which order, and how it fails.

Every case runs in a process of its own with stand-ins for torch, cupy and the loader module: an
import happens once per process. The pieces of Python check themselves with `assert`.
"""

import textwrap

import pytest
from subprocess_run import run_python

PRELUDE = """
import fake_siblings as fake
from fake_siblings import ABSOLUTE, INSTALL_TEXT, MODULE, RELATIVE, Loader
import importlib, importlib.util, sys

def is_install_error(error):
    return type(error) is ImportError and error.args == (INSTALL_TEXT,)
"""


def run_startup(script, *options, **environment):
    return run_python(PRELUDE + textwrap.dedent(script), *options, **environment)


# ---- an import that works ----


def test_import_leaves_a_loader_and_all_globals():
    run_startup("""
        fake.add_all()
        module = fake.import_module()
        assert module.__name__ == MODULE and sys.modules[MODULE] is module
        assert [module._NATIVE_LOADER] == Loader.made
        assert module._USE_NATIVE_CUBIN is True
        assert module.NativeCubinLoader is Loader and module.HAS_CUPY is True
        assert module.cp is sys.modules["cupy"] and module.torch is sys.modules["torch"]
        assert module.__version__ == "3.4.8" and module._TRITON_BACKEND_OK is False
    """)


def test_import_with_the_real_torch():
    run_startup("""
        fake.add_cupy()
        fake.add_loader(RELATIVE)
        module = fake.import_module()
        import torch
        assert module.torch is torch and module.TQXResult([]).dtype is torch.float64
    """)


def test_modules_are_imported_in_order():
    run_startup("""
        fake.add_loader(RELATIVE)
        names = ["torch", "struct", "hashlib", "decimal", "typing", RELATIVE, "cupy"]
        makers = {"torch": fake.add_torch, "cupy": fake.add_cupy,
                  RELATIVE: lambda: fake.add_loader(RELATIVE)}
        seen = []

        class Recording:
            def find_spec(self, name, path=None, target=None):
                if name not in names or name in seen:
                    return None
                seen.append(name)
                if name in makers:
                    return importlib.util.spec_from_loader(name, self)

            def create_module(self, spec):
                return makers[spec.name]()

            def exec_module(self, module):
                pass

        import korvex
        sys.meta_path.insert(0, Recording())
        for name in names:
            sys.modules.pop(name, None)
        fake.import_module()
        assert seen == names, seen
    """)


def test_names_are_bound_in_order():
    run_startup("""
        fake.add_all()
        expected = '''
            torch struct hashlib Decimal getcontext Optional List Union Tuple
            __version__ _USE_NATIVE_CUBIN _NATIVE_LOADER NativeCubinLoader HAS_CUPY
            TQXResult __all__ _TRITON_BACKEND_OK cp tqx_sum
            get_backend_info tqx_checksum tqx_checksum_hex tqx_verify TQXVerifiedResult
        '''.split()
        bound = [name for name in vars(fake.import_module()) if name in expected]
        assert bound == expected, bound
    """)


def test_relative_import_takes_the_class_before_the_flag():
    run_startup("""
        fake.add_all()
        asked = []

        class Recording(type(sys)):
            def __getattribute__(self, name):
                if not name.startswith("__"):
                    asked.append(name)
                return super().__getattribute__(name)

        siblings = Recording(RELATIVE)
        siblings.NativeCubinLoader, siblings.HAS_CUPY = Loader, True
        sys.modules[RELATIVE] = siblings
        fake.import_module()
        assert asked == ["NativeCubinLoader", "HAS_CUPY"], asked
    """)


def test_loader_is_made_before_the_class_and_before_cupy():
    run_startup("""
        fake.add_all()
        del sys.modules["cupy"]

        class Watching(Loader):
            def __init__(self):
                import decimal
                half_made = sys.modules[MODULE]
                assert decimal.getcontext().prec == 1000
                assert half_made._NATIVE_LOADER is None
                assert half_made._USE_NATIVE_CUBIN is False
                assert half_made.__version__ == "3.4.8"
                for name in ["TQXResult", "__all__", "_TRITON_BACKEND_OK", "cp", "tqx_sum"]:
                    assert not hasattr(half_made, name), name
                fake.add_cupy()
                self.seen = True

        fake.add_loader(RELATIVE, loader=Watching)
        assert fake.import_module()._NATIVE_LOADER.seen
    """)


def test_cupy_is_imported_after_the_class_and_before_the_functions():
    run_startup("""
        fake.add_all()
        seen = []

        class Watching:
            def find_spec(self, name, path=None, target=None):
                if name == "cupy":
                    half_made = sys.modules[MODULE]
                    names = ["_NATIVE_LOADER", "TQXResult", "__all__", "_TRITON_BACKEND_OK",
                             "tqx_sum", "get_backend_info", "TQXVerifiedResult"]
                    seen.extend(n for n in names if hasattr(half_made, n))
                    assert half_made._USE_NATIVE_CUBIN is True
                    return importlib.util.spec_from_loader(name, self)

            def create_module(self, spec):
                return None

            def exec_module(self, module):
                pass

        del sys.modules["cupy"]
        sys.meta_path.insert(0, Watching())
        fake.import_module()
        assert seen == ["_NATIVE_LOADER", "TQXResult", "__all__", "_TRITON_BACKEND_OK"], seen
    """)


def test_loader_is_made_without_arguments_and_once():
    run_startup("""
        fake.add_all()
        calls = []

        def make(*args, **kwargs):
            calls.append((args, kwargs))
            return Loader()

        fake.add_loader(RELATIVE, loader=make)
        fake.import_module()
        assert calls == [((), {})], calls
    """)


def test_flag_goes_through_a_truth_test():
    run_startup("""
        fake.add_all()
        fake.add_loader(RELATIVE, has_cupy=["anything true"])
        assert fake.import_module().HAS_CUPY == ["anything true"]
    """)


def test_loader_may_be_false_in_a_truth_test():
    run_startup("""
        fake.add_all()
        false_loader = type("FalseLoader", (Loader,), {"__bool__": lambda self: False})
        fake.add_loader(RELATIVE, loader=false_loader)
        module = fake.import_module()
        assert module._USE_NATIVE_CUBIN is True and not module._NATIVE_LOADER
        info = module.get_backend_info()
        assert info["native_arch"] is None and info["native_cubin"] is None
    """)


def test_precision_is_set_on_the_importing_thread_only():
    run_startup("""
        import decimal, threading
        fake.add_all()
        seen = {}

        def note(who):
            seen[who] = decimal.getcontext().prec

        def import_there():
            fake.import_module()
            note("importing")

        for name, work in [("importing", import_there), ("another", lambda: note("another"))]:
            thread = threading.Thread(target=work)
            thread.start()
            thread.join()
        note("main")
        assert seen == {"importing": 1000, "another": 28, "main": 28}, seen
    """)


# ---- two stages of finding the loader ----


def test_absolute_name_serves_when_the_relative_one_is_missing():
    run_startup("""
        fake.add_all()
        fake.hide(RELATIVE)
        fake.add_loader(ABSOLUTE)
        module = fake.import_module()
        assert [module._NATIVE_LOADER] == Loader.made and module._USE_NATIVE_CUBIN is True
        info = module.get_backend_info()
        assert info == {"version": "3.4.8", "backend": "native_cuda", "cuda_available": False,
                        "device": None, "native_arch": "fake_arch",
                        "native_cubin": "/fake/path"}, info
    """)


@pytest.mark.parametrize("missing", ["NativeCubinLoader", "HAS_CUPY"])
def test_absolute_name_serves_when_the_relative_module_lacks_a_name(missing):
    run_startup(f"""
        fake.add_all()
        delattr(sys.modules[RELATIVE], {missing!r})
        absolute_loader = type("AbsoluteLoader", (Loader,), {{}})
        fake.add_loader(ABSOLUTE, loader=absolute_loader)
        assert type(fake.import_module()._NATIVE_LOADER) is absolute_loader
    """)


def test_absolute_name_serves_when_the_relative_constructor_raises_import_error():
    run_startup("""
        fake.add_all()
        fake.add_loader(RELATIVE, loader=fake.raiser(ModuleNotFoundError("no driver")))
        fake.add_loader(ABSOLUTE)
        assert [fake.import_module()._NATIVE_LOADER] == Loader.made
    """)


def test_absolute_name_is_not_tried_when_the_flag_is_false():
    run_startup("""
        fake.add_all()
        fake.add_loader(RELATIVE, has_cupy=False)
        fake.add_lazy_loader(ABSOLUTE, NativeCubinLoader=fake.raiser(SystemExit("tried")))
        assert is_install_error(fake.import_error())
        assert Loader.made == []
    """)


def test_absolute_name_is_not_tried_when_the_relative_one_works():
    run_startup("""
        fake.add_all()
        fake.add_lazy_loader(ABSOLUTE, NativeCubinLoader=fake.raiser(SystemExit("tried")))
        fake.import_module()
    """)


# ---- failures ----

INSTALL_TEXT_CASES = {
    "both names missing": "fake.hide(RELATIVE)",
    "relative flag false": "fake.add_loader(RELATIVE, has_cupy=0)",
    "absolute flag false": "fake.hide(RELATIVE); fake.add_loader(ABSOLUTE, has_cupy=False)",
    "absolute module without the class": (
        "fake.hide(RELATIVE); fake.add_module(ABSOLUTE, HAS_CUPY=True)"
    ),
    "absolute constructor raises ImportError": (
        "fake.hide(RELATIVE);"
        "fake.add_loader(ABSOLUTE, loader=fake.raiser(ImportError('no driver')))"
    ),
    "both constructors raise ImportError": (
        "fake.add_loader(RELATIVE, loader=fake.raiser(ImportError('first')));"
        "fake.add_loader(ABSOLUTE, loader=fake.raiser(ImportError('second')))"
    ),
}


@pytest.mark.parametrize("arrange", INSTALL_TEXT_CASES.values(), ids=INSTALL_TEXT_CASES)
def test_no_loader_ends_in_the_install_text(arrange):
    run_startup(f"""
        fake.add_all()
        {arrange}
        error = fake.import_error()
        assert is_install_error(error), error
        assert error.__cause__ is None and error.__context__ is None
        assert MODULE not in sys.modules
    """)


UNCHANGED_CASES = {
    "relative constructor": "fake.add_loader(RELATIVE, loader=fake.raiser(failure))",
    "relative class": "fake.add_lazy_loader(RELATIVE, NativeCubinLoader=fake.raiser(failure))",
    "relative flag": (
        "fake.add_lazy_loader(RELATIVE, NativeCubinLoader=lambda: Loader,"
        " HAS_CUPY=fake.raiser(failure))"
    ),
    "truth test of the relative flag": (
        "fake.add_loader(RELATIVE, has_cupy=type('F', (), {'__bool__': fake.raiser(failure)})())"
    ),
    "absolute constructor": (
        "fake.hide(RELATIVE); fake.add_loader(ABSOLUTE, loader=fake.raiser(failure))"
    ),
    "absolute class": (
        "fake.hide(RELATIVE);fake.add_lazy_loader(ABSOLUTE, NativeCubinLoader=fake.raiser(failure))"
    ),
}


@pytest.mark.parametrize("arrange", UNCHANGED_CASES.values(), ids=UNCHANGED_CASES)
@pytest.mark.parametrize("error", ["RuntimeError('bad cubin')", "KeyboardInterrupt()"])
def test_any_other_exception_of_a_loader_is_unchanged(arrange, error):
    run_startup(f"""
        fake.add_all()
        failure = {error}
        {arrange}
        assert fake.import_error() is failure
        assert MODULE not in sys.modules
    """)


def test_import_error_of_the_flags_truth_test_leads_to_the_absolute_name():
    run_startup("""
        fake.add_all()
        flag = type("Flag", (), {"__bool__": fake.raiser(ImportError("late"))})()
        fake.add_loader(RELATIVE, has_cupy=flag)
        fake.add_loader(ABSOLUTE)
        assert [fake.import_module()._NATIVE_LOADER] == Loader.made
    """)


def test_missing_cupy_is_unchanged():
    run_startup("""
        fake.add_all()
        fake.hide("cupy")
        error = fake.import_error()
        assert type(error) is ModuleNotFoundError and error.name == "cupy", error
        assert MODULE not in sys.modules and len(Loader.made) == 1
    """)


@pytest.mark.parametrize("error", ["ImportError('libcuda')", "OSError('libcuda')"])
def test_failing_cupy_is_unchanged(error):
    run_startup(f"""
        fake.add_all()
        failure = {error}

        class Failing:
            def find_spec(self, name, path=None, target=None):
                if name == "cupy":
                    raise failure

        del sys.modules["cupy"]
        sys.meta_path.insert(0, Failing())
        assert fake.import_error() is failure
    """)


@pytest.mark.parametrize("name", ["torch", "struct", "hashlib", "decimal", "typing"])
def test_missing_library_is_unchanged(name):
    run_startup(f"""
        fake.add_all()
        fake.hide({name!r})
        error = fake.import_error()
        assert type(error) is ModuleNotFoundError and error.name == {name!r}, error
        assert Loader.made == []
    """)


def test_failed_import_keeps_the_precision_already_set():
    run_startup("""
        import decimal
        fake.add_all()
        fake.add_loader(RELATIVE, has_cupy=False)
        assert is_install_error(fake.import_error())
        assert decimal.getcontext().prec == 1000
    """)


@pytest.mark.parametrize(
    "arrange",
    ["fake.hide(RELATIVE)", "fake.hide('cupy')", "fake.hide('torch')"],
    ids=["no loader", "no cupy", "no torch"],
)
def test_good_import_after_a_failed_one_starts_again(arrange):
    run_startup(f"""
        fake.add_all()
        {arrange}
        assert isinstance(fake.import_error(), ImportError)
        assert isinstance(fake.import_error(), ImportError)
        Loader.made.clear()
        fake.add_all()
        module = fake.import_module()
        assert [module._NATIVE_LOADER] == Loader.made and module.cp is sys.modules["cupy"]
        assert module.get_backend_info()["native_arch"] == "fake_arch"
    """)


# ---- the create and exec steps ----


def test_import_again_gives_the_same_object_and_runs_nothing():
    run_startup("""
        import decimal
        fake.add_all()
        first = fake.import_module()
        del sys.modules[MODULE], first.tqx_sum
        decimal.getcontext().prec = 5
        assert fake.import_module() is first and sys.modules[MODULE] is first
        assert not hasattr(first, "tqx_sum") and decimal.getcontext().prec == 5
        assert len(Loader.made) == 1
    """)


def test_exec_of_the_remembered_module_succeeds_at_once():
    run_startup("""
        fake.add_all()
        spec = importlib.util.find_spec(MODULE)
        module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
        del module.tqx_sum
        spec.loader.exec_module(module)
        assert not hasattr(module, "tqx_sum") and len(Loader.made) == 1
    """)


def test_exec_of_another_module_object_is_refused():
    run_startup("""
        fake.add_all()
        spec = importlib.util.find_spec(MODULE)
        first = importlib.util.module_from_spec(spec)
        second = importlib.util.module_from_spec(spec)
        assert first is not second
        spec.loader.exec_module(first)
        try:
            spec.loader.exec_module(second)
        except RuntimeError as error:
            assert error.args == ("Module 'tqx_runtime' has already been imported. "
                                  "Re-initialisation is not supported.",)
        else:
            raise AssertionError("not refused")
        assert not hasattr(second, "tqx_sum")
        assert importlib.util.module_from_spec(spec) is first
        assert first.get_backend_info()["native_arch"] == "fake_arch"
    """)


def test_create_after_a_failed_exec_makes_a_new_module():
    run_startup("""
        fake.add_all()
        spec = importlib.util.find_spec(MODULE)
        fake.hide(RELATIVE)
        failed = importlib.util.module_from_spec(spec)
        try:
            spec.loader.exec_module(failed)
        except ImportError as error:
            assert is_install_error(error)
        fake.add_all()
        fresh = importlib.util.module_from_spec(spec)
        assert fresh is not failed and MODULE not in sys.modules
        spec.loader.exec_module(fresh)
        assert fresh._USE_NATIVE_CUBIN is True and sys.modules[MODULE] is fresh
    """)


def test_entry_of_a_failed_exec_under_another_name_goes():
    run_startup("""
        fake.add_all()
        fake.add_loader(ABSOLUTE, has_cupy=False)
        spec = importlib.util.spec_from_file_location("tqx_runtime", fake.extension_file())
        failed = importlib.util.module_from_spec(spec)
        try:
            spec.loader.exec_module(failed)
        except ImportError as error:
            assert is_install_error(error) and error.__context__ is None
        assert MODULE not in sys.modules
        assert fake.import_module()._USE_NATIVE_CUBIN is True
    """)


def test_what_a_failed_exec_defined_still_works():
    run_startup("""
        fake.add_all()
        fake.hide("cupy")
        spec = importlib.util.find_spec(MODULE)
        failed = importlib.util.module_from_spec(spec)
        try:
            spec.loader.exec_module(failed)
        except ImportError:
            pass
        assert failed.TQXResult([]).n_limbs == 0
        try:
            failed.TQXResult([]).collapse()
        except Exception as error:
            assert not isinstance(error, SystemError), error
    """)


def test_create_copies_the_spec():
    run_startup("""
        fake.add_all()
        spec = importlib.util.find_spec(MODULE)
        module = importlib.util.module_from_spec(spec)
        assert module.__name__ == MODULE
        assert module.__loader__ is spec.loader and module.__file__ == spec.origin
        assert module.__package__ == "korvex" and not hasattr(module, "__path__")
    """)


def test_create_copies_search_locations_that_are_not_none():
    run_startup("""
        import _imp, types
        locations = ["/somewhere"]
        spec = types.SimpleNamespace(name="made.tqx_runtime", origin=fake.extension_file(),
                                     loader="the loader", parent="made",
                                     submodule_search_locations=locations)
        module = _imp.create_dynamic(spec)
        assert module.__name__ == "made.tqx_runtime" and module.__path__ is locations
        assert module.__loader__ == "the loader" and module.__package__ == "made"
        assert module.__file__ == spec.origin
    """)


def test_create_skips_a_missing_spec_attribute():
    run_startup("""
        import _imp, types
        spec = types.SimpleNamespace(name="tqx_runtime", origin=fake.extension_file())
        module = _imp.create_dynamic(spec)
        assert module.__loader__ is None and module.__package__ is None
        assert not hasattr(module, "__path__") and module.__file__ == spec.origin
    """)


def test_import_from_another_path_is_registered_under_its_own_name():
    run_startup("""
        fake.add_all()
        fake.add_loader(ABSOLUTE)
        spec = importlib.util.spec_from_file_location("tqx_runtime", fake.extension_file())
        module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
        assert module.__name__ == "tqx_runtime" and sys.modules[MODULE] is module
        assert module.TQXResult.__module__ == MODULE and module.tqx_sum.__module__ == MODULE
        assert fake.import_module() is module
    """)


def test_entry_that_is_already_registered_is_left_alone():
    run_startup("""
        fake.add_all()
        fake.add_loader(ABSOLUTE)
        spec = importlib.util.spec_from_file_location("tqx_runtime", fake.extension_file())
        resident = fake.add_module(MODULE)
        module = importlib.util.module_from_spec(spec)
        spec.loader.exec_module(module)
        assert sys.modules[MODULE] is resident and module._USE_NATIVE_CUBIN is True
    """)


def test_interpreter_ends_without_complaint_after_an_import():
    run_startup(
        """
        fake.add_all()
        module = fake.import_module()
        keep = [module.TQXResult([]), module.tqx_sum, module.TQXResult([]).collapse]
    """,
        "-X",
        "dev",
    )
