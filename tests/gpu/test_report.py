# SPDX-License-Identifier: Apache-2.0
"""The run of `make gpu`: whatever becomes of a stage, the report says so and the others go on."""

import json
import sys

import gpu_cases
import pytest

from korvex_tools import kernel_table
from korvex_tools.gpu import report, stages
from korvex_tools.gpu.stages import MENDED, Stage, all_stages

WHOLE_DEVICE = kernel_table.on_the_whole_device()


@pytest.fixture
def options(tmp_path):
    arguments = ["--dry-run", "--site", str(tmp_path), "--results", str(tmp_path / "results")]
    return report.parsed_options(arguments)


def program(name, text, limit=60.0):
    return Stage(name, [sys.executable, "-c", text], limit)


def run(planted, options):
    """The report that is left in the end."""
    report.run_all(planted, options)
    [path] = options.results.iterdir()
    return json.loads(path.read_text())["stages"]


# Not by SIGSEGV, of which a sanitizer's library makes an exit status.
DIES = "import os; print('the last word', flush=True); os.abort()"
HANGS = "import time; print('still here', flush=True); time.sleep(600)"
FAILS = "print('what went wrong'); raise SystemExit(3)"
PASSES = "print('fine')"


def test_a_stage_that_dies_hangs_or_fails_ends_no_other(options, capsys):
    planted = [
        program("dies", DIES),
        program("hangs", HANGS, limit=1.0),
        program("fails", FAILS),
        Stage("is not there", ["/no/such/program"], 60.0),
        program("passes", PASSES),
    ]
    found = run(planted, options)
    assert {name: entry["outcome"] for name, entry in found.items()} == {
        "dies": "died by SIGABRT",
        "hangs": "ran out of time",
        "fails": "failed",
        "is not there": "failed",
        "passes": "passed",
    }
    assert found["dies"]["output_tail"].startswith("the last word")
    assert found["hangs"]["output_tail"] == "still here\n" and found["hangs"]["seconds"] < 30
    assert found["fails"]["output_tail"] == "what went wrong\n" and found["fails"]["status"] == 3
    assert "output_tail" not in found["passes"]
    printed = capsys.readouterr().out
    assert "died by SIGABRT" in printed and "the last word" in printed and "still here" in printed


def test_processes_of_a_stage_that_hangs_are_ended_too(options, tmp_path):
    mark = tmp_path / "mark"
    child = f"import time; time.sleep(3); open({str(mark)!r}, 'w')"
    parent = f"import subprocess, sys; subprocess.run([sys.executable, '-c', {child!r}])"
    planted = [program("hangs", parent, limit=1.0), program("waits", "import time; time.sleep(4)")]
    assert run(planted, options)["waits"]["outcome"] == "passed"
    assert not mark.exists()


def test_a_test_that_faults_is_named_and_ends_no_other_stage(options, tmp_path):
    """As a kernel's tests would: pytest says which test it was at."""
    planted = tmp_path / "test_planted.py"
    planted.write_text("import os\ndef test_before(): pass\ndef test_of_the_fault(): os.abort()\n")
    bad = stages.tests_stage("bad", [str(planted)], 60, options, tmp_path)
    good = stages.tests_stage("good", [str(planted), "-k", "before"], 60, options, tmp_path)
    none = stages.tests_stage("none", [str(planted), "-k", "no_such"], 60, options, tmp_path)
    found = run([bad, good, none], options)
    assert found["bad"]["outcome"] == "died by SIGABRT" and found["bad"]["result"] is None
    assert "test_planted.py::test_of_the_fault" in found["bad"]["last_test"]
    assert "last_test" not in found["good"]
    assert found["good"]["outcome"] == "passed" and found["good"]["result"]["passed"] == 1
    assert found["none"]["outcome"] == "failed", "no test collected is a failure"


def test_time_for_everything_is_shared(options):
    options.seconds = 4
    found = run([program("first", PASSES), program("second", PASSES)], options)
    assert {entry["outcome"] for entry in found.values()} == {"no time left"}


