# SPDX-License-Identifier: Apache-2.0
"""A driver call that fails: the error says which and why, and nothing is left behind."""

import pytest

CLEARING = {"cuModuleGetGlobal_v2", "cuMemsetD8Async"}


@pytest.mark.parametrize(
    ("launching", "further_calls", "choice"),
    [
        ("exact_sum", set(), "as-asked"),
        ("parallel_sum", CLEARING, "as-asked"),
        ("exact_sum", CLEARING, "device"),
        ("variance", CLEARING, "device"),
    ],
)
def test_every_call_of_a_launch_can_fail(run, launching, further_calls, choice):
    """Each call in turn, from the construction of a loader to the end of a launch elsewhere."""
    run(
        f"""
        further_calls = {further_calls}
        module = import_loader()
        def use():
            loader = module.NativeCubinLoader()
            return {launching}(loader, [2e100, 4.0, -2e100, -1.0, 1.0], device=1)

        driver.set_device(0)
        before = driver.state()
        driver.take_log()
        good = use()
        assert good[0] == {{"exact_sum": 4.0, "parallel_sum": 4.0, "variance": 0.8}}["{launching}"]
        calls = driver.take_calls()
        last = len(calls) - 1 - calls[::-1].index("cuCtxPopCurrent_v2")
        calls = calls[: calls.index("cuModuleUnload")]
        calls = calls[: len(calls) - calls[::-1].index("cuLaunchKernel") + 2]
        assert calls[-1] == "cuCtxPopCurrent_v2"
        assert {{"cuInit", "cuDevicePrimaryCtxRetain", "cuCtxPushCurrent_v2", "cuModuleLoadDataEx",
                "cuModuleGetFunction", "cuPointerGetAttributes"}} | further_calls <= set(calls)
        for position, call in enumerate(calls):
            driver.fail("*", calls_before=position)
            with pytest.raises(RuntimeError) as caught:
                use()
            assert driver.failures_left() == 0
            expected = call + " failed: CUDA_ERROR_OUT_OF_MEMORY (out of memory)"
            assert expected in str(caught.value)
            del caught
            assert driver.state() == before, (position, call)
            assert use() == good
            assert driver.state() == before
        """,
        KORVEX_LAUNCH=choice,
    )


def test_loader_works_on_after_a_failure(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        driver.set_device(0)
        for call in ("cuDevicePrimaryCtxRetain", "cuCtxPushCurrent_v2", "cuModuleLoadDataEx",
                     "cuModuleGetFunction", "cuLaunchKernel", "cuStreamSynchronize"):
            driver.fail(call)
            with pytest.raises(RuntimeError, match=f"^tqx_sum_seq_kernel: .*{call} failed"):
                exact_sum(loader, [2.0], device=1)
            assert driver.state()["context depth"] == 1
        assert exact_sum(loader, [2.0], device=1) == [2.0, 0.0, 0.0, 0.0]
        assert driver.state()["modules"] == 1 and driver.state()["retained"] == [1, 1]
        """
    )


@pytest.mark.parametrize(
    ("result", "text"),
    [
        (2, "CUDA_ERROR_OUT_OF_MEMORY (out of memory)"),
        (700, "CUDA_ERROR_ILLEGAL_ADDRESS"),
        (12345, "error 12345"),
    ],
)
def test_words_of_an_error(run, result, text):
    run(
        f"""
        loader = import_loader().NativeCubinLoader()
        driver.fail("cuLaunchKernel", {result})
        with pytest.raises(RuntimeError) as caught:
            exact_sum(loader, [2.0])
        assert str(caught.value) == "tqx_sum_seq_kernel: cuLaunchKernel failed: {text}"
        """
    )


def test_file_that_the_driver_does_not_take_is_named_with_the_compilers_log(run):
    run(
        """
        import pathlib
        loader = import_loader().NativeCubinLoader()
        pathlib.Path(loader.cubin_path).write_text("stub broken")
        with pytest.raises(RuntimeError) as caught:
            exact_sum(loader, [2.0])
        assert str(caught.value) == (
            f"tqx_sum_seq_kernel: {loader.cubin_path}: cuModuleLoadDataEx failed: "
            "CUDA_ERROR_INVALID_IMAGE\\nstub compiler log")
        assert driver.state()["retained"] == [0, 0]
        loader.cubin_path.unlink()
        with pytest.raises(RuntimeError) as caught:
            exact_sum(loader, [2.0])
        assert str(caught.value) == f"tqx_sum_seq_kernel: cannot read {loader.cubin_path}"
        """
    )


def test_kernel_that_the_file_lacks(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        driver.fail("cuModuleGetFunction", 500)
        with pytest.raises(RuntimeError) as caught:
            exact_sum(loader, [2.0])
        assert str(caught.value) == (
            "tqx_sum_seq_kernel: cuModuleGetFunction failed: CUDA_ERROR_NOT_FOUND")
        """
    )


