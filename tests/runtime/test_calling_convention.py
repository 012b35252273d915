# SPDX-License-Identifier: Apache-2.0
"""How arguments are counted, bound, converted and refused, for every function and method.

The objects below stand for any first operand: the tests end before it is used, or see its first
use. Every statement is also checked on the reference implementation in Python.
"""

import decimal
import enum
import fractions

import numpy
import pytest
import torch
from public_signatures import FUNCTIONS, METHODS, ROWS

FIXED = [row for row in ROWS if not row.takes_rest]


def row_ids(rows):
    return {"argvalues": rows, "ids": [row.path for row in rows]}


def refusal(runtime, row, *args, **kwargs):
    with pytest.raises(TypeError) as caught:
        row.call(runtime, *args, **kwargs)
    return str(caught.value)


def count_text(name, word, count, given):
    plural = "" if count == 1 else "s"
    return f"{name}() takes {word} {count} positional argument{plural} ({given} given)"


# ---- counts ----


@pytest.mark.parametrize("row", **row_ids([row for row in FIXED if row.parameters]))
@pytest.mark.parametrize("surplus", [1, 3])
def test_too_many_positional_arguments(runtime, row, surplus):
    most = len(row.parameters)
    word = "exactly" if row.required == most else "at most"
    given = most + surplus
    assert refusal(runtime, row, *range(given)) == count_text(row.name, word, most, given)


@pytest.mark.parametrize("row", **row_ids([row for row in ROWS if row.required]))
def test_too_few_positional_arguments(runtime, row):
    exact = row.required == len(row.parameters) and not row.takes_rest
    word = "exactly" if exact else "at least"
    for given in range(row.required):
        expected = count_text(row.name, word, row.required, given)
        assert refusal(runtime, row, *range(given)) == expected


COUNT_TEXTS = [
    ("tqx_sum", (), "tqx_sum() takes at least 1 positional argument (0 given)"),
    ("tqx_sum", (1,) * 6, "tqx_sum() takes at most 5 positional arguments (6 given)"),
    ("tqx_mean", (1,) * 5, "tqx_mean() takes at most 4 positional arguments (5 given)"),
    ("tqx_sum_exact", (), "tqx_sum_exact() takes exactly 1 positional argument (0 given)"),
    ("tqx_sum_exact", (1, 2), "tqx_sum_exact() takes exactly 1 positional argument (2 given)"),
    ("tqx_verify", (1,), "tqx_verify() takes at least 2 positional arguments (1 given)"),
    ("get_backend_info", (1,), "get_backend_info() takes no arguments (1 given)"),
    ("get_backend_info", (1, 2), "get_backend_info() takes no arguments (2 given)"),
    ("TQXResult", (), "__init__() takes at least 2 positional arguments (1 given)"),
    ("TQXResult", ([], "a", 3), "__init__() takes at most 3 positional arguments (4 given)"),
    ("TQXVerifiedResult", (), "__init__() takes at least 2 positional arguments (1 given)"),
]


@pytest.mark.parametrize("name, args, expected", COUNT_TEXTS)
def test_count_text_to_the_letter(runtime, name, args, expected):
    with pytest.raises(TypeError) as caught:
        getattr(runtime, name)(*args)
    assert caught.value.args == (expected,)


METHOD_COUNT_TEXTS = [
    ("collapse", (1,), "collapse() takes exactly 1 positional argument (2 given)"),
    ("item", (1,), "item() takes exactly 1 positional argument (2 given)"),
    ("__float__", (1,), "__float__() takes exactly 1 positional argument (2 given)"),
    ("__repr__", (1,), "__repr__() takes exactly 1 positional argument (2 given)"),
    ("squeeze", (1, 2), "squeeze() takes at most 2 positional arguments (3 given)"),
    ("unsqueeze", (), "unsqueeze() takes exactly 2 positional arguments (1 given)"),
    ("unsqueeze", (1, 2), "unsqueeze() takes exactly 2 positional arguments (3 given)"),
    ("to_decimal", (1, 2), "to_decimal() takes at most 2 positional arguments (3 given)"),
    ("_fp64_to_decimal", (), "_fp64_to_decimal() takes exactly 1 positional argument (0 given)"),
]


