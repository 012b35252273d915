// SPDX-License-Identifier: Apache-2.0
// The module as function bodies see it: names, globals, the CUDA test, the launch convention.
//
// Bodies look up torch, cp, _NATIVE_LOADER and each other in the module's dict at every use, as
// Python code does, so a program or a test can replace any of them.
#pragma once

#include "korvex/cpython/object.h"
#include "korvex/cpython/signature.h"
#include "korvex/runtime/messages.h"
#include "korvex/runtime/names.h"

namespace korvex {

// The value of a global name: the module's dict first, then the builtins, else NameError.
Object global(Handle name);

// Raises the RuntimeError for a tensor that is not on a CUDA device. Only the operand given here
// is tested; any other fails in cp.from_dlpack.
void require_cuda(const Object& x);

// ---- launch convention ----
// Every launch: get the kernel by its literal name, launch, and wait on the null stream before any
// output is touched. Arrays are made one per tensor, in argument order, right before the launch.

inline constexpr long kBlock = 256;  // threads per block of the one-dimensional shape

Object get_kernel(Handle kernel_name);
Object from_dlpack(const Object& tensor);
void synchronize();

// (n + BLOCK - 1) // BLOCK in Python's own integer arithmetic, so n may be any number object.
Object blocks_for(const Object& n, long block);

// torch.zeros(size, dtype=torch.float64, device=x.device)
Object zeros_like_device(Handle size, const Object& x);

// torch.empty(size, dtype=torch.float64, device=x.device): the kernel must write every element.
Object empty_like_device(Handle size, const Object& x);

// out.view(x.shape)
Object in_shape_of(const Object& out, const Object& x);

// str(x.device)
Object device_text(const Object& x);

// ---- functions that fold limbs ----

// x.collapse() for a TQXResult, else x itself
Object folded(const Object& x);

// The tensor itself, or TQXResult([result], device=str(source.device)) if limbs are asked for.
Object one_limb(const Object& result, const Object& source, bool return_tqx);

}  // namespace korvex
