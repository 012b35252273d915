// SPDX-License-Identifier: Apache-2.0
// Stacks from the system, and the switch in assembler, for x86-64 as the whole project.
#include "tests/device_code/fiber.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

// void korvex_switch_stack(void** saved, void* to): rbx, rbp and r12 to r15 are those that a
// callee must preserve.
asm(R"(
.text
.globl korvex_switch_stack
.hidden korvex_switch_stack
.type korvex_switch_stack, @function
korvex_switch_stack:
  pushq %rbp
  pushq %rbx
  pushq %r12
  pushq %r13
  pushq %r14
  pushq %r15
  movq %rsp, (%rdi)
  movq %rsi, %rsp
  popq %r15
  popq %r14
  popq %r13
  popq %r12
  popq %rbx
  popq %rbp
  ret
.size korvex_switch_stack, .-korvex_switch_stack
)");
extern "C" void korvex_switch_stack(void** saved, void* to);

namespace korvex::test {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kPreservedRegisters = 6;

}  // namespace

FiberStack::FiberStack() {
  void* const memory = mmap(nullptr, kBytes + kPage, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED || mprotect(memory, kPage, PROT_NONE) != 0) {
    throw std::bad_alloc();
  }
  memory_ = static_cast<char*>(memory) + kPage;
}

FiberStack::~FiberStack() {
  allow_access(memory_, kBytes);
  munmap(memory_ - kPage, kBytes + kPage);
}

void* FiberStack::prepare(void (*entry)()) {
  allow_access(memory_, kBytes);  // a fiber that was given up has left its frames
  // A function's entry finds its stack pointer 8 bytes below a multiple of 16, and there the
  // address to return to: none.
  char* const top = memory_ + kBytes - 3 * sizeof(void*);
  std::memset(top, 0, 3 * sizeof(void*));
  const auto address = reinterpret_cast<std::uintptr_t>(entry);
  char* const at = top - sizeof(void*);
  std::memcpy(at, &address, sizeof address);
  char* const saved = at - kPreservedRegisters * sizeof(void*);
  std::memset(saved, 0, kPreservedRegisters * sizeof(void*));
  return saved;
}

void switch_fiber(FiberPlace& from, FiberPlace& to, [[maybe_unused]] bool ends) {
#ifdef KORVEX_UNDER_ADDRESS_SANITIZER
  __sanitizer_start_switch_fiber(ends ? nullptr : &from.fake_stack, to.bottom, to.bytes);
#endif
  korvex_switch_stack(&from.stack_pointer, to.stack_pointer);
#ifdef KORVEX_UNDER_ADDRESS_SANITIZER
  __sanitizer_finish_switch_fiber(from.fake_stack, nullptr, nullptr);
#endif
}

void arrive_in_fiber([[maybe_unused]] FiberPlace& from) {
#ifdef KORVEX_UNDER_ADDRESS_SANITIZER
  __sanitizer_finish_switch_fiber(nullptr, &from.bottom, &from.bytes);
#endif
}

}  // namespace korvex::test
