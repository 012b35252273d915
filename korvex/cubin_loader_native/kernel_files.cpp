// SPDX-License-Identifier: Apache-2.0
// Listing the folder of kernels and choosing from it.
#include "korvex/cubin_loader_native/kernel_files.h"

#include <dlfcn.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

namespace korvex::cubin_loader {
namespace {

struct NamePattern {
  std::string_view prefix;
  std::string_view suffix;
  bool is_ptx;
};

constexpr NamePattern kPatterns[] = {
    {"korvex_sm_", ".cubin", false},
    {"korvex_compute_", ".ptx", true},
};

// "90" is 9.0, "120" is 12.0; nothing for text that is no number, as in the "90a" of machine code
// that runs on one model only.
std::optional<Capability> read_capability(std::string_view digits) {
  int value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (error != std::errc{} || end != digits.data() + digits.size() || value < 10) {
    return {};
  }
  return Capability{value / 10, value % 10};
}

std::optional<KernelFile> read_name(const std::filesystem::path& path) {
  const std::string name = path.filename().string();
  for (const NamePattern& pattern : kPatterns) {
    std::string_view rest = name;
    if (!rest.starts_with(pattern.prefix) || !rest.ends_with(pattern.suffix)) {
      continue;
    }
    rest.remove_prefix(pattern.prefix.size());
    rest.remove_suffix(pattern.suffix.size());
    const auto capability = read_capability(rest);
    if (capability) {
      return KernelFile{path, *capability, pattern.is_ptx};
    }
  }
  return {};
}

// GPUs that are part of a system on a chip: their machine code is their own.
constexpr Capability kIntegrated[] = {{5, 3}, {6, 2}, {7, 2}, {8, 7}, {10, 1}, {11, 0}};

bool is_integrated(Capability capability) {
  return std::ranges::find(kIntegrated, capability) != std::end(kIntegrated);
}

bool runs_on(const KernelFile& file, Capability device) {
  if (file.is_ptx || file.capability == device) {
    return file.capability <= device;
  }
  return file.capability < device && file.capability.major == device.major &&
         !is_integrated(file.capability) && !is_integrated(device);
}

}  // namespace

KernelFiles::KernelFiles(std::filesystem::path folder) : folder_(std::move(folder)) {
  std::error_code missing;
  for (const auto& entry : std::filesystem::directory_iterator(folder_, missing)) {
    if (const auto file = read_name(entry.path())) {
      files_.push_back(*file);
    }
  }
  std::ranges::sort(
      files_, {}, [](const KernelFile& file) { return std::tuple(file.is_ptx, file.capability); });
}

std::vector<KernelFile> KernelFiles::fitting(Capability device) const {
  std::vector<KernelFile> fitting;
  std::ranges::copy_if(files_, std::back_inserter(fitting),
                       [&](const KernelFile& file) { return runs_on(file, device); });
  const auto is_better = [](const KernelFile& a, const KernelFile& b) {
    return a.is_ptx == b.is_ptx ? a.capability > b.capability : b.is_ptx;
  };
  std::ranges::sort(fitting, is_better);
  return fitting;
}

std::string KernelFiles::list() const {
  std::string text;
  for (const KernelFile& file : files_) {
    text += (text.empty() ? "" : ", ") + std::string(file.is_ptx ? "compute_" : "sm_") +
            file.capability.digits();
  }
  return text;
}

std::filesystem::path installed_folder() {
  Dl_info self{};
  // Cannot fail: the address asked about is in this very file.
  dladdr(reinterpret_cast<const void*>(&installed_folder), &self);
  return std::filesystem::absolute(self.dli_fname).parent_path() / "cubins";
}

}  // namespace korvex::cubin_loader
