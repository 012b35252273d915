# SPDX-License-Identifier: Apache-2.0
"""Routes through every function: what it is called with, and what its spies answer on the way.

Every tensor and library is a spy. Where the answer must be of a built-in type - a shape, a count, a
truth - rules give it. The module and its reference implementation take the same routes, so the
calls that they make can be compared, and a fault can be put at any of them.

Plain routes differ in flags, operands that are limb results, shapes and truths, all with all. Then
counts, numbers, and names of the module that are spies too, are changed one at a time. What only
certain answers reach is added by `special_routes.py`.
"""

import functools
import itertools
import re
from dataclasses import dataclass, field

import special_routes
from call_recorder import Recorder, Spy
from public_signatures import FUNCTIONS, INTERNALS
from special_routes import SPY, Count, Named

SHAPES = [(4,), (4, 4), (2, 4, 4), (2, 4, 4, 4), (3,)]
TRUTHS = ["all", "cuda", "none"]
_TENSORS = {"x", "y", "a", "b", "A", "B", "pred", "target", "weight", "bias", "condition", "value"}
_LIMB_LISTS = {"limbs", "x_limbs", "y_limbs", "terms"}
# Fixed values by name of the parameter; what is not here keeps its default.
_VALUES = {
    "device": "cuda:3",
    "dim": 0,
    "i": 1,
    "j": 2,
    "batch": 1,
    "expected": "text",
    "index": (1,),
    "exponent": 0.5,
    "min_val": -1.0,
    "max_val": 1.0,
    "f": 0.75,
    "n_terms": 3,
    "max_iter": 2,
    "padding": 1,
    "checksum": "text",
}
_EQUATIONS = ["i,i->", "ij,jk->ik", "mk,kn->mn", "bij,bjk->bik", "ij,kj->ik"]
# Grids are worked out in integers without bound, and the count goes on as the object it is.
_COUNTS = [0, 1, 255, 256, 257, Count(300), 2**31 + 1, 10**40]
_LOOPS_OVER_THE_COUNT = {"tqx_cumsum_exact"}
_NUMBERS = {"int": [0, 1, -1, 2.7, True], "float": [2, True, -0.0]}
_NUMBERS["Optional[int]"] = [*_NUMBERS["int"], None]

LIBRARIES = {"torch": "torch", "cp": "cp", "_NATIVE_LOADER": "loader"}
_MODULES_OF_PYTHON = ("Decimal", "struct", "hashlib")
_METHODS = ("collapse", "item", "to_decimal", "_fp64_to_decimal")
_OWN_NAMES = (
    *(row.path for row in [*FUNCTIONS, *INTERNALS]),
    *(f"TQXResult.{name}" for name in _METHODS),
)


class RouteRecorder(Recorder):
    """A recorder that answers as its route says, and raises `error` at event number `fail_at`."""

    def __init__(self, route, fail_at=None, error=None):
        super().__init__()
        self.route = route
        self.fail_at = fail_at
        self.error = error
        self.operand_of = {}  # the operand that a widened one came from, by its name
        self.items = iter(route.items)
        self.truths = iter(() if isinstance(route.truth, str) else route.truth)

    def note(self, event, label=None):
        self.events.append(event)
        if len(self.events) - 1 == self.fail_at:
            raise self.error
        return label or event

    def result(self, event, label=None):
        self.note(event)
        for ending, answer in self.route.answers.items():
            if event == ending or (ending[0] in ".[" and event.endswith(ending)):
                return self._given(answer)
        owner, _, asked = event.rpartition(".")
        if asked in ("shape", "ndim", "dim()"):
            shape = self._shape_of(owner)
            return shape if asked == "shape" else len(shape)
        if asked == "numel()":
            return self.route.count
        if asked == "item()":
            return next(self.items, 2.0)
        if asked == "is_complex()":
            return False
        if event.startswith("torch.broadcast_shapes("):
            return self.route.shape[:-2]
        if asked == "is_cuda":
            return Spy(self, f"{self._number()} is_cuda")
        # Names of results would grow without end: only paths of attributes stand for themselves.
        name = event if _is_path(event) else self._number()
        if asked in ("double()", "contiguous()"):
            self.operand_of[name] = self.operand_of.get(owner, owner)
        return Spy(self, name)

    def _given(self, answer):
        if isinstance(answer, Exception):
            raise answer
        return Spy(self, self._number()) if answer is SPY else answer

    def _shape_of(self, owner):
        return self.route.shapes.get(self.operand_of.get(owner, owner), self.route.shape)

    def _number(self):
        return f"#{len(self.events)}"

    def conversion(self, event, default):
        self.note(event)
        if event.startswith("bool("):
            if isinstance(self.route.truth, str):
                on_cuda = self.route.truth == "cuda" and event.endswith("is_cuda)")
                return self.route.truth == "all" or on_cuda
            return event.endswith("is_cuda)") or next(self.truths, False)
        if event.startswith("iter("):
            return [Spy(self, f"{self._number()}_{place}") for place in range(2)]
        return default


