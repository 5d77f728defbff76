// Tasks and events of the simulated device.
//
// Registry: one file per running task, <root>/var/run/tasks/<task>.task, in
// settings format: "pid", "app" (the device path of the program) and
// "socket" (an abstract Unix datagram socket, written "@name"). The task
// number is the process id: one task per process, as on the reader. Entries
// of processes that are gone are removed by whoever finds them.
//
// Events travel as one 16-byte datagram: magic, type, par1, par2 (native
// 32-bit integers). Abstract sockets leave no files behind and have no path
// length limit; their names carry the root's tag, so roots never meet.
#define QS_SOURCE_NAME "platform/tasks"

#include <dirent.h>
#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>

#include "device_root.h"
#include "host_common.h"
#include "host_device.h"
#include "qs_log.h"
#include "tessera.h"

using quillstone::kLogError;

using quillstone::utilities::DevicePath;
using quillstone::utilities::DeviceRoot;

extern "C" {
const char* LINDEN_SOCIAL_COOKIES_PATH = "/mnt/ext1/system/config/browser/cookies.txt";
}

namespace {

constexpr int32_t kEventMagic = 0x51535645;  // "QSVE"
constexpr long long kSendWaitMs = 100;       // how long a full queue may delay a sender

enum SendResult { kDelivered = 0, kNoSuchTask = -1, kQueueFull = -2, kSendFailed = -3 };

struct Message {
  int32_t magic;
  int32_t type;
  int32_t par1;
  int32_t par2;
};

std::mutex g_mutex;
int g_socket = -1;
pid_t g_owner = 0;  // the process that registered; a forked child is not it
std::string g_entry;

std::atomic<quillstone::host::EventHandler> g_handler{nullptr};

std::string TasksFolder() { return DevicePath("/var/run/tasks"); }

std::string EntryPath(int task) { return TasksFolder() + "/" + std::to_string(task) + ".task"; }

// Tasks are registered under the device's own path, so that a caller that
// forms the path through the device root and one that does not agree.
std::string DeviceForm(const std::string& path) {
  const std::string& root = DeviceRoot();
  if (!root.empty() && path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
      path[root.size()] == '/') {
    return path.substr(root.size());
  }
  return path;
}

std::string SocketName(pid_t pid) {
  return "@quillstone." + quillstone::host::RootTag() + ".task." + std::to_string(pid);
}

socklen_t FillAddress(const std::string& name, sockaddr_un* address) {
  memset(address, 0, sizeof *address);
  address->sun_family = AF_UNIX;
  // "@name" is the abstract name; the leading zero byte stays in sun_path.
  size_t length = name.size() < sizeof address->sun_path ? name.size() : sizeof address->sun_path;
  memcpy(address->sun_path, name.data(), length);
  if (!name.empty() && name[0] == '@') address->sun_path[0] = '\0';
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
}

void CloseRegistrationLocked() {
  if (g_owner == getpid()) unlink(g_entry.c_str());
  if (g_socket >= 0) close(g_socket);
  g_socket = -1;
  g_owner = 0;
  g_entry.clear();
}

// The process's event loop: SendEvent to the default handler queues the
// event, and the thread that runs the loop takes it with WaitEvent. The queue
// is bounded so that a process which never runs its loop cannot grow without
// end; the newest events are the ones dropped then.
constexpr size_t kLoopCapacity = 4096;
// Never destroyed: the detached threads that wait for workers may still send
// their end event while the process runs its exit handlers.
struct Loop {
  std::mutex mutex;
  std::condition_variable cond;
  std::deque<quillstone::host::Event> events;
};
Loop& TheLoop() {
  static Loop* loop = new Loop;
  return *loop;
}

int DefaultHandler(int type, int par1, int par2) {
  Loop& loop = TheLoop();
  {
    std::lock_guard<std::mutex> lock(loop.mutex);
    if (loop.events.size() >= kLoopCapacity) {
      QS_LOG(kLogError, "event loop full, event %d (%d, %d) dropped", type, par1, par2);
      return -2;
    }
    loop.events.push_back(quillstone::host::Event{type, par1, par2});
  }
  loop.cond.notify_one();
  return 0;
}

}  // namespace

