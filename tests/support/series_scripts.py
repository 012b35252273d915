# SPDX-License-Identifier: Apache-2.0
"""What a series function does, as scripts for the call recorder, for any number of terms.

Each function below is the told course of one series function, event by event. `Script` names the
results, so that lines stay short however long the series is.
"""

import math

PI = math.pi
TWO_PI = 2 * math.pi
FACTOR = 134217729.0  # 2^27 + 1


class Script:
    """Lines of expected events; `with_fma` tells which way TwoProduct goes."""

    def __init__(self, with_fma=True):
        self.lines = []
        self.with_fma = with_fma

    def note(self, event):
        self.lines.append(event)

    def name(self, event):
        """An event whose result is called by a new name."""
        label = f"v{len(self.lines)}"
        self.lines.append(f"{label} = {event}")
        return label

    def method(self, owner, name):
        self.note(f"{owner}.{name}")
        return self.name(f"{owner}.{name}()")

    def torch(self, function, *arguments):
        """A call of torch whose arguments are there already."""
        self.note(f"torch.{function}")
        return self.name(f"torch.{function}({', '.join(map(str, arguments))})")

    def scalar(self, value, source, before=()):
        """torch.tensor(value, dtype=torch.float64, device=source.device)"""
        self.note("torch.tensor")
        for event in before:
            self.note(event)
        self.note("torch.float64")
        self.note(f"{source}.device")
        return self.name(f"torch.tensor({value!r}, dtype=torch.float64, device={source}.device)")

    def cuda_test(self, x):
        self.note(f"{x}.is_cuda")
        self.note(f"bool({x}.is_cuda)")

    def two_sum(self, a, b):
        s = self.name(f"{a} + {b}")
        v = self.name(f"{s} - {a}")
        a_rounded = self.name(f"{s} - {v}")
        a_error = self.name(f"{a} - {a_rounded}")
        b_error = self.name(f"{b} - {v}")
        return s, self.name(f"{a_error} + {b_error}")

    def add_term(self, result, error, term):
        result, e = self.two_sum(result, term)
        return result, self.name(f"{error} + {e}")

    def product(self, a, b):
        """The value element of _two_product(a, b)."""
        p = self.name(f"{a} * {b}")
        self.note("torch.fma")  # hasattr
        if self.with_fma:
            self.note("torch.fma")
            minus_p = self.name(f"-{p}")
            self.name(f"torch.fma({a}, {b}, {minus_p})")
        else:
            self._split_error(a, b, p)
        return p

    def _split(self, a):
        scaled = self.name(f"{FACTOR} * {a}")
        again = self.name(f"{FACTOR} * {a}")
        low = self.name(f"{again} - {a}")
        high = self.name(f"{scaled} - {low}")
        return high, self.name(f"{a} - {high}")

    def _split_error(self, a, b, p):
        ah, al = self._split(a)
        bh, bl = self._split(b)
        low_low = self.name(f"{al} * {bl}")
        high_high = self.name(f"{ah} * {bh}")
        rest = self.name(f"{p} - {high_high}")
        low_high = self.name(f"{al} * {bh}")
        rest = self.name(f"{rest} - {low_high}")
        high_low = self.name(f"{ah} * {bl}")
        rest = self.name(f"{rest} - {high_low}")
        self.name(f"{low_low} - {rest}")

    def returned(self, result, source, return_tqx):
        """The tensor, or the construction of a result of one limb."""
        if return_tqx:
            self.note(f"{source}.device")
            self.note(f"str({source}.device)")
            self.note(f"{result}.shape")
            self.note("torch.float64")
        return result


def _reduced(script, d):
    script.note("torch.remainder")
    script.note("torch.pi")
    rem = script.name(f"torch.remainder({d}, {TWO_PI})")
    script.note("torch.where")
    script.note("torch.pi")
    above = script.name(f"{rem} > {PI}")
    script.note("torch.pi")
    wrapped = script.name(f"{rem} - {TWO_PI}")
    return script.name(f"torch.where({above}, {wrapped}, {rem})")


