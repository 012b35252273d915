# SPDX-License-Identifier: Apache-2.0
"""The calls that a sum or mean makes on torch, cupy and the loader, one by one and in order.

Every script is complete: what is not listed is not done. So one launch is listed and one wait
directly after it, and each array is made after the kernel's own attribute is read and directly
before the launch.
"""

import pytest
from call_recorder import Recorder

CUDA_TEST = """
    x.is_cuda
    bool(x.is_cuda)
"""
FLAT = """
    x.double
    x1 = x.double()
    x1.contiguous
    x2 = x1.contiguous()
    x2.view
    x_flat = x2.view(-1)
    x_flat.numel
    n = x_flat.numel()
"""
WAIT = """
    cp.cuda
    cp.cuda.Stream
    cp.cuda.Stream.null
    cp.cuda.Stream.null.synchronize
    cp.cuda.Stream.null.synchronize()
"""
DEVICE_TEXT = """
    x.device
    str(x.device)
"""
SEQUENTIAL = (
    CUDA_TEST
    + FLAT
    + """
    torch.zeros
    torch.float64
    x.device
    out = torch.zeros(4, dtype=torch.float64, device=x.device)
    loader.get_kernel
    kernel = loader.get_kernel('tqx_sum_seq_kernel')
    kernel.function
    cp.from_dlpack
    x_array = cp.from_dlpack(x_flat)
    cp.from_dlpack
    out_array = cp.from_dlpack(out)
    kernel.function((1, 1, 1), (1, 1, 1), (x_array, out_array, 300))
    """
    + WAIT
    + """
    l0 = out[0]
    l1 = out[1]
    l2 = out[2]
    l3 = out[3]
    """
    + DEVICE_TEXT
    + """
    l0.shape
    torch.float64
    """
)
PARALLEL = (
    CUDA_TEST
    + FLAT
    + """
    torch.zeros
    torch.float64
    x.device
    out = torch.zeros(1, dtype=torch.float64, device=x.device)
    torch.zeros
    torch.float64
    x.device
    out_err = torch.zeros(1, dtype=torch.float64, device=x.device)
    loader.get_kernel
    kernel = loader.get_kernel('tqx_sum_kernel')
    kernel.launch
    cp.from_dlpack
    x_array = cp.from_dlpack(x_flat)
    cp.from_dlpack
    out_array = cp.from_dlpack(out)
    cp.from_dlpack
    out_err_array = cp.from_dlpack(out_err)
    kernel.launch(x_array, out_array, out_err_array, 300, grid=(2, 1, 1))
    """
    + WAIT
)
RETURNS = {"n": 300, "str(x.device)": "cuda:7"}


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


# ---- tqx_sum ----


def test_sequential_limbs(runtime, recorded):
    recorder = recorded(SEQUENTIAL)
    result = runtime.tqx_sum(recorder.spy("x"), return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<l0>, <l1>, <l2>, <l3>]" and result.device == "cuda:7"


def test_sequential_sum_collapses_the_limbs(runtime, recorded, monkeypatch):
    recorder = recorded(SEQUENTIAL + "collapsed = collapse()")
    monkeypatch.setattr(runtime.TQXResult, "collapse", recorder.spy("collapse"))
    collapsed = runtime.tqx_sum(recorder.spy("x"))
    recorder.check()
    assert repr(collapsed) == "<collapsed>"


def test_parallel_limbs(runtime, recorded):
    recorder = recorded(
        PARALLEL
        + """
        out.squeeze
        value = out.squeeze()
        out_err.squeeze
        error = out_err.squeeze()
        """
        + DEVICE_TEXT
        + """
        value.shape
        torch.float64
        """
    )
    result = runtime.tqx_sum(recorder.spy("x"), exact=False, return_tqx=True)
    recorder.check()
    assert repr(result.limbs) == "[<value>, <error>]" and result.device == "cuda:7"


def test_parallel_sum_adds_once_and_does_not_collapse(runtime, recorded):
    recorder = recorded(
        PARALLEL
        + """
        both = out + out_err
        both.squeeze
        total = both.squeeze()
        """
    )
    total = runtime.tqx_sum(recorder.spy("x"), exact=False)
    recorder.check()
    assert repr(total) == "<total>"


@pytest.mark.parametrize(
    "options, keepdim",
    [
        ({}, False),
        ({"keepdim": True}, True),
        ({"keepdim": "true"}, True),
        ({"return_tqx": True, "exact": False}, False),
    ],
)
def test_sum_along_a_dimension_is_torchs(runtime, recorded, options, keepdim):
    recorder = recorded(
        CUDA_TEST
        + f"""
        x.double
        x_f64 = x.double()
        x_f64.sum
        total = x_f64.sum(dim=1, keepdim={keepdim})
        """
    )
    total = runtime.tqx_sum(recorder.spy("x"), dim=1, **options)
    recorder.check()
    assert repr(total) == "<total>"


