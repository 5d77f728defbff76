// qs_print_log2 and g_process_pid: one whole line per call, written with a
// single write() on a file opened O_APPEND, so lines of several threads and
// processes never interleave.
//
// The log is bounded, as the reader's flash needs: a line that would take the
// file past the rotation size first moves it to ".1" (the older one goes), so
// the two files never hold more than twice that size. Every process appends
// through its own descriptor; the one that finds the file full renames it
// under an flock on that file, and the others, seeing a full file that is no
// longer at the log's path, only reopen. Lines above the level setting are
// dropped before they are formatted.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "device_root.h"
#include "host_common.h"
#include "host_device.h"
#include "tessera.h"

int g_process_pid = 0;

namespace {

constexpr size_t kMaxLineBytes = 8192;
constexpr char kTruncatedMarker[] = " [line truncated]\n";
constexpr char kLogPath[] = "/var/log/quillstone.log";
constexpr int kDefaultLevel = 3;  // errors and notices; information is per file
constexpr long long kDefaultRotateKiB = 2048;
constexpr long long kMinRotateKiB = 16;  // below that a single long line would rotate

std::atomic<int> g_level{-1};  // -1: not read yet
std::atomic<long long> g_rotate_bytes{kDefaultRotateKiB * 1024};

// Guards the descriptor: a rotation closes it under the feet of other threads.
std::mutex g_fd_mutex;
int g_log_fd = -1;
long long g_last_open_failure_ms = -1000000;

void RefreshPid() { g_process_pid = static_cast<int>(getpid()); }

// A fork while another thread writes must not leave the child's log locked.
void LockForFork() { g_fd_mutex.lock(); }
void UnlockAfterFork() { g_fd_mutex.unlock(); }
// The child gets a descriptor of its own: an flock is held by an open file,
// and one shared with the parent would not keep the two apart.
void ChildAfterFork() {
  if (g_log_fd >= 0) close(g_log_fd);
  g_log_fd = -1;
  g_fd_mutex.unlock();
  RefreshPid();
}

// Early, so that constructors of other objects that log see the right pid;
// the fork handler keeps children right as well.
__attribute__((constructor(101))) void InitProcessPid() {
  RefreshPid();
  pthread_atfork(LockForFork, UnlockAfterFork, ChildAfterFork);
}

bool StderrWanted() {
  static const bool wanted = [] {
    const char* value = getenv("QUILLSTONE_LOG_STDERR");
    return value && strcmp(value, "1") == 0;
  }();
  return wanted;
}

std::string Trim(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

// The settings file is read by hand: the settings code logs, and a log line
// that needs the settings must not come back here.
void LoadSettings() {
  int level = kDefaultLevel;
  long long rotate_kib = kDefaultRotateKiB;
  std::string content;
  if (quillstone::host::ReadWholeFile(
          quillstone::utilities::DevicePath(quillstone::host::kDeviceSettings), 65536, &content) ==
      0) {
    size_t start = 0;
    while (start < content.size()) {
      size_t end = content.find('\n', start);
      if (end == std::string::npos) end = content.size();
      std::string line = content.substr(start, end - start);
      start = end + 1;
      size_t eq = line.find('=');
      if (eq == std::string::npos || Trim(line)[0] == '#') continue;
      std::string key = Trim(line.substr(0, eq));
      std::string value = Trim(line.substr(eq + 1));
      char* rest = nullptr;
      long long number = strtoll(value.c_str(), &rest, 10);
      if (value.empty() || *rest != '\0') continue;  // not a number: keep the default
      if (key == "log_level") level = static_cast<int>(number);
      if (key == "log_rotate_kib") rotate_kib = number < kMinRotateKiB ? kMinRotateKiB : number;
    }
  }
  g_rotate_bytes.store(rotate_kib * 1024, std::memory_order_relaxed);
  g_level.store(level, std::memory_order_release);
}

int Level() {
  int level = g_level.load(std::memory_order_acquire);
  if (level >= 0) return level;
  LoadSettings();
  return g_level.load(std::memory_order_acquire);
}

// REQUIRES: g_fd_mutex held.
void CloseLogLocked() {
  if (g_log_fd >= 0) close(g_log_fd);
  g_log_fd = -1;
}

// REQUIRES: g_fd_mutex held. The file is renamed only while it is still the
// log: another process may have rotated it already.
void RotateLocked(const std::string& path, const struct stat& full) {
  if (flock(g_log_fd, LOCK_EX) == 0) {
    struct stat now;
    if (stat(path.c_str(), &now) == 0 && now.st_ino == full.st_ino && now.st_dev == full.st_dev) {
      (void)rename(path.c_str(), (path + ".1").c_str());  // a failure keeps one growing file
    }
    (void)flock(g_log_fd, LOCK_UN);
  }
  CloseLogLocked();
}

// REQUIRES: g_fd_mutex held. The descriptor to append `length` bytes to, or -1.
int LogFdLocked(size_t length) {
  const std::string path = quillstone::utilities::DevicePath(kLogPath);
  struct stat st;
  if (g_log_fd >= 0 && fstat(g_log_fd, &st) == 0) {
    long long limit = g_rotate_bytes.load(std::memory_order_relaxed);
    if (st.st_nlink == 0) {
      CloseLogLocked();  // removed by someone: start a new file
    } else if (st.st_size > 0 && st.st_size + static_cast<long long>(length) > limit) {
      RotateLocked(path, st);
    }
  }
  if (g_log_fd >= 0) return g_log_fd;
  // A root that cannot hold the log must not cost a mkdir and an open on
  // every line; try again after a second.
  long long now = quillstone::host::MonotonicMs();
  if (now - g_last_open_failure_ms < 1000) return -1;
  (void)quillstone::host::MakeDirs(quillstone::utilities::DevicePath("/var/log"));
  g_log_fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (g_log_fd < 0) g_last_open_failure_ms = now;
  return g_log_fd;
}

void WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

// The class and function of a full signature ("int a::b::Foo::Bar(int)"
// gives "Foo::Bar"): the signature's return type, namespaces and parameters
// made up most of a line's bytes on the reader's flash.
std::string ShortFunctionName(const char* signature) {
  std::string text(signature);
  size_t end = text.find('(');
  if (end == std::string::npos || end == 0) return text;
  int depth = 0;
  size_t start = end;
  while (start > 0) {
    char c = text[start - 1];
    if (c == '>') ++depth;
    if (c == '<') --depth;
    if (c == ' ' && depth == 0) break;
    --start;
  }
  std::string name = text.substr(start, end - start);
  size_t last = name.rfind("::");
  if (last == std::string::npos || last == 0) return name;
  size_t before = name.rfind("::", last - 1);
  return before == std::string::npos ? name : name.substr(before + 2);
}

}  // namespace

extern "C" void qs_print_log2(int level, const char* file, int line, const char* function,
                              const char* format, ...) {
  int saved_errno = errno;  // callers may log between a failure and its errno check
  if (level > Level()) {
    errno = saved_errno;
    return;
  }
  char buffer[kMaxLineBytes];
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm parts;
  gmtime_r(&tv.tv_sec, &parts);
  int used =
      snprintf(buffer, sizeof buffer,
               "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ L%d %d %s:%d %s: ", parts.tm_year + 1900,
               parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
               static_cast<int>(tv.tv_usec / 1000), level, static_cast<int>(getpid()),
               file ? file : "?", line, function ? ShortFunctionName(function).c_str() : "?");
  if (used < 0) used = 0;
  size_t length = static_cast<size_t>(used);
  bool truncated = length >= sizeof buffer;
  if (!truncated) {
    va_list args;
    va_start(args, format);
    int n = vsnprintf(buffer + length, sizeof buffer - length, format ? format : "", args);
    va_end(args);
    if (n > 0) {
      if (static_cast<size_t>(n) >= sizeof buffer - length) {
        truncated = true;
      } else {
        length += static_cast<size_t>(n);
      }
    }
  }
  if (truncated) {
    length = sizeof buffer - sizeof kTruncatedMarker;
    memcpy(buffer + length, kTruncatedMarker, sizeof kTruncatedMarker - 1);
    length += sizeof kTruncatedMarker - 1;
  } else {
    while (length > 0 && (buffer[length - 1] == '\n' || buffer[length - 1] == '\r')) --length;
    buffer[length++] = '\n';  // room is left: the text ended below the size
  }
  {
    std::lock_guard<std::mutex> lock(g_fd_mutex);
    int fd = LogFdLocked(length);
    if (fd >= 0) WriteAll(fd, buffer, length);
  }
  if (StderrWanted()) WriteAll(STDERR_FILENO, buffer, length);
  errno = saved_errno;
}

namespace quillstone {
namespace host {

void ReloadLogSettings() {
  LoadSettings();
  std::lock_guard<std::mutex> lock(g_fd_mutex);
  CloseLogLocked();
  g_last_open_failure_ms = -1000000;
}

}  // namespace host
}  // namespace quillstone
