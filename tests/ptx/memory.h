// SPDX-License-Identifier: Apache-2.0
// The memory of the machine: regions of bytes, each byte with its state, and global memory as a
// list of regions with nothing between them.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/ptx/clocks.h"
#include "tests/ptx/module.h"

namespace korvex::ptx {

enum State : std::uint8_t {
  kNothing,    // no object lies here
  kUnwritten,  // nobody has written this since the launch began
  kWritten,
  kInFlight,  // an asynchronous copy writes this, and nobody has waited for it
};

struct Region {
  std::string name;
  std::uint64_t base = 0;
  std::vector<std::uint8_t> bytes;
  std::vector<std::uint8_t> states;
  std::vector<Cell> cells;   // empty where races are not looked for
  bool is_constant = false;  // to the kernel

  Region() = default;
  Region(std::string name_, std::uint64_t base_, std::uint64_t size, State state, bool with_cells)
      : name(std::move(name_)),
        base(base_),
        bytes(size, 0xa5),
        states(size, state),
        cells(with_cells ? size / 4 + 1 : 0) {}

  bool holds(std::uint64_t address, std::uint64_t size) const {
    return address >= base && address - base <= bytes.size() &&
           size <= bytes.size() - (address - base);
  }

  // Are all of these bytes in one state?
  bool all(std::uint64_t offset, std::uint32_t size, State state) const {
    if (size == 8) {
      std::uint64_t eight;
      std::memcpy(&eight, states.data() + offset, 8);
      return eight == 0x0101010101010101 * state;
    }
    for (std::uint32_t i = 0; i < size; ++i) {
      if (states[offset + i] != state) {
        return false;
      }
    }
    return true;
  }
  bool any(std::uint64_t offset, std::uint32_t size, State state) const {
    for (std::uint32_t i = 0; i < size; ++i) {
      if (states[offset + i] == state) {
        return true;
      }
    }
    return false;
  }
};

// Regions of global memory, in the order of their addresses.
class GlobalMemory {
 public:
  // Starts at a multiple of 16 bytes, or 8 bytes after one. Large gaps lie around it.
  Region& add(std::string name, std::uint64_t size, State state, bool with_cells,
              std::uint64_t past_16 = 0) {
    constexpr std::uint64_t kGap = 4096;
    const std::uint64_t base = next_ + past_16;
    next_ = (base + size + kGap + 255) / 256 * 256;
    regions_.push_back(std::make_unique<Region>(std::move(name), base, size, state, with_cells));
    return *regions_.back();
  }
  void forget_after(std::size_t count) {
    regions_.resize(count);
    last_ = nullptr;
  }
  std::size_t count() const { return regions_.size(); }
  Region& at(std::size_t i) { return *regions_[i]; }

  // The last region that begins at or before the address; null where none does.
  Region* before(std::uint64_t address) {
    if (last_ != nullptr && last_count_ == regions_.size() && last_->holds(address, 1)) {
      return last_;
    }
    std::size_t low = 0;
    std::size_t high = regions_.size();
    while (low < high) {
      const std::size_t middle = (low + high) / 2;
      if (regions_[middle]->base <= address) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    last_ = low == 0 ? nullptr : regions_[low - 1].get();
    last_count_ = regions_.size();
    return last_;
  }

 private:
  std::vector<std::unique_ptr<Region>> regions_;
  std::uint64_t next_ = kGlobalBase;
  Region* last_ = nullptr;
  std::size_t last_count_ = 0;
};

}  // namespace korvex::ptx
