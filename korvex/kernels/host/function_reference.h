// SPDX-License-Identifier: Apache-2.0
// A function object by reference, called through a pointer: a loop that is long to compile is then
// compiled once, and not for each function object that it calls.
#pragma once

namespace korvex::host {

template <class Signature>
class FunctionReference;

template <class... Arguments>
class FunctionReference<void(Arguments...)> {
 public:
  // The function object outlives what is made here.
  template <class Function>
  FunctionReference(const Function& function)  // NOLINT(google-explicit-constructor)
      : function_(&function), call_([](const void* called, Arguments... arguments) {
          (*static_cast<const Function*>(called))(arguments...);
        }) {}

  void operator()(Arguments... arguments) const { call_(function_, arguments...); }

 private:
  const void* function_;
  void (*call_)(const void*, Arguments...);
};

}  // namespace korvex::host
