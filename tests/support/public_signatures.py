# SPDX-License-Identifier: Apache-2.0
"""Parameters of every function and method that the tests know, as data.

A row: where it is found, its parameters (self included), the `inspect` signature. A parameter
with a default is optional. Tests that go through all functions take their rows from here.
"""

from dataclasses import dataclass, field


@dataclass(frozen=True)
class Row:
    path: str  # from the module: "tqx_sum" or "TQXResult.collapse"
    parameters: tuple
    defaults: tuple = ()
    annotations: dict = field(default_factory=dict, hash=False)
    takes_rest: bool = False  # any number of further positional arguments
    keyword_only: tuple = ()  # pairs of name and default

    @property
    def name(self):
        return self.path.rpartition(".")[2]

    @property
    def required(self):
        return len(self.parameters) - len(self.defaults)

    def find(self, module):
        owner = module
        for part in self.path.split("."):
            owner = vars(owner)[part]
        return getattr(owner, "fget", owner) if isinstance(owner, property) else owner

    def call(self, module, /, *args, **kwargs):
        function = self.find(module)
        return getattr(function, "__func__", function)(*args, **kwargs)


_REDUCTION = {
    "x": "torch.Tensor",
    "dim": "Optional[int]",
    "keepdim": "bool",
    "return_tqx": "bool",
    "return": "torch.Tensor",
}
_EITHER = "Union[torch.Tensor, TQXResult]"

_SERIES = {"x": "torch.Tensor", "return_tqx": "bool"}
_TRANSFORM = {"x": "torch.Tensor", "n": "Optional[int]", "dim": "int", "return": "torch.Tensor"}

SERIES = [
    *(
        Row(name, ("x", "n_terms", "return_tqx"), (terms, False), _SERIES | {"n_terms": "int"})
        for name, terms in (
            ("tqx_sin", 20),
            ("tqx_cos", 20),
            ("tqx_asin", 25),
            ("tqx_atan", 30),
            ("tqx_sinh", 20),
            ("tqx_cosh", 20),
        )
    ),
    *(Row(name, ("x", "return_tqx"), (False,), _SERIES) for name in ("tqx_tan", "tqx_acos")),
    Row("tqx_atan2", ("y", "x", "return_tqx"), (False,), {"y": "torch.Tensor"} | _SERIES),
]

TRANSFORMS = [
    Row(name, ("x", "n", "dim"), (None, -1), _TRANSFORM)
    for name in ("tqx_fft", "tqx_ifft", "tqx_rfft", "tqx_irfft")
]

_TENSOR = "torch.Tensor"
_PLAIN = {"x": _TENSOR, "return": _TENSOR}
_UNARY = {"x": _TENSOR, "return_tqx": "bool"}
_TWO = {"x": _TENSOR, "y": _TENSOR, "return": _TENSOR}
_EXACT = {"x": _TENSOR, "return": "Decimal"}

KERNEL_REDUCTIONS = [
    *(
        Row(
            name,
            ("x", "unbiased", "return_tqx"),
            (True, False),
            _PLAIN | {"unbiased": "bool", "return_tqx": "bool"},
        )
        for name in ("tqx_var", "tqx_std")
    ),
    Row(
        "tqx_norm",
        ("x", "p", "return_tqx"),
        (2, False),
        _PLAIN | {"p": "int", "return_tqx": "bool"},
    ),
    *(
        Row(name, ("x", "return_tqx"), (False,), _PLAIN | {"return_tqx": "bool"})
        for name in ("tqx_prod", "tqx_cumsum", "tqx_logsumexp")
    ),
    *(
        Row(name, ("x", "unbiased"), (True,), _EXACT | {"unbiased": "bool"})
        for name in ("tqx_var_exact", "tqx_std_exact")
    ),
    Row("tqx_norm_exact", ("x", "p"), (2,), _EXACT | {"p": "int"}),
    Row("tqx_prod_exact", ("x",), (), _EXACT),
    Row("tqx_cumsum_exact", ("x",), (), _EXACT | {"return": "List[Decimal]"}),
    Row("tqx_trace_exact", ("x",), (), _EXACT),
    Row("tqx_logsumexp_exact", ("x",), (), _EXACT),
    *(
        Row(name, ("x",), (), _PLAIN)
        for name in ("tqx_min", "tqx_max", "tqx_argmin", "tqx_argmax", "tqx_trace")
    ),
]

