// SPDX-License-Identifier: Apache-2.0
// Opens host libraries, which lie in korvex/emulation, next to this module's folder.
#include "korvex/exact/host_library.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <string_view>

#include "korvex/exact/messages.h"

namespace korvex::exact {
namespace {

constexpr const char* kInstructionSets[] = {"base", "fma", "avx512"};  // each runs those before it

// A build for one machine holds the base library and the one that is best there.
constexpr const char* kBase = kInstructionSets[0];

struct HostLibrary {
  const korvex_exact_functions* functions;
  const char* instruction_set;
  const char* (*best_instruction_set)();
};

// Libraries stay open to the end of the process, and what names one here is never freed: other
// threads may be in its functions.
std::atomic<const korvex_exact_functions*> functions_in_use{nullptr};
std::atomic<const char*> instruction_set_in_use{nullptr};

std::string path_of(const char* instruction_set) {
  Dl_info info;
  dladdr(&functions_in_use, &info);
  const std::string own(info.dli_fname);
  const std::size_t slash = own.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : own.substr(0, slash);
  return folder + "/../emulation/libkorvex_host_kernels_" + instruction_set + ".so";
}

bool is_installed(const char* instruction_set) {
  return instruction_set == kBase || access(path_of(instruction_set).c_str(), F_OK) == 0;
}

template <class Function>
Function* symbol(void* library, const char* name) {
  auto* const found = reinterpret_cast<Function*>(dlsym(library, name));
  if (found == nullptr) {
    raise_formatted(PyExc_ImportError, messages::kLibrary, dlerror());
  }
  return found;
}

HostLibrary open(const char* instruction_set) {
  void* const library = dlopen(path_of(instruction_set).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    raise_formatted(PyExc_ImportError, messages::kLibrary, dlerror());
  }
  using Text = const char*();
  return {symbol<const korvex_exact_functions*()>(library, "korvex_host_exact")(),
          symbol<Text>(library, "korvex_host_instruction_set")(),
          symbol<Text>(library, "korvex_host_best_instruction_set")};
}

// The best instruction set of this processor: one of kInstructionSets by value.
const char* best_of_processor() { return open(kBase).best_instruction_set(); }

void use(const HostLibrary& library) {
  functions_in_use = library.functions;
  instruction_set_in_use = library.instruction_set;
}

}  // namespace

void open_host_library() {
  if (functions_in_use == nullptr) {
    const std::string_view best = best_of_processor();
    const char* chosen = kBase;
    for (const char* each : kInstructionSets) {
      chosen = is_installed(each) ? each : chosen;
      if (each == best) {
        break;
      }
    }
    use(open(chosen));
  }
}

const korvex_exact_functions& host() { return *functions_in_use; }

const char* instruction_set() { return instruction_set_in_use; }

void set_instruction_set(Handle name) {
  const char* const best = best_of_processor();
  for (const char* each : kInstructionSets) {
    if (PyUnicode_Check(name) != 0 && PyUnicode_CompareWithASCIIString(name, each) == 0) {
      if (!is_installed(each)) {
        raise_formatted(PyExc_ValueError, messages::kNotInstalled, each);
      }
      use(open(each));
      return;
    }
    if (std::string_view(each) == best) {
      break;
    }
  }
  raise_formatted(PyExc_ValueError, messages::kInstructionSet, best, name);
}

}  // namespace korvex::exact
