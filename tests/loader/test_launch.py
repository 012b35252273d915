# SPDX-License-Identifier: Apache-2.0
"""What reaches the driver at a launch: device, context, stream, grid, block, arguments."""


def test_function_launches_exactly_its_grid_and_block_on_the_null_stream(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        x, out = DeviceArray(driver, [2.0, 3.0]), DeviceArray(driver, [0.0] * 4)
        kernel = loader.get_kernel("tqx_sum_seq_kernel")
        assert kernel.function((3, 2, 1), (4, 5, 6), (x, out, 2)) is None
        assert launches(driver.take_log()) == [
            ("tqx_sum_seq_kernel", (3, 2, 1), (4, 5, 6), stub_driver.LEGACY_STREAM)]
        """
    )


def test_launch_uses_the_kernels_own_block(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        x, out, out_err = (DeviceArray(driver, [1e16, 1.0]), DeviceArray(driver, [0.0]),
                           DeviceArray(driver, [0.0]))
        kernel = loader.get_kernel("tqx_sum_kernel")
        assert kernel.launch(x, out, out_err, 2, grid=(1, 1, 1)) is None
        assert launches(driver.take_log()) == [
            ("tqx_sum_kernel", (1, 1, 1), (256, 1, 1), stub_driver.LEGACY_STREAM)]
        assert (out.tolist(), out_err.tolist()) == ([1e16], [1.0])
        """
    )


def test_grid_of_a_striding_kernel_is_limited_by_launch_alone(run):
    """Device 0 has 4 multiprocessors, device 1 has 2, and 4 blocks fill one."""
    run(
        """
        loader = import_loader().NativeCubinLoader()
        kernel = loader.get_kernel("tqx_sum_kernel")
        assert kernel.blocks_per_multiprocessor == 4
        n = 100_000
        results = set()
        for device, grid, expected in (
                (0, 15, 15), (0, 16, 16), (0, 17, 16), (0, 2**31 - 1, 16), (1, 99, 8)):
            arrays = [DeviceArray(driver, values, device) for values in ([0.1] * n, [0.0], [0.0])]
            kernel.launch(*arrays, n, grid=(grid, 1, 1))
            [launch] = launches(driver.take_log())
            assert launch[1] == (expected, 1, 1), launch
            results.add((*arrays[1].tolist(), *arrays[2].tolist()))
        assert len(results) == 1
        kernel.function((99, 1, 1), (256, 1, 1), (*arrays, n))
        assert launches(driver.take_log())[0][1] == (99, 1, 1)
        """
    )


def test_no_more_blocks_start_than_there_are_elements_for(run):
    """A block of the sum takes 4096 elements at a time, one of the dot product 2048."""
    run(
        """
        loader = import_loader().NativeCubinLoader()
        x = DeviceArray(driver, [0.5] * 8193)
        outs = [DeviceArray(driver, [0.0]) for _ in range(3)]
        total, dot = loader.get_kernel("tqx_sum_kernel"), loader.get_kernel("tqx_dot_kernel")
        assert dot.blocks_per_multiprocessor == 3
        for n, expected in ((0, 1), (1, 1), (4096, 1), (4097, 2), (8192, 2), (8193, 3)):
            total.launch(x, *outs[:2], n, grid=(99, 1, 1))
            assert launches(driver.take_log())[0][1] == (expected, 1, 1)
        for n, expected in ((0, 1), (2048, 1), (2049, 2), (8192, 4), (8193, 5)):
            dot.launch(x, x, *outs, n, grid=(99, 1, 1))
            assert launches(driver.take_log())[0][1] == (expected, 1, 1)
        """
    )


def test_second_extent_of_a_kernel_that_strides_along_it_is_what_a_device_takes(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        kernel = loader.get_kernel("tqx_matmul_kernel")
        rows = 16 * 65535 + 17
        a = DeviceArray(driver, [float(i) for i in range(rows)])
        b, outs = DeviceArray(driver, [3.0]), [DeviceArray(driver, [9.0] * rows) for _ in range(3)]
        for y, launched in ((65535, 65535), (65536, 65535), (65537, 65535), (2**31 - 1, 65535)):
            driver.take_log()
            kernel.function((1, y, 1), (16, 16, 1), (a, b, *outs, rows, 1, 1))
            assert launches(driver.take_log()) == [
                ("tqx_matmul_kernel", (1, launched, 1), (16, 16, 1), stub_driver.LEGACY_STREAM)]
        driver.synchronize()
        assert outs[0].tolist() == [3.0 * i for i in range(rows)]
        assert outs[2].tolist() == [0.0] * rows
        for grid in ((1, 2**31, 1), (1, 1, 65536), (2**31, 1, 1)):
            with pytest.raises(ValueError) as caught:
                kernel.function(grid, (16, 16, 1), (a, b, *outs, rows, 1, 1))
            assert str(caught.value) == f"tqx_matmul_kernel: grid {grid} is out of range"
        other, out = loader.get_kernel("tqx_sum_seq_kernel"), DeviceArray(driver, [0.0] * 4)
        with pytest.raises(ValueError) as caught:
            other.function((1, 65536, 1), (1, 1, 1), (b, out, 1))
        assert str(caught.value) == "tqx_sum_seq_kernel: grid (1, 65536, 1) is out of range"
        """
    )


def test_launch_on_the_current_device_is_left_to_the_caller_to_wait_for(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        driver.set_device(1)
        x, out = DeviceArray(driver, [0.5, 0.25], 1), DeviceArray(driver, [0.0] * 4, 1)
        driver.take_log()
        loader.get_kernel("tqx_sum_seq_kernel").function((1, 1, 1), (1, 1, 1), (x, out, 2))
        calls = driver.take_calls()
        assert not {"cuCtxPushCurrent_v2", "cuStreamSynchronize"} & set(calls), calls
        assert out.tolist() == [0.0] * 4 and driver.state()["pending"] == [0, 1]
        driver.synchronize()
        assert out.tolist() == [0.75, 0.0, 0.0, 0.0]
        """
    )


