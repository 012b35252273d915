# SPDX-License-Identifier: Apache-2.0
"""Runs checks of rank_checks.py in processes that talk over loopback; prints what failed as JSON.

usage: run_ranks.py FOLDER RANKS CHECK...

torch is imported once: the processes are forks of this one, made before it has any threads. Each
ends by an alarm if nothing else ends it, and none outlives this one.
"""

import json
import os
import signal
import sys
import traceback
from datetime import timedelta
from pathlib import Path

import rank_checks
import torch
import torch.distributed as dist

SECONDS = 280  # at most, for all checks together


def run_rank(folder, rank, ranks, names):
    """Run the checks one after the other; the first that fails ends the run of this process."""
    signal.alarm(SECONDS)
    torch.set_num_threads(1)
    found = {}
    for name in names:
        # A group each: what one check leaves behind does not reach the next.
        store = f"file://{folder}/store-{name}"
        timeout = timedelta(seconds=120)
        try:
            dist.init_process_group("gloo", store, rank=rank, world_size=ranks, timeout=timeout)
            getattr(rank_checks, name)(rank, ranks)
            found[name] = "passed"
        except BaseException:
            found[name] = traceback.format_exc()
            break
        finally:
            write(folder, rank, found)
        dist.destroy_process_group()


def write(folder, rank, found):
    (folder / f"rank-{rank}.json").write_text(json.dumps(found))


def main():
    folder, ranks, names = Path(sys.argv[1]), int(sys.argv[2]), sys.argv[3:]
    os.environ["GLOO_SOCKET_IFNAME"] = "lo"
    children = []
    for rank in range(ranks):
        child = os.fork()
        if child == 0:
            run_rank(folder, rank, ranks, names)
            os._exit(0)
        children.append(child)
    for child in children:
        os.waitpid(child, 0)
    found = [json.loads((folder / f"rank-{rank}.json").read_text()) for rank in range(ranks)]
    print(json.dumps(found))


if __name__ == "__main__":
    main()
