# SPDX-License-Identifier: Apache-2.0
"""Write the files that follow from the rows of the C++ tables, read off the built module.

    make interface

- `korvex/tqx_runtime/public_names.h`: `__all__`. Its order is part of the interface, so names stay
  where they are and a new one goes to the end. The header is compiled: build again when it changed.
- `korvex/tqx_runtime.pyi`: the types. What a row does not say about them stands in this file.
- `docs/api/*.md`: the names on each page, one page for each folder under `korvex/functions`.

`tests/runtime/test_typed_surface.py` fails while one of them is not up to date.
"""

import importlib
import inspect
import re
import types
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from korvex_tools.source_tree import SOURCE_TREE

TREE = SOURCE_TREE
HEADER = TREE / "korvex" / "tqx_runtime" / "public_names.h"
STUB = TREE / "korvex" / "tqx_runtime.pyi"
FUNCTIONS = TREE / "korvex" / "functions"
PAGES = TREE / "docs" / "api"
WIDTH = 100

# --- What a row does not say about types

# The annotation of a row, and how a stub spells it.
TYPES = {
    "Decimal": "Decimal",
    "List[Decimal]": "list[Decimal]",
    "List[torch.Tensor]": "list[Tensor]",
    "Optional[Tuple]": "tuple[Any, ...] | None",
    "Optional[int]": "int | None",
    "Optional[str]": "str | None",
    "Optional[torch.Tensor]": "Tensor | None",
    "TQXResult": "TQXResult",
    "Union[torch.Tensor, TQXResult]": "Tensor | TQXResult",
    "bool": "bool",
    "dict": "dict[str, Any]",
    "float": "float",
    "int": "int",
    "str": "str",
    "torch.Tensor": "Tensor",
}

# Instance attributes, which the methods of a class set.
ATTRIBUTES = {
    "TQXResult": (
        "limbs: list[Tensor]",
        "device: str",
        "n_limbs: int",
        "shape: tuple[int, ...]",
        "dtype: torch.dtype",
    ),
    "TQXVerifiedResult": ("value: Tensor | TQXResult",),
}

# A row with return_tqx and no return annotation folds limb operands and returns limbs on request.
# So do these, which take tensors only; every other function with an annotation ignores the flag.
LIMBS_ON_REQUEST = {"tqx_sum", "tqx_mean", "tqx_prod", "tqx_cumsum", "tqx_dot", "tqx_matmul"}
# Of those, the one that returns a tensor all the same for some shapes: two vectors.
TENSOR_FOR_SOME_SHAPES = {"tqx_matmul"}

# The three forms of a flag: without limbs, with them, and a variable, which may be either.
NO_LIMBS = "return_tqx: Literal[False] = False"
LIMBS = "return_tqx: Literal[True]"
EITHER = "return_tqx: bool = False"
RESULT_OF_EITHER = "Tensor | TQXResult"

# Functions whose forms depend on their operands: parameters and result of each form. Numbers are
# for the error-free sum of whole tensors, which has no limb operand; no other route takes them.
SUM_FORMS = (
    (("x: _Operand", "y: _Operand", NO_LIMBS), "Tensor"),
    (("x: _Operand", "y: _Operand", LIMBS), "TQXResult"),
    (("x: Tensor | float", "y: Tensor | float", LIMBS), "TQXResult"),
    (("x: _Operand", "y: _Operand", EITHER), RESULT_OF_EITHER),
)
PRODUCT_FORMS = (
    (("x: Tensor", "y: Tensor", NO_LIMBS), "Tensor"),
    (("x: _Operand", "y: _Operand", LIMBS), "TQXResult"),
    (("x: TQXResult", "y: _Operand", EITHER), "TQXResult"),
    (("x: Tensor", "y: TQXResult", EITHER), "TQXResult"),
    (("x: _Operand", "y: _Operand", EITHER), RESULT_OF_EITHER),
)
EINSUM_FORMS = (
    (("equation: str", "*operands: Tensor", NO_LIMBS), "Tensor"),
    (("equation: str", "*operands: Tensor", EITHER), RESULT_OF_EITHER),
)
FORMS = {
    "tqx_add": SUM_FORMS,
    "tqx_sub": SUM_FORMS,
    "tqx_mul": PRODUCT_FORMS,
    "tqx_div": PRODUCT_FORMS,
    "tqx_einsum": EINSUM_FORMS,
}

