# SPDX-License-Identifier: Apache-2.0
"""One mutant: is it killed, and by which test; is its object code the original; or neither."""

import re
from typing import Any

from korvex_tools.mutation.golden_cases import GoldenCases
from korvex_tools.mutation.mutants import Mutant
from korvex_tools.mutation.programs import (
    EQUIVALENCE_LEVEL,
    PROGRAMS,
    TEST_LEVEL,
    NotCompiled,
    Program,
    Tree,
)

# The own tests of a file. All others that include it come afterwards.
A, B, E, X = (f"korvex/arithmetic/{name}/" for name in ("base", "bignum", "elementary", "exact"))
H, D = "korvex/kernels/host/", "korvex/kernels/device/"
OWN_TESTS = {
    A + "binary64.h": "eft bignum pairs elementary",
    A + "eft.h": "eft pairs canonical dot",
    A + "lanes.h": "sum dot",
    A + "portability.h": "eft bignum elementary",
    B + "fixed.h": "bignum elementary",
    B + "long_accumulator.h": "long_accumulator bignum dot",
    B + "natural.h": "bignum long_accumulator elementary reductions",
    B + "rounding.h": "bignum long_accumulator elementary",
    B + "truncated_float.h": "bignum reductions",
    E + "elementary_tables.h": "elementary host_doubles",
    E + "exponential.h": "elementary host_doubles reductions",
    E + "exponential_wide.h": "wide_numbers",
    E + "log_sum_exp.h": "reductions",
    E + "log_sum_exp_wide.h": "wide_numbers",
    E + "logarithm.h": "elementary host_doubles",
    E + "logistic.h": "elementary host_doubles",
    E + "logistic_wide.h": "wide_numbers",
    E + "rms_norm.h": "bignum golden",
    E + "unary.h": "elementary",
    X + "accumulator4.h": "exact_sum sum",
    X + "biased_cascade.h": "sum dot",
    X + "canonical.h": "canonical exact_sum",
    X + "chunked_sum.h": "sum dot",
    X + "dot.h": "dot",
    X + "element_product.h": "reductions",
    X + "exact_product_sum.h": "dot reductions",
    X + "exact_sum.h": "exact_sum sum",
    X + "matrix_product.h": "matrix_product",
    X + "norm.h": "reductions",
    X + "pairs.h": "pairs",
    X + "prefix_sums.h": "reductions",
    X + "products.h": "dot",
    X + "slice.h": "sum dot",
    X + "sum.h": "sum",
    X + "variance.h": "reductions",
    D + "warp_sum.h": "parallel_sum parallel_dot",
    D + "parallel_sum.h": "parallel_sum parallel_dot",
    D + "parallel_dot.h": "parallel_dot",
    H + "lanes.h": "sum host_doubles dot",
    H + "matrix_product.cpp": "matrix_product",
    H + "matrix_product.h": "matrix_product",
    H + "threads.h": "host_kernels out_of_memory",
    H + "launch.cpp": "host_kernels out_of_memory",
    H + "launch.h": "host_kernels out_of_memory",
}
LIBRARY_TESTS = "host_kernels golden"
SPLITS = re.compile(r"__AVX|__FMA__|kFmaIsFast")  # source that is not the same for all of them


class Trials:
    """Tries mutants in one tree."""

    def __init__(self, tree: Tree, sets: list[str]) -> None:
        self.tree = tree
        self.sets = sets
        self.golden = GoldenCases()

    def own_tests(self, file: str) -> list[str]:
        return OWN_TESTS.get(file, LIBRARY_TESTS).split()

    def all_tests(self, file: str) -> list[str]:
        """Its own, then those of the library, then all others."""
        wanted = dict.fromkeys([*self.own_tests(file), *LIBRARY_TESTS.split(), *PROGRAMS])
        return [name for name in wanted if self.tree.covers(PROGRAMS[name], file)]

    def sets_of(self, file: str) -> list[str]:
        text = (self.tree.folder / file).read_text()
        return self.sets if SPLITS.search(text) else self.sets[:1]

    def try_mutant(self, mutant: Mutant, only_own: bool) -> dict[str, Any]:
        """What comes of it: the test that kills it, or the tests that it passes."""
        tests = self.own_tests(mutant.file) if only_own else self.all_tests(mutant.file)
        tried, is_changed = [], False
        for instruction_set in self.sets_of(mutant.file):
            for name in tests:
                self.prepare(PROGRAMS[name], instruction_set)
                tried.append(f"{name} {instruction_set}")
                try:
                    with self.tree.planted(mutant):
                        changed, passes = self.run(PROGRAMS[name], mutant, instruction_set)
                except NotCompiled as error:
                    return self.refused(str(error))
                is_changed = is_changed or changed
                if not passes:
                    return {"outcome": "killed", "by": tried[-1]}
        return {"outcome": "survived" if is_changed else "equivalent", "passed": tried}

    @staticmethod
    def refused(said: str) -> dict[str, Any]:
        if "static assertion failed" in said:
            return {"outcome": "killed", "by": "a static assertion"}
        return {"outcome": "not compiled"}

    def prepare(self, program: Program, instruction_set: str) -> None:
        for source in program.sources:
            self.tree.original(source, instruction_set, TEST_LEVEL)
        if program.name == "host_kernels":
            self.tree.caller(instruction_set)
        if program.name != "golden":
            self.tree.prepare(program, instruction_set)

    def run(self, program: Program, mutant: Mutant, instruction_set: str) -> tuple[bool, bool]:
        """Whether anything changed in the program, and whether it passes."""
        objects = self.tree.changed_objects(program, mutant.file, instruction_set, TEST_LEVEL)
        if not objects:
            return False, True
        made = self.tree.link(program, instruction_set, objects)
        if program.name == "golden":
            return True, self.golden.passes(made, mutant.file)
        return True, self.tree.passes(program, made, instruction_set)

    def is_equivalent(self, mutant: Mutant) -> bool:
        """Whether its own tests and the library are at -O2 the original's, byte for byte."""
        names = dict.fromkeys([*self.own_tests(mutant.file), "golden"])
        for instruction_set in self.sets_of(mutant.file):
            for name in names:
                if self.changes_code(PROGRAMS[name], mutant, instruction_set):
                    return False
        return True

    def changes_code(self, program: Program, mutant: Mutant, instruction_set: str) -> bool:
        for source in program.sources:
            if mutant.file in self.tree.includes_of(source):
                self.tree.original(source, instruction_set, EQUIVALENCE_LEVEL)
                one = Program(program.name, (source,))
                with self.tree.planted(mutant):
                    if self.tree.changed_objects(
                        one, mutant.file, instruction_set, EQUIVALENCE_LEVEL
                    ):
                        return True
        return False

    def close(self) -> None:
        self.golden.close()
