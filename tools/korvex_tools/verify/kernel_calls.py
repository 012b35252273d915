# SPDX-License-Identifier: Apache-2.0
"""Launches of kernels through the module's own loader, with every output in sight.

The functions of the module leave out some outputs: the mean that the variance is taken from, the
error limbs of sums. Works on any device, as the module does.
"""

ONE = (1, 1, 1)


def launch(module, name, *arguments, grid=ONE):
    module._NATIVE_LOADER.get_kernel(name).launch(*_passed(module, arguments), grid=grid)
    module.cp.cuda.Stream.null.synchronize()


def function(module, name, *arguments, grid=ONE, block=ONE):
    module._NATIVE_LOADER.get_kernel(name).function(grid, block, _passed(module, arguments))
    module.cp.cuda.Stream.null.synchronize()


def _passed(module, arguments):
    return tuple(module.cp.from_dlpack(a) if hasattr(a, "numel") else a for a in arguments)


def outputs(module, like, *sizes):
    torch = module.torch
    return [torch.zeros(size, dtype=torch.float64, device=like.device) for size in sizes]


def blocks(n):
    return (max(1, (n + 255) // 256), 1, 1)


# ---- by form ----


def of_whole_array(name, *sizes):
    """A kernel that leaves a few numbers of all operands; `sizes` of its outputs."""
    is_sequential = name.endswith("_seq_kernel")
    is_parallel = name in ("tqx_sum_kernel", "tqx_dot_kernel")

    def run(module, *operands):
        n = operands[0].numel()
        found = outputs(module, operands[0], *sizes)
        if is_sequential:
            function(module, name, *operands, *found, n)
        else:
            launch(module, name, *operands, *found, n, grid=blocks(n) if is_parallel else ONE)
        return found

    return run


def of_elements(name, output_count, *numbers):
    """A kernel that leaves n elements, by as many blocks as cover them."""

    def run(module, *operands):
        n = operands[0].numel()
        found = outputs(module, operands[0], *[n] * output_count)
        launch(module, name, *operands, *numbers, *found, n, grid=blocks(n))
        return found

    return run


def cumsum(module, x):
    found = outputs(module, x, x.numel(), x.numel())
    launch(module, "tqx_cumsum_kernel", x, *found, x.numel())
    return found


def rms_norm(module, x, eps):
    found = outputs(module, x, x.numel())
    launch(module, "tqx_rms_norm_kernel", x, *found, x.numel(), eps)
    return found


def matmul(module, a, b):
    (m, k), n = a.shape, b.shape[1]
    found = outputs(module, a, *[m * n] * 3)
    grid = ((n + 15) // 16, (m + 15) // 16, 1)
    arguments = (a.contiguous(), b.contiguous(), *found, m, n, k)
    function(module, "tqx_matmul_kernel", *arguments, grid=grid, block=(16, 16, 1))
    return found
