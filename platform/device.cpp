// Device state of the simulated reader: partner number, SD card slot, status
// panel and power-off timer, file calls, text case, proxy setting.
#define QS_SOURCE_NAME "platform/device"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utf8proc.h>

#include <map>
#include <mutex>
#include <string>

#include "device_root.h"
#include "host_common.h"
#include "host_device.h"
#include "split_path.h"
#include "tessera.h"

using quillstone::host::kDeviceSettings;
using quillstone::host::kNetworkSettings;
using quillstone::utilities::DevicePath;

namespace {

constexpr char kCardFolder[] = "/mnt/ext2";
constexpr char kCardRemovedMark[] = "/var/run/sd_removed";
constexpr char kPanelCounter[] = "/var/run/panel_progress";
constexpr char kPoweroffCounter[] = "/var/run/poweroff_postponed";

// Counter files are tiny "key=value" texts rewritten in place under an
// advisory lock, so that every process of the root adds to one count. They
// are not settings: losing one after a crash costs nothing.
//
// The keep-alive runs twice per downloaded file, so each counter's file stays
// open in the process; it is opened anew when the root or the file changes
// (a file that was removed has no links left).
struct OpenCounter {
  std::string path;
  int fd = -1;
};

int CounterFd(OpenCounter* counter, const std::string& path) {
  struct stat st;
  if (counter->fd >= 0 && counter->path == path && fstat(counter->fd, &st) == 0 &&
      st.st_nlink > 0) {
    return counter->fd;
  }
  if (counter->fd >= 0) close(counter->fd);
  counter->fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (counter->fd < 0 && errno == ENOENT) {
    (void)quillstone::host::MakeDirs(DevicePath("/var/run"));
    counter->fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  }
  counter->path = path;
  return counter->fd;
}

void BumpCounter(const char* device_path, const std::string& extra) {
  // One open descriptor per counter file and process; callers on several
  // threads take turns.
  static std::mutex mutex;
  static std::map<std::string, OpenCounter>* counters = new std::map<std::string, OpenCounter>;
  std::lock_guard<std::mutex> lock(mutex);
  int fd = CounterFd(&(*counters)[device_path], DevicePath(device_path));
  if (fd < 0) return;  // the keep-alive must never fail its caller
  if (flock(fd, LOCK_EX) == 0) {
    char buffer[256];
    ssize_t n = pread(fd, buffer, sizeof buffer - 1, 0);
    long count = 0;
    if (n > 0) {
      buffer[n] = '\0';
      const char* found = strstr(buffer, "count=");
      if (found) count = strtol(found + 6, nullptr, 10);
    }
    std::string text = "count=" + std::to_string(count + 1) + "\n" + extra;
    // The text only shrinks when the extra lines do; cutting the file costs
    // a metadata update each time, so it is done only then.
    if (pwrite(fd, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) && n >= 0 &&
        static_cast<size_t>(n) > text.size()) {
      (void)ftruncate(fd, static_cast<off_t>(text.size()));
    }
    flock(fd, LOCK_UN);
  }
}

long ReadCounter(const char* device_path) {
  int fd = open(DevicePath(device_path).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  long count = 0;
  if (flock(fd, LOCK_SH) == 0) {  // never read half of a rewrite
    char buffer[256];
    ssize_t n = pread(fd, buffer, sizeof buffer - 1, 0);
    if (n > 0) {
      buffer[n] = '\0';
      const char* found = strstr(buffer, "count=");
      if (found) count = strtol(found + 6, nullptr, 10);
    }
    flock(fd, LOCK_UN);
  }
  close(fd);
  return count;
}

}  // namespace

extern "C" {

int GetCustomizedPartner(void) {
  // The brand variant is fixed for the life of a process.
  static const int partner = [] {
    void* settings = OpenConfig(DevicePath(kDeviceSettings).c_str(), nullptr);
    int value = ReadInt(settings, "partner", 0);
    CloseConfigNoSave(settings);
    return value;
  }();
  return partner;
}

int IsSDinserted(void) {
  struct stat st;
  if (stat(DevicePath(kCardFolder).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return 0;
  return access(DevicePath(kCardRemovedMark).c_str(), F_OK) == 0 ? 0 : 1;
}

void StartPanelProgress(int a, int b) {
  BumpCounter(kPanelCounter, "a=" + std::to_string(a) + "\nb=" + std::to_string(b) + "\n");
}

void PostponeTimedPoweroff(void) { BumpCounter(kPoweroffCounter, ""); }

int te_buildpath(const char* path) {
  if (!path) return -1;
  std::string folder;
  if (!quillstone::utilities::SplitPath(path, &folder, nullptr)) return 0;  // nothing to make
  return quillstone::host::MakeDirs(folder) == 0 ? 0 : -1;
}

int te_rename(const char* from, const char* to) {
  if (quillstone::host::FaultHit("rename")) {
    errno = EIO;
    return -1;
  }
  return rename(from, to);
}

int te_stat(const char* path, struct stat* st) { return stat(path, st); }

int te_unlink(const char* path) { return unlink(path); }

int utf_tolower_ext(char* text, int length, char** out, size_t* out_length) {
  if (!text || !out) return -1;
  size_t size = length < 0 ? strlen(text) : static_cast<size_t>(length);
  std::string lower;
  lower.reserve(size);
  const utf8proc_uint8_t* p = reinterpret_cast<const utf8proc_uint8_t*>(text);
  utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(size);
  while (left > 0) {
    utf8proc_int32_t cp = 0;
    utf8proc_ssize_t n = utf8proc_iterate(p, left, &cp);
    if (n <= 0) return -1;  // not UTF-8: the caller keeps its text
    if (cp == 0) break;     // the text ends at a zero byte, as in C
    utf8proc_uint8_t encoded[4];
    utf8proc_ssize_t m = utf8proc_encode_char(utf8proc_tolower(cp), encoded);
    lower.append(reinterpret_cast<const char*>(encoded), static_cast<size_t>(m));
    p += n;
    left -= n;
  }
  char* result = static_cast<char*>(malloc(lower.size() + 1));
  if (!result) return -1;
  memcpy(result, lower.data(), lower.size());
  result[lower.size()] = '\0';
  *out = result;
  if (out_length) *out_length = lower.size();
  return 0;
}

char* get_proxy(void) {
  void* settings = OpenConfig(DevicePath(kNetworkSettings).c_str(), nullptr);
  const char* value = ReadString(settings, "proxy", "");
  char* proxy = *value ? strdup(value) : nullptr;
  CloseConfigNoSave(settings);
  return proxy;
}

void clean_proxy_object(char** proxy) {
  if (!proxy) return;
  free(*proxy);
  *proxy = nullptr;
}

}  // extern "C"

namespace quillstone {
namespace host {

int SetSDInserted(bool inserted) {
  std::string mark = DevicePath(kCardRemovedMark);
  if (!inserted) {
    int err = MakeDirs(DevicePath("/var/run"));
    return err != 0 ? err : ReplaceFile(mark, "removed\n", false);
  }
  int err = MakeDirs(DevicePath(kCardFolder));
  if (err != 0) return err;
  return unlink(mark.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

long PanelProgressCount() { return ReadCounter(kPanelCounter); }

long PoweroffPostponeCount() { return ReadCounter(kPoweroffCounter); }

}  // namespace host
}  // namespace quillstone
