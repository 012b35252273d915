# SPDX-License-Identifier: Apache-2.0
"""The mutants of a C++ source: one small change each, made from its tokens.

Comparisons move by one or turn round; operators change for their opposites; constants move by one
in their last place, and binary exponents also far; terms, factors, calls and assignments are left
out; conditions always hold or never do.
"""

import random
from collections.abc import Iterable, Iterator
from dataclasses import dataclass

from korvex_tools.mutation.tokens import (
    Token,
    closing,
    left_operand,
    right_operand,
    tokens_of,
)

BINARY = {
    "<": "<=", ">": ">=", "<=": "<", ">=": ">", "==": "!=", "!=": "==",
    "+": "-", "-": "+", "*": "+", "/": "*", "%": "/",
    "&": "|", "|": "&", "^": "|", "<<": ">>", ">>": "<<", "&&": "||", "||": "&&",
    "+=": "-=", "-=": "+=", "*=": "+=", "|=": "=", "&=": "=", "^=": "|=",
    "<<=": ">>=", ">>=": "<<=",
}  # fmt: skip
WORDS = {
    "add_rn": "sub_rn", "sub_rn": "add_rn", "mul_rn": "add_rn", "div_rn": "mul_rn",
    "true": "false", "false": "true", "two_sum": "fast_two_sum",
}  # fmt: skip
SUMS = {"+", "-", "|", "^", "&", "&&", "||"}
BEFORE_UNARY = {
    "(",
    "[",
    "{",
    ",",
    "return",
    "?",
    ":",
    "=",
    "+",
    "-",
    "*",
    "/",
    "&&",
    "||",
    "<",
    ">",
}
NO_STATEMENTS = set("return using if for while else case default break namespace".split())
AFTER_OBJECT = set("( . -> [ = += -= *= |= &= ^= <<= >>= ++ --".split())


@dataclass(frozen=True)
class Mutant:
    file: str
    line: int
    column: int
    kind: str
    before: str  # the text that is replaced
    after: str
    line_before: str  # the source line, for a reader
    begin: int

    @property
    def name(self) -> str:
        return f"{self.file}:{self.line}:{self.column} {self.kind} {self.before!r} {self.after!r}"

    def applied_to(self, source: str) -> str:
        end = self.begin + len(self.before)
        assert source[self.begin : end] == self.before
        return source[: self.begin] + self.after + source[end:]


Change = tuple[str, int, int, str]  # kind, begin, end, what stands there then


def mutants_of(file: str, source: str) -> list[Mutant]:
    tokens = tokens_of(source)
    found: dict[str, Mutant] = {}
    for kind, begin, end, after in changes(tokens, source):
        line = source.count("\n", 0, begin) + 1
        first = source.rfind("\n", 0, begin) + 1
        text = source[first:].partition("\n")[0].strip()
        mutant = Mutant(file, line, begin - first + 1, kind, source[begin:end], after, text, begin)
        found.setdefault(mutant.applied_to(source), mutant)
    found.pop(source, None)
    return list(found.values())


def changes(tokens: list[Token], source: str) -> Iterator[Change]:
    for place, token in enumerate(tokens):
        if token.kind == "number":
            for after in other_numbers(token.text):
                yield "constant", token.begin, token.end, after
        elif token.kind == "word":
            yield from changes_of_word(tokens, place, source)
        else:
            yield from changes_of_operator(tokens, place)
    yield from dropped_statements(tokens)


def changes_of_word(tokens: list[Token], place: int, source: str) -> Iterator[Change]:
    token = tokens[place]
    follows = tokens[place + 1].text if place + 1 < len(tokens) else ""
    if token.text in ("true", "false"):
        yield "constant", token.begin, token.end, WORDS[token.text]
    elif token.text in WORDS and follows == "(":
        yield "operation", token.begin, token.end, WORDS[token.text]
        if token.text in ("add_rn", "sub_rn"):
            last = closing(tokens, place + 1)
            comma = top_level_comma(tokens, place + 1, last)
            if comma is not None:
                kept = source[tokens[place + 2].begin : tokens[comma].begin]
                yield "dropped term", token.begin, tokens[last].end, f"({kept})"
    elif token.text in ("if", "while") and follows == "(":
        begin, end = tokens[place + 1].end, tokens[closing(tokens, place + 1)].begin
        for after in ("true", "false") if token.text == "if" else ("false",):
            yield "condition", begin, end, after