@pytest.mark.parametrize("name, args, expected", METHOD_COUNT_TEXTS)
def test_count_of_a_method_includes_self(runtime, name, args, expected):
    with pytest.raises(TypeError) as caught:
        getattr(runtime.TQXResult([]), name)(*args)
    assert caught.value.args == (expected,)


def test_count_of_a_verified_results_method_includes_self(runtime):
    verified = runtime.TQXVerifiedResult(None, "text")
    with pytest.raises(TypeError) as caught:
        verified.verify(1)
    assert caught.value.args == ("verify() takes exactly 1 positional argument (2 given)",)


def test_number_given_counts_up_to_the_first_missing_argument(runtime):
    with pytest.raises(TypeError) as caught:
        runtime.tqx_verify(expected="", truncate=3)
    assert str(caught.value) == count_text("tqx_verify", "at least", 2, 0)
    with pytest.raises(TypeError) as caught:
        runtime.tqx_verify(x=1, truncate=3)
    assert str(caught.value) == count_text("tqx_verify", "at least", 2, 1)
    with pytest.raises(TypeError) as caught:
        runtime.tqx_where(1, y=2)
    assert str(caught.value) == count_text("tqx_where", "exactly", 3, 1)


def test_any_number_of_arguments_where_all_are_taken(runtime):
    assert runtime.TQXResult([]).view(*range(300)).n_limbs == 0
    assert runtime.TQXResult([]).reshape("any", None, object()).n_limbs == 0


# ---- keywords ----


@pytest.mark.parametrize("row", **row_ids(FUNCTIONS))
def test_unexpected_keyword(runtime, row):
    arguments = range(row.required)
    expected = f"{row.name}() got an unexpected keyword argument 'bogus'"
    if row.parameters:
        assert refusal(runtime, row, *arguments, bogus=1) == expected
    else:
        refusal(runtime, row, *arguments, bogus=1)


@pytest.mark.parametrize("row", **row_ids(METHODS))
def test_unexpected_keyword_of_a_method(runtime, row):
    expected = f"{row.name}() got an unexpected keyword argument 'bogus'"
    assert refusal(runtime, row, *range(row.required), bogus=1) == expected


@pytest.mark.parametrize("row", **row_ids([row for row in FIXED if row.parameters]))
def test_keyword_for_a_parameter_already_given(runtime, row):
    for given in range(1, len(row.parameters) + 1):
        name = row.parameters[given - 1]
        expected = f"{row.name}() got multiple values for keyword argument '{name}'"
        assert refusal(runtime, row, *range(given), **{name: 1}) == expected


def test_too_many_arguments_are_reported_before_keywords(runtime):
    with pytest.raises(TypeError, match=r"takes exactly 1 positional argument \(2 given\)"):
        runtime.tqx_sum_exact(1, 2, bogus=3)


def test_keywords_are_examined_before_missing_arguments(runtime):
    with pytest.raises(TypeError, match="unexpected keyword argument 'bogus'"):
        runtime.tqx_sum(bogus=1)
    with pytest.raises(TypeError, match="unexpected keyword argument 'bogus'"):
        runtime.TQXResult(bogus=1)


def test_keyword_with_a_name_that_is_not_ascii(runtime):
    with pytest.raises(TypeError) as caught:
        runtime.tqx_sum(1, größe=1)
    assert str(caught.value) == "tqx_sum() got an unexpected keyword argument 'größe'"


def test_keyword_of_a_str_subclass_is_a_keyword(runtime):
    class Name(str):
        __slots__ = ()

    assert runtime.TQXResult(**{Name("limbs"): []}).n_limbs == 0


def test_keywords_that_are_computed_bind_by_value(runtime):
    name = "".join(["li", "mbs"])  # equal to the parameter's name, another object
    assert runtime.TQXResult(**{name: []}).n_limbs == 0


@pytest.mark.parametrize("key", [1, None, b"x"])
def test_keywords_must_be_strings(module, key):
    with pytest.raises(TypeError) as caught:
        module.tqx_sum(**{key: 2})
    assert caught.value.args == ("tqx_sum() keywords must be strings",)


def test_keywords_of_a_method_must_be_strings(module):
    # Through the class: a bound method's keywords are refused by the interpreter itself.
    with pytest.raises(TypeError) as caught:
        module.TQXResult.squeeze(module.TQXResult([]), **{1: 2})
    assert caught.value.args == ("squeeze() keywords must be strings",)


