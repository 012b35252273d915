# SPDX-License-Identifier: Apache-2.0
"""One mutant: is it killed, and by which test; is its object code the original; or neither."""

import os
import re
from pathlib import Path
from typing import Any

from korvex_tools.mutation.mutants import Mutant
from korvex_tools.mutation.prepared import EQUAL, Prepared, Request
from korvex_tools.mutation.programs import (
    EQUIVALENCE_LEVEL,
    LIBRARY_CHECKS,
    PASSED,
    PROGRAMS,
    PYTHON_CHECKS,
    TEST_LEVEL,
    WITH_VNNI,
    FailsUnchanged,
    NotCompiled,
    Program,
    Tree,
    limit,
)

UNCHANGED_SECONDS = 300  # of the processor, for a program or check as it is

# The own tests of every file that is mutated. All others that include it come afterwards.
A, B, E, X = (f"korvex/arithmetic/{name}/" for name in ("base", "bignum", "elementary", "exact"))
H, D, M = (f"korvex/kernels/{name}/" for name in ("host", "device", "modular"))
KERNELS = "host_kernels golden"
CALLS = "exact out_of_memory"
OWN_TESTS = {
    A + "binary64.h": "eft bignum pairs elementary",
    A + "eft.h": "eft pairs canonical dot",
    A + "lanes.h": "sum dot",
    A + "portability.h": "eft bignum elementary",
    B + "fixed.h": "bignum elementary",
    B + "long_accumulator.h": "long_accumulator bignum exact_sum dot",
    B + "natural.h": "bignum long_accumulator elementary reductions",
    B + "rounding.h": "bignum long_accumulator elementary",
    B + "truncated_float.h": "bignum reductions",
    E + "any_format.h": "exact",
    E + "elementary_tables.h": "elementary host_doubles",
    E + "exponential.h": "elementary host_doubles reductions",
    E + "exponential_wide.h": "wide_numbers",
    E + "log_sum_exp.h": "reductions",
    E + "log_sum_exp_wide.h": "wide_numbers",
    E + "logarithm.h": "elementary host_doubles",
    E + "logistic.h": "elementary host_doubles",
    E + "logistic_wide.h": "wide_numbers",
    E + "quick_tries.h": "elementary host_doubles",
    E + "rms_norm.h": "bignum golden",
    E + "unary.h": "elementary",
    X + "accumulator4.h": "exact_sum sum",
    X + "biased_cascade.h": "sum dot",
    X + "canonical.h": "canonical exact_sum",
    X + "chunked_sum.h": "sum dot",
    X + "counted_sum.h": "exact_state exact",
    X + "dot.h": "dot",
    X + "element_product.h": "reductions",
    X + "exact_product_sum.h": "dot reductions",
    X + "exact_state.h": "exact_state exact",
    X + "exact_sum.h": "exact_sum sum",
    X + "matrix_product.h": "matrix_product",
    X + "narrow_rounding.h": "exact_state exact",
    X + "norm.h": "reductions",
    X + "pairs.h": "pairs",
    X + "prefix_sums.h": "reductions",
    X + "products.h": "dot",
    X + "residue_system.h": WITH_VNNI,
    X + "slice.h": "sum dot parallel_sum",
    X + "sum.h": "sum",
    X + "variance.h": "reductions",
    D + "warp_sum.h": "parallel_sum parallel_dot",
    D + "parallel_sum.h": "parallel_sum parallel_dot",
    D + "parallel_dot.h": "parallel_dot",
    H + "array_walk.h": "exact",
    H + "array_walk.cpp": "exact",
    H + "axis_grid.h": "exact",
    H + "column_reduction.h": "exact",
    H + "converted_block.h": "exact",
    H + "converted_block.cpp": "exact",
    H + "deviations.h": "exact",
    H + "elements.h": KERNELS,
    H + "exact.h": CALLS,
    H + "exact_axes.h": "exact",
    H + "exact_calls.h": CALLS,
    H + "exact_parts.h": "exact",
    H + "float_environment.h": KERNELS,
    H + "formats.h": "exact",
    H + "lanes.h": "sum host_doubles dot",
    H + "launch.h": "host_kernels out_of_memory",
    H + "matrix_product.h": "matrix_product",
    H + "mixed_products.h": "exact",
    H + "aligned_memory.h": WITH_VNNI,
    H + "byte_engine.h": WITH_VNNI,
    H + "double_engine.h": WITH_VNNI,
    H + "modular_lines.h": WITH_VNNI,
    H + "modular_plan.h": WITH_VNNI,
    H + "modular_product.h": WITH_VNNI,
    H + "product_way.h": KERNELS,
    H + "quick_lanes.h": "host_doubles golden",
    H + "quick_log_sum.h": "quick_reductions",
    H + "quick_product.h": "quick_reductions",
    H + "quick_squares.h": "quick_reductions",
    H + "result_format.h": "exact",
    H + "running_blocks.h": "quick_reductions",
    H + "running_limbs.h": "quick_reductions exact",
    H + "terms.h": "exact",
    H + "function_reference.h": "host_kernels out_of_memory",
    H + "threads.h": "host_kernels out_of_memory",
    H + "threads.cpp": "host_kernels out_of_memory",
    H + "triple_sum.h": "quick_reductions",
    H + "dot.cpp": KERNELS,
    H + "exact.cpp": CALLS,
    H + "exact_axes.cpp": CALLS,
    H + "exact_column_sums.cpp": CALLS,
    H + "exact_elementary.cpp": "exact",
    H + "exact_matrix_product.cpp": CALLS,
    H + "exact_moments.cpp": "exact",
    H + "exact_parts.cpp": CALLS,
    H + "exact_prefix_sums.cpp": CALLS,
    H + "exact_result.cpp": "exact",
    H + "exact_tiles.cpp": CALLS,
    H + "exact_segments.cpp": "exact",
    H + "exact_segments.h": "exact",
    H + "launch.cpp": "host_kernels out_of_memory",
    H + "matrix_product.cpp": "matrix_product",
    H + "modular_lines.cpp": WITH_VNNI,
    H + "modular_plan.cpp": WITH_VNNI,
    H + "modular_product.cpp": WITH_VNNI,
    H + "pairs.cpp": KERNELS,
    H + "reductions.cpp": "quick_reductions golden",
    H + "rms_norm.cpp": "quick_reductions golden",
    H + "some_lines.cpp": WITH_VNNI,
    H + "sum.cpp": KERNELS,
    H + "unary.cpp": KERNELS,
    M + "double_lanes.h": WITH_VNNI,
    M + "double_products.cpp": WITH_VNNI,
    M + "double_products.h": WITH_VNNI,
    M + "double_recombination.cpp": WITH_VNNI,
    M + "double_recombination.h": WITH_VNNI,
    M + "double_residues.cpp": WITH_VNNI,
    M + "double_residues.h": WITH_VNNI,
    M + "elements.cpp": WITH_VNNI,
    M + "elements.h": WITH_VNNI,
    M + "extents.cpp": WITH_VNNI,
    M + "extents.h": WITH_VNNI,
    M + "instructions.h": WITH_VNNI,
    M + "products.cpp": WITH_VNNI,
    M + "products.h": WITH_VNNI,
    M + "recombination.cpp": WITH_VNNI,
    M + "recombination.h": WITH_VNNI,
    M + "reduction.h": WITH_VNNI,
    M + "residues.cpp": WITH_VNNI,
    M + "residues.h": WITH_VNNI,
    M + "slow_element.h": WITH_VNNI,
}
SPLITS = re.compile(r"__AVX|__FMA__|kFmaIsFast")  # source that is not the same for all of them


