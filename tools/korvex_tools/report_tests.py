# SPDX-License-Identifier: Apache-2.0
"""Prints the closing line of a test run from JUnit files, and fails if one of them ran no test.

usage: python -P -m korvex_tools.report_tests LABEL=FILE...
"""

import sys
import xml.etree.ElementTree as ElementTree


def passed_and_skipped(junit_file: str) -> tuple[int, int]:
    """Counts test cases; a failed one would have stopped the run before this script."""
    passed = skipped = 0
    for case in ElementTree.parse(junit_file).iter("testcase"):
        if case.find("skipped") is None:
            passed += 1
        else:
            skipped += 1
    return passed, skipped


def main(arguments: list[str]) -> int:
    parts = []
    for argument in arguments:
        label, junit_file = argument.split("=", 1)
        passed, skipped = passed_and_skipped(junit_file)
        if passed == 0:
            print(f"FAILED: no {label} test ran ({junit_file})")
            return 1
        parts.append(f"{passed} {label} tests" + (f" ({skipped} skipped)" if skipped else ""))
    print("passed: " + ", ".join(parts))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