UNARY_OPERATORS = [
    *(
        Row(name, ("x", "return_tqx"), (False,), _UNARY)
        for name in (
            "tqx_relu",
            "tqx_neg",
            "tqx_sigmoid",
            "tqx_tanh",
            "tqx_floor",
            "tqx_ceil",
            "tqx_round",
            "tqx_trunc",
            "tqx_abs",
            "tqx_rsqrt",
        )
    ),
    *(
        Row(name, ("x", "terms", "return_tqx"), (30, False), _UNARY | {"terms": "int"})
        for name in ("tqx_exp", "tqx_log")
    ),
    Row("tqx_sqrt", ("x", "iterations", "return_tqx"), (5, False), _UNARY | {"iterations": "int"}),
    Row(
        "tqx_leaky_relu",
        ("x", "negative_slope", "return_tqx"),
        (0.01, False),
        _UNARY | {"negative_slope": "float"},
    ),
    Row("tqx_pow", ("x", "exponent", "return_tqx"), (False,), _UNARY | {"exponent": "float"}),
    Row(
        "tqx_clamp",
        ("x", "min_val", "max_val", "return_tqx"),
        (False,),
        _UNARY | {"min_val": "float", "max_val": "float"},
    ),
    Row("tqx_sign", ("x",), (), _PLAIN),
]

COMPARISONS = [
    Row("tqx_fmod", ("x", "y", "return_tqx"), (False,), _UNARY | {"y": _TENSOR}),
    *(
        Row(name, ("x", "y"), (), _TWO)
        for name in ("tqx_eq", "tqx_ne", "tqx_lt", "tqx_le", "tqx_gt", "tqx_ge")
    ),
    Row("tqx_where", ("condition", "x", "y"), (), _TWO | {"condition": _TENSOR}),
]

_PRODUCT = {"a": _TENSOR, "b": _TENSOR, "return_tqx": "bool", "return": _TENSOR}
_ELEMENT = {"a": _TENSOR, "b": _TENSOR, "i": "int", "j": "int", "return": "Decimal"}

PRODUCTS = [
    Row(
        "tqx_dot",
        ("x", "y", "return_tqx", "exact"),
        (False, True),
        _TWO | {"return_tqx": "bool", "exact": "bool"},
    ),
    *(
        Row(name, ("a", "b", "return_tqx"), (False,), _PRODUCT)
        for name in ("tqx_matmul", "tqx_bmm")
    ),
    Row("tqx_dot_exact", ("x", "y"), (), _TWO | {"return": "Decimal"}),
    Row("tqx_matmul_exact", ("a", "b", "i", "j"), (), _ELEMENT),
    Row("tqx_bmm_exact", ("a", "b", "batch", "i", "j"), (), _ELEMENT | {"batch": "int"}),
]

COMPOSED_LINEAR_ALGEBRA = [
    Row(
        "tqx_linear",
        ("x", "weight", "bias"),
        (None,),
        _PLAIN | {"weight": _TENSOR, "bias": "Optional[torch.Tensor]"},
    ),
    Row(
        "tqx_einsum",
        ("equation",),
        (),
        {"equation": "str", "return_tqx": "bool"},
        takes_rest=True,
        keyword_only=(("return_tqx", False),),
    ),
    Row(
        "tqx_mse_loss",
        ("pred", "target", "reduction", "return_tqx"),
        ("mean", False),
        {
            "pred": _TENSOR,
            "target": _TENSOR,
            "reduction": "str",
            "return_tqx": "bool",
            "return": _TENSOR,
        },
    ),
    Row(
        "tqx_conv2d",
        ("x", "weight", "stride", "padding", "return_tqx"),
        (1, 0, False),
        _PLAIN | {"weight": _TENSOR, "stride": "int", "padding": "int", "return_tqx": "bool"},
    ),
    Row(
        "tqx_conv_transpose2d",
        ("x", "weight", "stride", "padding", "output_padding", "return_tqx"),
        (1, 0, 0, False),
        _PLAIN
        | {
            "weight": _TENSOR,
            "stride": "int",
            "padding": "int",
            "output_padding": "int",
            "return_tqx": "bool",
        },
    ),
    Row(
        "tqx_solve",
        ("A", "B", "max_iter"),
        (3,),
        {"A": _TENSOR, "B": _TENSOR, "max_iter": "int", "return": _TENSOR},
    ),
    Row("tqx_inv", ("x",), (), _PLAIN),
    Row("tqx_det", ("x",), (), _PLAIN),
]

