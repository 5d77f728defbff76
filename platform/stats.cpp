// Reading statistics: the list of new books is kept in memory; each report is
// recorded as one JSON line in <root>/var/log/new_books.log:
//   {"count":2,"source":21,"paths":["/a.epub","/b.pdf"]}
#define QS_SOURCE_NAME "platform/stats"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "device_root.h"
#include "host_common.h"
#include "qs_log.h"
#include "readstats.h"

using quillstone::kLogError;

using quillstone::utilities::DevicePath;

namespace {

// What StatUtils_GetStatList hands out; Stat_NewBooksEventEx knows it by
// its address and reads nothing from a pointer it does not recognise.
struct StatList {
  int count;
  const char** paths;
};

std::mutex g_mutex;
// The paths one after another, each ended by its NUL, and where each
// begins: a library of many books costs its paths' bytes, not a string each.
std::string g_books;
std::vector<size_t> g_starts;
std::vector<const char*> g_pointers;
StatList g_list = {0, nullptr};

}  // namespace

extern "C" {

void StatUtils_AddNewBookToStatList(const char* path) {
  if (!path) return;
  std::lock_guard<std::mutex> lock(g_mutex);
  g_starts.push_back(g_books.size());
  g_books.append(path);
  g_books.push_back('\0');
}

int StatUtils_StatListSize(void) {
  std::lock_guard<std::mutex> lock(g_mutex);
  return static_cast<int>(g_starts.size());
}

void* StatUtils_GetStatList(void) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_pointers.clear();
  for (size_t start : g_starts) g_pointers.push_back(g_books.data() + start);
  g_list.count = static_cast<int>(g_pointers.size());
  g_list.paths = g_pointers.data();
  return &g_list;
}

void Stat_NewBooksEventEx(int count, void* list, int source) {
  std::string line = "{\"count\":" + std::to_string(count) +
                     ",\"source\":" + std::to_string(source) + ",\"paths\":[";
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    const StatList* stats = static_cast<const StatList*>(list);
    if (stats == &g_list) {
      int shown = count < stats->count ? count : stats->count;
      for (int i = 0; i < shown; ++i) {
        if (i > 0) line.push_back(',');
        quillstone::host::AppendJsonString(&line, stats->paths[i]);
      }
    } else if (list) {
      QS_LOG(kLogError, "a statistics list not made here; recording the count only");
    }
  }
  line.append("]}\n");
  std::string path = DevicePath("/var/log/new_books.log");
  (void)quillstone::host::MakeDirs(DevicePath("/var/log"));
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    QS_LOG(kLogError, "cannot record new books in %s: %s", path.c_str(), strerror(errno));
    return;
  }
  // One write, so lines of concurrent reporters never mix.
  if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    QS_LOG(kLogError, "short write to %s", path.c_str());
  }
  close(fd);
}

void StatUtils_FreeStatList(void) {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::string().swap(g_books);
  std::vector<size_t>().swap(g_starts);
  g_pointers.clear();
  g_pointers.shrink_to_fit();
  g_list.count = 0;
  g_list.paths = nullptr;
}

}  // extern "C"
