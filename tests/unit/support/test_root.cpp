#include "support/test_root.h"

#include "device_root.h"
#include "host_device.h"
#include "split_path.h"
#include "tessera.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace qs_test {

const std::string& DeviceRoot() {
  static const std::string root = [] {
    const char* tmp = getenv("TMPDIR");
    std::string templ = std::string(tmp && *tmp ? tmp : "/tmp") + "/qs-unit-XXXXXX";
    if (!mkdtemp(&templ[0])) throw std::runtime_error("cannot make a temporary device root");
    setenv("QUILLSTONE_DEVICE_ROOT", templ.c_str(), 1);
    // Every log line, information included: tests read the log.
    (void)mkdir((templ + "/fwroot").c_str(), 0755);
    (void)mkdir((templ + "/fwroot/etc").c_str(), 0755);
    std::ofstream(templ + quillstone::host::kDeviceSettings) << "log_level=4\n";
    // Leave nothing behind: the root's shared block and, unless asked to keep
    // it for a look, the root itself.
    // Statics that the exit handler uses must be made before it is
    // registered, so they are destroyed after it has run; a first removal
    // (of nothing) makes them. The path is copied for the same reason.
    (void)quillstone::host::RemoveSharedBlock("/dropbox_state");
    static char removal[4096];
    snprintf(removal, sizeof removal, "rm -rf '%s'", templ.c_str());
    atexit([] {
      (void)quillstone::host::RemoveSharedBlock("/dropbox_state");
      const char* keep = getenv("QS_KEEP_TEST_ROOT");
      if (keep == nullptr || *keep == '\0') (void)!system(removal);
    });
    return templ;
  }();
  return root;
}

std::string Under(const std::string& device_path) { return DeviceRoot() + device_path; }

std::string MakeTempDir(const std::string& tag) {
  static std::atomic<int> counter{0};
  std::string base = DeviceRoot() + "/tmp";
  mkdir(base.c_str(), 0755);
  std::string dir = base + "/" + tag + "-" + std::to_string(counter++);
  std::string cmd = "rm -rf '" + dir + "'";
  if (system(cmd.c_str()) != 0 || mkdir(dir.c_str(), 0755) != 0)
    throw std::runtime_error("cannot make " + dir);
  return dir;
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

std::string ShellPrefix() {
  const char* prefix = getenv("QS_RUN_PREFIX");
  if (prefix == nullptr) prefix = QS_RUN_PREFIX;  // the build's own emulator, if any
  return *prefix ? std::string(prefix) + " " : std::string();
}

void InstallBuiltProgram(const std::string& name) {
  const std::string target = Under("/fwroot/bin/" + name);
  (void)te_buildpath(target.c_str());
  unlink(target.c_str());
  char self[4096] = {0};  // test programs are built beside the firmware folder
  if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) throw std::runtime_error("no self");
  std::string build_dir;
  (void)quillstone::utilities::SplitPath(self, &build_dir, nullptr);
  const std::string built = build_dir + "/fwroot/bin/" + name;
  bool installed;
  if (ShellPrefix().empty()) {
    installed = symlink(built.c_str(), target.c_str()) == 0;
  } else {
    WriteFile(target, "#!/bin/sh\nexec " + ShellPrefix() + built + " \"$@\"\n");
    installed = chmod(target.c_str(), 0755) == 0;
  }
  if (!installed) throw std::runtime_error("cannot install " + name);
}

void WriteSettings(const std::string& device_path, const std::map<std::string, std::string>& keys) {
  void* config = OpenConfig(quillstone::utilities::DevicePath(device_path).c_str(), nullptr);
  for (const auto& key : keys) {
    const bool secret = key.first.rfind("access_token", 0) == 0;
    (secret ? WriteSecret : WriteString)(config, key.first.c_str(), key.second.c_str());
  }
  CloseConfig(config);
}

std::string ReadSetting(const std::string& device_path, const std::string& key) {
  void* config = OpenConfig(quillstone::utilities::DevicePath(device_path).c_str(), nullptr);
  std::string value = ReadSecret(config, key.c_str(), "<none>");
  CloseConfigNoSave(config);
  return value;
}

}  // namespace qs_test
