// SPDX-License-Identifier: Apache-2.0
// Arrays of results on a device, beside what the host library writes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <vector>

#include "tests/launches/state_case.h"
#include "tests/launches/state_data.h"

namespace korvex::launches {

inline StateArray junk_array(const char* name, std::int64_t bytes) {
  StateArray array;
  array.name = name;
  array.bytes.resize(static_cast<std::size_t>(bytes), 0xa5);
  array.is_unwritten = true;
  return array;
}

// The result is there twice: as the host writes it, and as the device does.
class ResultArray {
 public:
  ResultArray(StateRunner& device, std::int64_t count, int format, std::int64_t step)
      : bytes_(static_cast<std::size_t>(kBytes[format])),
        step_(static_cast<std::size_t>(step)),
        expected_(static_cast<std::size_t>(count) * bytes_),
        array_(junk_array("out", count * step * kBytes[format])) {
    device.place(array_);
  }

  void* of_host() { return expected_.data(); }
  std::uint64_t address() const { return array_.address; }

  // Between the elements of the result nothing is written.
  void require_same(StateRunner& device) {
    device.read(array_);
    for (std::size_t i = 0; i < array_.bytes.size() / bytes_; ++i) {
      const unsigned char* found = array_.bytes.data() + i * bytes_;
      const bool is_between = i % step_ != 0;
      const bool is_same =
          is_between ? std::all_of(found, found + bytes_, [](auto each) { return each == 0xa5; })
                     : std::memcmp(found, expected_.data() + i / step_ * bytes_, bytes_) == 0;
      if (!is_same) {
        std::uint64_t bits = 0;
        std::uint64_t of_host = 0;
        std::memcpy(&bits, found, bytes_);
        std::memcpy(&of_host, expected_.data() + i / step_ * bytes_, bytes_);
        std::ostringstream text;
        text << "result differs: element " << i / step_ << " is " << std::hex << bits
             << ", on the host " << (is_between ? 0xa5 : of_host);
        throw Failure(text.str());
      }
    }
  }

 private:
  std::size_t bytes_;
  std::size_t step_;
  std::vector<unsigned char> expected_;
  StateArray array_;
};

}  // namespace korvex::launches
