# SPDX-License-Identifier: Apache-2.0
"""Sums over real processes, 1 to 4 of them on loopback, each checked in every process."""

import json
import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest
import torch.distributed

HERE = Path(__file__).resolve().parent
SECONDS = 300

CHECKS = [
    *("accumulators", "accumulators_async", "reduce_to_one", "different_dtypes", "specials"),
    *("functions", "restarts_from_bytes", "part_of_the_processes"),
    *("element_sums", "element_sums_of_many", "scattered_sums", "bytes_moved"),
    *("dtensors", "products_in_shards", "training", "gradients"),
]

pytestmark = pytest.mark.skipif(
    not torch.distributed.is_available() or not torch.distributed.is_gloo_available(),
    reason="this torch has no gloo",
)


def run(folder, ranks, *names):
    """What each process found of each check. A watchdog ends the whole session of processes."""
    paths = [str(HERE), str(HERE.parent / "support"), os.environ.get("PYTHONPATH", "")]
    process = subprocess.Popen(
        [sys.executable, "-P", HERE / "run_ranks.py", folder, str(ranks), *names],
        env=os.environ | {"PYTHONPATH": os.pathsep.join(filter(None, paths))},
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        start_new_session=True,
    )
    try:
        output, errors = process.communicate(timeout=SECONDS)
    finally:
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
    assert process.returncode == 0, errors
    return json.loads(output)


@pytest.mark.parametrize("ranks", [1, 2, 3, 4])
def test_every_process_finds_what_one_process_finds(ranks, tmp_path):
    found = run(tmp_path, ranks, *CHECKS)
    wrong = [(rank, name, text) for rank, each in enumerate(found) for name, text in each.items()]
    wrong = [each for each in wrong if each[2] != "passed"]
    assert not wrong, "\n".join(f"process {rank}, {name}: {text}" for rank, name, text in wrong)
    assert found == [dict.fromkeys(CHECKS, "passed")] * ranks


def test_a_process_that_dies_is_the_engines_error(tmp_path):
    (tmp_path / "rank-2.json").write_text("{}")  # it ends without a word
    assert run(tmp_path, 3, "dead_peer") == [{"dead_peer": "passed"}] * 2 + [{}]


def test_checks_are_all_there():
    import ast

    tree = ast.parse((HERE / "rank_checks.py").read_text())
    functions = [node for node in tree.body if isinstance(node, ast.FunctionDef)]
    taken = {node.name: [argument.arg for argument in node.args.args] for node in functions}
    taking_ranks = {name for name, names in taken.items() if names == ["rank", "ranks"]}
    assert taking_ranks == {*CHECKS, "dead_peer"}
