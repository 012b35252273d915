# SPDX-License-Identifier: Apache-2.0
"""The operations of TQXResult on its limbs, recorded one by one and in order."""

import pytest
from call_recorder import Recorder


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose `torch` the runtime under test uses."""

    def make(script, **options):
        recorder = Recorder(script, **options)
        monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
        return recorder

    return make


def make_result(runtime, recorder, *limbs):
    """A result of spy limbs, without the events of its construction."""
    result = runtime.TQXResult.__new__(runtime.TQXResult)
    result.limbs = [recorder.spy(limb) for limb in limbs]
    result.device, result.n_limbs = "d", len(limbs)
    return result


# ---- construction ----


def test_construction_reads_one_shape_and_the_dtype(runtime, recorded):
    recorder = recorded("""
        hi.shape
        torch.float64
    """)
    result = runtime.TQXResult([recorder.spy("hi"), recorder.spy("err")])
    recorder.check()
    assert repr(result.shape) == "<hi.shape>" and repr(result.dtype) == "<torch.float64>"


def test_construction_of_an_empty_result_reads_the_dtype(runtime, recorded):
    recorder = recorded("torch.float64")
    runtime.TQXResult([])
    recorder.check()


# ---- collapse ----


def test_collapse_of_no_limb(runtime, recorded):
    recorder = recorded("""
        torch.tensor
        torch.float64
        zero = torch.tensor(0.0, dtype=torch.float64)
    """)
    collapsed = make_result(runtime, recorder).collapse()
    recorder.check()
    assert repr(collapsed) == "<zero>"


def test_collapse_of_one_limb(runtime, recorded):
    recorder = recorded("""
        hi.double
        widened = hi.double()
    """)
    collapsed = make_result(runtime, recorder, "hi").collapse()
    recorder.check()
    assert repr(collapsed) == "<widened>"


COLLAPSE_START = """
    l0.double
    result = l0.double()
    torch.zeros_like
    carry = torch.zeros_like(result)
    l1.double
    limb1 = l1.double()
    s1 = result + limb1
    v1 = s1 - result
    sv1 = s1 - v1
    left1 = result - sv1
    right1 = limb1 - v1
    e1 = left1 + right1
    carry1 = carry + e1
"""


def test_collapse_of_two_limbs(runtime, recorded):
    recorder = recorded(COLLAPSE_START + "total = s1 + carry1")
    collapsed = make_result(runtime, recorder, "l0", "l1").collapse()
    recorder.check()
    assert repr(collapsed) == "<total>"


def test_collapse_of_four_limbs(runtime, recorded):
    recorder = recorded(
        COLLAPSE_START
        + """
        l2.double
        limb2 = l2.double()
        s2 = s1 + limb2
        v2 = s2 - s1
        sv2 = s2 - v2
        left2 = s1 - sv2
        right2 = limb2 - v2
        e2 = left2 + right2
        carry2 = carry1 + e2
        l3.double
        limb3 = l3.double()
        s3 = s2 + limb3
        v3 = s3 - s2
        sv3 = s3 - v3
        left3 = s2 - sv3
        right3 = limb3 - v3
        e3 = left3 + right3
        carry3 = carry2 + e3
        total = s3 + carry3
        """
    )
    collapsed = make_result(runtime, recorder, "l0", "l1", "l2", "l3").collapse()
    recorder.check()
    assert repr(collapsed) == "<total>"


@pytest.mark.parametrize("failing", ["result", "carry", "limb1", "s1", "v1", "e1", "carry1"])
def test_collapse_stops_at_the_first_failure(runtime, recorded, failing):
    told = RuntimeError("from torch")
    script = COLLAPSE_START + "total = s1 + carry1"
    recorder = recorded(script, raises={failing: told})
    with pytest.raises(RuntimeError) as caught:
        make_result(runtime, recorder, "l0", "l1").collapse()
    assert caught.value is told
    assert recorder.events == recorder.expected[: len(recorder.events)]
    assert recorder.events[-1].startswith(f"{failing} = ")


# ---- item and float ----

ITEM_OF_ONE = """
    hi.double
    c = hi.double()
    c.numel
    n = c.numel()
    n == 1
    bool((n == 1))
    c.item
    value = c.item()
"""
ITEM_OF_MANY = """
    hi.double
    c = hi.double()
    c.numel
    n = c.numel()
    n == 1
    bool((n == 1))
    c.flatten
    flat = c.flatten()
    first = flat[0]
    first.item
    value = first.item()
