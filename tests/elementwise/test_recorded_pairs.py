# SPDX-License-Identifier: Apache-2.0
"""The calls of the two-operand functions on torch, cupy and the loader, one by one and in order.

Every script is complete: what is not listed is not done. So no operand is tested for CUDA, one
launch is listed with one wait directly after it, and the routes without a kernel have neither.
"""

import pytest
import torch
from call_recorder import Recorder

SUMS = ("tqx_add", "tqx_sub")
PRODUCTS = ("tqx_mul", "tqx_div")
RETURNS = {"n": 300, "str(x.device)": "cuda:7", "bool((x_f64.shape != y_f64.shape))": False}

WIDENED = """
    x.double
    x_f64 = x.double()
    y.double
    y_f64 = y.double()
    x_f64.shape
    y_f64.shape
    x_f64.shape != y_f64.shape
    bool((x_f64.shape != y_f64.shape))
"""
BROADCAST = """
    torch.broadcast_tensors
    wide = torch.broadcast_tensors(x_f64, y_f64)
"""


def launched(kernel, x="x_f64", y="y_f64", blocks=2, n=300):
    """From the shape of the result to the wait."""
    return f"""
        {x}.shape
        {x}.contiguous
        x_packed = {x}.contiguous()
        x_packed.view
        x_flat = x_packed.view(-1)
        {y}.contiguous
        y_packed = {y}.contiguous()
        y_packed.view
        y_flat = y_packed.view(-1)
        x_flat.numel
        n = x_flat.numel()
        torch.empty
        torch.float64
        x.device
        out = torch.empty({n}, dtype=torch.float64, device=x.device)
        torch.empty
        torch.float64
        x.device
        out_err = torch.empty({n}, dtype=torch.float64, device=x.device)
        loader.get_kernel
        kernel = loader.get_kernel('{kernel}')
        kernel.launch
        cp.from_dlpack
        x_array = cp.from_dlpack(x_flat)
        cp.from_dlpack
        y_array = cp.from_dlpack(y_flat)
        cp.from_dlpack
        out_array = cp.from_dlpack(out)
        cp.from_dlpack
        err_array = cp.from_dlpack(out_err)
        kernel.launch(x_array, y_array, out_array, err_array, {n}, grid=({blocks}, 1, 1))
        cp.cuda
        cp.cuda.Stream
        cp.cuda.Stream.null
        cp.cuda.Stream.null.synchronize
        cp.cuda.Stream.null.synchronize()
    """


ADDED_UP = """
    both = out + out_err
    both.view
    total = both.view(x_f64.shape)
"""
AS_LIMBS = """
    out.view
    value = out.view(x_f64.shape)
    out_err.view
    error = out_err.view(x_f64.shape)
    x.device
    str(x.device)
    value.shape
    torch.float64
"""


@pytest.fixture
def recorded(runtime, monkeypatch):
    """Makes a recorder whose `torch`, `cp` and loader the runtime under test uses."""

    def make(script, returns=None, raises=None):
        recorder = Recorder(script, RETURNS | (returns or {}), raises)
        monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
        monkeypatch.setattr(runtime, "cp", recorder.spy("cp"))
        monkeypatch.setattr(runtime, "_NATIVE_LOADER", recorder.spy("loader"))
        return recorder

    return make


def call(runtime, name, recorder, **options):
    return getattr(runtime, name)(recorder.spy("x"), recorder.spy("y"), **options)


# ---- the kernel route ----


@pytest.mark.parametrize("name", SUMS + PRODUCTS)
@pytest.mark.parametrize("options", [{}, {"return_tqx": False}, {"return_tqx": 0}])
def test_value_and_error_are_added_once(runtime, recorded, name, options):
    recorder = recorded(WIDENED + launched(f"{name}_kernel") + ADDED_UP)
    total = call(runtime, name, recorder, **options)
    recorder.check()
    assert repr(total) == "<total>"