def _is_path(event):
    return re.fullmatch(r"#?\w+(\.\w+)*", event)


@dataclass(frozen=True)
class Route:
    """One way to call one function."""

    row: object
    shape: tuple = (4,)
    truth: object = "all"  # what is true of spies: "all", that they are on "cuda", "none"; or, of
    # all but is_cuda, these in turn and then nothing
    limbs: tuple = ()  # the operands that are limb results
    options: dict = field(default_factory=dict, hash=False)
    rest: tuple = ()
    count: object = 16
    items: tuple = ()  # what is read out of tensors, in turn, and then 2.0
    shapes: dict = field(default_factory=dict, hash=False)  # of single operands
    answers: dict = field(default_factory=dict, hash=False)  # by event, or ".end" of an event
    replaced: tuple = ()  # names of the module that are spies too
    attributes: dict = field(default_factory=dict, hash=False)  # of the receiver

    def __str__(self):
        usual = Route(self.row)
        unlike = [
            f"{name}={value!r}"
            for name, value in vars(self).items()
            if name != "row" and value != getattr(usual, name)
        ]
        return f"{self.row.path}: {', '.join(unlike)}"

    def arguments(self, runtime, recorder):
        values = []
        for place, name in enumerate(self.row.parameters):
            if name == "self":
                values.append(self._receiver(runtime, recorder))
            elif name in self.options:
                values.append(_made(self.options[name], recorder))
            elif name in _LIMB_LISTS and self._is_list(name):
                values.append([recorder.spy(f"{name}{i}") for i in range(2)])
            elif name in _TENSORS:
                operand = recorder.spy(name)
                if name in self.limbs:
                    operand = _limb_result(runtime, [operand, recorder.spy(f"{name}_low")])
                values.append(operand)
            elif name in _VALUES:
                values.append(_VALUES[name])
            else:
                default = place - self.row.required
                values.append(self.row.defaults[default] if default >= 0 else 1)
        keywords = {k: v for k, v in self.options.items() if k in dict(self.row.keyword_only)}
        return [*values, *_made(list(self.rest), recorder)], keywords

    def _is_list(self, name):
        return name != "terms" or self.row.annotations.get("terms") == "List[torch.Tensor]"

    def _receiver(self, runtime, recorder):
        if self.row.path.endswith("__init__"):
            return object.__new__(getattr(runtime, self.row.path.partition(".")[0]))
        if self.row.path.startswith("TQXResult"):
            receiver = _limb_result(runtime, [recorder.spy("limb0"), recorder.spy("limb1")])
        else:
            receiver = object.__new__(runtime.TQXVerifiedResult)
            receiver.value, receiver._checksum = recorder.spy("value"), "text"
            receiver._device = "cpu"
        for name, value in self.attributes.items():
            setattr(receiver, name, _made(value, recorder))
        return receiver


def _made(value, recorder):
    """The value with spies in the places of the names of spies."""
    if isinstance(value, Named):
        return recorder.spy(value.name)
    return [_made(part, recorder) for part in value] if type(value) is list else value


def _limb_result(runtime, limbs):
    """Made without its constructor, which would ask the limbs for their shape."""
    result = object.__new__(runtime.TQXResult)
    result.limbs, result.device, result.n_limbs = limbs, "cuda:3", len(limbs)
    result.shape, result.dtype = (), None
    return result


def _options(row):
    """Every choice of the flags of a row, and of the texts that decide on a route."""
    flags = [n for n, text in row.annotations.items() if text == "bool" and n != "return"]
    choices = [[(name, value) for value in (False, True)] for name in flags]
    if "equation" in row.parameters:
        choices.append([("equation", text) for text in _EQUATIONS])
    if "reduction" in row.parameters:
        choices.append([("reduction", text) for text in ("mean", "sum")])
    for name, text in row.annotations.items():
        if text.startswith("Optional"):
            optional = {"bias": None, "n": 8, "dim": None, "index": None, "checksum": None}
            choices.append([(name, optional[name]), (None, None)])
    for picked in itertools.product(*choices):
        yield {name: value for name, value in picked if name}