def top_level_comma(tokens: list[Token], opening: int, last: int) -> int | None:
    at = opening + 1
    while at < last:
        if tokens[at].text == ",":
            return at
        at = closing(tokens, at) + 1 if tokens[at].text in "([{" else at + 1
    return None


def changes_of_operator(tokens: list[Token], place: int) -> Iterator[Change]:
    token = tokens[place]
    is_unary = place > 0 and tokens[place - 1].text in BEFORE_UNARY
    if token.text in BINARY and token.is_spaced:
        kind = "comparison" if token.text in ("<", ">", "<=", ">=", "==", "!=") else "operator"
        yield kind, token.begin, token.end, BINARY[token.text]
    if token.is_binary and token.text in SUMS and not is_unary:
        last = tokens[right_operand(tokens, place)]
        yield "dropped term", token.begin, last.end, ""
        first = tokens[left_operand(tokens, place)]
        yield "dropped term", first.begin, token.end, ""
    if token.text in ("!", "~") or (token.text == "-" and is_unary and not token.is_spaced):
        yield "operator", token.begin, token.end, ""
    if token.text in ("++", "--"):
        yield "operator", token.begin, token.end, {"++": "--", "--": "++"}[token.text]


def other_numbers(text: str) -> list[str]:
    """The constant moved by one in its last place, and its binary exponent a little and far."""
    if "p" in text:
        digits, _, exponent = text.partition("p")
        moved = [f"{digits}p{int(exponent) + step:+d}" for step in (1, -1, 40, -40)]
        last = int(digits[-1], 16)
        return [*moved, f"{digits[:-1]}{last ^ 1:x}p{exponent}"] if "." in digits else moved
    if text.startswith("0x"):
        return [f"0x{int(text.replace(chr(39), ''), 16) ^ 1:x}"]
    if "." in text or "e" in text:
        return [repr(float(text) + 1), repr(float(text) / 2)]
    value = int(text.replace("'", ""))
    return [str(value + 1)] + ([str(value - 1)] if value > 0 else [])


def dropped_statements(tokens: list[Token]) -> Iterator[Change]:
    """Calls and assignments that stand by themselves; declarations stay."""
    begin, depth = 0, 0
    for place, token in enumerate(tokens):
        if token.text in ("(", "["):
            depth += 1
        elif token.text in (")", "]"):
            depth -= 1
        elif token.text in (";", "{", "}") and depth == 0:
            if token.text == ";" and is_action(tokens[begin:place]):
                yield "dropped statement", tokens[begin].begin, token.begin, ""
            begin = place + 1


def is_action(statement: list[Token]) -> bool:
    if len(statement) < 2 or statement[0].text in NO_STATEMENTS:
        return False
    if statement[0].text in ("++", "--"):
        return True
    return statement[0].kind == "word" and statement[1].text in AFTER_OBJECT


# --- A sample


def spread(mutants: Iterable[Mutant], seed: int, count: int | None) -> list[Mutant]:
    """In an order of chance that takes one of each file in turn; the first `count` of them."""
    files: dict[str, list[Mutant]] = {}
    for mutant in mutants:
        files.setdefault(mutant.file, []).append(mutant)
    for file, group in files.items():
        random.Random(f"{seed}/{file}").shuffle(group)
    longest = max(map(len, files.values()), default=0)
    turns = [
        group[turn] for turn in range(longest) for group in files.values() if turn < len(group)
    ]
    return turns[:count]
