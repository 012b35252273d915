// SPDX-License-Identifier: Apache-2.0
// Construction of a loader, get_kernel, and the attributes of a loader.
#include "korvex/cubin_loader_native/loader_object.h"

#include <cstdlib>
#include <memory>
#include <string>

#include "korvex/cubin_loader_native/kernel_object.h"
#include "korvex/cubin_loader_native/messages.h"
#include "korvex/cubin_loader_native/module_state.h"
#include "korvex/cubin_loader_native/python_border.h"

namespace korvex::cubin_loader {
namespace {

struct LoaderState {
  std::shared_ptr<Launcher> launcher;
  Object kernels;  // dict: each kernel object by its name
  Object arch;
};

struct LoaderObject {
  PyObject header;
  LoaderState state;
};

LoaderState& state_of(PyObject* self) { return reinterpret_cast<LoaderObject*>(self)->state; }

// What the user has chosen for this loader, once and for all. Nothing else reads the variable, so
// neither does the emulated device, which has no blocks.
LaunchChoice chosen_launches() {
  const char* word = std::getenv("KORVEX_LAUNCH");
  if (word == nullptr) {
    return LaunchChoice::kAsAsked;
  }
  const std::optional<LaunchChoice> choice = read_choice(word);
  if (!choice) {
    raise_formatted(PyExc_ValueError, messages::kUnknownChoice, word);
  }
  return *choice;
}

// RuntimeError and no ImportError: an importer would take that for "try the next loader" and end
// by asking for cupy to be installed.
std::shared_ptr<Launcher> make_launcher(LaunchChoice choice) {
  try {
    return without_lock([=] { return std::make_shared<Launcher>(installed_folder(), choice); });
  } catch (const DeviceFailure& failure) {
    throw DeviceFailure(messages::kUnavailable + std::string(failure.what()));
  }
}

Object make_kernels(const Object& kernel_type, const std::shared_ptr<Launcher>& launcher) {
  Object kernels = checked(PyDict_New());
  for (int row = 0; row < kKernelCount; ++row) {
    const Object kernel = make_kernel(kernel_type, launcher, row);
    checked(PyDict_SetItemString(kernels, kKernelTable[row].name, kernel));
  }
  return kernels;
}

Object make_path(const std::filesystem::path& path) {
  const Object module = checked(PyImport_ImportModule("pathlib"));
  const Object name = checked(PyUnicode_DecodeFSDefault(path.c_str()));
  return module.get(text("Path")).call(name);
}

// Waits for a thread that is loading a file just now.
Object first_path_of(const LoaderState& state) {
  return make_path(without_lock([&] { return state.launcher->first_path(); }));
}

LoaderState make_state(PyTypeObject* type) {
  const auto* module_state = static_cast<ModuleState*>(PyType_GetModuleState(type));
  LoaderState state;
  state.launcher = make_launcher(chosen_launches());
  state.kernels = make_kernels(module_state->kernel_type, state.launcher);
  state.arch = text(("sm_" + state.launcher->first_device().capability.digits()).c_str());
  return state;
}

PyObject* loader_new(PyTypeObject* type, PyObject* positional, PyObject* keywords) {
  const auto body = [&] {
    if (PyTuple_GET_SIZE(positional) != 0 || (keywords != nullptr && PyDict_Size(keywords) != 0)) {
      raise(PyExc_TypeError, messages::kNoArguments);
    }
    LoaderState state = make_state(type);
    Object loader = checked(type->tp_alloc(type, 0));
    std::construct_at(&state_of(loader), std::move(state));
    return loader.release();
  };
  return guarded<PyObject*>(nullptr, body);
}

void loader_dealloc(PyObject* self) {
  PyTypeObject* type = Py_TYPE(self);
  state_of(self).kernels = Object();
  release_launcher(state_of(self).launcher);
  std::destroy_at(&state_of(self));
  type->tp_free(self);
  Py_DECREF(type);
}

std::string known_names() {
  std::string names;
  for (const KernelRow& row : kKernelTable) {
    names += (names.empty() ? "" : ", ") + std::string(row.name);
  }
  return names;
}

PyObject* loader_get_kernel(PyObject* self, PyObject* name) {
  const auto body = [&] {
    if (PyUnicode_Check(name) == 0) {
      raise_formatted(PyExc_TypeError, messages::kNameType, Py_TYPE(name)->tp_name);
    }
    Object kernel = object(PyDict_GetItemWithError(state_of(self).kernels, name));
    if (kernel.empty()) {
      if (PyErr_Occurred() != nullptr) {
        throw PythonError{};
      }
      raise_formatted(PyExc_KeyError, messages::kUnknownKernel, name, known_names().c_str());
    }
    return kernel.release();
  };
  return guarded<PyObject*>(nullptr, body);
}

PyObject* loader_repr(PyObject* self) {
  const LoaderState& state = state_of(self);
  const auto body = [&] {
    const Object path = first_path_of(state);
    return PyUnicode_FromFormat("<NativeCubinLoader %U %S>", state.arch.handle(), path.handle());
  };
  return guarded<PyObject*>(nullptr, body);
}

PyObject* get_arch(PyObject* self, void* /*closure*/) {
  return Object(state_of(self).arch).release();
}
PyObject* get_cubin_path(PyObject* self, void* /*closure*/) {
  const auto body = [&] { return first_path_of(state_of(self)).release(); };
  return guarded<PyObject*>(nullptr, body);
}

PyGetSetDef attributes[] = {
    {"arch", get_arch, nullptr,
     "Architecture of the device that was current when the loader was made, as in 'sm_90'.",
     nullptr},
    {"cubin_path", get_cubin_path, nullptr,
     "pathlib.Path of the file whose kernels run on that device; before the first launch there, "
     "of\n"
     "the one that is tried first.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef methods[] = {
    {"get_kernel", loader_get_kernel, METH_O,
     "get_kernel($self, name, /)\n--\n\n"
     "The kernel of that name; KeyError with the names that there are if it is unknown."},
    {nullptr, nullptr, 0, nullptr},
};

constexpr char kDoc[] =
    "NativeCubinLoader()\n--\n\n"
    "The compiled kernels, on every CUDA device of this process.\n\n"
    "Making one initialises the CUDA driver; RuntimeError says why kernels cannot be launched.\n"
    "A device's kernels are loaded by the first launch on it.\n\n"
    "The environment variable KORVEX_LAUNCH is read here: 'as-asked', as if it were unset, or\n"
    "'device', which runs the kernels of one thread or one block that can do so on the whole\n"
    "device, with the same bits. ValueError: it is another word.";

PyType_Slot slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(loader_new)},
    {Py_tp_dealloc, reinterpret_cast<void*>(loader_dealloc)},
    {Py_tp_repr, reinterpret_cast<void*>(loader_repr)},
    {Py_tp_getset, attributes},
    {Py_tp_methods, methods},
    {Py_tp_doc, const_cast<char*>(kDoc)},
    {0, nullptr},
};

PyType_Spec type_spec = {
    "korvex.cubin_loader_native.NativeCubinLoader",
    static_cast<int>(sizeof(LoaderObject)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE,
    slots,
};

}  // namespace

Object make_loader_type(Handle module) {
  return checked(PyType_FromModuleAndSpec(module, &type_spec, nullptr));
}

}  // namespace korvex::cubin_loader