def test_launch_on_another_device_has_finished_there_when_the_call_returns(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        for current in (None, 0):
            if current is not None:
                driver.set_device(current)
            depth = driver.state()["context depth"]
            x, out = DeviceArray(driver, [0.5, 0.25], 1), DeviceArray(driver, [0.0] * 4, 1)
            driver.take_log()
            loader.get_kernel("tqx_sum_seq_kernel").function((1, 1, 1), (1, 1, 1), (x, out, 2))
            assert out.tolist() == [0.75, 0.0, 0.0, 0.0]
            assert driver.state()["context depth"] == depth
            calls = driver.take_calls()
            expected = ["cuLaunchKernel", "cuStreamSynchronize", "cuCtxPopCurrent_v2"]
            assert calls[-3:] == expected, calls
        """
    )


def test_arrays_on_two_devices_are_refused(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        x, out = DeviceArray(driver, [0.5], 0), DeviceArray(driver, [0.0] * 4, 1)
        kernel = loader.get_kernel("tqx_sum_seq_kernel")
        with pytest.raises(ValueError) as caught:
            kernel.function((1, 1, 1), (1, 1, 1), (x, out, 1))
        assert str(caught.value) == (
            "tqx_sum_seq_kernel: 'x' is on device 0 and 'out' on device 1: "
            "all arrays of a launch must be on one device")
        assert not launches(driver.take_log())
        """
    )


def test_memory_that_the_driver_does_not_know_is_refused(run):
    run(
        """
        import ctypes
        loader = import_loader().NativeCubinLoader()
        host = (ctypes.c_double * 2)()
        x = DeviceArray(driver, [1.0, 2.0], data=(ctypes.addressof(host), False))
        kernel = loader.get_kernel("tqx_sum_seq_kernel")
        with pytest.raises(ValueError, match="^tqx_sum_seq_kernel: 'x' is not in the memory of a"):
            kernel.function((1, 1, 1), (1, 1, 1), (x, DeviceArray(driver, [0.0] * 4), 2))
        assert not launches(driver.take_log())
        """
    )


def test_empty_array_decides_no_device(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        x, out = DeviceArray(driver, [], 0), DeviceArray(driver, [7.0] * 4, 1)
        loader.get_kernel("tqx_sum_seq_kernel").function((1, 1, 1), (1, 1, 1), (x, out, 0))
        assert out.tolist() == [0.0] * 4
        """
    )


def test_grid_without_extent_does_nothing_after_the_checks(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        arrays = [DeviceArray(driver, values) for values in ([], [7.0], [8.0])]
        kernel = loader.get_kernel("tqx_sum_kernel")
        driver.take_log()
        for grid in ((0, 1, 1), (1, 0, 1), (1, 1, 0)):
            assert kernel.launch(*arrays, 0, grid=grid) is None
            assert kernel.function(grid, (256, 1, 1), (*arrays, 0)) is None
        assert driver.take_log() == []
        assert (arrays[1].tolist(), arrays[2].tolist()) == ([7.0], [8.0])
        with pytest.raises(ValueError, match="'x' must have at least n = 1 elements, but has 0"):
            kernel.launch(*arrays, 1, grid=(0, 1, 1))
        """
    )


def test_two_loaders_share_nothing_and_give_everything_back(run):
    run(
        """
        module = import_loader()
        before = driver.state()
        loaders = [module.NativeCubinLoader() for _ in range(2)]
        kernels = [loader.get_kernel("tqx_sum_seq_kernel") for loader in loaders]
        for device in (0, 1):
            for loader in loaders:
                exact_sum(loader, [1.0], device)
        assert driver.state()["modules"] == 4
        assert driver.state()["retained"] == [2, 2]
        del loader, loaders
        assert driver.state()["modules"] == 4, "a kernel keeps what it runs on"
        del kernels[0]
        assert driver.state()["modules"] == 2
        kernels.clear()
        assert driver.state() == before
        """
    )


