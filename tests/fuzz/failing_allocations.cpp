// SPDX-License-Identifier: Apache-2.0
// Loaded ahead of a process: allocations that fail on request, for the soak.
//
// A thread says how many allocations from now shall fail, of which kind: those that the host
// kernels ask of the C library, threads among them, or the objects of the interpreter. One fails,
// then all goes on as before. A count belongs to its thread, so no other thread ever sees a
// failure.
//
// Of objects only those fail that the interpreter makes for the module: torch takes what it is
// given unseen in places, and dies of it. Whom an object is for, the stack says: the innermost
// caller that is not the interpreter. Where that is another one, the next object is looked at; so
// it is within Python code, as CPython 3.12.1 itself dies of a generator for whose frame there is
// no memory.
#include <Python.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

// glibc's own, which no other library stands in front of.
extern "C" void* __libc_malloc(std::size_t bytes);                           // NOLINT
extern "C" void* __libc_memalign(std::size_t alignment, std::size_t bytes);  // NOLINT

namespace {

struct Countdown {
  long calls_left = 0;  // the call that makes it 0 fails; 0: none will
  bool is_next_to_fail() {
    if (calls_left <= 0) {
      return false;
    }
    --calls_left;
    return calls_left == 0;
  }
};

// Addresses that a library takes.
struct Range {
  std::atomic<std::uintptr_t> begin{0};
  std::atomic<std::uintptr_t> end{0};
  bool holds(const void* place) const {
    const auto address = reinterpret_cast<std::uintptr_t>(place);
    return address >= begin.load() && address < end.load();
  }
};

enum Library { kKernels, kModule, kInterpreter, kItself, kLibraryCount };
Range libraries[kLibraryCount];
Range evaluation;  // the function that runs Python code

thread_local Countdown of_kernels;
thread_local Countdown of_objects;

bool kernels_fail(const void* caller) {
  return libraries[kKernels].holds(caller) && of_kernels.is_next_to_fail();
}

bool is_for_the_module() {
  constexpr int kMostFrames = 48;
  void* frames[kMostFrames];
  const int count = backtrace(frames, kMostFrames);
  for (int i = 0; i < count; ++i) {
    if (evaluation.holds(frames[i])) {
      return false;
    }
    if (!libraries[kItself].holds(frames[i]) && !libraries[kInterpreter].holds(frames[i])) {
      return libraries[kModule].holds(frames[i]);
    }
  }
  return false;
}

bool objects_fail() {
  if (of_objects.calls_left != 1) {
    of_objects.is_next_to_fail();
    return false;
  }
  return is_for_the_module() && of_objects.is_next_to_fail();
}

PyMemAllocatorEx object_allocator;

void* allocate_object(void* context, std::size_t bytes) {
  return objects_fail() ? nullptr : object_allocator.malloc(context, bytes);
}
void* allocate_zeroed_object(void* context, std::size_t count, std::size_t bytes) {
  return objects_fail() ? nullptr : object_allocator.calloc(context, count, bytes);
}

}  // namespace

#define KORVEX_SOAK_API extern "C" __attribute__((visibility("default")))

KORVEX_SOAK_API void* malloc(std::size_t bytes) {
  if (kernels_fail(__builtin_return_address(0))) {
    return nullptr;
  }
  return __libc_malloc(bytes);
}

KORVEX_SOAK_API void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
  if (kernels_fail(__builtin_return_address(0))) {
    return nullptr;
  }
  return __libc_memalign(alignment, bytes);
}

KORVEX_SOAK_API int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                   void* (*run)(void*), void* argument) {
  using Function = int(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "pthread_create"));
  if (kernels_fail(__builtin_return_address(0))) {
    return EAGAIN;
  }
  return real(thread, attributes, run, argument);
}

// Library 0: the host kernels; 1: the module; 2: the interpreter; 3: this one.
KORVEX_SOAK_API void soak_library_is_at(int library, std::uintptr_t begin, std::uintptr_t end) {
  libraries[library].begin = begin;
  libraries[library].end = end;
}

// Once, with the interpreter lock held.
KORVEX_SOAK_API void soak_stand_before_objects() {
  Dl_info info;
  ElfW(Sym)* symbol = nullptr;
  void* const function = dlsym(RTLD_DEFAULT, "_PyEval_EvalFrameDefault");
  if (dladdr1(function, &info, reinterpret_cast<void**>(&symbol), RTLD_DL_SYMENT) != 0) {
    evaluation.begin = reinterpret_cast<std::uintptr_t>(info.dli_saddr);
    evaluation.end = evaluation.begin + (symbol == nullptr ? 0 : symbol->st_size);
  }
  void* frame;
  backtrace(&frame, 1);  // loads what it needs
  PyMem_GetAllocator(PYMEM_DOMAIN_OBJ, &object_allocator);
  PyMemAllocatorEx ours = object_allocator;
  ours.malloc = allocate_object;
  ours.calloc = allocate_zeroed_object;
  PyMem_SetAllocator(PYMEM_DOMAIN_OBJ, &ours);
}

// The allocation of this thread that fails, counted from 1; 0: none.
KORVEX_SOAK_API void soak_fail(long kernel_call, long object_call) {
  of_kernels.calls_left = kernel_call;
  of_objects.calls_left = object_call;
}

// How many of the two that were asked for are still to come.
KORVEX_SOAK_API int soak_waiting() {
  return (of_kernels.calls_left > 0 ? 1 : 0) + (of_objects.calls_left > 0 ? 1 : 0);
}