@pytest.mark.parametrize("name", PRODUCTS)
def test_limbs_of_a_product_are_views_of_what_the_kernel_wrote(runtime, recorded, name):
    recorder = recorded(WIDENED + launched(f"{name}_kernel") + AS_LIMBS)
    result = call(runtime, name, recorder, return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<value>, <error>]" and result.device == "cuda:7"


@pytest.mark.parametrize("name", SUMS + PRODUCTS)
def test_operands_of_unlike_shapes_are_broadcast(runtime, recorded, name):
    recorder = recorded(
        WIDENED
        + BROADCAST
        + launched(f"{name}_kernel", "x_wide", "y_wide")
        + ADDED_UP.replace("x_f64", "x_wide"),
        returns={"bool((x_f64.shape != y_f64.shape))": True},
    )
    recorder.returns["wide"] = (recorder.spy("x_wide"), recorder.spy("y_wide"))
    call(runtime, name, recorder)
    recorder.check()


@pytest.mark.parametrize("name", SUMS + PRODUCTS)
@pytest.mark.parametrize(
    "n, blocks", [(0, 0), (1, 1), (256, 1), (257, 2), (2**31 + 1, 2**23 + 1), (10**40, None)]
)
def test_grid_is_worked_out_in_unbounded_integers(runtime, recorded, name, n, blocks):
    blocks = -(-n // 256) if blocks is None else blocks
    script = WIDENED + launched(f"{name}_kernel", n=n, blocks=blocks) + ADDED_UP
    recorder = recorded(script, returns={"n": n})
    call(runtime, name, recorder)
    recorder.check()


STEPS = [
    "x_f64",
    "y_f64",
    "bool((x_f64.shape != y_f64.shape))",
    "x_packed",
    "y_flat",
    "n",
    "out",
    "out_err",
    "kernel",
    "y_array",
    "err_array",
    "cp.cuda.Stream.null.synchronize()",
    "both",
    "total",
]


@pytest.mark.parametrize("name", SUMS + PRODUCTS)
@pytest.mark.parametrize("failing", STEPS)
def test_failure_of_a_step_is_unchanged_and_nothing_follows(runtime, recorded, name, failing):
    told = RuntimeError("from below")
    recorder = recorded(WIDENED + launched(f"{name}_kernel") + ADDED_UP, raises={failing: told})
    with pytest.raises(RuntimeError) as caught:
        call(runtime, name, recorder)
    assert caught.value is told and caught.value.__context__ is None
    assert recorder.events == recorder.expected[: len(recorder.events)]
    assert recorder.events[-1].partition(" = ")[0] == failing


# ---- the pair route of sums ----

SUM_PAIR = """
    x.double
    x.double
    x_t = x.double()
    y.double
    y.double
    y_t = y.double()
    s = x_t + y_t
    v = s - x_t
    s_less_v = s - v
    x_error = x_t - s_less_v
    y_error = y_t - v
    e = x_error + y_error
    x_t.device
    str(x_t.device)
    s.shape
    torch.float64
"""
DIFFERENCE_PAIR = """
    x.double
    x.double
    x_t = x.double()
    y.double
    y.double
    y_t = y.double()
    minus_y = -y_t
    s = x_t + minus_y
    v = s - x_t
    s_less_v = s - v
    x_error = x_t - s_less_v
    y_error = minus_y - v
    e = x_error + y_error
    x_t.device
    str(x_t.device)
    s.shape
    torch.float64
"""


@pytest.mark.parametrize("name, script", [("tqx_add", SUM_PAIR), ("tqx_sub", DIFFERENCE_PAIR)])
@pytest.mark.parametrize("flag", [True, 1, "yes"])
def test_pair_of_tensors_takes_no_kernel(runtime, recorded, name, script, flag):
    recorder = recorded(script, returns={"str(x_t.device)": "cuda:3"})
    result = call(runtime, name, recorder, return_tqx=flag)
    recorder.check()
    assert repr(result.limbs) == "[<s>, <e>]" and result.device == "cuda:3"


def test_pair_route_calls_the_two_sum_of_its_own(runtime, recorded, monkeypatch):
    recorder = recorded("""
        x.double
        x.double
        x_t = x.double()
        y.double
        y.double
        y_t = y.double()
        twosum(x_t, y_t)
        x_t.device
        str(x_t.device)
        s.shape
        torch.float64
    """)
    monkeypatch.setattr(runtime, "_twosum_f64", recorder.spy("twosum"))
    monkeypatch.setattr(runtime, "_two_sum", None)
    recorder.returns["twosum(x_t, y_t)"] = (recorder.spy("s"), recorder.spy("e"))
    assert repr(call(runtime, "tqx_add", recorder, return_tqx=True).limbs) == "[<s>, <e>]"
    recorder.check()


@pytest.mark.parametrize("number", [1.5, 2, True])
def test_number_becomes_a_scalar_on_cuda(runtime, recorded, number):
    recorder = recorded(f"""
        torch.tensor
        torch.float64
        x_t = torch.tensor({number!r}, dtype=torch.float64, device='cuda')
        y.double
        y.double
        y_t = y.double()
        s = x_t + y_t
        v = s - x_t
        s_less_v = s - v
        x_error = x_t - s_less_v
        y_error = y_t - v
        e = x_error + y_error
        x_t.device
        str(x_t.device)
        s.shape
        torch.float64
    """)
    runtime.tqx_add(number, recorder.spy("y"), True)
    recorder.check()


# ---- the limb route of sums ----


def limb_result(runtime, *limbs, device="cuda:1"):
    result = runtime.TQXResult([], device)
    result.limbs = list(limbs)
    return result


@pytest.fixture
def limb_functions(runtime, monkeypatch):
    """Spies in place of the additions of limb lists."""

    def make(script, **options):
        recorder = Recorder(script, **options)
        monkeypatch.setattr(runtime, "_tqx_add_limbs", recorder.spy("add_limbs"))
        monkeypatch.setattr(runtime, "_tqx_sub_limbs", recorder.spy("sub_limbs"))
        return recorder

    return make


LIMB_FUNCTIONS = {"tqx_add": "add_limbs", "tqx_sub": "sub_limbs"}


@pytest.mark.parametrize("name", SUMS)
@pytest.mark.parametrize("return_tqx", [True, False])
def test_limbs_of_both_operands_are_added(runtime, limb_functions, name, return_tqx):
    script = f"sum = {LIMB_FUNCTIONS[name]}([x0, x1], [y0], 'cuda:1')"
    collapsing = "\nsum.collapse\ntotal = sum.collapse()"
    recorder = limb_functions(script + ("" if return_tqx else collapsing))
    x = limb_result(runtime, recorder.spy("x0"), recorder.spy("x1"))
    y = limb_result(runtime, recorder.spy("y0"), device="cuda:9")
    result = getattr(runtime, name)(x, y, return_tqx)
    recorder.check()
    assert repr(result) == ("<sum>" if return_tqx else "<total>")


@pytest.mark.parametrize("name", SUMS)
def test_tensor_first_gives_the_device(runtime, limb_functions, name):
    recorder = limb_functions(
        f"""
        x.double
        x_f64 = x.double()
        x.device
        x.device
        str(x.device)
        sum = {LIMB_FUNCTIONS[name]}([x_f64], [y0], 'cuda:7')
        """,
        returns={"str(x.device)": "cuda:7"},
    )
    y = limb_result(runtime, recorder.spy("y0"))
    getattr(runtime, name)(recorder.spy("x"), y, return_tqx=True)
    recorder.check()


@pytest.mark.parametrize("name", SUMS)
def test_operand_without_device_takes_that_of_its_limb(runtime, limb_functions, name):
    recorder = limb_functions(
        f"""
        x.double
        x_f64 = x.double()
        x.device
        x_f64.device
        str(x_f64.device)
        sum = {LIMB_FUNCTIONS[name]}([x_f64], [y0], 'cuda:7')
        """,
        returns={"str(x_f64.device)": "cuda:7"},
        raises={"x.device": AttributeError("device")},
    )
    y = limb_result(runtime, recorder.spy("y0"))
    getattr(runtime, name)(recorder.spy("x"), y, return_tqx=True)
    recorder.check()


@pytest.mark.parametrize("name", SUMS)
def test_second_operand_is_never_asked_for_its_device(runtime, limb_functions, name):
    recorder = limb_functions(
        f"""
        y.double
        y_f64 = y.double()
        sum = {LIMB_FUNCTIONS[name]}([x0], [y_f64], 'cuda:1')
        """
    )
    x = limb_result(runtime, recorder.spy("x0"))
    getattr(runtime, name)(x, recorder.spy("y"), return_tqx=True)
    recorder.check()


# ---- limb operands of products ----


@pytest.mark.parametrize("name", PRODUCTS)
@pytest.mark.parametrize("return_tqx", [True, False])
@pytest.mark.parametrize("is_limbs", [(True, True), (True, False), (False, True)])
def test_limb_operand_is_collapsed_and_gives_limbs(runtime, recorded, name, return_tqx, is_limbs):
    """Whatever the flag says."""
    recorder = recorded(WIDENED + launched(f"{name}_kernel") + AS_LIMBS)
    operands = {}

    class Limbs(runtime.TQXResult):
        def collapse(self):
            return recorder.spy(self.name)

    for operand, limbs in zip("xy", is_limbs, strict=True):
        operands[operand] = Limbs([]) if limbs else recorder.spy(operand)
        if limbs:
            operands[operand].name = operand
    recorder.events.clear()  # the dtype that the empty results read
    result = getattr(runtime, name)(**operands, return_tqx=return_tqx)
    recorder.check()
    assert repr(result.limbs) == "[<value>, <error>]"


@pytest.mark.parametrize("name", PRODUCTS)
def test_operands_go_through_the_modules_own_extraction(runtime, recorded, monkeypatch, name):
    recorder = recorded(
        "extract(a)\nextract(b)\nbool(flag)" + WIDENED + launched(f"{name}_kernel") + ADDED_UP,
        returns={"bool(flag)": False},
    )
    monkeypatch.setattr(runtime, "_extract_tqx_tensor", recorder.spy("extract"))
    recorder.returns["extract(a)"] = (recorder.spy("x"), recorder.spy("flag"))
    recorder.returns["extract(b)"] = (recorder.spy("y"), False)
    getattr(runtime, name)(recorder.spy("a"), recorder.spy("b"))
    recorder.check()


@pytest.mark.parametrize("name", PRODUCTS)
def test_second_flag_is_not_asked_where_the_first_decides(runtime, recorded, monkeypatch, name):
    recorder = recorded(
        "extract(a)\nextract(b)\nbool(flag)" + WIDENED + launched(f"{name}_kernel"),
        returns={"bool(flag)": True},
    )
    monkeypatch.setattr(runtime, "_extract_tqx_tensor", recorder.spy("extract"))
    recorder.returns["extract(a)"] = (recorder.spy("x"), recorder.spy("flag"))
    recorder.returns["extract(b)"] = (recorder.spy("y"), recorder.spy("other"))
    getattr(runtime, name)(recorder.spy("a"), recorder.spy("b"))
    assert recorder.events[: len(recorder.expected)] == recorder.expected


def test_the_counts_are_exact_integers_in_an_exact_tuple(runtime, monkeypatch):
    seen = []

    class Kernel:
        @staticmethod
        def launch(*args, **kwargs):
            seen.append((args[-1], kwargs["grid"]))

    loader = type("Loader", (), {"get_kernel": lambda self, name: Kernel})
    monkeypatch.setattr(runtime, "_NATIVE_LOADER", loader())
    monkeypatch.setattr(runtime, "cp", Recorder().spy("cp"))
    for name in SUMS + PRODUCTS:
        getattr(runtime, name)(torch.ones(300), torch.ones(300))
    assert {type(grid) for _, grid in seen} == {tuple} and len(seen) == 4
    assert {type(number) for n, grid in seen for number in (n, *grid)} == {int}
