# SPDX-License-Identifier: Apache-2.0
"""Which functions leave the same bits on every machine, and why or why not: the one list of it.

A row holds for a call as it is written there; a function with a part that is not promised has a row
for each part. `cases` names the golden cases that compare it, as "folder: beginning of the names";
the beginning ends where a word ends. Rows that are not promised may name cases too: such cases are
left out by `make verify`. docs/reproducibility.md shows the table; tests hold it to the module, to
the golden cases and to that page.
"""

import re
from dataclasses import dataclass


@dataclass(frozen=True)
class Promise:
    call: str
    is_promised: bool
    why: str
    cases: tuple[str, ...]

    @property
    def name(self):
        """The function or method: what stands before the first bracket."""
        return self.call.partition("(")[0]

    def covers(self, folder, case):
        return any(_begins(f"{folder}: {case}", beginning) for beginning in self.cases)


def _begins(text, beginning):
    return re.match(re.escape(beginning) + r"(?!\w)", text) is not None


def _yes(call, why, *cases):
    return Promise(call, True, why, cases)


def _no(call, why, *cases):
    return Promise(call, False, why, cases)


_KERNEL = "one kernel"
_ELEMENT = "one torch operation that rounds nothing"
_SERIES = "sums, products and quotients of tensors, each rounded once"
_REDUCED = "an exact remainder and one addition, then s" + _SERIES[1:]
_BY_NUMBER = "torch divides a tensor by a number: a product with the reciprocal on CUDA"
_TRANSFORM = "torch's complex products, cos and sin, or torch.fft"
_DECIMAL = "limbs that are promised, then decimal arithmetic"
_TORCH_SUM = "torch.sum along a dimension adds in an order of its own"


def _kernel(name, folder):
    """A function that wraps a kernel: its cases stand under its own name."""
    return _yes(name, _KERNEL, f"{folder}: {name}")


