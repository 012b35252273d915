# SPDX-License-Identifier: Apache-2.0
"""The places of a document that a program writes: lines between two marks of one name."""


def filled(text: str, name: str, lines: list[str]) -> str:
    """The text with these lines between `<!-- NAME -->` and `<!-- end of NAME -->`."""
    begin, end = f"<!-- {name} -->", f"<!-- end of {name} -->"
    before, _, rest = text.partition(begin)
    _, found, after = rest.partition(end)
    assert found, f"no marks of {name}"
    return "\n".join([before + begin, "", *lines, "", end + after])
