// Keeps a settings file open and tells when it has changed on disk.
//
// Thread safety: one thread at a time. Notify::Changed runs on the thread that
// called CheckChanges, inside that call.
#pragma once

#include <sys/types.h>
#include <string>

// The members below and every file offset of the library are 64 bits wide; a
// client built without large-file support on a 32-bit system would see
// another layout of this class.
static_assert(sizeof(off_t) == 8 && sizeof(ino_t) == 8, "build with -D_FILE_OFFSET_BITS=64");

namespace quillstone {
namespace utilities {

class ConfigurationWatch {
 public:
  class Notify {
   public:
    virtual void Changed() = 0;
    virtual ~Notify() {}
  };

  ConfigurationWatch();
  ~ConfigurationWatch();
  ConfigurationWatch(const ConfigurationWatch&) = delete;
  ConfigurationWatch& operator=(const ConfigurationWatch&) = delete;

  // Opens `path` and keeps the handle. 0, or non-zero when the file cannot be
  // had. A second Init replaces the first.
  int Init(const std::string& path, Notify* notify);

  // Reloads the handle and calls notify->Changed() once when the file changed
  // since the last look. The new file state is noted before the call, so a
  // CheckChanges made from inside Changed finds nothing new.
  void CheckChanges();

  void* config_;  // the open settings handle; null when none

 private:
  std::string path_;
  Notify* notify_;
  bool have_state_;
  dev_t dev_;
  ino_t ino_;
  off_t size_;
  long long mtime_ns_;
  long long ctime_ns_;
};

}  // namespace utilities
}  // namespace quillstone
