// SPDX-License-Identifier: Apache-2.0
// The single steps of a launch, and its grids.
#include "korvex/runtime/launch.h"

namespace korvex {

Object blocks_for(const Object& n, long block) {
  const Object block_size = integer(block);
  const Object padded = add(n, block_size);
  const Object last = subtract(padded, kOne);
  return floor_divide(last, block_size);
}

Object grid_over(const Object& n) {
  const Object num_blocks = blocks_for(n, kBlock);
  return tuple(num_blocks, kOne, kOne);
}

namespace launching {

Object get_kernel(Handle kernel_name) {
  const Object loader = global("_NATIVE_LOADER"_name);
  return loader.method("get_kernel"_name, kernel_name);
}

Object from_dlpack(const Object& tensor) {
  const Object convert = global("cp"_name).get("from_dlpack"_name);
  return convert.call(tensor);
}

void synchronize() {
  const Object stream = global("cp"_name).get("cuda"_name).get("Stream"_name);
  stream.get("null"_name).method("synchronize"_name);
}

}  // namespace launching
}  // namespace korvex
