# SPDX-License-Identifier: Apache-2.0
"""The calls of a matrix product and of a solver, one by one and in order.

Every script is complete: what is not listed is not done. Functions of the module that the solver
calls are spies too. All other functions and routes are compared with the reference implementation,
in tests/runtime.
"""

from call_recorder import WAIT


def test_limbs_of_two_matrices(runtime, recorded):
    recorder = recorded(
        f"""
        a.shape
        b.shape
        a.double
        a1 = a.double()
        a1.contiguous
        a_fp64 = a1.contiguous()
        b.double
        b1 = b.double()
        b1.contiguous
        b_fp64 = b1.contiguous()
        torch.zeros
        a.device
        torch.float64
        C0 = torch.zeros(3, 17, device=a.device, dtype=torch.float64)
        torch.zeros
        a.device
        torch.float64
        C1 = torch.zeros(3, 17, device=a.device, dtype=torch.float64)
        torch.zeros
        a.device
        torch.float64
        C2 = torch.zeros(3, 17, device=a.device, dtype=torch.float64)
        loader.get_kernel
        kernel = loader.get_kernel('tqx_matmul_kernel')
        kernel.function
        cp.from_dlpack
        a_array = cp.from_dlpack(a_fp64)
        cp.from_dlpack
        b_array = cp.from_dlpack(b_fp64)
        cp.from_dlpack
        C0_array = cp.from_dlpack(C0)
        cp.from_dlpack
        C1_array = cp.from_dlpack(C1)
        cp.from_dlpack
        C2_array = cp.from_dlpack(C2)
        kernel.function((2, 1, 1), (16, 16, 1), \
(a_array, b_array, C0_array, C1_array, C2_array, 3, 17, 5))
        {WAIT}
        a.device
        str(a.device)
        C0.shape
        torch.float64
        """,
        returns={"a.shape": (3, 5), "b.shape": (5, 17), "str(a.device)": "cuda:7"},
    )
    result = runtime._tqx_matmul_2d(recorder.spy("a"), recorder.spy("b"), True)
    recorder.check()
    assert repr(result.limbs) == "[<C0>, <C1>, <C2>]" and result.device == "cuda:7"


def test_solver_stops_before_the_correction_of_a_small_residual(runtime, recorded):
    recorder = recorded(
        """
        A.is_cuda
        bool(A.is_cuda)
        A.double
        A64 = A.double()
        B.double
        B64 = B.double()
        torch.linalg
        torch.linalg.solve
        x0 = torch.linalg.solve(A64, B64)
        A64.device
        str(A64.device)
        sum0 = TQXResult([x0], 'cuda:5')
        sum0.collapse
        current0 = sum0.collapse()
        Ax0 = tqx_matmul(A64, current0, return_tqx=True)
        limbs0 = tqx_sub(B64, Ax0, return_tqx=True)
        limbs0.collapse
        residual0 = limbs0.collapse()
        residual0.abs
        sizes0 = residual0.abs()
        sizes0.max
        norm0 = sizes0.max()
        small0 = norm0 < 1e-15
        bool(small0)
        torch.linalg
        torch.linalg.solve
        correction0 = torch.linalg.solve(A64, residual0)
        sum1 = tqx_add(sum0, correction0, return_tqx=True)
        sum1.collapse
        current1 = sum1.collapse()
        Ax1 = tqx_matmul(A64, current1, return_tqx=True)
        limbs1 = tqx_sub(B64, Ax1, return_tqx=True)
        limbs1.collapse
        residual1 = limbs1.collapse()
        residual1.abs
        sizes1 = residual1.abs()
        sizes1.max
        norm1 = sizes1.max()
        small1 = norm1 < 1e-15
        bool(small1)
        sum1.collapse
        result = sum1.collapse()
        """,
        *("TQXResult", "tqx_matmul", "tqx_sub", "tqx_add"),
        returns={"str(A64.device)": "cuda:5", "bool(small0)": False},
    )
    assert repr(runtime.tqx_solve(recorder.spy("A"), recorder.spy("B"))) == "<result>"
    recorder.check()
