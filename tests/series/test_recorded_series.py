# SPDX-License-Identifier: Apache-2.0
"""Every operation of the sine of one term, in order, and what another term costs.

All other functions, and any number of terms, are compared with the reference implementation, in
tests/runtime.
"""

import call_routes
import pytest
from public_signatures import SERIES


def test_sine_of_one_term(runtime, recorded):
    recorder = recorded(
        """
        x.is_cuda
        bool(x.is_cuda)
        x.double
        d = x.double()
        torch.remainder
        torch.pi
        two_pi = 2 * torch.pi
        rem = torch.remainder(d, two_pi)
        torch.where
        torch.pi
        above = rem > torch.pi
        torch.pi
        two_pi_again = 2 * torch.pi
        wrapped = rem - two_pi_again
        red = torch.where(above, wrapped, rem)
        torch.zeros_like
        result = torch.zeros_like(d)
        torch.zeros_like
        error = torch.zeros_like(d)
        red.clone
        term = red.clone()
        torch.tensor
        torch.float64
        d.device
        factorial = torch.tensor(1.0, dtype=torch.float64, device=d.device)
        x_squared = red * red
        torch.fma
        torch.fma
        minus = -x_squared
        unread = torch.fma(red, red, minus)
        s = result + term
        v = s - result
        sv = s - v
        left = result - sv
        right = term - v
        e = left + right
        error1 = error + e
        torch.tensor
        torch.float64
        d.device
        divisor = torch.tensor(6, dtype=torch.float64, device=d.device)
        term_x2 = term * x_squared
        torch.fma
        torch.fma
        minus1 = -term_x2
        unread1 = torch.fma(term, x_squared, minus1)
        negative = -term_x2
        term1 = negative / divisor
        final = s + error1
        """
    )
    assert repr(runtime.tqx_sin(recorder.spy("x"), 1)) == "<final>"
    recorder.check()


@pytest.mark.parametrize("fma, expected", [(True, 13), (False, 29)])
def test_cost_of_a_term_of_the_sine(module, fma, expected):
    """Operations of torch, as the documents state them: calls and operators, no reads."""
    sine = next(row for row in SERIES if row.path == "tqx_sin")

    def operations(n_terms):
        answers = {} if fma else {"torch.fma": AttributeError("fma")}
        route = call_routes.Route(sine, options={"n_terms": n_terms}, answers=answers)
        with call_routes.restored(module):
            events = call_routes.record(route, module)[0].events
        return sum("(" in event or " " in event or event[0] == "-" for event in events)

    assert operations(5) - operations(4) == expected