def test_no_keywords_where_all_positional_arguments_are_taken(runtime):
    with pytest.raises(TypeError) as caught:
        runtime.TQXResult([]).view(shape=(1,))
    assert caught.value.args == ("view() got an unexpected keyword argument 'shape'",)


def test_tqx_sum_has_no_return_verified(runtime):
    with pytest.raises(TypeError) as caught:
        runtime.tqx_sum(1, return_verified=True)
    assert caught.value.args == ("tqx_sum() got an unexpected keyword argument 'return_verified'",)


def test_all_parameters_by_keyword(runtime):
    host = torch.tensor([1.0])
    full = runtime.tqx_checksum_hex(x=host)
    assert runtime.tqx_checksum(truncate=20, x=host) == full[:20]
    assert runtime.tqx_verify(raise_on_mismatch=False, truncate=64, expected=full, x=host)
    with pytest.raises(RuntimeError, match="TQX requires CUDA tensor"):
        runtime.tqx_sum(exact=True, return_tqx=False, keepdim=False, dim=None, x=host)
    with pytest.raises(RuntimeError, match="TQX requires CUDA tensor"):
        runtime.tqx_mean(return_tqx=False, keepdim=False, dim=None, x=host)
    assert runtime.TQXResult(device="d", limbs=[]).device == "d"
    assert runtime.TQXVerifiedResult(checksum="c", value=None).checksum == "c"
    assert runtime.TQXResult([host]).squeeze(dim=0).shape == ()
    assert runtime.TQXResult([host]).unsqueeze(dim=0).shape == (1, 1)
    assert runtime.TQXResult([host]).to_decimal(index=(0,)) == 1
    assert runtime.TQXResult._fp64_to_decimal(f=2.0) == 2


# ---- int ----


class OnlyIndex:
    def __index__(self):
        return 2


class OnlyInt:
    def __int__(self):
        return 2


class OnlyFloat:
    def __float__(self):
        return 2.0


class IntSubclass(int):
    def __int__(self):
        return 2


class Color(enum.IntEnum):
    TWO = 2


INTS = [
    2,
    2.7,
    2.0,
    numpy.int64(2),
    numpy.float32(2.5),
    numpy.array(2),
    torch.tensor(2),
    torch.tensor([2.5]),
    fractions.Fraction(5, 2),
    decimal.Decimal("2.9"),
    OnlyIndex(),
    OnlyInt(),
    IntSubclass(40),
    Color.TWO,
]


@pytest.mark.parametrize("value", INTS, ids=lambda v: type(v).__name__)
def test_number_is_converted_as_by_int(runtime, value):
    assert runtime.tqx_checksum(torch.tensor([1.0]), value) == "6c"


@pytest.mark.parametrize("value", INTS, ids=lambda v: type(v).__name__)
def test_number_is_converted_for_an_optional_int(runtime, value):
    result = runtime.TQXResult([torch.zeros(3, 3, 1)])
    assert result.squeeze(value).shape == (3, 3)
    assert result.unsqueeze(value).shape == (3, 3, 1, 1)


def test_true_counts_as_one_and_false_as_zero(runtime):
    assert runtime.tqx_checksum(torch.tensor([1.0]), True) == "6"
    assert runtime.tqx_checksum(torch.tensor([1.0]), False) == ""


def test_converted_int_is_an_exact_int(runtime):
    seen = []

    class Limb:
        shape = ()

        def unsqueeze(self, dim):
            seen.append(dim)
            return self

    for value in (True, 2.7, -0.5, IntSubclass(40), Color.TWO, 10**30):
        runtime.TQXResult([Limb()]).unsqueeze(value)
    assert seen == [1, 2, 0, 2, 2, 10**30]
    assert {type(dim) for dim in seen} == {int}


NO_NUMBERS = [
    ("2", "str"),
    (None, "NoneType"),
    (b"2", "bytes"),
    ([2], "list"),
    ((0, 1), "tuple"),
    ({}, "dict"),
    (object(), "object"),
    (int, "type"),
    (torch.float64, "torch.dtype"),
    (torch.device("cpu"), "torch.device"),
    (torch.Size([1]), "torch.Size"),
]


