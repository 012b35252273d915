// SPDX-License-Identifier: Apache-2.0
// launch() and function() of a kernel object.
#include "korvex/cubin_loader_native/kernel_object.h"

#include <string_view>

#include "korvex/cubin_loader_native/launch_checks.h"
#include "korvex/cubin_loader_native/messages.h"
#include "korvex/cubin_loader_native/python_border.h"

namespace korvex::cubin_loader {
namespace {

struct KernelObject {
  PyObject header;
  std::shared_ptr<Launcher> launcher;
  int row;
};

KernelObject* as_kernel(PyObject* self) { return reinterpret_cast<KernelObject*>(self); }
const KernelRow& row_of(PyObject* self) { return kKernelTable[as_kernel(self)->row]; }
bool has_own_block(const KernelRow& row) { return row.form == std::string_view("launch"); }

// A grid without extent has no thread, and the driver would refuse it.
PyObject* run(PyObject* self, const Launch& launch) {
  const auto& [x, y, z] = launch.grid;
  if (x != 0 && y != 0 && z != 0) {
    without_lock([&] { as_kernel(self)->launcher->launch(launch); });
  }
  return none().release();
}

// The value of the only keyword that launch() has.
Handle read_grid_keyword(const char* kernel, Handle const* values, Handle names) {
  Handle grid = nullptr;
  const Py_ssize_t count = names == nullptr ? 0 : PyTuple_GET_SIZE(names);
  for (Py_ssize_t i = 0; i < count; ++i) {
    const Handle name = PyTuple_GET_ITEM(names, i);
    if (PyUnicode_CompareWithASCIIString(name, "grid") != 0) {
      raise_formatted(PyExc_TypeError, messages::kUnexpectedKeyword, kernel, name);
    }
    grid = values[i];
  }
  if (grid == nullptr) {
    raise_formatted(PyExc_TypeError, messages::kNoGrid, kernel);
  }
  return grid;
}

PyObject* kernel_launch(PyObject* self, Handle const* arguments, Py_ssize_t count,
                        PyObject* keyword_names) {
  const KernelRow& row = row_of(self);
  const auto body = [&] {
    if (!has_own_block(row)) {
      raise_formatted(PyExc_TypeError, messages::kNoOwnBlock, row.name);
    }
    Launch launch;
    launch.kernel = as_kernel(self)->row;
    launch.grid = read_grid(row, read_grid_keyword(row.name, arguments + count, keyword_names));
    launch.block = {row.block, 1, 1};
    launch.limits_grid = true;
    take_arguments(launch, arguments, count);
    return run(self, launch);
  };
  return guarded<PyObject*>(nullptr, body, row.name);
}

PyObject* kernel_function(PyObject* self, Handle const* arguments, Py_ssize_t count) {
  const KernelRow& row = row_of(self);
  const auto body = [&] {
    if (count != 3) {
      raise_formatted(PyExc_TypeError, messages::kFunctionCount, row.name, count);
    }
    Launch launch;
    launch.kernel = as_kernel(self)->row;
    launch.grid = read_grid(row, arguments[0]);
    launch.block = read_block(row, arguments[1]);
    const Handle args = arguments[2];
    if (PyTuple_Check(args) == 0) {
      raise_formatted(PyExc_TypeError, messages::kArgsType, row.name, Py_TYPE(args)->tp_name);
    }
    take_arguments(launch, PySequence_Fast_ITEMS(args), PyTuple_GET_SIZE(args));
    return run(self, launch);
  };
  return guarded<PyObject*>(nullptr, body, row.name);
}

PyObject* kernel_repr(PyObject* self) {
  const KernelRow& row = row_of(self);
  return PyUnicode_FromFormat("<kernel %s(%s)>", row.name, row.parameters);
}

void kernel_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  release_launcher(as_kernel(self)->launcher);
  std::destroy_at(&as_kernel(self)->launcher);
  type->tp_free(self);
  Py_DECREF(type);
}

PyObject* get_name(PyObject* self, void* /*closure*/) {
  return PyUnicode_FromString(row_of(self).name);
}
PyObject* get_form(PyObject* self, void* /*closure*/) {
  return PyUnicode_FromString(row_of(self).form);
}
PyObject* get_parameters(PyObject* self, void* /*closure*/) {
  return PyUnicode_FromString(row_of(self).parameters);
}
PyObject* get_block(PyObject* self, void* /*closure*/) {
  const KernelRow& row = row_of(self);
  if (!has_own_block(row)) {
    return none().release();
  }
  return Py_BuildValue("(Iii)", row.block, 1, 1);
}
PyObject* get_blocks_per_multiprocessor(PyObject* self, void* /*closure*/) {
  const unsigned blocks = row_of(self).blocks_per_multiprocessor;
  if (blocks == 0) {
    return none().release();
  }
  return PyLong_FromUnsignedLong(blocks);
}

PyGetSetDef attributes[] = {
    {"name", get_name, nullptr, "The kernel's name.", nullptr},
    {"form", get_form, nullptr, "How it is called: 'launch' or 'function'.", nullptr},
    {"parameters", get_parameters, nullptr,
     "Its parameters in order, each as name:kind; f64[n] is an array of at least n elements.",
     nullptr},
    {"block", get_block, nullptr, "The block that launch() uses; None for form 'function'.",
     nullptr},
    {"blocks_per_multiprocessor", get_blocks_per_multiprocessor, nullptr,
     "launch() starts at most so many blocks for each multiprocessor of the device, which changes\n"
     "no result; None: it starts every block of the grid.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef methods[] = {
    {"launch", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(kernel_launch)),
     METH_FASTCALL | METH_KEYWORDS,
     "launch($self, /, *args, grid)\n--\n\n"
     "Launch with the kernel's own block.\n\n"
     "args are the kernel's arguments in order, grid is a tuple of three int. Arrays have\n"
     "__cuda_array_interface__; the device is the one that they are on."},
    {"function", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(kernel_function)),
     METH_FASTCALL,
     "function($self, grid, block, args, /)\n--\n\n"
     "Launch with exactly this grid and block; args is the tuple of the kernel's arguments.\n\n"
     "Of a kernel that strides over the rows of its output, the second extent of the grid may be\n"
     "more than the 65535 that a device takes; it is launched with so many."},
    {nullptr, nullptr, 0, nullptr},
};

