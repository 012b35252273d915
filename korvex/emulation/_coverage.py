# SPDX-License-Identifier: Apache-2.0
"""The one table of the torch factories and operations that work on the emulated device.

An operation stands here by its own name: `add` is `torch.add`, `torch.Tensor.add` and `a + b`, and
also the in-place and operator forms `add_`, `__add__`, `__radd__`, `__iadd__`. The functions of
`torch.linalg` and `torch.fft` are named as in `linalg_solve`. Attributes are not listed: all can be
read. A key of the table is a rule, explained in the line above it; `_operations.py` holds it.
Whatever is not here is refused on the emulated device with `NotImplementedError`.
"""


def _names(text: str) -> set[str]:
    return set(text.split())


TABLE: dict[str, set[str]] = {
    # Functions of torch that make a tensor on the device that is asked for.
    "factory": _names("""
        arange as_tensor asarray empty empty_strided eye full linspace logspace ones rand randint
        randn randperm scalar_tensor tensor tril_indices triu_indices zeros
    """),
    # Those that would make a CPU tensor over emulated memory: refused with such an operand.
    "refused": _names("""
        sparse_bsc_tensor sparse_bsr_tensor sparse_compressed_tensor sparse_coo_tensor
        sparse_csc_tensor sparse_csr_tensor
    """),
    # Those that make a tensor where their first operand is, unless a device is given.
    "factory of an operand": _names("""
        empty_like full_like ones_like rand_like randint_like randn_like zeros_like
        new_empty new_empty_strided new_full new_ones new_tensor new_zeros
    """),
    # One result per element. A CPU tensor without dimensions may stand for a number.
    "element by element": _names("""
        add mul multiply neg negative pos positive rsub sub subtract
        abs absolute conj conj_physical resolve_conj resolve_neg sgn sign signbit square
        angle complex imag polar real view_as_complex view_as_real
        exp exp2 expm1 log log10 log1p log2 rpow reciprocal rsqrt sigmoid
        acos acosh asin asinh atan atan2 atanh arctan2 cos cosh hypot sin sinh tan tanh
        ceil fix floor frac round trunc
        clamp clamp_max clamp_min clip copysign fmax fmin max maximum min minimum nextafter relu
        eq ge greater greater_equal gt le less less_equal lt ne not_equal
        isclose isfinite isinf isnan isneginf isposinf nan_to_num
        bitwise_and bitwise_not bitwise_or bitwise_xor and invert lshift or rshift xor
        logical_and logical_not logical_or logical_xor
        addcdiv addcmul fma lerp masked_fill where
        __rand__ __rdiv__ __rpow__ __rtruediv__
    """),
    # The same, with an exact root or remainder in place of what torch computes on the CPU.
    "rounded as on CUDA": _names("fmod mod pow remainder sqrt __rmod__"),
    # True division: by a number it multiplies with the reciprocal, as CUDA does.
    "division": _names("div divide true_divide truediv"),
    # Everything else that computes or views: all tensors must be on the emulated device.
    "same device": _names("""
        all allclose amax amin aminmax any argmax argmin argsort count_nonzero cummax cummin
        cumprod cumsum diff equal logsumexp mean median nansum nonzero norm prod sort std std_mean
        sum topk unique var var_mean
        linalg_det linalg_inv linalg_lu_factor linalg_lu_factor_ex linalg_matrix_norm linalg_norm
        linalg_solve linalg_vector_norm inverse det
        addbmm addmm addmv addr baddbmm bmm chain_matmul cross dot einsum ger inner kron matmul mm
        mv outer tensordot trace vdot
        fft_fft fft_ifft fft_irfft fft_rfft
        as_strided atleast_1d atleast_2d atleast_3d chunk contiguous detach diag diag_embed diagonal
        expand flatten flip fliplr flipud movedim narrow permute ravel repeat repeat_interleave
        reshape roll rot90 select split squeeze swapaxes swapdims t tensor_split tile transpose tril
        triu unbind unflatten unfold unsafe_chunk unsqueeze view adjoint
        cat concat concatenate column_stack dstack hstack stack vstack
        gather index_add index_copy index_fill index_select masked_scatter masked_select put scatter
        scatter_add take
        bfloat16 bool byte char clone double float half int long short cdouble cfloat
        bernoulli_ exponential_ fill fill_ normal_ random_ uniform_ zero_
        fold pad linear softmax log_softmax
        cross_entropy huber_loss l1_loss mse_loss nll_loss smooth_l1_loss
        backward grad requires_grad_ retain_grad
        __contains__ __reversed__
    """),
    # The result is where the first operand is; of the second only the form is read.
    "form of another": _names("expand_as reshape_as view_as"),
    # Each result is where its own operand is.
    "each for itself": _names("broadcast_tensors"),
    # Indices may be on the CPU, and what is assigned too.
    "indexing": _names("__getitem__ __setitem__"),
    # From either device to the other.
    "copy": _names("copy_"),
    # Changes of device and type, and what only a tensor of the emulated device can answer.
    "device": _names("""
        cpu cuda get_device numpy to type type_as __array__ __deepcopy__ __dlpack__
        __dlpack_device__ __format__ __reduce_ex__ __repr__
    """),
    # Asked by a module that moves its parameters.
    "module": _names("_has_compatible_shallow_copy_type"),
    # Answers in Python objects, the same as on the host.
    "query": _names("""
        data_ptr dim dim_order element_size is_complex is_conj is_contiguous
        is_floating_point is_inference is_neg is_nonzero is_pinned is_same_size is_set_to is_shared
        is_signed item ndimension nelement numel size storage_offset stride tolist can_cast
        result_type
        __bool__ __complex__ __dir__ __float__ __hash__ __index__ __int__ __len__
    """),
}
