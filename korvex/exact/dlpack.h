// SPDX-License-Identifier: Apache-2.0
// The structures of DLPack 0.8 and 1, by which libraries hand arrays to each other.
#pragma once

#include <cstdint>

namespace korvex::exact::dlpack {

enum DeviceType : std::int32_t { kCpu = 1, kPinnedHost = 3 };

enum TypeCode : std::uint8_t {
  kInteger = 0,
  kUnsigned = 1,
  kFloat = 2,
  kBfloat = 4,
  kComplex = 5,
  kBool = 6,
};

struct Device {
  std::int32_t type;
  std::int32_t number;
};

struct DataType {
  std::uint8_t code;
  std::uint8_t bits;
  std::uint16_t lanes;
};

struct Tensor {
  void* data;
  Device device;
  std::int32_t rank;
  DataType type;
  std::int64_t* extents;
  std::int64_t* strides;  // in elements; null where elements lie in order, side by side
  std::uint64_t byte_offset;
};

struct ManagedTensor {  // in a capsule "dltensor"
  Tensor tensor;
  void* context;
  void (*deleter)(ManagedTensor*);
};

struct ManagedTensorVersioned {  // in a capsule "dltensor_versioned"
  std::uint32_t major;
  std::uint32_t minor;
  void* context;
  void (*deleter)(ManagedTensorVersioned*);
  std::uint64_t flags;
  Tensor tensor;
};

}  // namespace korvex::exact::dlpack
