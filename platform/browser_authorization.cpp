// BrowserAuthorization over a child process: the browser program runs with
// a pipe on which it writes one line per event ("url ADDRESS", "error
// TEXT"); the descriptor is named by an environment variable, so the
// program's command line stays the device's own. Ending a session ends the
// browser with SIGTERM, and SIGKILL when it does not go.
#define QS_SOURCE_NAME "platform/browser_authorization"

#include "browser_authorization.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host_common.h"
#include "host_device.h"
#include "qs_log.h"
#include "url.h"

extern char** environ;

namespace quillstone {
namespace utilities {

namespace {

constexpr int kChildEventsFd = 3;
constexpr long long kTickMs = 1000;       // period of TimePassed
constexpr int kPollMs = 100;              // how soon a cleared flag is seen
constexpr long long kTermGraceMs = 2000;  // before SIGKILL
constexpr size_t kMaxEventLine = 64 * 1024;

// Describes how a child ended, for the log.
std::string DescribeStatus(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "was killed by signal " + std::to_string(WTERMSIG(status));
  return "ended";
}

// Waits for `pid` up to `ms`; true when it was reaped, with *status set.
bool WaitFor(pid_t pid, long long ms, int* status) {
  const long long deadline = host::MonotonicMs() + ms;
  for (;;) {
    pid_t got = waitpid(pid, status, WNOHANG);
    if (got == pid || (got < 0 && errno != EINTR)) return true;
    if (host::MonotonicMs() >= deadline) return false;
    host::SleepMs(10);
  }
}

}  // namespace

BrowserAuthorization::BrowserAuthorization(const std::string& name, IEventHandler* handler)
    : running_(false), name_(name), handler_(handler), pid_(0) {}

BrowserAuthorization::~BrowserAuthorization() {}

void BrowserAuthorization::SetFocus() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (pid_ > 0) (void)kill(pid_, SIGUSR1);
}

int BrowserAuthorization::Start(const std::string& url, const std::vector<std::string>& arguments) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_) {
      QS_LOG(kLogError, "[%s] a browser session is already on", name_.c_str());
      return kStartFailed;
    }
    running_ = true;
  }
  auto is_running = [this] {
    std::lock_guard<std::mutex> lock(mutex_);
    return running_;
  };
  auto give_up = [this](const char* what) {
    QS_LOG(kLogError, "[%s] cannot start the browser: %s: %s", name_.c_str(), what,
           strerror(errno));
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    return kStartFailed;
  };

  // Everything the child needs is made before fork: it may only call
  // async-signal-safe functions.
  std::vector<std::string> args;
  args.push_back(browser_);
  args.push_back(url);
  args.insert(args.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  std::string channel =
      std::string(host::kBrowserEventsVariable) + "=" + std::to_string(kChildEventsFd);
  std::vector<char*> envp;
  for (char** e = environ; e && *e; ++e) {
    if (strncmp(*e, channel.c_str(), strlen(host::kBrowserEventsVariable) + 1) != 0) {
      envp.push_back(*e);
    }
  }
  envp.push_back(&channel[0]);
  envp.push_back(nullptr);

  int events[2];
  if (pipe2(events, O_CLOEXEC) != 0) return give_up("pipe");
  int exec_status[2];
  if (pipe2(exec_status, O_CLOEXEC) != 0) {
    close(events[0]);
    close(events[1]);
    return give_up("pipe");
  }
  const pid_t pid = fork();
  if (pid == 0) {
    // The browser must not outlive the program that watches it, and must
    // take SIGTERM even when the watcher blocks it for a signal thread.
    (void)prctl(PR_SET_PDEATHSIG, SIGTERM);
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    if (events[1] == kChildEventsFd) {
      (void)fcntl(kChildEventsFd, F_SETFD, 0);
    } else {
      (void)dup2(events[1], kChildEventsFd);  // the copy has no close-on-exec
    }
    execve(argv[0], argv.data(), envp.data());
    const int err = errno;
    (void)!write(exec_status[1], &err, sizeof err);
    _exit(127);
  }
  close(events[1]);
  close(exec_status[1]);
  if (pid < 0) {
    close(events[0]);
    close(exec_status[0]);
    return give_up("fork");
  }
  int exec_errno = 0;
  ssize_t got;
  do {
    got = read(exec_status[0], &exec_errno, sizeof exec_errno);
  } while (got < 0 && errno == EINTR);
  close(exec_status[0]);
  if (got == static_cast<ssize_t>(sizeof exec_errno)) {
    int status = 0;
    (void)waitpid(pid, &status, 0);
    close(events[0]);
    QS_LOG(kLogError, "[%s] cannot run the browser %s: %s", name_.c_str(), browser_.c_str(),
           strerror(exec_errno));
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    return kBrowserMissing;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pid_ = pid;
  }

  // Ends the browser and the session on every way out, an exception from
  // the handler included.
  struct SessionGuard {
    BrowserAuthorization* self;
    int fd;
    pid_t pid;
    bool reaped = false;
    ~SessionGuard() {
      if (!reaped) {
        int status = 0;
        (void)kill(pid, SIGTERM);
        if (!WaitFor(pid, kTermGraceMs, &status)) {
          QS_LOG(kLogError, "[%s] the browser ignores SIGTERM; killing it", self->name_.c_str());
          (void)kill(pid, SIGKILL);
          (void)waitpid(pid, &status, 0);
        }
      }
      close(fd);
      std::lock_guard<std::mutex> lock(self->mutex_);
      self->pid_ = 0;
      self->running_ = false;
    }
  } guard{this, events[0], pid};

  QS_LOG(kLogInfo, "[%s] browser %d shows %s", name_.c_str(), static_cast<int>(pid),
         RedactUrl(url).c_str());
  const long long start = host::MonotonicMs();
  long long next_tick = start + kTickMs;
  std::string pending;
  bool closed = false;
  while (!closed && is_running()) {
    struct pollfd pfd = {events[0], POLLIN, 0};
    long long wait_ms = next_tick - host::MonotonicMs();
    if (wait_ms > kPollMs) wait_ms = kPollMs;
    if (wait_ms < 0) wait_ms = 0;
    const int ready = poll(&pfd, 1, static_cast<int>(wait_ms));
    if (ready > 0) {
      char buffer[4096];
      const ssize_t n = read(events[0], buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        closed = true;  // the browser has gone (or dropped its channel)
      } else {
        pending.append(buffer, static_cast<size_t>(n));
      }
      size_t end;
      while ((end = pending.find('\n')) != std::string::npos && is_running()) {
        const std::string line = pending.substr(0, end);
        pending.erase(0, end + 1);
        if (line.compare(0, 4, "url ") == 0) {
          handler_->UrlChanged(line.substr(4));
        } else if (line.compare(0, 6, "error ") == 0) {
          QS_LOG(kLogError, "[%s] the browser reports: %s", name_.c_str(), line.substr(6).c_str());
          handler_->BrowserError();
        } else {
          QS_LOG(kLogError, "[%s] unknown browser event skipped (%zu bytes)", name_.c_str(),
                 line.size());
        }
      }
      if (pending.size() > kMaxEventLine) {
        QS_LOG(kLogError, "[%s] browser event longer than %zu bytes dropped", name_.c_str(),
               kMaxEventLine);
        pending.clear();
      }
    } else if (ready < 0 && errno != EINTR) {
      QS_LOG(kLogError, "[%s] poll failed: %s", name_.c_str(), strerror(errno));
      break;
    }
    const long long now = host::MonotonicMs();
    if (!closed && now >= next_tick && is_running()) {
      next_tick = now + kTickMs;
      handler_->TimePassed(static_cast<int>(now - start));
    }
  }

  if (closed) {
    int status = 0;
    if (WaitFor(pid, kTermGraceMs, &status)) {
      guard.reaped = true;
      QS_LOG(kLogNotice, "[%s] the browser %s", name_.c_str(), DescribeStatus(status).c_str());
    }
    if (is_running()) handler_->BrowserClosed();
  } else {
    QS_LOG(kLogInfo, "[%s] the session was ended; closing the browser", name_.c_str());
  }
  return 0;
}

}  // namespace utilities
}  // namespace quillstone

namespace quillstone {
namespace host {

int ReportBrowserEvent(const std::string& kind, const std::string& text) {
  const char* value = getenv(kBrowserEventsVariable);
  if (!value || !*value) return -1;
  const int fd = atoi(value);
  std::string line = kind + " " + text;
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';  // one event, one line
  }
  line += '\n';
  // One write: events never interleave, and a pipe write this size is whole.
  const ssize_t n = write(fd, line.data(), line.size());
  return n == static_cast<ssize_t>(line.size()) ? 0 : -1;
}

}  // namespace host
}  // namespace quillstone