@pytest.mark.parametrize("name", ["tqx_sum", "tqx_mean"])
@pytest.mark.parametrize("options", [{}, {"dim": 0}, {"return_tqx": True}])
def test_operand_off_the_gpu_stops_at_the_first_step(runtime, recorded, name, options):
    recorder = recorded(CUDA_TEST, returns={"bool(x.is_cuda)": False})
    with pytest.raises(RuntimeError) as caught:
        getattr(runtime, name)(recorder.spy("x"), **options)
    assert caught.value.args == ("TQX requires CUDA tensor. Move tensor to GPU with .cuda()",)
    recorder.check()


@pytest.mark.parametrize(
    "n, blocks",
    [(0, 0), (1, 1), (255, 1), (256, 1), (257, 2), (2**31 + 1, 2**23 + 1), (10**40, None)],
)
def test_grid_is_worked_out_in_unbounded_integers(runtime, recorded, n, blocks):
    blocks = -(-n // 256) if blocks is None else blocks
    recorder = recorded(
        PARALLEL.replace("300", str(n)).replace("(2, 1, 1)", f"({blocks}, 1, 1)"),
        returns={"n": n},
    )
    runtime.tqx_sum(recorder.spy("x"), exact=False)
    assert recorder.events[: len(recorder.expected)] == recorder.expected


@pytest.mark.parametrize("exact", [True, False])
def test_count_is_passed_on_as_the_object_that_numel_gave(runtime, monkeypatch, exact):
    count = 10**25  # no small integer that the interpreter would share
    seen = []

    class Operand:
        is_cuda, device = True, "cuda:0"

        def same(self, *shape):
            return self

        double = contiguous = view = same

        def numel(self):
            return count

    class Stop(Exception):
        pass

    class Kernel:
        @staticmethod
        def function(grid, block, args):
            seen.append(args[-1])
            raise Stop

        @staticmethod
        def launch(*args, grid):
            seen.append(args[-1])
            raise Stop

    recorder = Recorder()
    monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
    monkeypatch.setattr(runtime, "cp", recorder.spy("cp"))
    loader = type("Loader", (), {"get_kernel": lambda self, name: Kernel})
    monkeypatch.setattr(runtime, "_NATIVE_LOADER", loader())
    with pytest.raises(Stop):
        runtime.tqx_sum(Operand(), exact=exact)
    assert len(seen) == 1 and seen[0] is count


def test_grid_block_and_arguments_are_exact_tuples_of_int(runtime, monkeypatch):
    seen = []

    class Kernel:
        @staticmethod
        def function(*args):
            seen.extend(args)

        @staticmethod
        def launch(*args, **kwargs):
            seen.extend([args[-1], kwargs["grid"]])

    recorder = Recorder(returns={"x.double().contiguous().view(-1).numel()": 300})
    monkeypatch.setattr(runtime, "torch", recorder.spy("torch"))
    monkeypatch.setattr(runtime, "cp", recorder.spy("cp"))
    loader = type("Loader", (), {"get_kernel": lambda self, name: Kernel})
    monkeypatch.setattr(runtime, "_NATIVE_LOADER", loader())
    runtime.tqx_sum(recorder.spy("x"), return_tqx=True)
    runtime.tqx_sum(recorder.spy("x"), exact=False, return_tqx=True)
    grid, block, arguments, count, parallel_grid = seen
    assert type(grid) is type(block) is type(arguments) is type(parallel_grid) is tuple
    assert {type(extent) for extent in grid + block + parallel_grid} == {int}
    assert type(count) is int and type(arguments[2]) is int and len(arguments) == 3


STEPS = ["x1", "x2", "x_flat", "n", "out", "kernel", "x_array", "out_array"]
LAUNCHES = {
    True: "kernel.function((1, 1, 1), (1, 1, 1), (x_array, out_array, 300))",
    False: "kernel.launch(x_array, out_array, out_err_array, 300, grid=(2, 1, 1))",
}


@pytest.mark.parametrize("exact", [True, False])
@pytest.mark.parametrize(
    "failing", [*STEPS, "launch", "cp.cuda.Stream.null.synchronize()", "loader.get_kernel"]
)
def test_failure_of_a_step_is_unchanged_and_nothing_follows(runtime, recorded, exact, failing):
    label = LAUNCHES[exact] if failing == "launch" else failing
    told = ImportError("from below") if failing == "kernel" else RuntimeError("from below")
    recorder = recorded(SEQUENTIAL if exact else PARALLEL, raises={label: told})
    with pytest.raises(type(told)) as caught:
        runtime.tqx_sum(recorder.spy("x"), exact=exact)
    assert caught.value is told and caught.value.__context__ is None
    assert recorder.events == recorder.expected[: len(recorder.events)]
    assert recorder.events[-1].partition(" = ")[0] == label


# ---- tqx_mean ----

MEAN_START = (
    CUDA_TEST
    + """
    x.numel
    n = x.numel()
    result = tqx_sum(x, return_tqx=True)
    """
)


def with_spied_sum(runtime, monkeypatch, recorder):
    monkeypatch.setattr(runtime, "tqx_sum", recorder.spy("tqx_sum"))


def test_mean_is_the_collapsed_sum_divided_once(runtime, recorded, monkeypatch):
    recorder = recorded(
        MEAN_START
        + """
        result.collapse
        total = result.collapse()
        mean = total / 300
        """
    )
    with_spied_sum(runtime, monkeypatch, recorder)
    mean = runtime.tqx_mean(recorder.spy("x"), keepdim=True)
    recorder.check()
    assert repr(mean) == "<mean>"


def test_mean_limbs_are_divided_one_by_one(runtime, recorded, monkeypatch):
    recorder = recorded(
        MEAN_START
        + """
        result.limbs
        iter(result.limbs)
        m0 = l0 / 300
        m1 = l1 / 300
        """
        + DEVICE_TEXT
        + """
        m0.shape
        torch.float64
        """
    )
    limbs = [recorder.spy("l0"), recorder.spy("l1")]
    recorder.returns["iter(result.limbs)"] = limbs
    with_spied_sum(runtime, monkeypatch, recorder)
    mean = runtime.tqx_mean(recorder.spy("x"), return_tqx=True)
    recorder.check()
    assert repr(mean.limbs) == "[<m0>, <m1>]" and mean.device == "cuda:7"


@pytest.mark.parametrize("options", [{}, {"return_tqx": True}])
def test_mean_along_a_dimension(runtime, recorded, monkeypatch, options):
    recorder = recorded(
        CUDA_TEST
        + """
        x.shape
        n = x.shape[1]
        total = tqx_sum(x, dim=1, keepdim=True)
        mean = total / 300
        """
    )
    with_spied_sum(runtime, monkeypatch, recorder)
    mean = runtime.tqx_mean(recorder.spy("x"), 1, 7, **options)
    recorder.check()
    assert repr(mean) == "<mean>"


def test_mean_divides_by_the_object_that_the_count_is(runtime, recorded, monkeypatch):
    recorder = recorded(
        MEAN_START
        + """
        result.collapse
        total = result.collapse()
        mean = total / count
        """
    )
    recorder.returns["n"] = recorder.spy("count")
    with_spied_sum(runtime, monkeypatch, recorder)
    runtime.tqx_mean(recorder.spy("x"))
    recorder.check()


def test_whole_mean_makes_one_launch(runtime, recorded, monkeypatch):
    sum_script = SEQUENTIAL.replace("n = x_flat.numel()", "m = x_flat.numel()")
    recorder = recorded(
        CUDA_TEST
        + """
        x.numel
        n = x.numel()
        """
        + sum_script
        + """
        collapsed = collapse()
        mean = collapsed / 300
        """,
        returns={"m": 300},
    )
    monkeypatch.setattr(runtime.TQXResult, "collapse", recorder.spy("collapse"))
    runtime.tqx_mean(recorder.spy("x"))
    recorder.check()


# ---- exact decimals ----


def test_exact_sum_is_the_decimal_of_the_limbs(runtime, recorded, monkeypatch):
    recorder = recorded("""
        result = tqx_sum(x, return_tqx=True)
        result.to_decimal
        total = result.to_decimal()
    """)
    with_spied_sum(runtime, monkeypatch, recorder)
    total = runtime.tqx_sum_exact(recorder.spy("x"))
    recorder.check()
    assert repr(total) == "<total>"


def test_exact_mean_divides_the_decimal(runtime, recorded, monkeypatch):
    recorder = recorded("""
        result = tqx_sum(x, return_tqx=True)
        x.numel
        count = x.numel()
        n = Decimal(count)
        result.to_decimal
        total = result.to_decimal()
        mean = total / 300
    """)
    with_spied_sum(runtime, monkeypatch, recorder)
    monkeypatch.setattr(runtime, "Decimal", recorder.spy("Decimal"))
    mean = runtime.tqx_mean_exact(recorder.spy("x"))
    recorder.check()
    assert repr(mean) == "<mean>"
