// SPDX-License-Identifier: Apache-2.0
// CUDA contexts: a share in a device's primary context, and its use on the calling thread.
#pragma once

#include "korvex/cubin_loader_native/driver.h"

namespace korvex::cubin_loader {

// The primary context of a device, which torch, cupy and all users of the CUDA runtime share. It
// lives as long as one of them holds it.
class PrimaryContext {
 public:
  PrimaryContext(const Driver& driver, Device device) : driver_(driver), device_(device) {
    driver_.primary_context_retain(&context_, device_);
  }
  ~PrimaryContext() { driver_.primary_context_release.attempt(device_); }
  PrimaryContext(const PrimaryContext&) = delete;
  PrimaryContext& operator=(const PrimaryContext&) = delete;

  Context handle() const { return context_; }

 private:
  const Driver& driver_;
  Device device_;
  Context context_ = nullptr;
};

// Makes a context the thread's current one for a scope; does nothing where it is that already.
class CurrentContext {
 public:
  CurrentContext(const Driver& driver, Context context) : driver_(driver) {
    Context current = nullptr;
    driver_.context_current(&current);
    if (current == context) {
      return;
    }
    driver_.context_push(context);
    pushed_ = true;
  }
  // What was pushed goes, whatever happened in between; an error here would hide the first.
  ~CurrentContext() {
    Context popped = nullptr;
    if (pushed_) {
      driver_.context_pop.attempt(&popped);
    }
  }
  CurrentContext(const CurrentContext&) = delete;
  CurrentContext& operator=(const CurrentContext&) = delete;

  // True if the context was not current before.
  bool is_pushed() const { return pushed_; }

  // Ends the scope early, with the error if the driver has one.
  void leave() {
    if (!pushed_) {
      return;
    }
    pushed_ = false;
    Context popped = nullptr;
    driver_.context_pop(&popped);
  }

 private:
  const Driver& driver_;
  bool pushed_ = false;
};

}  // namespace korvex::cubin_loader
