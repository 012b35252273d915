# SPDX-License-Identifier: Apache-2.0
"""A soak: every function on several threads, with interrupts and failing allocations, for an hour.

    PYTHONPATH=tests/support:tools python -P tests/fuzz/soak.py --seconds 3600 --seed 7

The calls are the fuzzer's. A call whose allocation fails may raise MemoryError, and one that is
interrupted KeyboardInterrupt; made once more it must end as on the reference implementation, bit by
bit, and so must every call that nothing disturbs. Interrupts are signals of a timer, so they reach
the main thread alone. Memory, file descriptors and threads must stay as they were after warm-up.

This process starts the one that makes the calls, with failing_allocations.cpp loaded ahead of it,
and ends with its status; where it dies or hangs, with 1. It prints what was covered.

Not covered: allocations of torch and within Python code (failing_allocations.cpp says why);
interrupts in threads other than the main one, where Python delivers none.
"""

import argparse
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import sysconfig
import tempfile

FOLDER = pathlib.Path(__file__).resolve().parent
TREE = FOLDER.parents[1]
SECONDS_TO_START_AND_END = 180


def compiler():
    script = TREE / "scripts" / "find_compiler.sh"
    found = subprocess.run([script], capture_output=True, text=True, cwd=TREE)
    return found.stdout.strip() or shutil.which("c++") or "c++"


def compiled(folder):
    library = folder / "failing_allocations.so"
    source = FOLDER / "failing_allocations.cpp"
    include = sysconfig.get_path("include")
    flags = "-std=c++20 -O2 -fPIC -shared -fno-builtin-malloc -Wl,-z,lazy".split()
    command = [compiler(), *flags, f"-I{include}", source, "-o", library, "-ldl"]
    subprocess.run(command, check=True)
    return library


def run(program, arguments, seconds):
    with tempfile.TemporaryDirectory() as folder:
        library = compiled(pathlib.Path(folder))
        ahead = " ".join(filter(None, [os.environ.get("LD_PRELOAD"), str(library)]))
        command = [sys.executable, "-P", "-X", "faulthandler", program]
        process = subprocess.Popen(
            [*command, "--library", library, *arguments],
            env=os.environ | {"LD_PRELOAD": ahead},
            stdin=subprocess.DEVNULL,
        )
        try:
            status = process.wait(timeout=seconds + SECONDS_TO_START_AND_END)
        except subprocess.TimeoutExpired:
            process.send_signal(signal.SIGABRT)  # shows where each thread hangs
            process.wait()
            print("soak: FAILED: the calls did not end")
            return 1
    if status < 0:
        print(f"soak: FAILED: the process ended by signal {signal.Signals(-status).name}")
    return 0 if status == 0 else 1


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=3600)
    parser.add_argument("--seed", default="0")
    parser.add_argument("--threads", type=int, default=4)
    parser.add_argument("--memory-mb", type=int, default=64, help="growth after warm-up, at most")
    parser.add_argument("--calls", default=FOLDER / "soak_calls.py", help="the program that calls")
    options = parser.parse_args()
    arguments = ["--seconds", str(options.seconds), "--seed", options.seed]
    arguments += ["--threads", str(options.threads), "--memory-mb", str(options.memory_mb)]
    return run(options.calls, arguments, options.seconds)


if __name__ == "__main__":
    sys.exit(main())
