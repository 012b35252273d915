# SPDX-License-Identifier: Apache-2.0
"""Ways through the machine code of a kernel: its blocks, its loops, and the ordinary way round one.

What slow cases need stands in functions of its own, which the compiler calls, or in loops inside
the loop. So the ordinary way round a loop is the one with the most double-precision instructions
that calls nothing and enters no other loop; of several such, the one with the fewest instructions.
"""

import re
from collections.abc import Callable, Iterable
from dataclasses import dataclass

from korvex_tools.machine_code import DOUBLE_OPERATION, Listing

_PREDICATE = re.compile(r"^@!?U?P\w+ ")
# A call of a place within the function never returns: so the compiler leaves some loops.
_BRANCH = re.compile(r"\bBRA\b.*`\(([.$\w]+)\)|\bCALL\b.*`\((\.[.$\w]+)\)")
# A branch that is not always taken although no predicate guards the instruction itself.
_CONDITIONAL_BRANCH = re.compile(r"\bBRA(?:\.\w+)* !?U?P\d|\bBRA\.DIV\b")
_END_OF_BLOCK = re.compile(r"\b(?:BRA|BRX|EXIT|RET|BPT)\b|\bCALL\b.*`\(\.")
_END_OF_WAY = re.compile(r"\b(?:BRX|EXIT|RET|BPT)\b")
_CALL = re.compile(r"^CALL\b.*`\(\$")  # always, and of a function

Key = Callable[[int, int], tuple[int, int]]  # of double-precision and of all instructions


def operation(text: str) -> str:
    """The first word of an instruction, without its predicate: LDG.E.128 of @P0 LDG.E.128 R4."""
    return _PREDICATE.sub("", text).split()[0]


@dataclass(frozen=True)
class Way:
    """Instructions that follow each other."""

    texts: tuple[str, ...]
    cycles: int  # that the scheduler waits after them

    @property
    def doubles(self) -> int:
        return sum(bool(DOUBLE_OPERATION.search(text)) for text in self.texts)

    def count(self, *names: str) -> int:
        """How many of these operations there are, whatever follows the name after a point."""
        return sum(operation(text).split(".")[0] in names for text in self.texts)


@dataclass(frozen=True)
class Loop:
    """A natural loop: its blocks, the first of which all rounds begin with."""

    function: str  # that it stands in; "" for the kernel itself
    header: int
    body: frozenset[int]
    ends: tuple[int, ...]  # the blocks from which the next round begins
    inner: frozenset[int]  # blocks of loops inside

    @property
    def is_innermost(self) -> bool:
        return not self.inner


