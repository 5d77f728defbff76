// A device root per test process: a fresh temporary folder, set as the
// process's device root before the library first asks for it.
#pragma once

#include <string>

namespace qs_test {

// Makes the root on first call and exports it; later calls give the same
// path. Call it before any library or platform call (SetUp of each test).
const std::string& DeviceRoot();

// `device_path` under the test's device root.
std::string Under(const std::string& device_path);

// A new empty folder under the device root, named after `tag`.
std::string MakeTempDir(const std::string& tag);

void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);  // empty when missing
bool Exists(const std::string& path);

}  // namespace qs_test
