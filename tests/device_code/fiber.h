// SPDX-License-Identifier: Apache-2.0
// A stack of its own for each thread of a simulated grid, and the switch from one to another.
//
// ucontext saves the signal mask with two system calls a switch, and a launch has millions of
// switches: here the registers that a function must preserve go to the stack, and no more. The
// rounding mode is the same for all. AddressSanitizer hears of each switch, as it knows which
// part of which stack may be accessed.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__SANITIZE_ADDRESS__)
#define KORVEX_UNDER_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KORVEX_UNDER_ADDRESS_SANITIZER 1
#endif
#endif
#ifdef KORVEX_UNDER_ADDRESS_SANITIZER
// As <sanitizer/asan_interface.h> and <sanitizer/common_interface_defs.h> declare them, which not
// every tool that reads this has.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void __asan_poison_memory_region(const volatile void* from, std::size_t bytes);
void __asan_unpoison_memory_region(const volatile void* from, std::size_t bytes);
void __sanitizer_start_switch_fiber(void** fake_stack, const void* bottom, std::size_t bytes);
void __sanitizer_finish_switch_fiber(void* fake_stack, const void** bottom, std::size_t* bytes);
}
// NOLINTEND(bugprone-reserved-identifier)
#endif

namespace korvex::test {

// Nothing of these bytes may be accessed from now on, or all of them.
inline void forbid_access([[maybe_unused]] const void* from, [[maybe_unused]] std::size_t bytes) {
#ifdef KORVEX_UNDER_ADDRESS_SANITIZER
  __asan_poison_memory_region(from, bytes);
#endif
}
inline void allow_access([[maybe_unused]] const void* from, [[maybe_unused]] std::size_t bytes) {
#ifdef KORVEX_UNDER_ADDRESS_SANITIZER
  __asan_unpoison_memory_region(from, bytes);
#endif
}

// Memory for one stack, with a page below it that faults.
class FiberStack {
 public:
  static constexpr std::size_t kBytes = std::size_t{256} << 10;

  FiberStack();
  ~FiberStack();
  FiberStack(const FiberStack&) = delete;
  FiberStack& operator=(const FiberStack&) = delete;

  // Where a switch has to go so that entry() is called on this stack; entry must not return.
  void* prepare(void (*entry)());
  const void* bottom() const { return memory_; }

 private:
  char* memory_;
};

// A place to go back to: the saved registers, and what AddressSanitizer keeps of its stack.
struct FiberPlace {
  void* stack_pointer = nullptr;
  const void* bottom = nullptr;
  std::size_t bytes = 0;
  void* fake_stack = nullptr;
};

// Leaves the running code at `from` and goes on at `to`. Returns when somebody switches to `from`.
// A fiber that ends gives its fake stack up.
void switch_fiber(FiberPlace& from, FiberPlace& to, bool ends = false);

// To be called first in the entry of a fiber: where it came from.
void arrive_in_fiber(FiberPlace& from);

}  // namespace korvex::test
