# SPDX-License-Identifier: Apache-2.0
"""Routes that only certain values or answers reach, function by function, for `call_routes.py`.

A row of the table is a set of changes to the usual route: arguments, shapes of single operands,
answers to single events, truths in turn, names of the module that are spies.
"""

import math


class Count(int):
    """A count that is no exact int: a function must pass it on as it is."""

    def __repr__(self):
        return f"Count({int(self)})"


class Named:
    """Stands for the spy of that name, in arguments and attributes."""

    def __init__(self, name):
        self.name = name

    def __repr__(self):
        return f"<{self.name}>"


SPY = object()  # the answer is a spy, where else a rule would give a value


def of(row):
    """The changes that a row of the table of signatures has beyond the usual."""
    return _CHANGES.get(row.path, [])


def _named(name, count):
    return [Named(f"{name}{place}") for place in range(count)]


def _limbs(count):
    return _named("limb", count)


def _receivers(**changes):
    """Of 0, 1, 3 and 4 limbs."""
    return [
        {"attributes": {"limbs": _limbs(count), "n_limbs": count}} | changes
        for count in (0, 1, 3, 4)
    ]


ANY_ITERABLE = {"attributes": {"limbs": Named("limbs")}}
BITS = 0xBFF8000000000000  # of -1.5
PACKED = {"replaced": ("struct", "Decimal"), "answers": {"[0]": BITS}}

