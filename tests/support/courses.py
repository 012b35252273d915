# SPDX-License-Identifier: Apache-2.0
"""Courses of spied calls for every function: what to call with which spies, and what spies answer.

A course is a row of the table of signatures with arguments chosen for it. Every tensor is a spy;
whatever a spy is asked whose answer must be of a built-in type, rules answer: a shape, a count, a
truth. The module and its rendering in plain Python walk the same course, so their events can be
compared, and a fault can be put at any event of it.
"""

import itertools
import re
from dataclasses import dataclass, field

from call_recorder import Recorder, Spy

SHAPES = [(4,), (4, 4), (2, 4, 4), (2, 4, 4, 4), (3,)]
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


class RuledRecorder(Recorder):
    """A recorder that answers by rules, and raises `error` at event number `fail_at`."""

    def __init__(self, course, fail_at=None, error=None):
        super().__init__()
        self.course = course
        self.fail_at = fail_at
        self.error = error

    def note(self, event, label=None):
        self.events.append(event)
        if len(self.events) - 1 == self.fail_at:
            raise self.error
        return label or event

    def result(self, event, label=None):
        self.note(event)
        if event.endswith(".shape"):
            return self.course.shape
        if event.endswith((".ndim", ".dim()")):
            return len(self.course.shape)
        if event.endswith(".numel()"):
            return 16
        if event.endswith(".item()"):
            return 2.0
        if event.endswith("is_complex()"):
            return False
        if event.startswith("torch.broadcast_shapes("):
            return self.course.shape[:-2]
        if event.endswith(".is_cuda"):
            return Spy(self, f"{self._number()} is_cuda")
        # Names of results would grow without end: only paths of attributes stand for themselves.
        return Spy(self, event if _is_path(event) else self._number())

    def _number(self):
        return f"#{len(self.events)}"

    def conversion(self, event, default):
        self.note(event)
        if event.startswith("bool("):
            return self.course.truth == "all" or (
                self.course.truth == "cuda" and event.endswith("is_cuda)")
            )
        if event.startswith("iter("):
            return [Spy(self, f"{self._number()}_{place}") for place in range(2)]
        return default


def _is_path(event):
    return event.replace(".", "_").isidentifier()


@dataclass(frozen=True)
class Course:
    """One way to call one function."""

    row: object
    shape: tuple = (4,)
    truth: str = "all"  # what is true of spies: "all", that they are on "cuda", or "none"
    limbs: int = 0  # how many of the tensor operands are limb results, from the first on
    options: dict = field(default_factory=dict, hash=False)
    rest: tuple = ()

    def __str__(self):
        given = f"{self.limbs} limb results, shape {self.shape}, truths: {self.truth}"
        return f"{self.row.path} {self.options} of {given}"

    def arguments(self, runtime, recorder):
        limb_results = self.limbs
        values = []
        for place, name in enumerate(self.row.parameters):
            if name == "self":
                values.append(self._receiver(runtime, recorder))
            elif name in self.options:
                values.append(self.options[name])
            elif name in _LIMB_LISTS and self._is_list(name):
                values.append([recorder.spy(f"{name}{i}") for i in range(2)])
            elif name in _TENSORS:
                operand = recorder.spy(name)
                if limb_results > 0:
                    limb_results -= 1
                    operand = _limb_result(runtime, [operand, recorder.spy(f"{name}_low")])
                values.append(operand)
            elif name in _VALUES:
                values.append(_VALUES[name])
            else:
                default = place - self.row.required
                values.append(self.row.defaults[default] if default >= 0 else 1)
        rest = [recorder.spy(name) for name in self.rest]
        keywords = {k: v for k, v in self.options.items() if k in dict(self.row.keyword_only)}
        return [*values, *rest], keywords

    def _is_list(self, name):
        return name != "terms" or self.row.annotations.get("terms") == "List[torch.Tensor]"

    def _receiver(self, runtime, recorder):
        if self.row.path.endswith("__init__"):
            return object.__new__(getattr(runtime, self.row.path.partition(".")[0]))
        if self.row.path.startswith("TQXResult"):
            return _limb_result(runtime, [recorder.spy("limb0"), recorder.spy("limb1")])
        verified = object.__new__(runtime.TQXVerifiedResult)
        verified.value, verified._checksum, verified._device = recorder.spy("value"), "text", "cpu"
        return verified


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


def _courses_of(row):
    tensors = [name for name in row.parameters if name in _TENSORS]
    rest = ("rest0", "rest1") if row.takes_rest else ()
    for options in _options(row):
        for limbs in range(len(tensors) + 1):
            for shape, truth in itertools.product(SHAPES, ("all", "cuda", "none")):
                yield Course(row, shape, truth, limbs, options, rest)


def walk(course, runtime, fail_at=None, error=None):
    """Call the function of the course with spies for its libraries.

    Returns the recorder, the result or None, and the exception or None.
    """
    recorder = RuledRecorder(course, fail_at, error)
    for name, label in GLOBALS.items():
        setattr(runtime, name, recorder.spy(label))
    args, kwargs = course.arguments(runtime, recorder)
    try:
        return recorder, course.row.call(runtime, *args, **kwargs), None
    except BaseException as raised:
        return recorder, None, raised


GLOBALS = {"torch": "torch", "cp": "cp", "_NATIVE_LOADER": "loader"}


class restored:
    """The globals of runtimes are as they were when the block ends."""

    def __init__(self, *runtimes):
        self.runtimes = runtimes

    def __enter__(self):
        self.before = [{name: vars(r)[name] for name in GLOBALS} for r in self.runtimes]

    def __exit__(self, *failure):
        for runtime, before in zip(self.runtimes, self.before, strict=True):
            vars(runtime).update(before)


def distinct_courses(row, runtime, key=tuple):
    """The courses of a row whose events differ, by that key, from those of the courses before."""
    found = {}
    with restored(runtime):
        for course in _courses_of(row):
            recorder, _, _ = walk(course, runtime)
            found.setdefault(key(recorder.events), course)
    return list(found.values())


def without_numbers(events):
    """A key by which courses of the same steps on other shapes are one."""
    return tuple(re.sub(r"\d+", "", event) for event in events)
