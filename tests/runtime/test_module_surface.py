# SPDX-License-Identifier: Apache-2.0
"""The names of the module, and what introspection shows of its functions and classes."""

import copy
import decimal
import functools
import gc
import hashlib
import importlib.machinery
import inspect
import json
import pickle
import pydoc
import struct
import types
import typing
import weakref

import pytest
import torch
from public_signatures import FUNCTIONS, METHODS, ROWS

from korvex_tools.verify import golden

RECORDED_NAMES = list(json.loads((golden.FOLDER / "surface.json").read_text())["names"])


# ---- globals ----


def test_the_module_is_the_built_extension(module):
    assert isinstance(module, types.ModuleType)
    assert module.__file__.endswith(tuple(importlib.machinery.EXTENSION_SUFFIXES))
    assert type(module.__spec__.loader) is importlib.machinery.ExtensionFileLoader


def test_all_lists_existing_names_in_the_recorded_order(module):
    assert type(module.__all__) is list
    assert module.__all__ == RECORDED_NAMES
    assert len(module.__all__) == len(set(module.__all__))
    assert [name for name in module.__all__ if not hasattr(module, name)] == []


def test_all_holds_every_public_name(module):
    public = {n for n in vars(module) if n.startswith(("tqx_", "TQX"))}
    assert public <= set(module.__all__)
    tested = {row.path for row in FUNCTIONS}
    assert tested | {"__version__", "TQXResult", "TQXVerifiedResult"} <= set(module.__all__)


def test_internal_names_are_not_in_all(module):
    for name in ("_TRITON_BACKEND_OK", "_NATIVE_LOADER", "_USE_NATIVE_CUBIN", "cp", "torch"):
        assert hasattr(module, name) and name not in module.__all__


def test_globals_are_the_libraries(module):
    assert module.torch is torch
    assert module.struct is struct and module.hashlib is hashlib
    assert module.Decimal is decimal.Decimal and module.getcontext is decimal.getcontext
    for name in ("Optional", "List", "Union", "Tuple"):
        assert getattr(module, name) is getattr(typing, name)
    assert module.__version__ == "3.4.8"
    assert module._USE_NATIVE_CUBIN is True and module.HAS_CUPY
    assert isinstance(module._NATIVE_LOADER, module.NativeCubinLoader)


def test_decimal_precision_of_the_importing_thread(module):
    assert decimal.getcontext().prec == 1000


def test_triton_flag_is_false_and_read_by_nothing(module, monkeypatch):
    assert module._TRITON_BACKEND_OK is False
    before = module.get_backend_info()
    monkeypatch.setattr(module, "_TRITON_BACKEND_OK", True)
    assert module.get_backend_info() == before
    monkeypatch.delattr(module, "_TRITON_BACKEND_OK")
    assert module.get_backend_info() == before


@pytest.mark.parametrize(
    "part",
    [
        "error-free transformations (EFT)",
        "TwoSum",
        "a + b = s + e EXACTLY",
        "TwoProduct",
        "a * b = p + e EXACTLY via FMA",
        "TQXAccum4",
        "4-limb accumulator for zero accumulated error",
        "3.4.3",
    ],
)
def test_module_doc_string_says(module, part):
    assert part in " ".join(module.__doc__.split())


def test_module_doc_string_asks_for_cupy_and_keeps_its_old_version(module):
    assert "cupy" in module.__doc__ and "required" in module.__doc__
    assert "zero-error" in module.__doc__.lower()
    assert "3.4.8" not in module.__doc__


# ---- functions ----

by_row = pytest.mark.parametrize("row", ROWS, ids=[row.path for row in ROWS])


@by_row
def test_function_names_itself(module, row):
    function = inspect.unwrap(_function(row, module))
    assert function.__name__ == row.name
    assert function.__qualname__ == row.path
    assert function.__module__ == "korvex.tqx_runtime"
    assert callable(function)


@by_row
def test_function_keeps_its_defaults(module, row):
    function = _function(row, module)
    assert function.__defaults__ == (row.defaults or None)
    assert function.__kwdefaults__ == (dict(row.keyword_only) or None)
    for given, expected in zip(function.__defaults__ or (), row.defaults, strict=True):
        assert type(given) is type(expected)


