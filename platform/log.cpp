// qs_print_log2 and g_process_pid: one whole line per call, written with a
// single write() on a file opened O_APPEND, so lines of several threads and
// processes never interleave.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "device_root.h"
#include "host_common.h"
#include "tessera.h"

int g_process_pid = 0;

namespace {

constexpr size_t kMaxLineBytes = 8192;
constexpr char kTruncatedMarker[] = " [line truncated]\n";

std::atomic<int> g_log_fd{-1};
std::atomic<long long> g_last_open_failure_ms{-1000000};

void RefreshPid() { g_process_pid = static_cast<int>(getpid()); }

// Early, so that constructors of other objects that log see the right pid;
// the fork handler keeps children right as well.
__attribute__((constructor(101))) void InitProcessPid() {
  RefreshPid();
  pthread_atfork(nullptr, nullptr, RefreshPid);
}

bool StderrWanted() {
  static const bool wanted = [] {
    const char* value = getenv("QUILLSTONE_LOG_STDERR");
    return value && strcmp(value, "1") == 0;
  }();
  return wanted;
}

int LogFd() {
  int fd = g_log_fd.load(std::memory_order_acquire);
  if (fd >= 0) return fd;
  // A root that cannot hold the log must not cost a mkdir and an open on
  // every line; try again after a second.
  long long now = quillstone::host::MonotonicMs();
  if (now - g_last_open_failure_ms.load(std::memory_order_relaxed) < 1000) return -1;
  std::string path = quillstone::utilities::DevicePath("/var/log/quillstone.log");
  (void)quillstone::host::MakeDirs(quillstone::utilities::DevicePath("/var/log"));
  fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    g_last_open_failure_ms.store(now, std::memory_order_relaxed);
    return -1;
  }
  int expected = -1;
  if (!g_log_fd.compare_exchange_strong(expected, fd)) {
    close(fd);  // another thread won the race; use its descriptor
    return expected;
  }
  return fd;
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

}  // namespace

extern "C" void qs_print_log2(int level, const char* file, int line, const char* function,
                              const char* format, ...) {
  int saved_errno = errno;  // callers may log between a failure and its errno check
  char buffer[kMaxLineBytes];
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm parts;
  gmtime_r(&tv.tv_sec, &parts);
  int used = snprintf(buffer, sizeof buffer,
                      "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ L%d %d %s:%d %s: ", parts.tm_year + 1900,
                      parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                      static_cast<int>(tv.tv_usec / 1000), level, static_cast<int>(getpid()),
                      file ? file : "?", line, function ? function : "?");
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
  int fd = LogFd();
  if (fd >= 0) WriteAll(fd, buffer, length);
  if (StderrWanted()) WriteAll(STDERR_FILENO, buffer, length);
  errno = saved_errno;
}