STUB_HEAD = """\
# SPDX-License-Identifier: Apache-2.0
# Types of the runtime module, an extension module: its public names and nothing else. Written by
# korvex_tools.write_interface.
#
# A function whose flag `return_tqx` is honoured has a form for each value of it and one for a
# variable. `int` parameters take any number and flags any object; the types here ask for what a
# program should pass.
from decimal import Decimal
from typing import Any, Literal, overload

import torch
from torch import Tensor
"""

HEADER_HEAD = """\
// SPDX-License-Identifier: Apache-2.0
// The public names of the module, in the order of __all__. Written by
// korvex_tools.write_interface.
#pragma once

namespace korvex {

// clang-format off
inline constexpr const char* kPublicNames[] = {
"""
HEADER_END = """\
};
// clang-format on

}  // namespace korvex
"""

# --- __all__


def public_names(module: types.ModuleType) -> list[str]:
    """`__all__` as it is, then the public functions that are not in it yet, as defined."""
    defined = [name for name, value in vars(module).items() if _is_function(value)]
    added = [name for name in defined if name[0] != "_" and name not in module.__all__]
    return [name for name in module.__all__ if hasattr(module, name)] + added


def _is_function(value: Any) -> bool:
    return type(value).__name__ == "tqx_function"


def header(names: list[str]) -> str:
    listed = "".join(f'    "{name}",\n' for name in names)
    return f"{HEADER_HEAD}{listed}{HEADER_END}"


# --- The stub


def stub(module: types.ModuleType, names: list[str]) -> str:
    listed = "".join(f'    "{name}",\n' for name in names)
    classes = [name for name in names if isinstance(getattr(module, name), type)]
    functions = [name for name in names if _is_function(getattr(module, name))]
    parts = [STUB_HEAD, f"__all__ = [\n{listed}]\n", "__version__: str\n"]
    parts += ["\n".join(_class_lines(name, getattr(module, name))) + "\n" for name in classes]
    parts.append("type _Operand = Tensor | TQXResult\n")
    lines = [line for name in functions for line in _function_lines(name, getattr(module, name))]
    parts.append("\n".join(lines) + "\n")
    return "\n".join(parts)


def _function_lines(name: str, function: Any) -> Iterator[str]:
    forms = FORMS.get(name) or _forms(name, inspect.signature(function))
    for parameters, returned in forms:
        if len(forms) > 1:
            yield "@overload"
        yield from _definition(name, parameters, returned)


def _forms(name: str, signature: inspect.Signature) -> list[tuple[list[str], str]]:
    """The one form of a row, or those of a function that returns limbs on request."""
    parameters = list(signature.parameters.values())
    has_flag = "return_tqx" in signature.parameters
    folds = has_flag and signature.return_annotation is signature.empty
    if not folds and name not in LIMBS_ON_REQUEST:
        return [([_parameter(each) for each in parameters], TYPES[signature.return_annotation])]
    place = list(signature.parameters).index("return_tqx")
    spelled = [_parameter(each, folds) for each in parameters]
    before, after = spelled[:place], spelled[place + 1 :]
    forms = [([*before, NO_LIMBS, *after], "Tensor")]
    if "dim" in signature.parameters:  # along a dimension the flag has no effect
        forms.append((_with_dim([*before, EITHER, *after], "dim: int"), "Tensor"))
        before = _with_dim(before, "dim: None = None")
    # No parameter without a default value can follow one with it, save by keyword.
    by_keyword = ["*"] if "=" in before[-1] else []
    limbs = RESULT_OF_EITHER if name in TENSOR_FOR_SOME_SHAPES else "TQXResult"
    forms.append(([*before, *by_keyword, LIMBS, *after], limbs))
    forms.append(([*spelled[:place], EITHER, *after], RESULT_OF_EITHER))
    return forms