@pytest.mark.parametrize("value, type_name", NO_NUMBERS, ids=[name for _, name in NO_NUMBERS])
def test_int_refuses_what_is_no_number(runtime, value, type_name):
    text = f"Argument '%s' has incorrect type (expected int, got {type_name})"
    result = runtime.TQXResult([])
    with pytest.raises(TypeError) as caught:
        runtime.tqx_checksum(torch.zeros(1), value)
    assert caught.value.args == (text % "truncate",)
    with pytest.raises(TypeError) as caught:
        result.unsqueeze(value)
    assert caught.value.args == (text % "dim",)
    if value is not None:
        for call in (runtime.tqx_sum, runtime.tqx_mean):
            with pytest.raises(TypeError) as caught:
                call(None, value)
            assert caught.value.args == (text % "dim",)
        with pytest.raises(TypeError) as caught:
            result.squeeze(value)
        assert caught.value.args == (text % "dim",)


def is_int(row, name):
    return row.annotations.get(name) in ("int", "Optional[int]")


INTEGERS = [(row, name) for row in ROWS for name in row.parameters if is_int(row, name)]


@pytest.mark.parametrize(
    "row, parameter", INTEGERS, ids=[f"{row.path} {name}" for row, name in INTEGERS]
)
def test_every_int_refuses_what_is_no_number_before_the_body(runtime, row, parameter):
    """The body would fail at its first operand, and a later number would be refused too."""
    place = row.parameters.index(parameter)
    named = {"self": runtime.TQXResult([])} if row.parameters[0] == "self" else {}
    for other, name in enumerate(row.parameters):
        if is_int(row, name):
            named[name] = 1 if other < place else "later"
        elif name != "self" and other < row.required:
            named[name] = None
    values = ["20", [20], *([] if row.annotations[parameter] == "Optional[int]" else [None])]
    for value in values:
        assert refusal(runtime, row, **named | {parameter: value}) == (
            f"Argument '{parameter}' has incorrect type (expected int, got {type(value).__name__})"
        )


def test_int_refusal_carries_no_note(runtime):
    with pytest.raises(TypeError) as caught:
        runtime.tqx_checksum(torch.zeros(1), "2")
    assert not hasattr(caught.value, "__notes__")


def test_optional_int_takes_none(runtime):
    assert runtime.TQXResult([torch.zeros(1, 1)]).squeeze(None).shape == ()


@pytest.mark.parametrize("value", [2j, OnlyFloat(), numpy.array([1, 2]), torch.zeros(2)])
def test_number_that_has_no_int_fails_as_int_does(runtime, value):
    with pytest.raises(Exception) as expected:
        int(value)
    with pytest.raises(type(expected.value)) as caught:
        runtime.tqx_checksum(torch.zeros(1), value)
    assert str(caught.value) == str(expected.value)


@pytest.mark.parametrize("value", [float("inf"), float("nan")])
def test_float_that_is_no_integer_fails_as_int_does(runtime, value):
    with pytest.raises((OverflowError, ValueError), match="cannot convert float"):
        runtime.TQXResult([]).unsqueeze(value)


def test_exception_of_int_is_unchanged(runtime):
    failure = ZeroDivisionError("from __int__")

    class Failing:
        def __int__(self):
            raise failure

    with pytest.raises(ZeroDivisionError) as caught:
        runtime.TQXResult([]).squeeze(Failing())
    assert caught.value is failure


# ---- bool ----


@pytest.mark.parametrize("truth", [1, "false", [0], 2.5, torch.tensor(1.0), object()])
def test_any_object_is_taken_for_its_truth(runtime, truth):
    with pytest.raises(ValueError, match="TQX checksum mismatch"):
        runtime.tqx_verify(torch.zeros(1), "x", 16, truth)


@pytest.mark.parametrize("untruth", [0, "", [], None, 0.0, torch.tensor(0.0), {}])
def test_any_object_is_taken_for_its_untruth(runtime, untruth):
    assert runtime.tqx_verify(torch.zeros(1), "x", 16, untruth) is False


class NoTruth:
    def __init__(self, error):
        self.error = error

    def __bool__(self):
        raise self.error