def plain_routes(row):
    """Flags, operands that are limb results, shapes and truths, all with all."""
    for options in _options(row):
        for limbs in _subsets(_tensors(row)):
            for shape, truth in itertools.product(SHAPES, TRUTHS):
                yield Route(row, shape, truth, limbs, options, _rest(row))


def routes_of(row):
    """All routes of a function; some of them differ in nothing that it does."""
    yield from plain_routes(row)
    for options in _options(row):
        yield from _with_one_change(row, options, _rest(row), tuple(_tensors(row)))
    for changes in special_routes.of(row):
        yield Route(row, **({"rest": _rest(row)} | changes))


def _tensors(row):
    return [name for name in row.parameters if name in _TENSORS]


def _rest(row):
    return (Named("rest0"), Named("rest1")) if row.takes_rest else ()


def _subsets(names):
    return [s for size in range(len(names) + 1) for s in itertools.combinations(names, size)]


def _with_one_change(row, options, rest, tensors):
    """Counts, numbers, spied names and missing functions of torch, one at a time."""
    for count in [] if row.path in _LOOPS_OVER_THE_COUNT else _COUNTS:
        yield Route(row, options=options, rest=rest, count=count)
    for name, text in row.annotations.items():
        for number in _NUMBERS.get(text, []) if name in row.parameters else []:
            yield Route(row, (4, 4), "cuda", options=options | {name: number}, rest=rest)
    own = tuple(name for name in _OWN_NAMES if name != row.path)
    for replaced, limbs, truth in itertools.product(
        (own, _MODULES_OF_PYTHON), {(), tensors}, TRUTHS
    ):
        for shape in SHAPES:
            yield Route(row, shape, truth, limbs, options, rest, replaced=replaced)
    for answers in ({"torch.fma": AttributeError("fma")}, {"torch.pi": 3.140625}):
        yield Route(row, options=options, rest=rest, answers=answers)
        yield Route(row, truth="cuda", options=options, rest=rest, answers=answers)


def record(route, runtime, fail_at=None, error=None):
    """Call the function of the route with spies for its libraries.

    Returns the recorder, the result or None, and the exception or None.
    """
    recorder = RouteRecorder(route, fail_at, error)
    for name, label in LIBRARIES.items():
        setattr(runtime, name, recorder.spy(label))
    args, kwargs = route.arguments(runtime, recorder)
    with _replaced(runtime, route.replaced, recorder):
        try:
            return recorder, route.row.call(runtime, *args, **kwargs), None
        except BaseException as raised:
            return recorder, None, raised


class _replaced:
    """Names of a runtime, and methods of its classes, are spies until the block ends."""

    def __init__(self, runtime, names, recorder):
        self.spied = [(_owner(runtime, name), name.rpartition(".")[2], name) for name in names]
        self.recorder = recorder

    def __enter__(self):
        self.before = [vars(owner)[name] for owner, name, _ in self.spied]
        for owner, name, label in self.spied:
            setattr(owner, name, self.recorder.spy(label))

    def __exit__(self, *failure):
        for (owner, name, _), before in zip(self.spied, self.before, strict=True):
            setattr(owner, name, before)


def _owner(runtime, path):
    return getattr(runtime, path.partition(".")[0]) if "." in path else runtime


class restored:
    """The libraries of runtimes are as they were when the block ends."""

    def __init__(self, *runtimes):
        self.runtimes = runtimes

    def __enter__(self):
        self.before = [{name: vars(r)[name] for name in LIBRARIES} for r in self.runtimes]

    def __exit__(self, *failure):
        for runtime, before in zip(self.runtimes, self.before, strict=True):
            vars(runtime).update(before)


@functools.cache
def distinct_routes(row, runtime):
    """The first of the plain routes that take the same steps, on whatever numbers and shapes."""
    found = {}
    with restored(runtime):
        for route in plain_routes(row):
            events = record(route, runtime)[0].events
            found.setdefault(tuple(map(without_numbers, events)), route)
    return list(found.values())


@functools.cache
def without_numbers(event):
    return re.sub(r"\d+", "", event)