class Trials:
    """Tries mutants in one tree."""

    def __init__(self, tree: Tree, sets: list[str]) -> None:
        self.tree = tree
        self.sets = sets
        self.checks = {name: Prepared(module) for name, module in PYTHON_CHECKS.items()}

    def own_tests(self, file: str) -> list[str]:
        return OWN_TESTS[file].split()

    def other_tests(self, file: str) -> list[str]:
        """Those of the library, then all others, without its own."""
        wanted = dict.fromkeys([*LIBRARY_CHECKS, *PROGRAMS])
        others = [name for name in wanted if name not in self.own_tests(file)]
        return [name for name in others if self.tree.covers(PROGRAMS[name], file)]

    def sets_of(self, file: str) -> list[str]:
        if self.own_tests(file) == [WITH_VNNI]:
            return ["avx512"]
        text = (self.tree.folder / file).read_text()
        return self.sets if SPLITS.search(text) else self.sets[:1]

    def try_own_tests(self, mutant: Mutant) -> dict[str, Any]:
        """What comes of it: the test that kills it, or the tests that it passes."""
        found = self.try_tests(mutant, self.own_tests(mutant.file))
        is_left = found["outcome"] in ("survived", "equivalent")
        return {**found, "outcome": "survived its own tests"} if is_left else found

    def try_all_tests(self, mutant: Mutant) -> dict[str, Any]:
        """The same for one that has passed its own tests."""
        if self.is_equivalent(mutant):
            return {"outcome": "equivalent"}
        found = self.try_tests(mutant, self.other_tests(mutant.file))
        return {**found, "outcome": "survived"} if found["outcome"] == "equivalent" else found

    def try_tests(self, mutant: Mutant, names: list[str]) -> dict[str, Any]:
        tried, is_changed = [], False
        for instruction_set in self.sets_of(mutant.file):
            for name in names:
                if name == WITH_VNNI and instruction_set != "avx512":
                    continue
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
        """Compiles and runs it unchanged, once: it must pass, and its time sets the limit."""
        try:
            for source in program.sources:
                self.tree.original(source, instruction_set, TEST_LEVEL)
        except NotCompiled as error:
            raise FailsUnchanged(f"{program.name} does not compile: {error}") from error
        if program.name == "host_kernels":
            self.tree.caller(instruction_set)
        key = f"{program.name} {instruction_set}"
        if key not in self.tree.seconds:
            self.tree.seconds[key] = self.seconds_unchanged(key, program, instruction_set)

    def seconds_unchanged(self, key: str, program: Program, instruction_set: str) -> float:
        """Of the processor. One worker finds them out for all."""
        kept = self.tree.folder.with_name(f"seconds of {key}")
        if kept.exists():
            return float(kept.read_text())
        made = self.tree.link(program, instruction_set, {})
        said, seconds = self.said(program, made, "", instruction_set, UNCHANGED_SECONDS)
        if said != PASSED:
            raise FailsUnchanged(f"{key} fails on the tree as it is: {said}")
        written = kept.with_suffix(f".{os.getpid()}")
        written.write_text(str(seconds))
        written.replace(kept)
        return seconds

    def said(
        self, program: Program, made: Path, file: str, instruction_set: str, seconds: int
    ) -> tuple[str, float]:
        """What came of its tests, in so many seconds of the processor, and how many it took."""
        if program.name not in self.checks:
            return self.tree.said(program, made, instruction_set, seconds)
        request = Request(file, str(made.resolve()), instruction_set, seconds)
        difference, used = self.checks[program.name].answer(request)
        return PASSED if difference == EQUAL else difference, used

    def run(self, program: Program, mutant: Mutant, instruction_set: str) -> tuple[bool, bool]:
        """Whether anything changed in the program, and whether it passes."""
        objects = self.tree.changed_objects(program, mutant.file, instruction_set, TEST_LEVEL)
        if not objects:
            return False, True
        made = self.tree.link(program, instruction_set, objects)
        seconds = limit(self.tree.seconds[f"{program.name} {instruction_set}"])
        said, _ = self.said(program, made, mutant.file, instruction_set, seconds)
        return True, said == PASSED

    def is_equivalent(self, mutant: Mutant) -> bool:
        """Whether its own tests and the library are at -O2 the original's, byte for byte."""
        programs = [PROGRAMS[name] for name in [*self.own_tests(mutant.file), "golden"]]
        sources = dict.fromkeys(source for program in programs for source in program.sources)
        return not any(
            self.changes_code(source, mutant, instruction_set)
            for instruction_set in self.sets_of(mutant.file)
            for source in sources
            if mutant.file in self.tree.includes_of(source)
        )

    def changes_code(self, source: str, mutant: Mutant, instruction_set: str) -> bool:
        original = self.tree.original(source, instruction_set, EQUIVALENCE_LEVEL)
        with self.tree.planted(mutant):
            return self.tree.compiled(source, instruction_set, EQUIVALENCE_LEVEL) != original

    def close(self) -> None:
        for check in self.checks.values():
            check.close()
