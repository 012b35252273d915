# SPDX-License-Identifier: Apache-2.0
"""A file that the driver refuses: the loader tries the next that fits, and says what it tried."""

import pytest

INVALID_IMAGE, NO_BINARY, INVALID_PTX, UNSUPPORTED_PTX = 200, 209, 218, 222
OUT_OF_MEMORY = 2

# How a script makes the driver refuse files.
REFUSE = """
def refuse(folder, **results):
    for name, result in results.items():
        [file] = folder.glob(f"korvex_{name}.*")
        file.write_text(f"stub refused {result} {name}")

def tried(log):
    return [line.split()[-1] for line in log if line.startswith("cuModuleLoadDataEx")]
"""

# Capability of the device, the files that there are, those that the driver refuses, and the one
# that is loaded then.
SECOND_TRIES = [
    ((8, 9), ["sm_80", "sm_86", "sm_89"], {"sm_89": NO_BINARY}, ["sm_89", "sm_86"]),
    ((8, 9), ["sm_80", "sm_86"], {"sm_86": INVALID_IMAGE}, ["sm_86", "sm_80"]),
    (
        (8, 9),
        ["sm_80", "sm_86", "compute_80"],
        {"sm_86": NO_BINARY, "sm_80": NO_BINARY},
        ["sm_86", "sm_80", "compute_80"],
    ),
    (
        (9, 0),
        ["sm_80", "sm_90", "compute_80", "compute_90"],
        {"sm_90": INVALID_IMAGE, "compute_90": UNSUPPORTED_PTX},
        ["sm_90", "compute_90", "compute_80"],
    ),
    # Of a system on a chip: no other's machine code, then PTX.
    (
        (8, 7),
        ["sm_80", "sm_86", "sm_87", "compute_80"],
        {"sm_87": NO_BINARY},
        ["sm_87", "compute_80"],
    ),
    (
        (12, 1),
        ["sm_120", "compute_70", "compute_90"],
        {"sm_120": NO_BINARY, "compute_90": INVALID_PTX},
        ["sm_120", "compute_90", "compute_70"],
    ),
]


@pytest.mark.parametrize(("capability", "files", "refused", "tries"), SECOND_TRIES)
def test_next_file_that_fits_is_loaded(run, capability, files, refused, tries):
    run(
        REFUSE
        + f"""
driver.set_devices(({capability[0]}, {capability[1]}, 1))
loader = import_loader().NativeCubinLoader()
assert loader.cubin_path.stem == "korvex_{tries[0]}"
refuse(loader.cubin_path.parent, **{refused})
driver.take_log()
assert exact_sum(loader, [1e100, 1.0, -1e100]) == [1.0, 0.0, 0.0, 0.0]
assert tried(driver.take_log()) == {tries}
assert loader.cubin_path.stem == "korvex_{tries[-1]}"
assert loader.cubin_path.stem in repr(loader)
assert driver.state()["modules"] == 1
assert exact_sum(loader, [2.0]) == [2.0, 0.0, 0.0, 0.0]
assert tried(driver.take_log()) == []
""",
        files,
    )


def test_error_names_every_file_that_was_tried(run):
    run(
        REFUSE
        + f"""
driver.set_devices((8, 9, 1))
loader = import_loader().NativeCubinLoader()
folder = loader.cubin_path.parent
refuse(folder, sm_86={NO_BINARY}, sm_80={INVALID_IMAGE}, compute_80={UNSUPPORTED_PTX})
failed = "cuModuleLoadDataEx failed: CUDA_ERROR_"
for _ in range(2):
    before = driver.state()
    with pytest.raises(RuntimeError) as caught:
        exact_sum(loader, [2.0])
    assert str(caught.value) == (
        f"tqx_sum_seq_kernel: {{folder}}/korvex_sm_86.cubin: {{failed}}NO_BINARY_FOR_GPU\\n"
        f"stub compiler log\\n"
        f"{{folder}}/korvex_sm_80.cubin: {{failed}}INVALID_IMAGE\\n"
        f"stub compiler log\\n"
        f"{{folder}}/korvex_compute_80.ptx: {{failed}}UNSUPPORTED_PTX_VERSION\\n"
        f"stub compiler log")
    assert driver.state() == before
    assert loader.cubin_path.stem == "korvex_sm_86"
""",
        ["sm_80", "sm_86", "sm_90", "compute_80", "compute_90"],
    )


@pytest.mark.parametrize("result", [OUT_OF_MEMORY, 999])
def test_failure_that_is_not_the_files_ends_the_launch(run, result):
    """Another file would meet the same; the next launch tries the same file again."""
    run(
        REFUSE
        + f"""
driver.set_devices((9, 0, 1))
loader = import_loader().NativeCubinLoader()
driver.take_log()
driver.fail("cuModuleLoadDataEx", {result})
with pytest.raises(RuntimeError, match="korvex_sm_90.cubin: cuModuleLoadDataEx failed: "):
    exact_sum(loader, [2.0])
assert tried(driver.take_log()) == ["sm_90"]
assert exact_sum(loader, [2.0]) == [2.0, 0.0, 0.0, 0.0]
assert tried(driver.take_log()) == ["sm_90"]
""",
        ["sm_90", "compute_80"],
    )


INTEGRATED = {(5, 3), (6, 2), (7, 2), (8, 7), (10, 1), (11, 0)}
ALL = [
    *((5, minor) for minor in (0, 2, 3)),
    *((6, minor) for minor in (0, 1, 2)),
    *((7, minor) for minor in (0, 2, 5)),
    *((8, minor) for minor in (0, 6, 7, 8, 9)),
    *((10, minor) for minor in (0, 1, 3)),
    (9, 0),
    (11, 0),
    (12, 0),
    (12, 1),
]


def expected_tries(device):
    """Of a package with all files: machine code that the device can run, then the PTX."""

    def can_run(code):
        is_older = code[0] == device[0] and code[1] < device[1]
        return code == device or (is_older and not {code, device} & INTEGRATED)

    code = [f"sm_{major}{minor}" for major, minor in sorted(ALL, reverse=True)
            if can_run((major, minor))]  # fmt: skip
    return code + [f"compute_{name}" for name in ("120", "80", "50")
                   if int(name) <= device[0] * 10 + device[1]]  # fmt: skip


@pytest.mark.parametrize("is_partial", [False, True])
def test_no_device_is_given_what_it_cannot_run(run, is_partial):
    """Every file is refused, so every file that the loader would ever give to a device is seen.

    A partial build lacks the machine code of the device itself.
    """
    files = [f"sm_{major}{minor}" for major, minor in ALL] + ["compute_50", "compute_80",
                                                             "compute_120"]  # fmt: skip
    expected = {device: expected_tries(device) for device in [*ALL, (8, 5), (12, 9), (13, 0)]}
    run(
        REFUSE
        + f"""
import pathlib
expected = {expected}
module = import_loader()
folder = pathlib.Path(module.__file__).with_name("cubins")
for file in folder.iterdir():
    file.write_text(f"stub refused 209 {{file.stem.removeprefix('korvex_')}}")
for device, files in expected.items():
    own = folder / f"korvex_sm_{{device[0]}}{{device[1]}}.cubin"
    if {is_partial} and own.exists():
        files = files[1:]
        own.rename(own.with_suffix(".away"))
    driver.set_devices((*device, 1))
    loader = module.NativeCubinLoader()
    driver.take_log()
    with pytest.raises(RuntimeError):
        exact_sum(loader, [2.0])
    assert tried(driver.take_log()) == files, device
    del loader
    if own.with_suffix(".away").exists():
        own.with_suffix(".away").rename(own)
""",
        files,
    )