# The sizes of five limbs: the fourth is the largest, and two are of one size and keep their order.
_SIZES = (4.0, 3.0, 1.0, 9.0, 3.0)
# Of the errors of their sum; of the sum and the errors once more, where there are four errors.
_ERRORS_OF_FIVE = [
    (0.25, 0.0, 0.5, 2.0),
    *((0.25, 0.5, 0.125, 2.0, value, 0.25, 0.5, 0.125, 2.0) for value in (9.0, 0.5, 0.0)),
    (1.0,) * 9,
]
_OTHER_RANKS = [
    {"shapes": {"x": (1, 1, 1, 1), "weight": (1, 1, 1, 1)} | {name: shape}}
    for name in ("x", "weight")
    for shape in ((), (1,), (1, 2), (1, 2, 3), (1, 2, 3, 4, 5))
]
_CHANGES = {
    # ---- limb results ----
    "TQXResult.__init__": [{"options": {"limbs": []}}, {"options": {"limbs": _limbs(1)}}],
    "TQXResult.collapse": _receivers(),
    "TQXResult.item": [
        *({"count": count} for count in (0, 1, 2)),
        *({"answers": {".numel()": SPY}, "truth": truth} for truth in ("all", "none")),
        *_receivers(),
    ],
    "TQXResult.__float__": [{"count": 1}, *_receivers(count=1)],
    "TQXResult.squeeze": [
        *({"options": {"dim": dim}} for dim in (None, 0, -1.5)),
        ANY_ITERABLE,
        *_receivers(),
    ],
    "TQXResult.unsqueeze": [{"options": {"dim": True}}, ANY_ITERABLE, *_receivers()],
    "TQXResult.view": [
        *({"rest": rest} for rest in [(), (2, 3), ((2, 3),), ("any", None, 1.5)]),
        ANY_ITERABLE,
        *_receivers(rest=(2,)),
    ],
    "TQXResult.reshape": [
        *({"rest": rest} for rest in [(), (-1,), ([2, 3],)]),
        ANY_ITERABLE,
        *_receivers(rest=(2,)),
    ],
    "TQXResult.to_decimal": [
        *({"options": {"index": index}, **c} for index in (None, (), (1, 0)) for c in _receivers()),
        *({"options": {"index": None}, "count": count} for count in (0, 1, 2)),
        *(
            {"options": {"index": None}, "answers": {".numel()": SPY}, "truth": truth}
            for truth in ("all", "none", (True, False), (False, True))
        ),
        *(
            {"options": {"index": index}, "attributes": {"_fp64_to_decimal": Named("convert")}}
            for index in (None, (0,))
        ),
        {"options": {"index": (0,)}} | ANY_ITERABLE,
        {"options": {"index": (0,)}} | PACKED,
    ],
    "TQXResult._fp64_to_decimal": [
        *({"options": {"f": f}} for f in (0.0, -0.0, -1.5, 2.0**-1074, 1e300, math.inf)),
        *({"options": {"f": f}} | PACKED for f in (-1.5, -0.0, 0.0)),
    ],
    "TQXResult.__repr__": [{"attributes": {"n_limbs": Named("n"), "shape": Named("shape")}}],
    "_compensated_sum": [{"options": {"terms": _limbs(count)}} for count in (0, 1, 3, 5)],
    **{
        name: [
            {"options": {"x_limbs": _named("x", x), "y_limbs": _named("y", y)}, "items": items}
            for x, y, items in [
                *((x, y, ()) for x, y in ((0, 0), (1, 0), (0, 1), (1, 1), (3, 3))),
                *((1, 1, (1.0, 2.0, error)) for error in (0.5, 0.0, math.nan, math.inf)),
                *((3, 2, (*_SIZES, *again)) for again in _ERRORS_OF_FIVE),
            ]
        ]
        for name in ("_tqx_add_limbs", "_tqx_sub_limbs")
    },
    # ---- reductions ----
    "tqx_sum": [
        {"options": {"keepdim": "true", "dim": 1}},
        {"options": {"return_tqx": True, "exact": False, "dim": 1}},
    ],
    "tqx_mean": [
        {"options": {"dim": 1, "keepdim": 7}, "replaced": ("tqx_sum",), "shape": (3, 300)}
    ],
    "tqx_cumsum_exact": [{"count": count} for count in (0, 1, 3)],
    # ---- two operands: shapes that differ ask torch to broadcast ----
    **{
        name: [
            *(
                {"answers": {".shape": SPY}, "truth": truth, "options": {"return_tqx": flag}}
                for truth in ("all", "cuda", "none")
                for flag in (False, True)
            ),
            *({"options": {"y": number, "return_tqx": True}} for number in (1.5, 2, True)),
            *({"options": {"x": number, "return_tqx": True}} for number in (1.5, 2, True)),
            *(
                {"answers": {"x.device": AttributeError("device")}, "limbs": limbs}
                for limbs in ((), ("x",), ("y",))
            ),
            *(
                {"replaced": ("_extract_tqx_tensor",), "truth": (flag, other)}
                for flag in (False, True)
                for other in (False, True)
            ),
        ]
        for name in ("tqx_add", "tqx_sub", "tqx_mul", "tqx_div")
    },
    # ---- matrix products ----
    "_tqx_matmul_2d": [
        {"shapes": {"a": (3, 5), "b": (5, 17)}, "shape": (3, 17)},
        {"shapes": {"a": (3, 5), "b": (6, 17)}},
        {"shapes": {"a": (3, 0), "b": (0, 17)}},
        {"shapes": {"a": (10**20, 2), "b": (2, 10**20)}},
        *(
            {"shapes": {"a": (3, 5), "b": (5, 17)} | {name: shape}}
            for name in "ab"
            for shape in ((2, 3, 5), (5,), (), (1, 2, 3, 4))
        ),
    ],
    "tqx_matmul": [
        *(
            {"shapes": {"a": a, "b": b}, "options": {"return_tqx": flag}, "replaced": replaced}
            for a, b in [((5,), (5,)), ((2,), (2, 2)), ((2, 2), (2,)), ((2, 2), (2, 2)), ((), ())]
            for flag in (False, True)
            for replaced in ((), ("_tqx_matmul_2d", "tqx_dot"))
        ),
        *(
            {
                "shapes": {"a": (2, 1, 3, 4), "b": (2, 4, 5)},
                "shape": (2, 1, 4, 5),
                "options": {"return_tqx": flag},
                "answers": answers,
                "replaced": ("_tqx_matmul_2d",),
            }
            for flag in (False, True)
            for answers in (
                {},
                {"torch.broadcast_shapes((2, 1), (2,))": RuntimeError("as it was")},
                {"torch.broadcast_shapes((2, 1), (2,))": TypeError("as it was")},
            )
        ),
    ],
    "tqx_bmm": [
        {"shapes": {"a": (2, 3, 5), "b": (2, 5, 4)}, "replaced": ("tqx_matmul",)},
        {"shapes": {"a": (3, 3, 5), "b": (2, 5, 4)}},
        {"shapes": {"a": (2, 3, 5), "b": (2, 6, 4)}},
        {"shapes": {"a": (3, 5), "b": (2, 6, 4)}},
    ],
    # ---- compositions ----
    "tqx_einsum": [
        *(
            {"options": {"equation": equation, "return_tqx": flag}}
            for equation in (
                "ij, jk -> ik",
                "ij,jk",
                "i, i->",
                "I,I->",
                "ij,jl->il",
                " ij,jk->ik",
                "ij,jk->ik\0",
            )
            for flag in (False, True)
        ),
        *(
            {
                "options": {"equation": equation},
                "rest": tuple(map(Named, "abcd"))[:count],
                "replaced": ("tqx_dot", "tqx_matmul", "tqx_bmm"),
            }
            for equation in ("i,i->", "ij,jk->ik", "mk,kn->mn", "bij,bjk->bik", "i,j,k->ijk")
            for count in (0, 1, 3, 4)
        ),
    ],
    "tqx_mse_loss": [
        {"options": {"reduction": text}, "replaced": ("tqx_mean", "tqx_sum")}
        for text in ("none", "Mean", "")
    ],
    "tqx_conv2d": [
        *_OTHER_RANKS,
        *(
            {
                "shapes": {"x": (2, 3, 7, 9), "weight": (5, 3, 3, 2)},
                "options": {"stride": stride, "padding": padding, "return_tqx": flag},
                "replaced": ("tqx_matmul",),
            }
            for stride, padding in ((1, 0), (3, 2), (1, -1), (1, -7), (2, 0), (0, 0))
            for flag in (False, True)
        ),
        {
            "shapes": {"x": (0, 3, 7, 9), "weight": (5, 3, 3, 2)},
            "replaced": ("tqx_matmul",),
        },
    ],
    "tqx_conv_transpose2d": [
        *_OTHER_RANKS,
        *(
            {
                "shapes": {"x": (2, 5, 4, 3), "weight": (5, 6, 3, 2)},
                "options": {"stride": stride, "padding": padding, "output_padding": more}
                | {"return_tqx": flag},
                "replaced": ("tqx_matmul",),
            }
            for stride, padding, more in ((1, 0, 0), (3, 1, 2), (1, -1, 0), (0, 0, 0))
            for flag in (False, True)
        ),
    ],
    "tqx_solve": [
        *({"options": {"max_iter": count}, "truth": "cuda"} for count in (3, 5, 2.9, -(10**30))),
        *({"options": {"max_iter": 4}, "truth": (False,) * n + (True,)} for n in range(4)),
    ],
    "tqx_det": [
        {"truth": moved, "shape": (len(moved), len(moved))}
        for moved in ((), (False, False), (True, False), (True, True, False), (True,) * 3)
    ]
    + [{"shape": (2, 3), "answers": {"[2]": IndexError("of torch")}, "truth": (False,) * 3}],
    # ---- transforms ----
    "_tqx_fft_butterfly": [
        *(
            {"shape": (3, n), "options": {"inverse": inverse}, "answers": {".item()": bits}}
            for n, bits in [(0, 0.0), (1, 0.0), (6, 2.58)]
            + [(2**bits, float(bits)) for bits in (1, 2, 3, 4, 6, 8)]
            for inverse in (False, True)
        ),
    ],
    "tqx_fft": [
        {
            "shapes": {"x": shape},
            "shape": measured,
            "options": {"n": n, "dim": dim},
            "replaced": ("_tqx_fft_butterfly",),
            "answers": {".is_complex()": answer},
        }
        for shape, n, dim, measured in [
            ((8,), None, -1, ()),
            ((2, 8), None, -1, ()),
            ((1,), None, -1, ()),
            ((6,), None, -1, ()),
            ((0,), None, -1, ()),
            ((8,), None, 0, ()),
            ((8, 3), None, -2, ()),
            ((5,), 8, -1, (8,)),
            ((2, 5), 6, -1, (2, 6)),
            ((5, 3), 8, 0, (8, 3)),
            ((8,), 8, -1, (8,)),
            ((8,), 5, -1, (5,)),
            ((8,), 0, -1, (0,)),
            ((8,), -1, -1, (7,)),
            ((6, 6), 6.9, 0.9, (6, 6)),
        ]
        for answer in (False, True, SPY)
    ],
    "tqx_ifft": [
        {"shape": shape, "options": {"n": n, "dim": dim}, "replaced": ("_tqx_fft_butterfly",)}
        for shape, n, dim in [
            ((8,), None, -1),
            ((8,), 5, -1),
            ((3, 1), None, -1),
            ((8,), 5, 0),
            ((6,), 8, -1),
            ((6,), None, -1),
            ((0,), None, -1),
            ((6, 6), 6.9, 0.9),
        ]
    ],
    "tqx_rfft": [
        {"shape": shape, "options": {"n": 7, "dim": 0}, "replaced": ("tqx_fft",)}
        for shape in ((8,), (2, 6), (8, 3), (1,))
    ],
    "tqx_irfft": [
        {"shape": (3, 5), "options": {"n": n, "dim": dim}, "replaced": ("tqx_ifft",)}
        for n, dim in ((None, -1), (None, 0), (7, 0), (0, -1), (6.9, 0.9))
    ],
    # ---- series: a function of torch may be missing, and any number of terms is taken ----
    **{
        name: [
            {"options": {"n_terms": count, "return_tqx": flag}, "answers": answers}
            for count in (-3, 0, 1, 2, 20, 25, 30, 200, -0.5)
            for flag in (False, True)
            for answers in ({"torch.pi": math.pi}, {"torch.fma": AttributeError("fma")})
        ]
        for name in ("tqx_sin", "tqx_cos", "tqx_asin", "tqx_atan", "tqx_sinh", "tqx_cosh")
    },
    # ---- provenance ----
    "tqx_checksum": [
        {"options": {"truncate": truncate}, "replaced": ("hashlib",), "limbs": limbs}
        for truncate in (16, 64, 65, -3, 10**30)
        for limbs in ((), ("x",))
    ],
    "tqx_verify": [
        {
            "options": {"truncate": truncate, "expected": "abcdef", "raise_on_mismatch": False},
            "replaced": ("tqx_checksum",),
            "answers": answers,
            "truth": truth,
        }
        for truncate in (3, 3.9, -1, 0)
        for answers in ({}, {"tqx_checksum(x, truncate=3)": "abc"})
        for truth in ("all", "none")
    ],
    "TQXVerifiedResult.__init__": [
        {"options": {"checksum": text}, "answers": answers, "replaced": ("tqx_checksum",)}
        for text in (None, "", "given")
        for answers in ({}, {"value.device": AttributeError("device")})
    ],
}