PROMISES = [
    # ---- results and checksums ----
    _yes("TQXResult.collapse()", "additions of torch, each rounded once", "limbs: collapse"),
    _yes("TQXResult.item()", "as `collapse`", "composed: TQXResult.item"),
    _yes("TQXResult.__float__()", "as `collapse`", "composed: TQXResult.__float__"),
    _yes(
        "TQXResult.to_decimal()", "decimal arithmetic on the bits of each limb", "limbs: to_decimal"
    ),
    _yes("TQXResult._fp64_to_decimal(f)", "decimal arithmetic", "limbs: _fp64_to_decimal"),
    *(
        _yes(f"TQXResult.{name}(...)", "moves limbs", f"composed: TQXResult.{name}")
        for name in ("squeeze", "unsqueeze", "view", "reshape")
    ),
    *(
        _yes(f"{name}(x)", "SHA-256 of the bytes, of results without NaN", f"provenance: {name}")
        for name in ("tqx_checksum", "tqx_checksum_hex")
    ),
    _yes("tqx_verify(x, expected)", "as `tqx_checksum`", "provenance: tqx_verify"),
    *(
        _yes(f"TQXVerifiedResult.{name}", "as `tqx_checksum`", "provenance: TQXVerifiedResult")
        for name in ("checksum", "checksum_full")
    ),
    _yes("TQXVerifiedResult.verify()", "as `tqx_checksum`", "provenance: TQXVerifiedResult.verify"),
    _yes("TQXVerifiedResult.item()", "as `collapse`", "composed: TQXVerifiedResult.item"),
    _no("get_backend_info()", "says what the machine is"),
    # ---- sums and means ----
    _yes(
        "tqx_sum(x)",
        "one kernel, then additions of torch",
        *(f"reductions: tqx_sum{rest}" for rest in ("", " limbs", " parallel", " parallel limbs")),
    ),
    _no("tqx_sum(x, dim=...)", _TORCH_SUM),
    _no("tqx_mean(x)", _BY_NUMBER),
    _no("tqx_mean(x, dim=...)", f"{_TORCH_SUM}; {_BY_NUMBER}"),
    _yes("tqx_sum_exact(x)", _DECIMAL, "reductions: tqx_sum_exact"),
    _yes("tqx_mean_exact(x)", _DECIMAL, "composed: tqx_mean_exact"),
    # ---- other reductions ----
    _kernel("tqx_var", "kernel_reductions"),
    _yes("tqx_std", "one kernel and an IEEE square root", "kernel_reductions: tqx_std"),
    _kernel("tqx_norm", "kernel_reductions"),
    _yes("tqx_prod", "one kernel, then one addition", "kernel_reductions: tqx_prod"),
    _kernel("tqx_cumsum", "kernel_reductions"),
    _kernel("tqx_logsumexp", "kernel_reductions"),
    *(
        _yes(name, f"operations rounded once, {_DECIMAL}", f"composed: {name}")
        for name in ("tqx_var_exact", "tqx_std_exact", "tqx_norm_exact")
    ),
    *(
        _yes(name, _DECIMAL, f"composed: {name}")
        for name in ("tqx_prod_exact", "tqx_cumsum_exact", "tqx_trace_exact", "tqx_logsumexp_exact")
    ),
    *(
        _yes(
            name,
            f"{_ELEMENT}; where the extremum is a zero, its sign is not promised",
            f"composed: {name}",
        )
        for name in ("tqx_min", "tqx_max")
    ),
    *(
        _yes(name, "the first place of the extremum, as torch documents", f"composed: {name}")
        for name in ("tqx_argmin", "tqx_argmax")
    ),
    _yes("tqx_trace", "as `tqx_sum` of the diagonal", "composed: tqx_trace"),
    # ---- pairs ----
    *(
        _yes(
            name,
            "one kernel or TwoSum by torch's additions; limb lists too",
            f"pairs: {name}",
            f"composed: {name}",
            "pairs: chain of tqx_add",
        )
        for name in ("tqx_add", "tqx_sub")
    ),
    *(
        _yes(name, "one kernel, then one addition", f"pairs: {name}")
        for name in ("tqx_mul", "tqx_div")
    ),
    # ---- elements ----
    *(
        _kernel(f"tqx_{name}", "elementwise")
        for name in ("relu", "neg", "exp", "log", "sqrt", "sigmoid", "tanh", "leaky_relu")
    ),
    *(
        _yes(f"tqx_{name}", _ELEMENT, f"elementwise: tqx_{name}")
        for name in ("abs", "floor", "ceil", "round", "trunc")
    ),
    *(
        _yes(f"tqx_{name}", _ELEMENT, f"elementwise: tqx_{name}", f"composed: tqx_{name}")
        for name in ("eq", "ne", "lt", "le", "gt", "ge")
    ),
    _yes("tqx_sign", _ELEMENT, "composed: tqx_sign"),
    _yes("tqx_where", _ELEMENT, "composed: tqx_where"),
    _yes(
        "tqx_clamp",
        f"{_ELEMENT}; where x and a bound are zeros, the sign of the result is not promised",
        "composed: tqx_clamp",
    ),
    _yes("tqx_fmod", _ELEMENT, "composed: tqx_fmod"),
    _yes("tqx_rsqrt", "one kernel and an IEEE division of 1.0", "composed: tqx_rsqrt"),
    _yes("tqx_pow", "two kernels and one product between", "composed: tqx_pow"),
    _yes("_placeholder_rms_norm", _KERNEL, "elementwise: _placeholder_rms_norm"),
    # ---- products ----
    _yes("tqx_dot", "one kernel, then additions of torch", "products: tqx_dot"),
    _yes("tqx_matmul", "a kernel a matrix, then additions of torch", "products: tqx_matmul"),
    _yes("tqx_bmm", "as `tqx_matmul`", "products: tqx_bmm"),
    _yes("tqx_dot_exact", _DECIMAL, "products: tqx_dot_exact"),
    _yes("tqx_matmul_exact", _DECIMAL, "composed: tqx_matmul_exact"),
    _yes("tqx_bmm_exact", _DECIMAL, "composed: tqx_bmm_exact"),
    _yes(
        "tqx_linear", "`tqx_matmul`, then `tqx_add`", "linalg: tqx_linear", "composed: tqx_linear"
    ),
    _yes(
        'tqx_einsum(equation, ...) of "i,i->", "ij,jk->ik", "mk,kn->mn", "bij,bjk->bik"',
        "`tqx_dot`, `tqx_matmul`, `tqx_bmm`",
        "linalg: tqx_einsum",
        "composed: tqx_einsum",
    ),
    _no("tqx_einsum(equation, ...) of anything else", "torch.einsum adds in an order of its own"),
    _yes(
        'tqx_mse_loss(pred, target, "sum")',
        "`tqx_sub`, `tqx_mul`, `tqx_sum`",
        "linalg: tqx_mse_loss sum",
    ),
    _no("tqx_mse_loss(pred, target)", _BY_NUMBER),
    _yes("tqx_conv2d", "torch moves elements, `tqx_matmul` computes", "linalg: tqx_conv2d"),
    _no(
        "tqx_conv_transpose2d",
        "torch.nn.functional.fold adds where blocks overlap, in an order of its own",
        "linalg: tqx_conv_transpose2d",
    ),
    # ---- series ----
    _yes("tqx_sin", _REDUCED, "series: tqx_sin"),
    _yes("tqx_cos", f"{_REDUCED}; its one division by a number is by 2", "series: tqx_cos"),
    _yes("tqx_tan", "`tqx_sin` over `tqx_cos`", "series: tqx_tan"),
    _no("tqx_asin", _BY_NUMBER, "series: tqx_asin"),
    _no("tqx_acos", _BY_NUMBER, "series: tqx_acos"),
    _yes("tqx_atan", _SERIES, "series: tqx_atan"),
    _yes("tqx_atan2", f"{_SERIES}; pi is divided by 2", "series: tqx_atan2"),
    _yes("tqx_sinh", _SERIES, "series: tqx_sinh"),
    _yes("tqx_cosh", f"{_SERIES}; its one division by a number is by 2", "series: tqx_cosh"),
    # ---- transforms and solvers ----
    *(
        _no(name, _TRANSFORM, f"spectral: {name}")
        for name in ("tqx_fft", "tqx_ifft", "tqx_rfft", "tqx_irfft")
    ),
    _no("tqx_solve", "torch.linalg.solve rounds as the library below it does", "linalg: tqx_solve"),
    _no("tqx_inv", "as `tqx_solve`", "linalg: tqx_inv"),
    _no("tqx_det", "torch.linalg.lu_factor rounds as the library below does", "linalg: tqx_det"),
]

# Every kernel is promised, and compared with all its outputs.
KERNEL_FOLDER = "million"


def is_compared(folder, case):
    """Whether the bits of a golden case are promised."""
    return folder == KERNEL_FOLDER or any(
        row.is_promised and row.covers(folder, case) for row in PROMISES
    )


def table():
    """The rows of the table in docs/reproducibility.md, as lines of Markdown."""
    yield "| call | promised | why | compared as |"
    yield "|---|---|---|---|"
    yield (
        "| each of the 23 kernels, every output | yes | defined by exact mathematics, or by IEEE "
        f"operations in one order | `{KERNEL_FOLDER}` |"
    )
    for row in PROMISES:
        compared = ", ".join(f"`{case}`" for case in row.cases) if row.is_promised else ""
        call = row.call.replace("|", "\\|")
        yield f"| `{call}` | {'yes' if row.is_promised else 'no'} | {row.why} | {compared} |"
