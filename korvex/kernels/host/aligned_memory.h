// SPDX-License-Identifier: Apache-2.0
// Memory for vectors of any register, without values at first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

namespace korvex::host {

class AlignedBytes {
 public:
  explicit AlignedBytes(std::int64_t count)
      : bytes_(static_cast<std::uint8_t*>(
            ::operator new(static_cast<std::size_t>(count), kAlignment))) {}
  std::uint8_t* get() const { return bytes_.get(); }
  // The numbers of a type from a byte on. Precondition: the byte is aligned for it.
  template <class Number>
  Number* numbers(std::int64_t first_byte) const {
    return reinterpret_cast<Number*>(bytes_.get() + first_byte);
  }

 private:
  static constexpr std::align_val_t kAlignment{64};
  struct Delete {
    void operator()(std::uint8_t* bytes) const { ::operator delete(bytes, kAlignment); }
  };
  std::unique_ptr<std::uint8_t, Delete> bytes_;
};

}  // namespace korvex::host
