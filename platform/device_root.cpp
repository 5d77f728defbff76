#include "device_root.h"

#include <stdlib.h>

namespace quillstone {
namespace utilities {

const std::string& DeviceRoot() {
  // Read once: a root that changed half-way through a run would split the
  // process's files between two trees.
  static const std::string root = [] {
    const char* value = getenv("QUILLSTONE_DEVICE_ROOT");
    std::string text = value ? value : "";
    while (!text.empty() && text.back() == '/') text.pop_back();
    return text;
  }();
  return root;
}

std::string DevicePath(const std::string& device_path) { return DeviceRoot() + device_path; }

}  // namespace utilities
}  // namespace quillstone