def _with_dim(parameters: list[str], dim: str) -> list[str]:
    return [dim if each.startswith("dim: ") else each for each in parameters]


def _parameter(parameter: inspect.Parameter, folds: bool = False) -> str:
    """A parameter of a row; `folds`: its tensors may be limb results."""
    if parameter.kind is parameter.VAR_POSITIONAL:
        return f"*{parameter.name}: Any"
    if parameter.name == "self":
        return "self"
    annotated = TYPES[parameter.annotation]
    if folds and annotated == "Tensor":
        annotated = "_Operand"
    if parameter.default is parameter.empty:
        return f"{parameter.name}: {annotated}"
    value = parameter.default
    shown = f'"{value}"' if isinstance(value, str) else repr(value)
    return f"{parameter.name}: {annotated} = {shown}"


def _class_lines(name: str, cls: type) -> Iterator[str]:
    yield f"class {name}:"
    yield from (f"    {attribute}" for attribute in ATTRIBUTES[name])
    for member_name, member in vars(cls).items():
        function = member.fget if isinstance(member, property) else member
        private = member_name[0] == "_" and not member_name.endswith("__")
        if private or member_name == "__repr__" or not _is_function(function):
            continue
        if isinstance(member, property):
            yield "    @property"
        signature = inspect.signature(function)
        parameters = [_parameter(each) for each in signature.parameters.values()]
        is_init = member_name == "__init__"
        returned = "None" if is_init else TYPES[signature.return_annotation]
        yield from _definition(member_name, parameters, returned, "    ")


def _definition(name: str, parameters: Any, returned: str, indent: str = "") -> Iterator[str]:
    """One definition on as few lines as fit, in the layout of `ruff format`."""
    joined = ", ".join(parameters)
    line = f"{indent}def {name}({joined}) -> {returned}: ..."
    if len(line) <= WIDTH:
        yield line
        return
    inner = f"{indent}    "
    yield f"{indent}def {name}("
    if len(inner + joined) <= WIDTH:
        yield inner + joined
    else:
        yield from (f"{inner}{each}," for each in parameters)
    yield f"{indent}) -> {returned}: ..."


# --- The reference pages


def pages(names: list[str]) -> dict[Path, str]:
    """Each page of the module's names, with the names of its folder; the rest is for one page."""
    left = list(names)
    found = {}
    for folder in sorted(path.name for path in FUNCTIONS.iterdir() if path.is_dir()):
        rows = _names_in_rows(FUNCTIONS / folder)
        found[PAGES / f"{folder}.md"] = [name for name in names if name in rows]
        left = [name for name in left if name not in rows]
    found[PAGES / "runtime.md"] = left
    return {path: _with_names(path.read_text(), listed) for path, listed in found.items()}


def _names_in_rows(folder: Path) -> set[str]:
    """The names with which rows begin in the C++ files of a folder."""
    text = "".join(path.read_text() for path in sorted(folder.glob("*.cpp")))
    return set(re.findall(r'\{\s*"(\w+)",', text))


def _with_names(page: str, names: list[str]) -> str:
    listed = "".join(f"{name}\n" for name in names)
    block = r"(```\{api-names\} korvex\.tqx_runtime\n(?::[\w-]+:\n\n)?)[^`]*```"
    changed, count = re.subn(block, rf"\g<1>{listed}```", page)
    assert count == 1
    return changed


# --- All of them


def written_files(module: types.ModuleType) -> dict[Path, str]:
    names = public_names(module)
    return {HEADER: header(names), STUB: stub(module, names)} | pages(names)


def main() -> None:
    importlib.import_module("korvex.emulation").activate()  # the module imports on every machine
    module = importlib.import_module("korvex.tqx_runtime")
    for path, text in written_files(module).items():
        if path.read_text() != text:
            path.write_text(text)
            print(f"written: {path.relative_to(TREE)}")


if __name__ == "__main__":
    main()
