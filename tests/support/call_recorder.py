# SPDX-License-Identifier: Apache-2.0
"""Spy objects that write down, in order, everything that is done with them.

A test gives the whole expected sequence as a script, one event a line:

    x.is_cuda                       an attribute was read
    bool(x.is_cuda)                 a truth test was made
    y = x.double()                  a call; its result is called `y` from here on
    s = result + limb               an operator
    out[0]                          an index

A left-hand side names the result of an event, and later lines use that name. Where the script
names nothing, a result is called by the expression that made it. A result is another spy,
unless `returns` holds a value under its name; `raises` holds exceptions in the same way.
Attribute reads are events of their own: in `f.g(a.b)` the order is `f.g`, `a.b`, then the call.
Names that begin with two underscores are not recorded: the interpreter reads them for itself.
"""

import re

# Scripts of what most functions with a kernel do: the operand as a flat array, the wait.
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

_ASSIGNMENT = re.compile(r"(?P<name>\w+) = (?P<event>.+)")

_BINARY = {
    "add": "+",
    "sub": "-",
    "mul": "*",
    "truediv": "/",
    "floordiv": "//",
    "mod": "%",
    "pow": "**",
    "rshift": ">>",
    "lshift": "<<",
    "and": "&",
    "or": "|",
    "xor": "^",
    "matmul": "@",
}
_COMPARISON = {"eq": "==", "ne": "!=", "lt": "<", "le": "<=", "gt": ">", "ge": ">="}
_UNARY = {"neg": "-", "pos": "+", "invert": "~"}


class Recorder:
    """One sequence of events: the script to follow and the list of what happened."""

    def __init__(self, script="", returns=None, raises=None):
        self.expected = [line.strip() for line in script.splitlines() if line.strip()]
        self.returns = dict(returns or {})
        self.raises = dict(raises or {})
        self.events = []

    def spy(self, name):
        return Spy(self, name)

    def note(self, event, label=None):
        """Write one event down and return the name of its result."""
        label = label or event
        line = event
        if len(self.events) < len(self.expected):
            expected = self.expected[len(self.events)]
            assignment = _ASSIGNMENT.fullmatch(expected)
            if assignment and assignment["event"] == event:
                label, line = assignment["name"], expected
        self.events.append(line)
        if label in self.raises:
            raise self.raises[label]
        return label

    def result(self, event, label=None):
        """Write one event down and return its result: the value given for it, or a new spy."""
        label = self.note(event, label)
        return self.returns[label] if label in self.returns else Spy(self, label)

    def conversion(self, event, default):
        """Write down an event whose result must be of a built-in type."""
        return self.returns.get(self.note(event), default)

    def check(self):
        assert self.events == self.expected


class Spy:
    """An object that supports everything and records it."""

    def __init__(self, recorder, label):
        object.__setattr__(self, "_state", (recorder, label))

    def __getattribute__(self, name):
        if name.startswith("__"):
            return object.__getattribute__(self, name)
        recorder, label = state(self)
        return recorder.result(f"{label}.{name}")

    def __setattr__(self, name, value):
        recorder, label = state(self)
        recorder.note(f"{label}.{name} := {text(value)}")

    def __call__(self, *args, **kwargs):
        recorder, label = state(self)
        arguments = [text(a) for a in args] + [f"{k}={text(v)}" for k, v in kwargs.items()]
        return recorder.result(f"{label}({', '.join(arguments)})")

    def __getitem__(self, index):
        recorder, label = state(self)
        return recorder.result(f"{label}[{_index_text(index)}]")

    def __setitem__(self, index, value):
        recorder, label = state(self)
        recorder.note(f"{label}[{_index_text(index)}] := {text(value)}")

    def __iter__(self):
        recorder, label = state(self)
        return iter(recorder.conversion(f"iter({label})", ()))

    def __bool__(self):
        recorder, label = state(self)
        return recorder.conversion(f"bool({label})", True)

    def __len__(self):
        recorder, label = state(self)
        return recorder.conversion(f"len({label})", 0)

    def __int__(self):
        recorder, label = state(self)
        return recorder.conversion(f"int({label})", 0)

    def __float__(self):
        recorder, label = state(self)
        return recorder.conversion(f"float({label})", 0.0)

    def __str__(self):
        recorder, label = state(self)
        return recorder.conversion(f"str({label})", label)

    def __format__(self, form):
        recorder, label = state(self)
        return recorder.conversion(f"format({label}, {form!r})", label)

    def __repr__(self):
        return f"<{state(self)[1]}>"

    __hash__ = None


def state(spy):
    """The recorder and the name of a spy, read without being recorded."""
    return object.__getattribute__(spy, "_state")


def text(value):
    """An argument as an expected line shows it."""
    if isinstance(value, Spy):
        return state(value)[1]
    if type(value) is tuple:
        return f"({', '.join(map(text, value))}{',' if len(value) == 1 else ''})"
    if type(value) is list:
        return f"[{', '.join(map(text, value))}]"
    return repr(value)


def _index_text(index):
    if type(index) is not slice:
        return text(index)
    ends = ["" if part is None else text(part) for part in (index.start, index.stop)]
    return ":".join(ends) + ("" if index.step is None else f":{text(index.step)}")


def _define(name, event_of):
    def operator(self, *others):
        recorder, label = state(self)
        event = event_of(label, *map(text, others))
        return recorder.result(event, f"({event})")

    setattr(Spy, f"__{name}__", operator)


for _name, _sign in _BINARY.items():
    _define(_name, lambda left, right, sign=_sign: f"{left} {sign} {right}")
    _define(f"r{_name}", lambda right, left, sign=_sign: f"{left} {sign} {right}")
    # In place is another event than the operator: no operand may be changed.
    _define(f"i{_name}", lambda left, right, sign=_sign: f"{left} {sign}= {right}")
for _name, _sign in _COMPARISON.items():
    _define(_name, lambda left, right, sign=_sign: f"{left} {sign} {right}")
for _name, _sign in _UNARY.items():
    _define(_name, lambda operand, sign=_sign: f"{sign}{operand}")