extern "C" {

int FindTaskByAppName(const char* path) {
  if (!path) return -1;
  std::string wanted = DeviceForm(path);
  DIR* dir = opendir(TasksFolder().c_str());
  if (!dir) return -1;
  int found = -1;
  while (dirent* entry = readdir(dir)) {
    std::string name = entry->d_name;
    if (name.size() < 6 || name.compare(name.size() - 5, 5, ".task") != 0) continue;
    std::string entry_path = TasksFolder() + "/" + name;
    void* settings = OpenConfig(entry_path.c_str(), nullptr);
    int pid = ReadInt(settings, "pid", 0);
    bool same_app = wanted == ReadString(settings, "app", "");
    CloseConfigNoSave(settings);
    if (!quillstone::host::ProcessAlive(pid)) {
      unlink(entry_path.c_str());  // a task that ended without saying so
      continue;
    }
    if (same_app) {
      found = pid;
      break;
    }
  }
  closedir(dir);
  return found;
}

int SendEventTo(int task, int type, int par1, int par2) {
  std::string entry_path = EntryPath(task);
  void* settings = OpenConfig(entry_path.c_str(), nullptr);
  int pid = ReadInt(settings, "pid", 0);
  std::string socket_name = ReadString(settings, "socket", "");
  CloseConfigNoSave(settings);
  if (pid != task || socket_name.empty()) return kNoSuchTask;
  if (!quillstone::host::ProcessAlive(pid)) {
    unlink(entry_path.c_str());
    return kNoSuchTask;
  }
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return kSendFailed;
  sockaddr_un address;
  socklen_t length = FillAddress(socket_name, &address);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
    close(fd);
    return errno == ECONNREFUSED || errno == ENOENT ? kNoSuchTask : kSendFailed;
  }
  Message message = {kEventMagic, type, par1, par2};
  int result = kSendFailed;
  long long deadline = quillstone::host::MonotonicMs() + kSendWaitMs;
  for (;;) {
    ssize_t n = send(fd, &message, sizeof message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n == static_cast<ssize_t>(sizeof message)) {
      result = kDelivered;
      break;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) {
      // A busy receiver gets a moment to catch up; the sender never blocks
      // for long on a task that has stopped reading.
      long long left = deadline - quillstone::host::MonotonicMs();
      if (left <= 0) {
        result = kQueueFull;
        break;
      }
      pollfd waiter = {fd, POLLOUT, 0};
      (void)poll(&waiter, 1, static_cast<int>(left));
      continue;
    }
    result = (n < 0 && errno == ECONNREFUSED) ? kNoSuchTask : kSendFailed;
    break;
  }
  close(fd);
  return result;
}

void* GetEventHandler(void) {
  quillstone::host::EventHandler handler = g_handler.load();
  return reinterpret_cast<void*>(handler ? handler : DefaultHandler);
}

int SendEvent(void* handler, int type, int par1, int par2) {
  if (!handler) return -1;
  return reinterpret_cast<quillstone::host::EventHandler>(handler)(type, par1, par2);
}

}  // extern "C"

namespace quillstone {
namespace host {

int RegisterTask(const std::string& app_path) {
  std::lock_guard<std::mutex> lock(g_mutex);
  CloseRegistrationLocked();
  pid_t pid = getpid();
  std::string socket_name = SocketName(pid);
  int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_un address;
  socklen_t length = FillAddress(socket_name, &address);
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
    QS_LOG(kLogError, "cannot bind the event socket of task %d: %s", static_cast<int>(pid),
           strerror(errno));
    close(fd);
    return -1;
  }
  std::string entry = "pid=" + std::to_string(pid) + "\napp=" + DeviceForm(app_path) +
                      "\nsocket=" + socket_name + "\n";
  std::string entry_path = EntryPath(pid);
  int err = ReplaceFile(entry_path, entry, false);
  if (err != 0) {
    QS_LOG(kLogError, "cannot register task %d: %s", static_cast<int>(pid), strerror(err));
    close(fd);
    return -1;
  }
  g_socket = fd;
  g_owner = pid;
  g_entry = entry_path;
  return static_cast<int>(pid);
}

void UnregisterTask() {
  std::lock_guard<std::mutex> lock(g_mutex);
  CloseRegistrationLocked();
}

int ReceiveEvent(int timeout_ms, Event* event) {
  int fd;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    if (g_owner != getpid() || g_socket < 0) return -1;
    fd = g_socket;
  }
  long long deadline = timeout_ms < 0 ? -1 : MonotonicMs() + timeout_ms;
  for (;;) {
    int wait = -1;
    if (deadline >= 0) {
      long long left = deadline - MonotonicMs();
      wait = left > 0 ? static_cast<int>(left) : 0;
    }
    pollfd waiter = {fd, POLLIN, 0};
    int ready = poll(&waiter, 1, wait);
    if (ready < 0) return errno == EINTR ? 0 : -1;
    if (ready == 0) return 0;
    Message message;
    ssize_t n = recv(fd, &message, sizeof message, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
    if (n < 0) return -1;
    if (n != static_cast<ssize_t>(sizeof message) || message.magic != kEventMagic) {
      continue;  // not one of ours; a stray datagram is no event
    }
    if (event) {
      event->type = message.type;
      event->par1 = message.par1;
      event->par2 = message.par2;
    }
    return 1;
  }
}

void SetEventHandler(EventHandler handler) { g_handler.store(handler); }

int WaitEvent(int timeout_ms, Event* event) {
  Loop& loop = TheLoop();
  std::unique_lock<std::mutex> lock(loop.mutex);
  auto ready = [&loop] { return !loop.events.empty(); };
  if (timeout_ms < 0) {
    loop.cond.wait(lock, ready);
  } else if (!loop.cond.wait_for(lock, std::chrono::milliseconds(timeout_ms), ready)) {
    return 0;
  }
  if (event) *event = loop.events.front();
  loop.events.pop_front();
  return 1;
}

}  // namespace host
}  // namespace quillstone