def _next_alternating(script, term, x_squared, divisor):
    term_x2 = script.product(term, x_squared)
    negative = script.name(f"-{term_x2}")
    return script.name(f"{negative} / {divisor}")


def sin(script, x, n_terms=20, return_tqx=False):
    script.cuda_test(x)
    d = script.method(x, "double")
    red = _reduced(script, d)
    result = script.torch("zeros_like", d)
    error = script.torch("zeros_like", d)
    term = script.method(red, "clone")
    script.scalar(1.0, d)  # the factorial that nothing reads
    x_squared = script.product(red, red)
    for n in range(n_terms):
        result, error = script.add_term(result, error, term)
        divisor = script.scalar((2 * n + 2) * (2 * n + 3), d)
        term = _next_alternating(script, term, x_squared, divisor)
    return script.returned(script.name(f"{result} + {error}"), d, return_tqx)


def cos(script, x, n_terms=20, return_tqx=False):
    script.cuda_test(x)
    d = script.method(x, "double")
    red = _reduced(script, d)
    result = script.torch("ones_like", d)
    error = script.torch("zeros_like", d)
    x_squared = script.product(red, red)
    negative = script.name(f"-{x_squared}")
    term = script.name(f"{negative} / 2.0")
    for n in range(1, n_terms):
        result, error = script.add_term(result, error, term)
        divisor = script.scalar((2 * n + 1) * (2 * n + 2), d)
        term = _next_alternating(script, term, x_squared, divisor)
    return script.returned(script.name(f"{result} + {error}"), d, return_tqx)


def tan(script, x, return_tqx=False):
    script.cuda_test(x)
    sine = sin(script, x)
    cosine = cos(script, x)
    return script.returned(script.name(f"{sine} / {cosine}"), x, return_tqx)


def asin(script, x, n_terms=25, return_tqx=False):
    script.cuda_test(x)
    d = script.method(x, "double")
    result = script.method(d, "clone")
    error = script.torch("zeros_like", d)
    term = script.method(d, "clone")
    x_squared = script.product(d, d)
    for n in range(1, n_terms):
        term_x2 = script.product(term, x_squared)
        scaled = script.name(f"{term_x2} * {(2 * n - 1) ** 2}")
        term = script.name(f"{scaled} / {2 * n * (2 * n + 1)}")
        result, error = script.add_term(result, error, term)
    return script.returned(script.name(f"{result} + {error}"), d, return_tqx)


def acos(script, x, return_tqx=False):
    script.cuda_test(x)
    pi_half = script.scalar(PI / 2, x, before=["torch.pi"])
    arcsine = asin(script, x)
    return script.returned(script.name(f"{pi_half} - {arcsine}"), x, return_tqx)


def atan(script, x, n_terms=30, return_tqx=False):
    script.cuda_test(x)
    d = script.method(x, "double")
    pi_half = script.scalar(PI / 2, d, before=["torch.pi"])
    magnitude = script.method(d, "abs")
    large_x = script.name(f"{magnitude} > 1")
    script.note("torch.where")
    inverted = script.name(f"1.0 / {d}")
    x_adj = script.name(f"torch.where({large_x}, {inverted}, {d})")
    result = script.method(x_adj, "clone")
    error = script.torch("zeros_like", d)
    term = script.method(x_adj, "clone")
    neg_x_squared = script.name(f"-{script.product(x_adj, x_adj)}")
    for n in range(1, n_terms):
        term_x2 = script.product(term, neg_x_squared)
        divisor = script.scalar(2 * n + 1, d)
        term = script.name(f"{term_x2} / {divisor}")
        result, error = script.add_term(result, error, term)
    final = script.name(f"{result} + {error}")
    script.note("torch.where")
    positive = script.name(f"{d} > 0")
    chosen = script.name(f"{large_x} & {positive}")
    value = script.name(f"{pi_half} - {final}")
    final = script.name(f"torch.where({chosen}, {value}, {final})")
    script.note("torch.where")
    negative = script.name(f"{d} < 0")
    chosen = script.name(f"{large_x} & {negative}")
    minus_pi_half = script.name(f"-{pi_half}")
    value = script.name(f"{minus_pi_half} - {final}")
    final = script.name(f"torch.where({chosen}, {value}, {final})")
    return script.returned(final, d, return_tqx)