def test_failure_of_the_work_itself_shows_where_it_is_waited_for(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        driver.set_device(0)
        driver.fail("cuStreamSynchronize", 700)
        with pytest.raises(RuntimeError, match="cuStreamSynchronize failed: CUDA_ERROR_ILLEGAL"):
            exact_sum(loader, [2.0], device=1)
        assert driver.state()["context depth"] == 1
        """
    )


@pytest.mark.parametrize("files", [["sm_90", "sm_80"], ["sm_80"]])
def test_constructor_raises_runtime_error_and_no_import_error(run, files):
    """An ImportError would send the importer to another loader, and then to "install cupy"."""
    run(
        """
        module = import_loader()
        driver.set_devices()
        with pytest.raises(RuntimeError) as caught:
            module.NativeCubinLoader()
        assert str(caught.value) == (
            "korvex cannot launch CUDA kernels here: cuInit failed: CUDA_ERROR_NO_DEVICE "
            "(no CUDA-capable device)")
        """,
        files,
    )


def test_forked_child_learns_that_it_cannot_use_cuda(run):
    run(
        """
        import os
        module = import_loader()
        loader = module.NativeCubinLoader()
        kernel = loader.get_kernel("tqx_sum_seq_kernel")
        assert exact_sum(loader, [2.0]) == [2.0, 0.0, 0.0, 0.0]
        x, out = DeviceArray(driver, [2.0]), DeviceArray(driver, [0.0] * 4)
        driver.take_log()
        child = os.fork()
        if child == 0:
            status = 1
            try:
                for use in (lambda: kernel.function((1, 1, 1), (1, 1, 1), (x, out, 1)),
                            module.NativeCubinLoader):
                    with pytest.raises(RuntimeError, match="does not work in a forked child"):
                        use()
                del use, kernel, loader
                assert driver.take_log() == [], "no call reaches the driver in the child"
                status = 0
            finally:
                os._exit(status)
        assert os.waitpid(child, 0)[1] == 0
        assert exact_sum(loader, [2.0]) == [2.0, 0.0, 0.0, 0.0]
        """
    )


def test_fork_between_import_and_first_loader_harms_nobody(run):
    run(
        """
        import os
        module = import_loader()
        assert driver.take_log() == []
        child = os.fork()
        if child == 0:
            status = 1
            try:
                assert exact_sum(module.NativeCubinLoader(), [2.0]) == [2.0, 0.0, 0.0, 0.0]
                status = 0
            finally:
                os._exit(status)
        assert os.waitpid(child, 0)[1] == 0
        assert exact_sum(module.NativeCubinLoader(), [3.0]) == [3.0, 0.0, 0.0, 0.0]
        """
    )


def test_nothing_leaks(run):
    """No reference and no memory over many launches, good and refused ones.

    The interpreter fills its own stores in the first rounds, and not in the same one in each of its
    releases; a leak shows in every round.
    """
    run(
        """
        import gc, sys
        loader = import_loader().NativeCubinLoader()
        kernel = loader.get_kernel("tqx_sum_seq_kernel")
        x, out = DeviceArray(driver, [2.0]), DeviceArray(driver, [0.0] * 4)
        count = 10**20 + 1
        def work():
            kernel.function((1, 1, 1), (1, 1, 1), (x, out, 1))
            for arguments in ((x, out, count), (x, out), (x, 1, 1), (x, out, 2)):
                try:
                    kernel.function((1, 1, 1), (1, 1, 1), arguments)
                except (TypeError, ValueError):
                    pass
            try:
                loader.get_kernel("none")
            except KeyError:
                pass
        def measure():
            gc.collect()
            return (sys.getallocatedblocks(), *map(sys.getrefcount, (x, out, count, kernel)))
        counts = [measure()]
        for _ in range(6):
            for _ in range(300):
                work()
            counts.append(measure())
            before, after = counts[-2:]
            if len(counts) > 2 and after[1:] == before[1:] and abs(after[0] - before[0]) < 3:
                break
        else:
            raise AssertionError(counts)
        """
    )