@pytest.mark.parametrize("parameter", ["keepdim", "return_tqx", "exact"])
def test_exception_of_a_truth_test_is_unchanged(runtime, parameter):
    failure = ZeroDivisionError("from __bool__")
    with pytest.raises(ZeroDivisionError) as caught:
        runtime.tqx_sum(None, **{parameter: NoTruth(failure)})
    assert caught.value is failure


def test_truth_test_of_a_tensor_with_two_elements_fails_as_torch_fails(runtime):
    with pytest.raises(RuntimeError, match="is ambiguous"):
        runtime.tqx_mean(None, return_tqx=torch.zeros(2))


def test_truth_comes_from_the_length_where_there_is_no_bool(runtime):
    class Sized:
        def __len__(self):
            return 0

    assert runtime.tqx_verify(torch.zeros(1), "x", 16, Sized()) is False


# ---- float ----


@pytest.mark.parametrize(
    "value", [2, True, numpy.float32(2.5), torch.tensor(0.1), OnlyFloat(), OnlyIndex()]
)
def test_float_takes_what_the_interpreter_converts(runtime, value):
    expected = decimal.Decimal(float(value))
    assert runtime.TQXResult._fp64_to_decimal(value) == expected


@pytest.mark.parametrize("value", ["1.5", None, [1.0], 1j])
def test_float_refuses_with_the_interpreters_error(runtime, value):
    with pytest.raises(TypeError, match="must be real number, not"):
        runtime.TQXResult._fp64_to_decimal(value)


def test_int_that_is_too_large_for_a_float(runtime):
    with pytest.raises(OverflowError):
        runtime.TQXResult._fp64_to_decimal(10**400)


# ---- exact built-in types ----


class ListSubclass(list):
    pass


class StrSubclass(str):
    __slots__ = ()


class TupleSubclass(tuple):
    __slots__ = ()


def limbs_call(runtime, value):
    return runtime.TQXResult(value)


def device_call(runtime, value):
    return runtime.TQXResult([], value)


def index_call(runtime, value):
    return runtime.TQXResult([]).to_decimal(value)


def expected_call(runtime, value):
    return runtime.tqx_verify(torch.zeros(1), value)


def checksum_call(runtime, value):
    return runtime.TQXVerifiedResult(None, value)


EXACT_TYPES = [
    (limbs_call, "limbs", "list", ()),
    (limbs_call, "limbs", "list", None),
    (limbs_call, "limbs", "list", torch.zeros(2)),
    (limbs_call, "limbs", "list", (x for x in ())),
    (device_call, "device", "str", None),
    (device_call, "device", "str", torch.device("cpu")),
    (device_call, "device", "str", b"cuda"),
    (device_call, "device", "str", numpy.zeros(1)),
    (index_call, "index", "tuple", [1, 0]),
    (index_call, "index", "tuple", 1),
    (index_call, "index", "tuple", "ab"),
    (expected_call, "expected", "str", None),
    (expected_call, "expected", "str", b"6c3c"),
    (expected_call, "expected", "str", 6),
    (checksum_call, "checksum", "str", b""),
    (checksum_call, "checksum", "str", 0),
    (checksum_call, "checksum", "str", False),
]
TYPE_NAMES = {
    torch.Tensor: "Tensor",
    torch.device: "torch.device",
    numpy.ndarray: "numpy.ndarray",
}


@pytest.mark.parametrize("call, parameter, expected, value", EXACT_TYPES)
def test_exact_type_refuses_any_other(runtime, call, parameter, expected, value):
    name = TYPE_NAMES.get(type(value), type(value).__name__)
    with pytest.raises(TypeError) as caught:
        call(runtime, value)
    assert caught.value.args == (
        f"Argument '{parameter}' has incorrect type (expected {expected}, got {name})",
    )
    assert not hasattr(caught.value, "__notes__")


@pytest.mark.parametrize(
    "call, parameter, expected, value",
    [
        (limbs_call, "limbs", "list", ListSubclass()),
        (device_call, "device", "str", StrSubclass("cuda")),
        (index_call, "index", "tuple", TupleSubclass((0,))),
        (expected_call, "expected", "str", StrSubclass()),
        (checksum_call, "checksum", "str", StrSubclass()),
    ],
)
def test_subclass_is_refused_with_a_note(runtime, call, parameter, expected, value):
    with pytest.raises(TypeError) as caught:
        call(runtime, value)
    name = type(value).__name__
    assert caught.value.args == (
        f"Argument '{parameter}' has incorrect type (expected {expected}, got {name})",
    )
    (note,) = caught.value.__notes__
    assert "subclasses of built-in types are rejected deliberately" in note


