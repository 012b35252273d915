# SPDX-License-Identifier: Apache-2.0
"""Runs the code on a page of the documents, and wants what stands there printed."""

import doctest
import re


def blocks_of(page, language):
    """The texts of all blocks of a language."""
    return re.findall(rf"^```{language}\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)


def run_code(page):
    """Run all blocks in order, with the names of those before; return the names and a count."""
    parser, runner, names = doctest.DocTestParser(), doctest.DocTestRunner(), {}
    report = []
    for number, text in enumerate(blocks_of(page, "pycon")):
        test = parser.get_doctest(text, names, f"block {number}", None, 0)
        runner.run(test, out=report.append, clear_globs=False)
        names = test.globs
    assert runner.failures == 0, "".join(report)
    return names, runner.tries