def test_limits_are_wider_in_a_dry_run(tmp_path):
    """It runs anywhere, on few processors and beside other work; a GPU is lent by the minute."""

    def limits(*arguments):
        options = report.parsed_options([*arguments, "--results", str(tmp_path)])
        return options.seconds, {stage.name: stage.limit for stage in all_stages(options, tmp_path)}

    seconds, on_gpu = limits()
    assert seconds < 600 and all(limit < seconds for limit in on_gpu.values())
    dry_seconds, dry = limits("--dry-run")
    assert dry.keys() == on_gpu.keys() and dry["build"] >= 3600
    assert all(dry[name] >= 6 * on_gpu[name] for name in dry) and dry_seconds >= 2 * dry["build"]
    assert limits("--dry-run", "--seconds", "9")[0] == 9


def test_exit_status_is_of_all_stages(options, monkeypatch, tmp_path):
    def status(*planted):
        monkeypatch.setattr(report, "all_stages", lambda *_: list(planted))
        arguments = ["report", "--dry-run", "--results", str(tmp_path / "results")]
        monkeypatch.setattr(sys, "argv", arguments)
        return report.main()

    assert status(program("passes", PASSES)) == 0
    assert status(program("fails", FAILS), program("passes", PASSES)) == 1


# --- Which stages there are


def test_every_kernel_has_a_stage_and_the_mended_come_first(options, tmp_path):
    names = [stage.name for stage in all_stages(options, tmp_path)]
    kernels = [name for name in names if name.startswith("tqx_")]
    assert sorted(kernels) == sorted(kernel_table.rows())
    assert kernels[: len(MENDED)] == [f"tqx_{name}_kernel" for name in MENDED]
    assert names.index(kernels[-1]) < names.index("verify"), "single kernels come before the rest"


def test_launches_on_the_whole_device_and_kernels_of_states_have_stages(options, tmp_path):
    found = {stage.name: stage for stage in all_stages(options, tmp_path)}
    whole = [name for name in found if name.startswith("whole device ")]
    assert sorted(whole) == sorted(f"whole device {name}" for name in WHOLE_DEVICE)
    assert len(WHOLE_DEVICE) == 8 and WHOLE_DEVICE["tqx_logsumexp_kernel"][-1:] == (
        "tqx_logsumexp_device_kernel",
    )
    for name in whole:
        assert found[name].environment["KORVEX_LAUNCH"] == "device"
    assert found["tqx_var_kernel"].environment.get("KORVEX_LAUNCH") is None
    states = [name.removeprefix("states ") for name in found if name.startswith("states ")]
    assert tuple(states) == kernel_table.of_states() and len(states) == 15


def test_name_of_a_kernel_selects_its_tests_alone():
    for name in gpu_cases.rows():
        assert [other for other in gpu_cases.rows() if name in other] == [name]


def test_package_is_built_unless_there_is_one(options, tmp_path):
    assert all_stages(options, tmp_path)[0].name == "tqx_var_kernel"
    options.site = None
    assert all_stages(options, tmp_path)[0].name == "build"


def test_stages_can_be_chosen(options, tmp_path):
    options.site = None
    found = all_stages(options, tmp_path)
    names = [stage.name for stage in report.chosen(found, ["sanitizer *", "large"])]
    assert names == ["build", "large", *(f"sanitizer {tool}" for tool in stages.SANITIZER_TOOLS)]
    with pytest.raises(SystemExit, match="no stage is called nothing"):
        report.chosen(found, ["nothing"])


def test_chosen_stages_join_those_of_an_earlier_run(options):
    run([program("first", FAILS), program("second", PASSES)], options)
    options.only = ["first"]
    found = run([program("first", PASSES)], options)
    assert {name: entry["outcome"] for name, entry in found.items()} == {
        "first": "passed",
        "second": "passed",
    }


# --- What is printed


def test_a_prediction_that_is_missed_is_printed_and_fails_nothing(options, capsys):
    rows = [
        {
            "candidate": "tqx_sum_kernel",
            "ns_per_element": 0.01,
            "predicted_ns": 0.0026,
            "limit": "memory",
            "ratio": 3.85,
            "is_as_predicted": False,
        }
    ]
    text = f"print({json.dumps(json.dumps({'runs': rows}))})"
    stage = program("benchmark kernels", text)
    stage.read = stages.last_line_json
    assert run([stage], options)["benchmark kernels"]["outcome"] == "passed"
    line = "tqx_sum_kernel: 0.01 ns an element, predicted 0.0026 (memory): NOT AS PREDICTED"
    assert line in capsys.readouterr().out