@by_row
def test_function_keeps_its_annotations_as_text(module, row):
    annotations = _function(row, module).__annotations__
    assert type(annotations) is dict
    assert {type(text) for text in annotations.values()} <= {str}
    assert row.annotations.items() <= annotations.items()
    names = [name for name in annotations if name != "return"]
    known = [*row.parameters, *dict(row.keyword_only)]
    assert names == [name for name in known if name in annotations]


@by_row
def test_function_shows_its_signature(module, row):
    signature = inspect.signature(_function(row, module))
    shown = list(signature.parameters.values())
    fixed = [p for p in shown if p.kind is p.POSITIONAL_OR_KEYWORD]
    assert [p.name for p in fixed] == list(row.parameters)
    rest = [p for p in shown if p.kind is not p.POSITIONAL_OR_KEYWORD]
    assert sum(p.kind is p.VAR_POSITIONAL for p in rest) == row.takes_rest
    keyword_only = [(p.name, p.default) for p in rest if p.kind is p.KEYWORD_ONLY]
    assert keyword_only == list(row.keyword_only)
    defaults = tuple(p.default for p in fixed if p.default is not p.empty)
    assert defaults == row.defaults
    for p in shown:
        assert p.annotation is p.empty or type(p.annotation) is str


@by_row
def test_function_looks_its_globals_up_in_the_module(module, row):
    assert _function(row, module).__globals__ is vars(module)


@by_row
def test_function_can_be_referred_to_weakly(module, row):
    function = _function(row, module)
    assert weakref.ref(function)() is function


@by_row
def test_function_renders_in_help(module, row):
    assert row.name in pydoc.render_doc(_function(row, module), renderer=pydoc.plaintext)


@pytest.mark.parametrize("row", FUNCTIONS, ids=[row.path for row in FUNCTIONS])
def test_function_is_pickled_and_copied_by_name(module, row):
    function = getattr(module, row.name)
    for protocol in range(pickle.HIGHEST_PROTOCOL + 1):
        assert pickle.loads(pickle.dumps(function, protocol)) is function
    assert copy.copy(function) is function
    assert copy.deepcopy(function) is function


@pytest.mark.parametrize("name", ["collapse", "item", "squeeze", "to_decimal"])
def test_method_is_pickled_by_name(module, name):
    function = getattr(module.TQXResult, name)
    assert pickle.loads(pickle.dumps(function)) is function
    bound = getattr(module.TQXResult([]), name)
    assert repr(pickle.loads(pickle.dumps(bound))()) == repr(bound())


@pytest.mark.parametrize("row", FUNCTIONS, ids=[row.path for row in FUNCTIONS])
def test_function_has_a_doc_string(module, row):
    assert type(getattr(module, row.name).__doc__) is str


def test_full_signatures_as_text(module):
    assert str(inspect.signature(module.tqx_sum)) == (
        "(x: 'torch.Tensor', dim: 'Optional[int]' = None, keepdim: 'bool' = False, "
        "return_tqx: 'bool' = False, exact: 'bool' = True) -> 'torch.Tensor'"
    )
    assert str(inspect.signature(module.tqx_mean)) == (
        "(x: 'torch.Tensor', dim: 'Optional[int]' = None, keepdim: 'bool' = False, "
        "return_tqx: 'bool' = False) -> 'torch.Tensor'"
    )
    assert str(inspect.signature(module.tqx_sum_exact)) == "(x: 'torch.Tensor') -> 'Decimal'"
    assert list(inspect.signature(module.get_backend_info).parameters) == []


def test_signature_of_a_bound_method_leaves_self_out(module):
    result = module.TQXResult([])
    assert list(inspect.signature(result.collapse).parameters) == []
    assert list(inspect.signature(result.squeeze).parameters) == ["dim"]
    assert str(inspect.signature(result.view)).startswith("(*shape)")