def test_interpreter_runs_while_the_driver_waits(run):
    """Were the lock held, nobody could unblock the driver, and its call would fail in the end."""
    run(
        """
        import threading
        module = import_loader()
        for call in ("cuInit", "cuModuleLoadDataEx", "cuLaunchKernel", "cuStreamSynchronize"):
            driver.block(call)
            results = []
            thread = threading.Thread(
                target=lambda: results.append(exact_sum(module.NativeCubinLoader(), [4.0], 1)))
            thread.start()
            assert driver.wait_until_blocked(), call
            driver.unblock()
            thread.join()
            assert results == [[4.0, 0.0, 0.0, 0.0]], call
        """
    )


def test_threads_load_a_device_once(run):
    run(
        """
        import threading
        loader = import_loader().NativeCubinLoader()
        results = []
        def work(number):
            for turn in range(20):
                results.append(exact_sum(loader, [1e100, number + turn, -1e100], turn % 2)[0]
                               - number - turn)
        threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert results == [0.0] * 80
        assert driver.take_calls().count("cuModuleLoadDataEx") == 2
        """
    )


def test_stream_of_an_array_is_waited_for_before_the_launch(run):
    """A stream that was made non-blocking is none that the null stream waits for."""
    run(
        """
        loader = import_loader().NativeCubinLoader()
        kernel = loader.get_kernel("tqx_sum_seq_kernel")
        for streams, waits in (
                ((None, None), []), ((1, 1), []), ((7, 1), [7]), ((7, 7), [7]), ((7, 8), [7, 8])):
            driver.set_device(0)
            x = DeviceArray(driver, [1.0], stream=streams[0])
            out = DeviceArray(driver, [0.0] * 4, stream=streams[1])
            driver.take_log()
            kernel.function((1, 1, 1), (1, 1, 1), (x, out, 1))
            log = driver.take_log()
            assert [line for line in log if "Synchronize" in line] == [
                f"cuStreamSynchronize {stream}" for stream in waits]
            assert log[-1].startswith("cuLaunchKernel")
            driver.synchronize()
        """
    )


def test_workspace_is_cleared_on_the_stream_of_the_launch_before_each(run):
    """The stub spoils it after every launch, as one that was cut short does, and wants it zero."""
    run(
        """
        loader = import_loader().NativeCubinLoader()
        driver.set_device(0)
        for _ in range(2):
            driver.take_log()
            assert parallel_sum(loader, [1e100, 1.0, -1e100]) == [1.0, 0.0]
            log = driver.take_log()
            assert queued(log) == [("clear", "sum_grid_memory"), ("launch", "tqx_sum_kernel")]
            assert "cuMemsetD8Async sum_grid_memory to 0 bytes 48 stream 1" in log
        x, *outs = (DeviceArray(driver, values) for values in ([2.0, 3.0], [0.0], [0.0], [0.0]))
        loader.get_kernel("tqx_dot_kernel").launch(x, x, *outs, 2, grid=(1, 1, 1))
        driver.synchronize()
        assert outs[0].tolist() == [13.0]
        log = driver.take_log()
        assert queued(log) == [("clear", "dot_grid_memory"), ("launch", "tqx_dot_kernel")]
        """
    )


def test_workspace_is_looked_up_once_a_device(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        for device in (0, 1, 0, 1):
            assert parallel_sum(loader, [4.0], device) == [4.0, 0.0]
        assert driver.take_calls().count("cuModuleGetGlobal_v2") == 2
        """
    )


def test_kernel_without_a_workspace_clears_nothing(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        assert exact_sum(loader, [2.0]) == [2.0, 0.0, 0.0, 0.0]
        assert queued(driver.take_log()) == [("launch", "tqx_sum_seq_kernel")]
        """
    )


def test_threads_clear_for_their_own_launch(run):
    """Nothing of another thread is queued between the clearing and the kernel."""
    run(
        """
        import threading
        loader = import_loader().NativeCubinLoader()
        results = []
        def work(number):
            for turn in range(30):
                results.append(parallel_sum(loader, [1e100, number + turn, -1e100], 1)[0]
                               - number - turn)
        threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        assert results == [0.0] * 120
        done = queued(driver.take_log())
        assert done == [("clear", "sum_grid_memory"), ("launch", "tqx_sum_kernel")] * 120
        """
    )


def test_array_without_a_stream_needs_no_wait(run):
    run(
        """
        loader = import_loader().NativeCubinLoader()
        class Plain:
            def __init__(self, array):
                self.__cuda_array_interface__ = dict(array.__cuda_array_interface__)
                del self.__cuda_array_interface__["stream"]
                del self.__cuda_array_interface__["strides"]
        driver.set_device(0)
        x, out = DeviceArray(driver, [1.0]), DeviceArray(driver, [0.0] * 4)
        kernel = loader.get_kernel("tqx_sum_seq_kernel")
        kernel.function((1, 1, 1), (1, 1, 1), (Plain(x), Plain(out), 1))
        assert "cuStreamSynchronize" not in driver.take_calls()
        driver.synchronize()
        assert out.tolist() == [1.0, 0.0, 0.0, 0.0]
        """
    )