def _selection(script, conditions, make_value, previous):
    """torch.where with one condition, or with the conjunction of two."""
    script.note("torch.where")
    named = [script.name(condition) for condition in conditions]
    chosen = named[0] if len(named) == 1 else script.name(" & ".join(named))
    return script.name(f"torch.where({chosen}, {make_value()}, {previous})")


def atan2(script, y, x, return_tqx=False):
    script.cuda_test(y)
    script.cuda_test(x)
    y, x = script.method(y, "double"), script.method(x, "double")
    pi = script.scalar(PI, y, before=["torch.pi"])
    base = atan(script, script.name(f"{y} / {x}"))

    def zero():
        script.note("torch.tensor")
        script.note(f"{y}.device")
        return script.name(f"torch.tensor(0.0, device={y}.device)")

    def minus_half():
        negative = script.name(f"-{pi}")
        return script.name(f"{negative} / 2")

    result = _selection(script, [f"{x} > 0"], lambda: base, base)
    for conditions, make_value in [
        ((f"{x} < 0", f"{y} >= 0"), lambda: script.name(f"{base} + {pi}")),
        ((f"{x} < 0", f"{y} < 0"), lambda: script.name(f"{base} - {pi}")),
        ((f"{x} == 0", f"{y} > 0"), lambda: script.name(f"{pi} / 2")),
        ((f"{x} == 0", f"{y} < 0"), minus_half),
        ((f"{x} == 0", f"{y} == 0"), zero),
    ]:
        result = _selection(script, conditions, make_value, result)
    return script.returned(result, y, return_tqx)


def sinh(script, x, n_terms=20, return_tqx=False):
    script.cuda_test(x)
    d = script.method(x, "double")
    result = script.method(d, "clone")
    error = script.torch("zeros_like", d)
    term = script.method(d, "clone")
    x_squared = script.product(d, d)
    for n in range(1, n_terms):
        divisor = script.scalar(2 * n * (2 * n + 1), d)
        term_x2 = script.product(term, x_squared)
        term = script.name(f"{term_x2} / {divisor}")
        result, error = script.add_term(result, error, term)
    return script.returned(script.name(f"{result} + {error}"), d, return_tqx)


def cosh(script, x, n_terms=20, return_tqx=False):
    script.cuda_test(x)
    d = script.method(x, "double")
    result = script.torch("ones_like", d)
    error = script.torch("zeros_like", d)
    x_squared = script.product(d, d)
    term = script.name(f"{x_squared} / 2.0")
    for n in range(1, n_terms):
        result, error = script.add_term(result, error, term)
        divisor = script.scalar((2 * n + 1) * (2 * n + 2), d)
        term_x2 = script.product(term, x_squared)
        term = script.name(f"{term_x2} / {divisor}")
    return script.returned(script.name(f"{result} + {error}"), d, return_tqx)


SCRIPTS = {
    "tqx_sin": sin,
    "tqx_cos": cos,
    "tqx_tan": tan,
    "tqx_asin": asin,
    "tqx_acos": acos,
    "tqx_atan": atan,
    "tqx_atan2": atan2,
    "tqx_sinh": sinh,
    "tqx_cosh": cosh,
}
WITH_TERMS = ("tqx_sin", "tqx_cos", "tqx_asin", "tqx_atan", "tqx_sinh", "tqx_cosh")