def test_signature_of_a_class_is_that_of_its_constructor(module):
    text = str(inspect.signature(module.TQXResult))
    assert text.startswith("(limbs: 'List[torch.Tensor]', device: 'str' = 'cuda')")
    text = str(inspect.signature(module.TQXVerifiedResult))
    assert text.startswith(
        "(value: 'Union[torch.Tensor, TQXResult]', checksum: 'Optional[str]' = None)"
    )


def test_function_becomes_a_method_in_a_class(module):
    class Operand:
        is_cuda = False
        total = module.tqx_sum

    operand = Operand()
    assert Operand.total is module.tqx_sum
    assert operand.total.__self__ is operand and operand.total.__func__ is module.tqx_sum
    with pytest.raises(RuntimeError, match="TQX requires CUDA tensor"):
        operand.total()


def test_function_binds_through_get(module):
    assert module.tqx_sum.__get__(None, object) is module.tqx_sum
    bound = module.tqx_checksum.__get__(torch.tensor([1.0]))
    assert bound(4) == "6c3c"


def test_function_can_be_wrapped(module):
    @functools.wraps(module.tqx_sum)
    def wrapper(*args, **kwargs):
        return module.tqx_sum(*args, **kwargs)

    assert wrapper.__name__ == "tqx_sum" and wrapper.__doc__ == module.tqx_sum.__doc__
    assert wrapper.__wrapped__ is module.tqx_sum
    assert inspect.signature(wrapper) == inspect.signature(module.tqx_sum)


def test_function_can_be_applied_partially(module):
    assert functools.partial(module.tqx_checksum, truncate=4)(torch.tensor([1.0])) == "6c3c"


def test_functions_are_hashable_and_equal_to_themselves_only(module):
    functions = {getattr(module, row.name) for row in FUNCTIONS}
    assert len(functions) == len(FUNCTIONS)


def test_globals_are_looked_up_at_each_call(module, monkeypatch):
    with monkeypatch.context() as patch:
        patch.setattr(module, "tqx_checksum", lambda x, truncate: f"{x} cut at {truncate}")
        assert module.tqx_checksum_hex("x") == "x cut at 64"
        patch.delattr(module, "tqx_checksum")
        with pytest.raises(NameError, match="tqx_checksum"):
            module.tqx_checksum_hex("x")
    assert module.tqx_checksum_hex(torch.tensor([1.0])).startswith("6c3c")


def test_whole_module_renders_in_help(module):
    text = pydoc.render_doc(module, renderer=pydoc.plaintext)
    for row in FUNCTIONS:
        assert f"{row.name}(" in text
    assert "class TQXResult" in text and "class TQXVerifiedResult" in text


# ---- doc strings ----

DOC_STRINGS = [
    ("get_backend_info", "Get information about the active backend."),
    ("tqx_sum", "TQX exact sum using TwoSum cascade (4-limb accumulator)."),
    ("tqx_sum_exact", "TRUE ZERO COMPUTATIONAL ERROR sum."),
    ("tqx_mean_exact", "TRUE ZERO COMPUTATIONAL ERROR mean."),
    (
        "tqx_checksum",
        "Compute SHA256 checksum of TQX result for reproducibility verification.",
    ),
    ("tqx_checksum_hex", "Compute full 64-character SHA256 hex checksum."),
    ("tqx_verify", "Verify that a TQX result matches an expected checksum."),
    ("TQXResult.collapse", "Collapse limbs to single FP64 tensor using TwoSum cascade."),
    ("TQXResult.item", "Return collapsed scalar value as Python float."),
    ("TQXResult.__float__", "Allow float() conversion."),
    ("TQXResult.squeeze", "Squeeze dimensions from all limbs."),
    ("TQXResult.unsqueeze", "Unsqueeze dimension in all limbs."),
    ("TQXResult.view", "View all limbs with new shape."),
    ("TQXResult.reshape", "Reshape all limbs."),
    ("TQXResult.to_decimal", "Convert to exact Decimal representation."),
    ("TQXResult._fp64_to_decimal", "Convert FP64 to exact Decimal via binary representation."),
]
DOC_LINES = [
    ("tqx_sum", "If True (default), use sequential kernel for TRUE ZERO ERROR."),
    ("tqx_sum", "If False, use parallel kernel (faster but ~1e-14 error from atomicAdd)."),
    (
        "tqx_sum_exact",
        "Returns Decimal with ALL precision preserved. No drift, no accumulation error.",
    ),
    ("tqx_sum_exact", "The returned Decimal is the EXACT sum of the FP64 values stored in x."),
    ("tqx_sum_exact", "x = torch.ones(100000, device='cuda') * 0.1"),
    ("tqx_sum_exact", "Decimal('9999.999999999999892419....')"),
    ("tqx_checksum", "Number of hex characters to return (default 16, max 64)"),
    ("TQXResult.collapse", "For EXACT results, use to_decimal() instead."),
    ("TQXResult.collapse", "The limb list IS the exact number - collapsing loses information."),
    ("TQXResult.to_decimal", "Optional tuple index for multi-dimensional results."),
    ("TQXResult.to_decimal", "If None, assumes scalar or returns element [0]."),
]


