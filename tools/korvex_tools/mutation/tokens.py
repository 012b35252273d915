# SPDX-License-Identifier: Apache-2.0
"""C++ source as tokens with their places: what comments, strings and directives hold is left out.

It relies on clang-format: a binary operator has a blank or a line end on both sides, a bracket of a
template, a pointer or a reference has not.
"""

import re
from dataclasses import dataclass

_TOKEN = re.compile(
    r"""
    (?P<skip>//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\])*"|'(?:\\.|[^'\\])'|^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*)
    |(?P<number>0x[0-9a-fA-F.']*p[+-]?\d+|0x[0-9a-fA-F']+|\d[\d']*(?:\.\d*)?(?:e[+-]?\d+)?)[uUlL]*
    |(?P<word>[A-Za-z_]\w*)
    |(?P<operator><<=|>>=|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|::|\.\.\.
       |[-+*/%&|^~!<>=?:;,.(){}\[\]])
    """,
    re.VERBOSE | re.MULTILINE | re.DOTALL,
)
_OPENING = {"(": ")", "[": "]", "{": "}"}
_PRECEDENCE = [("*", "/", "%"), ("+", "-"), ("<<", ">>"), ("<", ">", "<=", ">="), ("==", "!=")]
_PRECEDENCE += [("&",), ("^",), ("|",), ("&&",), ("||",)]
_RANK = {sign: rank for rank, signs in enumerate(_PRECEDENCE) for sign in signs}
_ENDS = {";", ",", "?", ":", "return", "=", "+=", "-=", "|=", "^=", "&=", "<<=", ">>=", "*="}


@dataclass(frozen=True)
class Token:
    kind: str  # number, word or operator
    text: str
    begin: int
    end: int
    is_spaced: bool  # a blank or a line end on both sides

    @property
    def is_binary(self) -> bool:
        return self.kind == "operator" and self.is_spaced and self.text in _RANK


def tokens_of(source: str) -> list[Token]:
    found = []
    for match in _TOKEN.finditer(source):
        if match.lastgroup == "skip":
            continue
        kind = str(match.lastgroup)
        begin, end = match.span(kind)
        around = source[begin - 1 : begin] + source[end : end + 1]
        found.append(Token(kind, match[kind], begin, end, len(around.split()) == 0))
    return without_declarations(found)


def without_declarations(tokens: list[Token]) -> list[Token]:
    """Without what the compiler alone reads: static_assert(...) and template <...>."""
    kept: list[Token] = []
    place = 0
    while place < len(tokens):
        if tokens[place].text == "static_assert":
            place = closing(tokens, place + 1) + 1
        elif tokens[place].text == "template" and tokens[place + 1].text == "<":
            depth = 0
            while True:
                place += 1
                depth += {"<": 1, ">": -1, ">>": -2}.get(tokens[place].text, 0)
                if depth == 0:
                    break
            place += 1
        else:
            kept.append(tokens[place])
            place += 1
    return kept


def closing(tokens: list[Token], place: int) -> int:
    """The place of the bracket that closes the one at `place`."""
    depth = 0
    for at in range(place, len(tokens)):
        if tokens[at].text in _OPENING:
            depth += 1
        elif tokens[at].text in _OPENING.values():
            depth -= 1
            if depth == 0:
                return at
    raise ValueError("a bracket is not closed")


def right_operand(tokens: list[Token], place: int) -> int:
    """The place of the last token of what stands right of the binary operator at `place`."""
    rank, at = _RANK[tokens[place].text], place + 1
    while at < len(tokens):
        token = tokens[at]
        if token.text in _OPENING:
            at = closing(tokens, at)
        elif token.text in _OPENING.values() or token.text in _ENDS:
            break
        elif token.is_binary and _RANK[token.text] >= rank:
            break
        at += 1
    return at - 1


def left_operand(tokens: list[Token], place: int) -> int:
    """The place of the first token of what stands left of the binary operator at `place`."""
    rank, depth, at = _RANK[tokens[place].text], 0, place - 1
    while at >= 0:
        token = tokens[at]
        if token.text in _OPENING.values():
            depth += 1
        elif token.text in _OPENING:
            if depth == 0:
                break
            depth -= 1
        elif depth == 0 and (
            token.text in _ENDS or (token.is_binary and _RANK[token.text] >= rank)
        ):
            break
        at -= 1
    return at + 1
