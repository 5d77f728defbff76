// device-settings: reads and writes a settings file of a device root through
// the device library's own settings calls, so people and tests set up a root
// exactly as the device would see it.
//
//   device-settings FILE get KEY
//   device-settings FILE set KEY VALUE
//   device-settings FILE get-secret KEY
//   device-settings FILE set-secret KEY VALUE
//   device-settings FILE delete KEY
//
// FILE is a device path ("/mnt/ext1/system/config/dropbox/dropbox.cfg"),
// placed under QUILLSTONE_DEVICE_ROOT. Exit status: 0 done; 1 the key is
// absent (get) or the file cannot be read or written; 2 usage error.
#include <stdio.h>
#include <string.h>

#include <string>

#include "device_root.h"
#include "host_device.h"
#include "tessera.h"

namespace {

int Usage(const char* message) {
  if (message) fprintf(stderr, "device-settings: %s\n", message);
  fprintf(stderr,
          "usage: device-settings FILE get KEY\n"
          "       device-settings FILE set KEY VALUE\n"
          "       device-settings FILE get-secret KEY\n"
          "       device-settings FILE set-secret KEY VALUE\n"
          "       device-settings FILE delete KEY\n"
          "FILE is a device path such as /mnt/ext1/system/config/dropbox/dropbox.cfg;\n"
          "it is placed under $QUILLSTONE_DEVICE_ROOT.\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return Usage(argc > 1 ? "too few arguments" : nullptr);
  std::string file = argv[1];
  std::string command = argv[2];
  const char* key = argv[3];
  if (file.empty() || file[0] != '/') return Usage("FILE must be an absolute device path");
  if (!*key) return Usage("KEY must not be empty");
  bool writes = command == "set" || command == "set-secret";
  bool reads = command == "get" || command == "get-secret";
  if (!writes && !reads && command != "delete") return Usage("unknown command");
  if (argc != (writes ? 5 : 4)) return Usage("wrong number of arguments");

  std::string path = quillstone::utilities::DevicePath(file);
  void* settings = OpenConfig(path.c_str(), nullptr);
  if (!settings) {
    fprintf(stderr, "device-settings: cannot read %s\n", path.c_str());
    return 1;
  }
  if (reads) {
    // A null default tells an absent key from an empty value.
    const char* value =
        command == "get" ? ReadString(settings, key, nullptr) : ReadSecret(settings, key, nullptr);
    if (value) printf("%s\n", value);
    CloseConfigNoSave(settings);
    return value ? 0 : 1;
  }
  if (command == "set") {
    WriteString(settings, key, argv[4]);
  } else if (command == "set-secret") {
    WriteSecret(settings, key, argv[4]);
  } else {
    DeleteString(settings, key);
  }
  int err = quillstone::host::SaveSettings(settings);
  CloseConfigNoSave(settings);
  if (err != 0) {
    fprintf(stderr, "device-settings: cannot save %s: %s\n", path.c_str(), strerror(err));
    return 1;
  }
  return 0;
}
