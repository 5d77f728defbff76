// Shared by the fuzz targets: a device root of their own whose log goes
// nowhere, so a million inputs neither touch the host nor fill a disk.
#pragma once

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace qs_fuzz {

// Makes the root and points the platform at it; call before anything else.
inline const std::string& FuzzRoot() {
  static const std::string root = [] {
    // In memory where there is a tmpfs: the store and settings targets sync
    // their files on every input.
    std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    std::vector<char> dir(base.begin(), base.end());
    const char kName[] = "/qs-fuzz-XXXXXX";
    dir.insert(dir.end(), kName, kName + sizeof kName);
    std::string path = mkdtemp(dir.data()) ? dir.data() : "/tmp";
    static std::string* doomed = new std::string(path);  // outlives static destructors
    atexit([] { (void)system(("rm -rf '" + *doomed + "'").c_str()); });
    std::string log_dir = path + "/var/log";
    (void)system(("mkdir -p " + log_dir).c_str());
    (void)symlink("/dev/null", (log_dir + "/quillstone.log").c_str());
    setenv("QUILLSTONE_DEVICE_ROOT", path.c_str(), 1);
    return path;
  }();
  return root;
}

}  // namespace qs_fuzz