def test_torch_size_is_a_subclass_of_tuple_and_refused(runtime):
    with pytest.raises(TypeError, match=r"\(expected tuple, got torch.Size\)") as caught:
        runtime.TQXResult([]).to_decimal(torch.Size([0]))
    assert len(caught.value.__notes__) == 1


def test_optional_exact_types_take_none(runtime):
    assert runtime.TQXResult([]).to_decimal(None) == 0
    assert runtime.TQXVerifiedResult(torch.tensor([1.0]), None).checksum == "6c3c396ed6b5c36d"


def test_long_type_names_are_cut_at_200_characters(runtime):
    long_name = type("N" * 300, (), {})
    with pytest.raises(TypeError) as caught:
        runtime.TQXResult([], long_name())
    text = f"Argument 'device' has incorrect type (expected str, got {'N' * 200})"
    assert caught.value.args == (text,)


# ---- order ----


class Noted:
    """Writes its conversion down and stands for 1."""

    def __init__(self, log, name):
        self.log, self.name = log, name

    def __int__(self):
        self.log.append(("int", self.name))
        return 1

    def __bool__(self):
        self.log.append(("bool", self.name))
        return True


def test_conversions_follow_the_order_of_the_parameters(runtime):
    log = []

    class Operand:
        @property
        def is_cuda(self):
            log.append("first statement")
            return False

    arguments = {n: Noted(log, n) for n in ("exact", "return_tqx", "keepdim", "dim")}
    with pytest.raises(RuntimeError):
        runtime.tqx_sum(Operand(), **arguments)
    assert log == [
        ("int", "dim"),
        ("bool", "keepdim"),
        ("bool", "return_tqx"),
        ("bool", "exact"),
        "first statement",
    ]


def test_conversions_come_before_type_tests(runtime):
    log = []
    with pytest.raises(TypeError, match="'expected' has incorrect type"):
        runtime.tqx_verify(None, None, Noted(log, "truncate"), Noted(log, "raise_on_mismatch"))
    assert log == [("int", "truncate"), ("bool", "raise_on_mismatch")]


def test_failing_conversion_comes_before_a_failing_type_test(runtime):
    with pytest.raises(TypeError, match="'truncate' has incorrect type"):
        runtime.tqx_verify(None, None, "16")
    with pytest.raises(ZeroDivisionError):
        runtime.tqx_verify(None, None, 16, NoTruth(ZeroDivisionError()))


def test_type_tests_follow_the_order_of_the_parameters(runtime):
    with pytest.raises(TypeError, match="'limbs' has incorrect type"):
        runtime.TQXResult(None, None)


def test_counts_and_keywords_come_before_conversions(runtime):
    log = []
    noted = Noted(log, "any")
    for call in (
        lambda: runtime.tqx_sum(None, noted, noted, noted, noted, noted),
        lambda: runtime.tqx_sum(None, noted, bogus=noted),
        lambda: runtime.tqx_sum(dim=noted),
        lambda: runtime.tqx_sum(None, noted, dim=noted),
    ):
        with pytest.raises(TypeError):
            call()
    assert log == []


def test_operands_are_not_checked_on_entry(runtime):
    for call in (runtime.tqx_sum, runtime.tqx_mean, runtime.tqx_sum_exact, runtime.tqx_mean_exact):
        with pytest.raises(AttributeError, match="is_cuda"):
            call("no tensor")
    for call in (runtime.tqx_checksum, runtime.tqx_checksum_hex, runtime.TQXVerifiedResult):
        with pytest.raises(AttributeError, match="double"):
            call(1.5)


def test_result_that_is_refused_leaves_no_instance_behind(runtime):
    class Subclass(runtime.TQXResult):
        pass

    instance = Subclass.__new__(Subclass)
    with pytest.raises(TypeError):
        instance.__init__(())
    assert vars(instance) == {}