"""


@pytest.mark.parametrize("script, is_one", [(ITEM_OF_ONE, True), (ITEM_OF_MANY, False)])
def test_item(runtime, recorded, script, is_one):
    recorder = recorded(script, returns={"bool((n == 1))": is_one, "value": 2.5})
    assert make_result(runtime, recorder, "hi").item() == 2.5
    recorder.check()


@pytest.mark.parametrize("script, is_one", [(ITEM_OF_ONE, True), (ITEM_OF_MANY, False)])
def test_float_is_item(runtime, recorded, script, is_one):
    recorder = recorded(script, returns={"bool((n == 1))": is_one, "value": 2.5})
    assert float(make_result(runtime, recorder, "hi")) == 2.5
    recorder.check()


# ---- shape operations ----

SHAPE_CALLS = [
    ("squeeze", (), "squeeze()"),
    ("squeeze", (None,), "squeeze()"),
    ("squeeze", (0,), "squeeze(0)"),
    ("squeeze", (-1.5,), "squeeze(-1)"),
    ("unsqueeze", (True,), "unsqueeze(1)"),
    ("view", (), "view()"),
    ("view", (2, 3), "view(2, 3)"),
    ("view", ((2, 3),), "view((2, 3))"),
    ("view", ("any", None, 1.5), "view('any', None, 1.5)"),
    ("reshape", (-1,), "reshape(-1)"),
    ("reshape", ([2, 3],), "reshape([2, 3])"),
]


@pytest.mark.parametrize("name, args, call", SHAPE_CALLS)
def test_shape_operation_reaches_each_limb_in_order(runtime, recorded, name, args, call):
    recorder = recorded(f"""
        l0.{name}
        n0 = l0.{call}
        l1.{name}
        n1 = l1.{call}
        l2.{name}
        n2 = l2.{call}
        n0.shape
        torch.float64
    """)
    derived = getattr(make_result(runtime, recorder, "l0", "l1", "l2"), name)(*args)
    recorder.check()
    assert repr(derived.limbs) == "[<n0>, <n1>, <n2>]" and derived.device == "d"


def test_shape_operation_stops_at_the_first_failure(runtime, recorded):
    told = RuntimeError("from torch")
    recorder = recorded(
        """
        l0.view
        n0 = l0.view(2)
        l1.view
        n1 = l1.view(2)
        """,
        raises={"n1": told},
    )
    with pytest.raises(RuntimeError) as caught:
        make_result(runtime, recorder, "l0", "l1", "l2").view(2)
    assert caught.value is told
    recorder.check()


def test_limbs_set_to_another_iterable_are_walked_as_python_walks(runtime, recorded):
    recorder = recorded(
        """
        iter(limbs)
        l0.squeeze
        n0 = l0.squeeze()
        n0.shape
        torch.float64
        """
    )
    result = make_result(runtime, recorder)
    result.limbs = recorder.spy("limbs")
    recorder.returns["iter(limbs)"] = [recorder.spy("l0")]
    result.squeeze()
    recorder.check()


# ---- to_decimal ----


def test_to_decimal_with_an_index(runtime, recorded):
    recorder = recorded(
        """
        element0 = l0[(1, 0)]
        element0.item
        value0 = element0.item()
        element1 = l1[(1, 0)]
        element1.item
        value1 = element1.item()
        """,
        returns={"value0": 2.0, "value1": 0.5},
    )
    assert make_result(runtime, recorder, "l0", "l1").to_decimal((1, 0)) == runtime.Decimal("2.5")
    recorder.check()


def test_to_decimal_with_an_empty_index_still_indexes(runtime, recorded):
    recorder = recorded(
        """
        element = l0[()]
        element.item
        value = element.item()
        """,
        returns={"value": 2.0},
    )
    assert make_result(runtime, recorder, "l0").to_decimal(()) == 2
    recorder.check()


def test_to_decimal_reads_each_limb_by_its_own_count(runtime, recorded):
    recorder = recorded(
        """
        l0.numel
        n0 = l0.numel()
        n0 == 1
        bool((n0 == 1))
        l0.item
        value0 = l0.item()
        l1.numel
        n1 = l1.numel()
        n1 == 1
        bool((n1 == 1))
        l1.flatten
        flat = l1.flatten()
        first = flat[0]
        first.item
        value1 = first.item()
        """,
        returns={"bool((n1 == 1))": False, "value0": 2.0, "value1": 0.5},
    )
    assert make_result(runtime, recorder, "l0", "l1").to_decimal() == runtime.Decimal("2.5")
    recorder.check()


def test_to_decimal_converts_through_the_instance(runtime, recorded):
    recorder = recorded(
        """
        element0 = l0[(0,)]
        element0.item
        value0 = element0.item()
        convert(value0)
        element1 = l1[(0,)]
        element1.item
        value1 = element1.item()
        convert(value1)
        """
    )
    result = make_result(runtime, recorder, "l0", "l1")
    result._fp64_to_decimal = recorder.spy("convert")
    recorder.returns |= {"convert(value0)": runtime.Decimal(40), "convert(value1)": 2}
    assert result.to_decimal((0,)) == 42
    recorder.check()


def test_fp64_to_decimal_steps(runtime, monkeypatch):
    """One float: packing, unpacking, the power of two and the product."""
    recorder = Recorder(
        """
        struct.unpack
        struct.pack
        packed = struct.pack('d', -1.5)
        unpacked = struct.unpack('Q', packed)
        unpacked[0]
        Decimal(-6755399441055744)
        Decimal(2)
        Decimal(2) ** -52
        product = Decimal(-6755399441055744) * (Decimal(2) ** -52)
        """,
        returns={"unpacked[0]": 0xBFF8000000000000},
    )
    monkeypatch.setattr(runtime, "struct", recorder.spy("struct"))
    monkeypatch.setattr(runtime, "Decimal", recorder.spy("Decimal"))
    assert repr(runtime.TQXResult._fp64_to_decimal(-1.5)) == "<product>"
    recorder.check()


def test_fp64_to_decimal_of_zero_unpacks_nothing(runtime, monkeypatch):
    recorder = Recorder("zero = Decimal(0)")
    monkeypatch.setattr(runtime, "struct", recorder.spy("struct"))
    monkeypatch.setattr(runtime, "Decimal", recorder.spy("Decimal"))
    assert repr(runtime.TQXResult._fp64_to_decimal(-0.0)) == "<zero>"
    recorder.check()


# ---- repr ----


def test_repr_formats_count_and_shape(runtime):
    recorder = Recorder(
        """
        format(n, '')
        format(shape, '')
        """,
        returns={"format(n, '')": "N", "format(shape, '')": "S"},
    )
    result = runtime.TQXResult([])
    result.n_limbs, result.shape = recorder.spy("n"), recorder.spy("shape")
    assert repr(result) == "TQXResult(n_limbs=N, shape=S)"
    recorder.check()