PyType_Slot slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(kernel_dealloc)},
    {Py_tp_repr, reinterpret_cast<void*>(kernel_repr)},
    {Py_tp_getset, attributes},
    {Py_tp_methods, methods},
    {Py_tp_doc, const_cast<char*>("A compiled kernel, to be launched on arrays of one device.")},
    {0, nullptr},
};

PyType_Spec type_spec = {
    "korvex.cubin_loader_native.Kernel",
    static_cast<int>(sizeof(KernelObject)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION | Py_TPFLAGS_IMMUTABLETYPE,
    slots,
};

}  // namespace

void release_launcher(std::shared_ptr<Launcher>& launcher) {
  if (launcher.use_count() != 1) {
    return launcher.reset();
  }
  without_lock([&] { launcher.reset(); });
}

Object make_kernel_type(Handle module) {
  return checked(PyType_FromModuleAndSpec(module, &type_spec, nullptr));
}

Object make_kernel(const Object& type, const std::shared_ptr<Launcher>& launcher, int row) {
  auto* kernel_type = reinterpret_cast<PyTypeObject*>(type.handle());
  Object kernel = checked(kernel_type->tp_alloc(kernel_type, 0));
  std::construct_at(&as_kernel(kernel)->launcher, launcher);
  as_kernel(kernel)->row = row;
  return kernel;
}

}  // namespace korvex::cubin_loader
