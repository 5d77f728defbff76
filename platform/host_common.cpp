#define QS_SOURCE_NAME "platform/host_common"
#include "host_common.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>
#include <utf8proc.h>

#include <atomic>
#include <mutex>
#include <set>

#include "device_root.h"
#include "host_device.h"
#include "split_path.h"

namespace quillstone {
namespace host {

int MakeDirs(const std::string& dir) {
  if (dir.empty()) return 0;
  struct stat st;
  // Usually the folder is there already: one stat instead of a mkdir per level.
  if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return 0;
  std::string partial;
  partial.reserve(dir.size());
  size_t pos = 0;
  while (pos <= dir.size()) {
    size_t next = dir.find('/', pos);
    if (next == std::string::npos) next = dir.size();
    partial.assign(dir, 0, next);
    pos = next + 1;
    if (partial.empty() || partial.back() == '/') continue;
    if (mkdir(partial.c_str(), 0755) == 0) {
      // The new folder's name lives in its parent: unflushed there, a power
      // cut takes the folder and every file renamed into it since, while the
      // store may already record them.
      size_t slash = partial.rfind('/');
      DeferFolderSync(slash == std::string::npos ? "." : partial.substr(0, slash ? slash : 1));
    } else if (errno != EEXIST) {
      return errno;
    }
  }
  if (stat(dir.c_str(), &st) != 0) return errno;
  return S_ISDIR(st.st_mode) ? 0 : ENOTDIR;
}

void SyncFolder(const std::string& folder) {
  int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  (void)fsync(fd);
  close(fd);
}

namespace {

constexpr size_t kMaxDeferredFolders = 64;

std::mutex g_deferred_mutex;
std::set<std::string>* g_deferred = new std::set<std::string>;  // never destroyed: used at exit

}  // namespace

void DeferFolderSync(const std::string& folder) {
  std::lock_guard<std::mutex> lock(g_deferred_mutex);
  if (g_deferred->size() >= kMaxDeferredFolders && !g_deferred->count(folder)) {
    for (const std::string& pending : *g_deferred) SyncFolder(pending);
    g_deferred->clear();
  }
  g_deferred->insert(folder);
}

void FlushFolderSyncs() {
  std::set<std::string> pending;
  {
    std::lock_guard<std::mutex> lock(g_deferred_mutex);
    pending.swap(*g_deferred);
  }
  for (const std::string& folder : pending) SyncFolder(folder);
}

std::vector<std::string> PendingFolderSyncs() {
  std::lock_guard<std::mutex> lock(g_deferred_mutex);
  return std::vector<std::string>(g_deferred->begin(), g_deferred->end());
}

static std::string FolderOf(const std::string& path) {
  std::string folder;
  if (!utilities::SplitPath(path, &folder, nullptr)) return ".";
  return folder.empty() ? "/" : folder;
}

int ReplaceFile(const std::string& path, const std::string& content, bool durable, mode_t mode) {
  return ReplaceFileWith(
      path, [&content](const PieceWriter& write) { return write(content); }, durable, mode);
}

int ReplaceFileWith(const std::string& path,
                    const std::function<int(const PieceWriter& write)>& produce, bool durable,
                    mode_t mode) {
  static std::atomic<unsigned> counter{0};
  std::string folder = FolderOf(path);
  int err = MakeDirs(folder);
  if (err != 0) return err;
  // Unique per process and call, so concurrent writers never share a
  // temporary file; the rename decides which whole file wins.
  std::string temp = path + ".tmp." + std::to_string(getpid()) + "." + std::to_string(counter++);
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) return errno;
  err = produce([fd](std::string_view piece) {
    const char* data = piece.data();
    size_t left = piece.size();
    while (left > 0) {
      ssize_t n = write(fd, data, left);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return n < 0 ? errno : EIO;
      data += n;
      left -= static_cast<size_t>(n);
    }
    return 0;
  });
  if (err != 0) {
    close(fd);
    unlink(temp.c_str());
    return err;
  }
  if (durable && fsync(fd) != 0) {
    err = errno;
    close(fd);
    unlink(temp.c_str());
    return err;
  }
  if (close(fd) != 0) {
    err = errno;
    unlink(temp.c_str());
    return err;
  }
  if (rename(temp.c_str(), path.c_str()) != 0) {
    err = errno;
    unlink(temp.c_str());
    return err;
  }
  if (durable) {
    // The rename itself must survive a power loss too.
    int dir_fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir_fd >= 0) {
      (void)fsync(dir_fd);
      close(dir_fd);
    }
  }
  return 0;
}

int ReadWholeFile(const std::string& path, size_t limit, std::string* content) {
  content->clear();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  struct stat st;
  int err = 0;
  if (fstat(fd, &st) != 0) {
    err = errno;
  } else if (!S_ISREG(st.st_mode)) {
    err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
  }
  if (err != 0) {
    close(fd);
    return err;
  }
  char buffer[16384];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      err = errno;
      close(fd);
      content->clear();
      return err;
    }
    if (n == 0) break;
    if (content->size() + static_cast<size_t>(n) > limit) {
      close(fd);
      content->clear();
      return EFBIG;
    }
    content->append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return 0;
}

bool ProcessAlive(pid_t pid) {
  if (pid <= 0) return false;
  return kill(pid, 0) == 0 || errno == EPERM;
}

void AppendJsonString(std::string* out, const std::string& text) {
  out->push_back('"');
  const utf8proc_uint8_t* p = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  utf8proc_ssize_t left = static_cast<utf8proc_ssize_t>(text.size());
  while (left > 0) {
    utf8proc_int32_t cp = 0;
    utf8proc_ssize_t n = utf8proc_iterate(p, left, &cp);
    if (n <= 0) {
      out->append("\xEF\xBF\xBD");  // U+FFFD for a byte that starts no valid character
      ++p;
      --left;
      continue;
    }
    switch (cp) {
      case '"':
        out->append("\\\"");
        break;
      case '\\':
        out->append("\\\\");
        break;
      case '\n':
        out->append("\\n");
        break;
      case '\r':
        out->append("\\r");
        break;
      case '\t':
        out->append("\\t");
        break;
      default:
        if (cp < 0x20) {
          char escaped[8];
          snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(cp));
          out->append(escaped);
        } else {
          out->append(reinterpret_cast<const char*>(p), static_cast<size_t>(n));
        }
    }
    p += n;
    left -= n;
  }
  out->push_back('"');
}

std::string RootTag() {
  uint64_t hash = 0xcbf29ce484222325ull;  // FNV-1a, 64 bits
  for (unsigned char c : utilities::DeviceRoot()) {
    hash ^= c;
    hash *= 0x100000001b3ull;
  }
  char text[24];
  snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

long long MonotonicMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void SleepMs(long long ms) {
  if (ms <= 0) return;
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(ms / 1000);
  ts.tv_nsec = static_cast<long>((ms % 1000) * 1000000);
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

}  // namespace host
}  // namespace quillstone