_PAIR_OPERANDS = {"a": "torch.Tensor", "b": "torch.Tensor"}
_PAIR = {"return": "Tuple[torch.Tensor, torch.Tensor]"}

PAIRS = [
    Row(name, ("x", "y", "return_tqx"), (False,), {"return_tqx": "bool"})
    for name in ("tqx_add", "tqx_sub", "tqx_mul", "tqx_div")
]

# Functions of the module that are not public: outside __all__, and replaced by tests.
INTERNALS = [
    Row("_twosum_f64", ("a", "b"), (), _PAIR_OPERANDS),
    Row("_two_sum", ("a", "b"), (), _PAIR_OPERANDS | _PAIR),
    Row("_two_product", ("a", "b"), (), _PAIR_OPERANDS | _PAIR),
    Row("_compensated_sum", ("terms",), (), {"terms": "List[torch.Tensor]"} | _PAIR),
    Row("_extract_tqx_tensor", ("x",)),
    Row("_get_tqx_limbs", ("x",)),
    Row("_tqx_add_limbs", ("x_limbs", "y_limbs", "device")),
    Row("_tqx_sub_limbs", ("x_limbs", "y_limbs", "device")),
    Row("_tqx_matmul_2d", ("a", "b", "return_tqx"), (False,), _PRODUCT),
    Row("_placeholder_rms_norm", ("x", "eps"), (1e-06,), _PLAIN | {"eps": "float"}),
    Row(
        "_tqx_fft_butterfly",
        ("x", "inverse"),
        (False,),
        {"x": "torch.Tensor", "inverse": "bool", "return": "torch.Tensor"},
    ),
]

FUNCTIONS = [
    Row(
        "tqx_sum",
        ("x", "dim", "keepdim", "return_tqx", "exact"),
        (None, False, False, True),
        _REDUCTION | {"exact": "bool"},
    ),
    Row("tqx_mean", ("x", "dim", "keepdim", "return_tqx"), (None, False, False), _REDUCTION),
    Row("tqx_sum_exact", ("x",), (), {"x": "torch.Tensor", "return": "Decimal"}),
    Row("tqx_mean_exact", ("x",), (), {"x": "torch.Tensor", "return": "Decimal"}),
    Row("get_backend_info", ()),
    Row("tqx_checksum", ("x", "truncate"), (16,), {"x": _EITHER, "truncate": "int"}),
    Row("tqx_checksum_hex", ("x",), (), {"x": _EITHER}),
    Row(
        "tqx_verify",
        ("x", "expected", "truncate", "raise_on_mismatch"),
        (16, True),
        {"x": _EITHER, "expected": "str", "truncate": "int", "raise_on_mismatch": "bool"},
    ),
    *SERIES,
    *TRANSFORMS,
    *KERNEL_REDUCTIONS,
    *UNARY_OPERATORS,
    *COMPARISONS,
    *PRODUCTS,
    *COMPOSED_LINEAR_ALGEBRA,
    *PAIRS,
]

METHODS = [
    Row(
        "TQXResult.__init__",
        ("self", "limbs", "device"),
        ("cuda",),
        {"limbs": "List[torch.Tensor]", "device": "str"},
    ),
    Row("TQXResult.collapse", ("self",)),
    Row("TQXResult.item", ("self",)),
    Row("TQXResult.__float__", ("self",)),
    Row("TQXResult.squeeze", ("self", "dim"), (None,), {"dim": "Optional[int]"}),
    Row("TQXResult.unsqueeze", ("self", "dim"), (), {"dim": "int"}),
    Row("TQXResult.view", ("self",), takes_rest=True),
    Row("TQXResult.reshape", ("self",), takes_rest=True),
    Row("TQXResult.__repr__", ("self",)),
    Row("TQXResult.to_decimal", ("self", "index"), (None,), {"index": "Optional[Tuple]"}),
    Row("TQXResult._fp64_to_decimal", ("f",), (), {"f": "float"}),
    Row(
        "TQXVerifiedResult.__init__",
        ("self", "value", "checksum"),
        (None,),
        {"value": _EITHER, "checksum": "Optional[str]"},
    ),
    Row("TQXVerifiedResult.checksum", ("self",)),
    Row("TQXVerifiedResult.checksum_full", ("self",)),
    Row("TQXVerifiedResult.verify", ("self",)),
    Row("TQXVerifiedResult.item", ("self",)),
    Row("TQXVerifiedResult.__repr__", ("self",)),
]

ROWS = FUNCTIONS + METHODS + INTERNALS
