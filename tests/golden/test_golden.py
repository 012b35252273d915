# SPDX-License-Identifier: Apache-2.0
"""Results on the device of this run against the digests that references worked out."""

import device
import pytest
from subprocess_run import run_python

from korvex_tools.verify import golden

LOADED = {maker.stem.removeprefix("make_"): golden.load(maker) for maker in golden.makers()}
CASES = [
    pytest.param(
        case, data, id=f"{folder}: {case.name}", marks=[pytest.mark.long] if case.long else []
    )
    for folder, (script, data) in LOADED.items()
    for case in script.CASES
]


@pytest.mark.parametrize("case, data", CASES)
def test_result_has_the_digest_of_the_reference(module, case, data):
    golden.compare(module, case, data["cases"][case.name], device.tensor)


@pytest.mark.parametrize("folder", LOADED)
def test_file_holds_the_cases_of_its_script(folder):
    script, data = LOADED[folder]
    assert list(data["cases"]) == [case.name for case in script.CASES]
    assert data["made_by"] == f"tests/golden/make_{folder}.py" and data["reference"]


def test_every_file_of_digests_has_its_script():
    files = {path.stem for path in golden.FOLDER.glob("*.json")} - {"surface"}
    assert files == set(LOADED)


def test_digest_tells_signs_of_zero_apart_and_not_kinds_of_nan():
    negative_nan = -float("nan")
    assert golden.digest([0.0]) != golden.digest([-0.0])
    assert golden.digest([float("nan")]) == golden.digest([negative_nan])


def test_inputs_and_digests_can_be_read_without_mpfr():
    """A machine that compares needs torch and numpy alone."""
    expected = run_python("""
        import sys
        sys.modules["gmpy2"] = sys.modules["pytest"] = sys.modules["hypothesis"] = None
        from korvex_tools.verify import golden
        for maker in golden.makers():
            script, data = golden.load(maker)
            for case in script.CASES:
                entry = data["cases"][case.name]
                assert case.long or golden.digest(case.inputs()) == entry["inputs"]
        print(len(golden.makers()))
    """)
    assert int(expected) == len(LOADED)