def _function(row, module):
    function = row.find(module)
    return getattr(function, "__func__", function)


def _doc(module, path):
    return _function(next(row for row in ROWS if row.path == path), module).__doc__


@pytest.mark.parametrize("path, opening", DOC_STRINGS)
def test_doc_string_begins(module, path, opening):
    assert inspect.cleandoc(_doc(module, path)).startswith(opening)


@pytest.mark.parametrize("path, line", DOC_LINES)
def test_doc_string_says(module, path, line):
    assert line in " ".join(_doc(module, path).split())


def test_doc_strings_to_the_letter(module):
    assert module.tqx_mean.__doc__ == "TQX exact mean using TwoSum cascade."
    assert module.get_backend_info.__doc__ == "Get information about the active backend."


@pytest.mark.parametrize("path", ["TQXResult.__init__", "TQXResult.__repr__"])
def test_no_doc_string(module, path):
    assert _doc(module, path) is None


def test_class_doc_string_fixes_the_limb_order(module):
    doc = inspect.cleandoc(module.TQXResult.__doc__)
    assert "[hi, err1, err2, ...]" in doc
    assert doc.endswith("The TRUE result = sum(all limbs)")


def test_verified_results_doc_string_shows_a_call_that_fails(module):
    assert "tqx.tqx_sum(data, return_verified=True)" in module.TQXVerifiedResult.__doc__


# ---- classes ----

CLASSES = ["TQXResult", "TQXVerifiedResult"]


@pytest.mark.parametrize("name", CLASSES)
def test_class_is_an_ordinary_one(module, name):
    cls = getattr(module, name)
    assert type(cls) is type and cls.__bases__ == (object,)
    assert cls.__name__ == cls.__qualname__ == name
    assert cls.__module__ == "korvex.tqx_runtime"
    assert weakref.ref(cls)() is cls
    cls.added = 1
    del cls.added


def test_special_methods_are_these_and_no_others(module):
    inherited = {"__module__", "__qualname__", "__doc__", "__dict__", "__weakref__"}
    inherited |= {"__slotnames__"}  # pickle leaves it behind
    for name, expected in [
        ("TQXResult", {"__init__", "__float__", "__repr__"}),
        ("TQXVerifiedResult", {"__init__", "__repr__"}),
    ]:
        special = {n for n in vars(getattr(module, name)) if n.startswith("__")}
        assert special - inherited == expected


def test_static_method_and_properties_are_such(module):
    assert type(vars(module.TQXResult)["_fp64_to_decimal"]) is staticmethod
    for name in ("checksum", "checksum_full"):
        found = vars(module.TQXVerifiedResult)[name]
        assert type(found) is property and found.fset is None and found.fdel is None


@pytest.mark.parametrize("row", METHODS, ids=[row.path for row in METHODS])
def test_method_is_defined_on_its_class(module, row):
    row.find(module)


def test_instances_are_collected(module):
    result = module.TQXResult([])
    result.itself = result
    gone = weakref.ref(result)
    del result
    gc.collect()
    assert gone() is None
