// A device root per test process: a fresh temporary folder, set as the
// process's device root before the library first asks for it.
#pragma once

#include <map>
#include <string>
#include <vector>

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

// Keys of the settings file at `device_path`, through the device's settings
// calls. Access tokens and their secrets are kept as the library keeps them.
void WriteSettings(const std::string& device_path, const std::map<std::string, std::string>& keys);
// One key, secret or not; "<none>" when absent.
std::string ReadSetting(const std::string& device_path, const std::string& key);

// Programs of the build run through the emulator that runs the tests (a cross
// build's), or through $QS_RUN_PREFIX when set.
// ShellPrefix() is "" or the prefix and a space, to put before a command.
std::string ShellPrefix();
// Puts this build's firmware program `name` at /fwroot/bin/`name` of the
// device root, reached through the emulator of a cross build.
void InstallBuiltProgram(const std::string& name);

}  // namespace qs_test
