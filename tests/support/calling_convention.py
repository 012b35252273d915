# SPDX-License-Identifier: Apache-2.0
"""The rules by which arguments are bound, converted and refused, as a decorator in Python.

Written apart from the module's own binding code, so that the two can be compared. It does not
cover keywords that are no strings: the interpreter refuses those before a Python function runs.
"""

import ctypes
import functools
import inspect
import math
import sys

_WRONG_TYPE = "Argument '%.200s' has incorrect type (expected %.200s, got %.200s)"
_SUBCLASS_NOTE = "Note that subclasses of built-in types are rejected deliberately."
_NAME_POINTER_OFFSET = 3 * ctypes.sizeof(ctypes.c_void_p)  # past count, type and size


def type_name(value):
    """The name in the type object itself: "numpy.ndarray", and "C" for a class statement."""
    field = ctypes.c_char_p.from_address(id(type(value)) + _NAME_POINTER_OFFSET)
    return field.value.decode()


def korvex_function(function):
    """Bind, convert and check the arguments of `function` as the module does."""
    signature = inspect.signature(function)
    parameters = list(signature.parameters.values())
    takes_rest = any(p.kind is p.VAR_POSITIONAL for p in parameters)
    named = [p for p in parameters if p.kind is not p.VAR_POSITIONAL]
    placed = [p for p in named if p.kind is not p.KEYWORD_ONLY]
    unplaced = [p.name for p in named if p.kind is p.KEYWORD_ONLY]
    converters = {p.name: _CONVERTERS.get(p.annotation) for p in named}
    checkers = {p.name: _CHECKERS.get(p.annotation) for p in named}

    @functools.wraps(function)
    def call(*args, **kwargs):
        bound = _bind(function.__name__, placed, named, takes_rest, args, kwargs)
        given = [p.name for p in named if bound[p.name] is not p.default]
        for name in given:
            if converters[name]:
                bound[name] = converters[name](name, bound[name])
        for name in given:
            if checkers[name]:
                checkers[name](name, bound[name])
        return function(
            *(bound[p.name] for p in placed),
            *args[len(placed) :],
            **{name: bound[name] for name in unplaced},
        )

    return call


def _bind(function_name, placed, named, takes_rest, args, kwargs):
    required = sum(p.default is p.empty for p in placed)
    most = len(placed)
    if not named and not takes_rest and args:
        raise TypeError("%.200s() %s (%d given)" % (function_name, "takes no arguments", len(args)))
    if len(args) > most and not takes_rest:
        raise _wrong_count(function_name, required == most, "at most", most, len(args))
    bound = dict(zip((p.name for p in placed), args, strict=False))
    for keyword, value in kwargs.items():
        if keyword in bound:
            raise TypeError(
                f"{function_name}() got multiple values for keyword argument '{keyword}'"
            )
        if keyword not in (p.name for p in named):
            raise TypeError(f"{function_name}() got an unexpected keyword argument '{keyword}'")
        bound[keyword] = value
    for place, p in enumerate(named):
        if p.name not in bound and p.default is p.empty:
            exact = required == most and not takes_rest
            raise _wrong_count(function_name, exact, "at least", required, place)
        bound.setdefault(p.name, p.default)
    return bound


def _wrong_count(function_name, exact, bound_word, count, given):
    word = "exactly" if exact else bound_word
    plural = "" if count == 1 else "s"
    return TypeError(
        "%.200s() takes %.8s %d positional argument%.1s (%d given)"
        % (function_name, word, count, plural, given)
    )


def _wrong_type(parameter, expected, value):
    return TypeError(_WRONG_TYPE % (parameter, expected, type_name(value)))


def _is_number(value):
    kind = type(value)
    slots = ("__index__", "__int__", "__float__")
    return isinstance(value, complex) or any(hasattr(kind, slot) for slot in slots)


def _to_int(parameter, value):
    if type(value) is int:
        return value
    if not _is_number(value):
        raise _wrong_type(parameter, "int", value)
    return int(value)


def _to_float(parameter, value):
    return math.ldexp(value, 0)


def _to_bool(parameter, value):
    return bool(value)


def _exactly(expected):
    def check(parameter, value):
        if type(value) is expected:
            return
        error = _wrong_type(parameter, expected.__name__, value)
        if isinstance(value, expected):
            error.add_note(_SUBCLASS_NOTE)
        raise error

    return check


def _or_none(rule):
    def apply(parameter, value):
        return None if value is None else rule(parameter, value)

    return apply


# By annotation; an annotation that is in neither table is not looked at.
_CONVERTERS = {
    "bool": _to_bool,
    "int": _to_int,
    "float": _to_float,
    "Optional[int]": _or_none(_to_int),
}
_CHECKERS = {
    "str": _exactly(str),
    "List[torch.Tensor]": _exactly(list),
    "Optional[str]": _or_none(_exactly(str)),
    "Optional[Tuple]": _or_none(_exactly(tuple)),
}

assert sys.implementation.name == "cpython", "type names are read from the type object"
