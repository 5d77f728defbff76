// Where the fixed device paths lie.
//
// The library names device paths exactly as they are on the reader
// ("/mnt/ext1/...", "/fwroot/bin/...", "/tmp/..."). Every such path is turned
// into a real one here and nowhere else. On the device the root is empty and
// the paths stay as they are; on a host the root comes from the environment
// variable QUILLSTONE_DEVICE_ROOT, so that tests and the demo run as an
// ordinary user inside temporary roots, several at once.
//
// Thread safety: safe on any thread; the root is read once per process.
#pragma once

#include <string>

namespace quillstone {
namespace utilities {

// The device root without a trailing slash; empty on the device.
const std::string& DeviceRoot();

// `device_path` (absolute, as the device knows it) under the device root.
std::string DevicePath(const std::string& device_path);

}  // namespace utilities
}  // namespace quillstone
