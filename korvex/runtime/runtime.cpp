// SPDX-License-Identifier: Apache-2.0
// Names, globals and the launch convention.
#include "korvex/runtime/runtime.h"

#include "korvex/runtime/module_state.h"

namespace korvex {

const Names& names() { return module_state().names; }

Object global(Handle name) {
  const Object& globals = module_state().globals;
  const Handle own = PyDict_GetItemWithError(globals, name);
  if (own != nullptr) return Object::borrow(own);
  if (PyErr_Occurred() != nullptr) throw PythonError{};
  const Handle builtin = PyDict_GetItemWithError(module_state().builtins, name);
  if (builtin != nullptr) return Object::borrow(builtin);
  if (PyErr_Occurred() != nullptr) throw PythonError{};
  raise_formatted(PyExc_NameError, "name '%U' is not defined", name);
}

void require_cuda(const Object& x) {
  const Object is_cuda = x.get(names().is_cuda);
  if (!truth(is_cuda)) raise(PyExc_RuntimeError, messages::kNeedsCuda);
}

Object get_kernel(Handle kernel_name) {
  const Object loader = global(names().native_loader);
  return loader.method(names().get_kernel, kernel_name);
}

Object from_dlpack(const Object& tensor) {
  const Object convert = global(names().cp).get(names().from_dlpack);
  return convert.call(tensor);
}

void synchronize() {
  const Object stream = global(names().cp).get(names().cuda).get(names().stream);
  stream.get(names().null).method(names().synchronize);
}

Object blocks_for(const Object& n, long block) {
  const Object block_size = integer(block);
  const Object padded = add(n, block_size);
  const Object last = subtract(padded, names().one);
  return floor_divide(last, block_size);
}

namespace {

// torch.factory(size, dtype=torch.float64, device=x.device)
Object allocated(Handle factory, Handle size, const Object& x) {
  const Object allocate = global(names().torch).get(factory);
  const Object dtype = global(names().torch).get(names().float64);
  const Object device = x.get(names().device);
  return allocate.call_with(names().dtype_device_keywords, size, dtype, device);
}

}  // namespace

Object zeros_like_device(Handle size, const Object& x) { return allocated(names().zeros, size, x); }

Object empty_like_device(Handle size, const Object& x) { return allocated(names().empty, size, x); }

Object in_shape_of(const Object& out, const Object& x) {
  const Object view = out.get(names().view);
  return view.call(x.get(names().shape));
}

Object device_text(const Object& x) {
  const Object device = x.get(names().device);
  return to_text(device);
}

Object folded(const Object& x) {
  return is_instance(x, global(names().tqx_result)) ? x.method(names().collapse) : x;
}

Object one_limb(const Object& result, const Object& source, bool return_tqx) {
  if (!return_tqx) return result;
  const Object result_class = global(names().tqx_result);
  const Object limbs = list(result);
  const Object device = device_text(source);
  return result_class.call_with(names().device_keyword, limbs, device);
}

}  // namespace korvex
