// SPDX-License-Identifier: Apache-2.0
// The compiled kernels of the installation, and which file of them fits a device.
//
// Machine code `korvex_sm_<XY>.cubin` runs on devices of capability X.Y and of the same X with a
// higher Y, save that the GPUs of systems on a chip and all others do not run each other's;
// `korvex_compute_<XY>.ptx` is compiled by the driver for any device from X.Y on. Each
// file holds all kernels.
#pragma once

#include <compare>
#include <filesystem>
#include <string>
#include <vector>

namespace korvex::cubin_loader {

// A compute capability: 9.0 is written sm_90, 12.0 is sm_120.
struct Capability {
  int major = 0;
  int minor = 0;

  auto operator<=>(const Capability&) const = default;
  std::string digits() const { return std::to_string(major * 10 + minor); }
};

struct KernelFile {
  std::filesystem::path path;
  Capability capability;
  bool is_ptx = false;
};

class KernelFiles {
 public:
  // Lists a folder. A folder that is not there holds nothing.
  explicit KernelFiles(std::filesystem::path folder);

  bool empty() const { return files_.empty(); }
  const std::filesystem::path& folder() const { return folder_; }

  // The files for a device, the best first: its own machine code, that of lower minor versions
  // from the closest on, then PTX that is not newer than the device, the newest first.
  std::vector<KernelFile> fitting(Capability device) const;

  // "sm_80, sm_90, compute_90"
  std::string list() const;

 private:
  std::filesystem::path folder_;
  std::vector<KernelFile> files_;  // machine code before PTX, each by ascending capability
};

// The folder of the installation: `cubins` beside this module's own file.
std::filesystem::path installed_folder();

}  // namespace korvex::cubin_loader