class ControlFlow:
    """Of one kernel with all that it calls."""

    def __init__(self, listing: Listing) -> None:
        self._instructions = listing.instructions
        self._labels = listing.labels
        self._begins = self._find_begins()
        self._ends = [*self._begins[1:], len(self._instructions)]
        self._counts = [self._counts_of(block) for block in range(len(self._begins))]
        number = {begin: block for block, begin in enumerate(self._begins)}
        self._successors = [self._successors_of(block, number) for block in range(len(number))]
        self._functions = {
            number[place]: label
            for label, place in listing.labels.items()
            if label.startswith("$") and place in number
        }
        self._entries = [0, *(block for block in self._functions if block != 0)]
        self._order = self._reverse_postorder()
        self._place = {block: place for place, block in enumerate(self._order)}
        self._predecessors: list[list[int]] = [[] for _ in number]
        for block in self._order:
            for successor in self._successors[block]:
                self._predecessors[successor].append(block)
        self.loops = self._find_loops()

    def way_round(self, loop: Loop) -> Way | None:
        """The ordinary way; None where each calls a function or enters another loop."""
        blocks = self._best(
            loop.header,
            loop.ends,
            [block for block in self._order if block in loop.body - loop.inner],
            lambda doubles, instructions: (doubles, -instructions),
        )
        return blocks and self._way(blocks)

    def way_to(self, loop: Loop) -> Way | None:
        """The shortest way from the beginning of its function to the loop, without the loop."""
        entry = max(
            (entry for entry in self._entries if self._begins[entry] <= self._begins[loop.header]),
            key=lambda entry: self._begins[entry],
        )
        blocks = self._best(
            entry, (loop.header,), self._order, lambda doubles, instructions: (0, -instructions)
        )
        return blocks and self._way(blocks[:-1])

    # --- Blocks

    def _find_begins(self) -> list[int]:
        begins = {0, *self._labels.values()}
        for place, (text, _) in enumerate(self._instructions):
            if _END_OF_BLOCK.search(text):
                begins.add(place + 1)
        return sorted(begin for begin in begins if begin < len(self._instructions))

    def _successors_of(self, block: int, number: dict[int, int]) -> list[int]:
        end = self._ends[block]
        text = self._instructions[end - 1][0]
        is_conditional = bool(_PREDICATE.match(text) or _CONDITIONAL_BRANCH.search(text))
        found = []
        target = _BRANCH.search(text)
        label = target and (target.group(1) or target.group(2))
        if label and self._labels.get(label) in number:
            found.append(number[self._labels[label]])
        is_end = bool(target or _END_OF_WAY.search(text))
        if end in number and (is_conditional or not is_end):
            found.append(number[end])
        return found

    def _reverse_postorder(self) -> list[int]:
        """All blocks that can be reached, each after those that lead to it but by going round."""
        seen: set[int] = set()
        order: list[int] = []
        for entry in self._entries:
            waiting: list[tuple[int, Iterable[int]]] = []
            if entry not in seen:
                seen.add(entry)
                waiting.append((entry, iter(self._successors[entry])))
            while waiting:
                block, successors = waiting[-1]
                following = next((each for each in successors if each not in seen), None)
                if following is None:
                    order.append(block)
                    waiting.pop()
                else:
                    seen.add(following)
                    waiting.append((following, iter(self._successors[following])))
        return order[::-1]

    # --- Loops

    def _dominators(self) -> dict[int, int | None]:
        """The block through which all ways to a block pass last (Cooper, Harvey, Kennedy 2001)."""
        found: dict[int, int | None] = dict.fromkeys(self._entries)

        def common(a: int | None, b: int | None) -> int | None:
            while a != b:
                if a is None or b is None:
                    return None
                if self._place[a] > self._place[b]:
                    a = found[a]
                else:
                    b = found[b]
            return a

        is_changed = True
        while is_changed:
            is_changed = False
            for block in self._order:
                if block in self._entries:
                    continue
                known = [each for each in self._predecessors[block] if each in found]
                dominator: int | None = known[0]
                for each in known[1:]:
                    dominator = common(dominator, each)
                if block not in found or found[block] != dominator:
                    found[block] = dominator
                    is_changed = True
        return found

    def _find_loops(self) -> list[Loop]:
        dominators = self._dominators()

        def dominates(a: int, b: int | None) -> bool:
            while b is not None and b != a:
                b = dominators[b]
            return b == a

        ends: dict[int, list[int]] = {}
        for block in self._order:
            for successor in self._successors[block]:
                if dominates(successor, block):
                    ends.setdefault(successor, []).append(block)
        bodies = {header: self._body(header, blocks) for header, blocks in ends.items()}
        return [
            Loop(self._function_of(header), header, body, tuple(ends[header]), inner)
            for header, body in bodies.items()
            for inner in [
                frozenset().union(*(other for other in bodies.values() if other < body)),
            ]
        ]

    def _body(self, header: int, ends: list[int]) -> frozenset[int]:
        body, waiting = {header}, list(ends)
        while waiting:
            block = waiting.pop()
            if block not in body:
                body.add(block)
                waiting += self._predecessors[block]
        return frozenset(body)

    def _function_of(self, block: int) -> str:
        before = [each for each in self._functions if self._begins[each] <= self._begins[block]]
        return self._functions[max(before, key=lambda each: self._begins[each])] if before else ""

    # --- Ways

    def _calls(self, block: int) -> bool:
        return any(map(_CALL.search, self._texts(block)))

    def _texts(self, block: int) -> list[str]:
        return [text for text, _ in self._instructions[self._begins[block] : self._ends[block]]]

    def _way(self, blocks: tuple[int, ...]) -> Way:
        instructions = [
            each
            for block in blocks
            for each in self._instructions[self._begins[block] : self._ends[block]]
        ]
        texts, cycles = zip(*instructions, strict=True) if instructions else ((), ())
        return Way(texts, sum(cycles))

    def _best(
        self, start: int, targets: tuple[int, ...], blocks: list[int], key: Key
    ) -> tuple[int, ...] | None:
        """The way of the greatest key from start to a target through these blocks, forwards."""
        usable = {block for block in blocks if not self._calls(block)}
        best: dict[int, tuple[int, int, tuple[int, ...]]] = {}
        if start in usable:
            best[start] = (*self._counts[start], (start,))
        for block in blocks:
            if block not in best:
                continue
            doubles, instructions, way = best[block]
            for successor in self._successors[block]:
                if successor in usable and self._place[successor] > self._place[block]:
                    more = self._counts[successor]
                    found = (doubles + more[0], instructions + more[1], (*way, successor))
                    if successor not in best or key(*found[:2]) > key(*best[successor][:2]):
                        best[successor] = found
        reached = [best[target] for target in targets if target in best]
        return max(reached, key=lambda found: key(*found[:2]))[2] if reached else None

    def _counts_of(self, block: int) -> tuple[int, int]:
        texts = self._texts(block)
        return sum(bool(DOUBLE_OPERATION.search(text)) for text in texts), len(texts)
