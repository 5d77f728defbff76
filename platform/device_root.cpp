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
    // Commands that the library runs by name through the shell ("killall
    // dropbox_sync") must act inside this root only, so the root's firmware
    // folder, where the host keeps its scoped stand-ins, comes first on PATH.
    // Children inherit it, so the workers see the same commands.
    if (!text.empty()) {
      const std::string bin = text + "/fwroot/bin";
      const char* path = getenv("PATH");
      std::string current = path ? path : "/usr/bin:/bin";
      if (current.compare(0, bin.size() + 1, bin + ":") != 0) {
        setenv("PATH", (bin + ":" + current).c_str(), 1);
      }
    }
    return text;
  }();
  return root;
}

std::string DevicePath(const std::string& device_path) { return DeviceRoot() + device_path; }

}  // namespace utilities
}  // namespace quillstone
