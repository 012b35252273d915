// SPDX-License-Identifier: Apache-2.0
// The start-up sequence: imports, decimal precision, the loader in two stages, the definitions.
//
// Import statements are compiled and run by the interpreter itself, in the module's own dict, so
// that they mean exactly what they mean in a Python file.
#include "korvex/tqx_runtime/startup.h"

#include "korvex/functions/elementwise/elementwise.h"
#include "korvex/functions/limbs/limbs.h"
#include "korvex/functions/linalg/linalg.h"
#include "korvex/functions/provenance/provenance.h"
#include "korvex/functions/reductions/reductions.h"
#include "korvex/functions/series/series.h"
#include "korvex/functions/spectral/spectral.h"
#include "korvex/runtime/messages.h"
#include "korvex/runtime/module_state.h"
#include "korvex/tqx_runtime/backend_info.h"
#include "korvex/tqx_runtime/public_names.h"

namespace korvex {
namespace {

class Startup {
 public:
  Startup(const Object& module, const Object& globals) : module_(module), globals_(globals) {}

  void run() {
    register_module();
    import_libraries();
    run_statement("getcontext().prec = 1000");
    set("__version__", text("3.4.8"));
    set("_USE_NATIVE_CUBIN", boolean(false));
    set("_NATIVE_LOADER", none());
    make_loader();
    define_limb_result();
    set("__all__", list_of_public_names());
    set("_TRITON_BACKEND_OK", boolean(false));
    run_statement("import cupy as cp");  // an ImportError here is not caught
    define_reductions();
    define_limb_algebra();
    define_elementwise();
    define_series();
    define_linalg();
    define_spectral();
    define_contractions();
    define_backend_info();
    define_provenance();
  }

 private:
  // The module can be imported under another name or path; it is always found under its own.
  void register_module() const {
    const Object modules = object(PyImport_GetModuleDict());
    const Object name = interned(kModuleName);
    if (checked(PySequence_Contains(modules, name)) == 0) {
      checked(PyObject_SetItem(modules, name, module_));
    }
  }

  void import_libraries() const {
    run_statement("import torch");
    run_statement("import struct");
    run_statement("import hashlib");
    run_statement("from decimal import Decimal, getcontext");
    run_statement("from typing import Optional, List, Union, Tuple");
  }

  // Stage two runs only if stage one raised ImportError, in the import or in the constructor. Any
  // other exception leaves the import failed; an ImportError of stage two is swallowed, because
  // one text stands for every reason why there is no loader.
  void make_loader() const {
    if (!try_loader("from .cubin_loader_native import NativeCubinLoader, HAS_CUPY")) {
      try_loader("from cubin_loader_native import NativeCubinLoader, HAS_CUPY");
    }
    if (!truth(get("_USE_NATIVE_CUBIN"))) {
      raise(PyExc_ImportError, messages::kNoLoader);
    }
  }

  // False if an ImportError was raised.
  bool try_loader(const char* import_statement) const {
    try {
      run_statement(import_statement);
      if (truth(get("HAS_CUPY"))) {
        set("_NATIVE_LOADER", get("NativeCubinLoader").call());
        set("_USE_NATIVE_CUBIN", boolean(true));
      }
      return true;
    } catch (const PythonError&) {
      if (PyErr_ExceptionMatches(PyExc_ImportError) == 0) {
        throw;
      }
      PyErr_Clear();
      return false;
    }
  }

  void run_statement(const char* source) const {
    const Object code = checked(Py_CompileString(source, "<korvex.tqx_runtime>", Py_file_input));
    checked(PyEval_EvalCode(code, globals_, globals_));
  }

  static Object list_of_public_names() {
    const Object names = list();
    for (const char* name : kPublicNames) {
      append(names, text(name));
    }
    return names;
  }

  Object get(const char* name) const { return checked(PyObject_GetItem(globals_, interned(name))); }
  void set(const char* name, const Object& value) const {
    checked(PyDict_SetItem(globals_, interned(name), value));
  }

  Object module_;
  Object globals_;
};

}  // namespace

void run_startup(const Object& module, const Object& globals) { Startup(module, globals).run(); }

}  // namespace korvex
