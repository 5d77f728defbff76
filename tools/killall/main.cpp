// killall: the host's stand-in for the firmware's command, scoped to one
// device root.
//
//   killall [-SIGNAL] NAME...     SIGNAL a number or a name (TERM, KILL, ...)
//
// On the device "killall dropbox_sync" stops the one sync worker there is.
// On a host several device roots run at once (tests, demos), so this stand-in
// signals only processes of the caller's user whose name is NAME and whose
// device root (QUILLSTONE_DEVICE_ROOT in their environment, trailing slashes
// ignored) is the caller's own. The platform puts <root>/fwroot/bin first on
// PATH, so the library's unchanged command line finds this program.
//
// Exit status as the usual killall: 0 when at least one process was
// signalled for every NAME, 1 otherwise, 2 on a usage error.
#include <dirent.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "device_root.h"

namespace {

const char kRootVariable[] = "QUILLSTONE_DEVICE_ROOT=";

std::string Normalise(std::string root) {
  while (!root.empty() && root.back() == '/') root.pop_back();
  return root;
}

bool ReadFile(const std::string& path, std::string* content) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  content->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return true;
}

// The device root of a process, from its environment at start; false when
// the environment cannot be read (another user's process, or gone).
bool RootOf(const std::string& pid, std::string* root) {
  std::string environ;
  if (!ReadFile("/proc/" + pid + "/environ", &environ)) return false;
  root->clear();
  size_t start = 0;
  while (start < environ.size()) {
    size_t end = environ.find('\0', start);
    if (end == std::string::npos) end = environ.size();
    if (environ.compare(start, sizeof kRootVariable - 1, kRootVariable) == 0) {
      *root = Normalise(environ.substr(start + sizeof kRootVariable - 1,
                                       end - start - (sizeof kRootVariable - 1)));
    }
    start = end + 1;
  }
  return true;
}

// The kernel keeps 15 bytes of a program's name.
bool SameName(const std::string& comm, const std::string& name) {
  return comm == name.substr(0, 15);
}

int ParseSignal(const char* text) {
  if (*text >= '0' && *text <= '9') {
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    return *end == '\0' && value > 0 && value < NSIG ? static_cast<int>(value) : -1;
  }
  if (strncmp(text, "SIG", 3) == 0) text += 3;
  static const struct {
    const char* name;
    int value;
  } kSignals[] = {{"HUP", SIGHUP},   {"INT", SIGINT},   {"QUIT", SIGQUIT},
                  {"KILL", SIGKILL}, {"USR1", SIGUSR1}, {"USR2", SIGUSR2},
                  {"TERM", SIGTERM}, {"CONT", SIGCONT}, {"STOP", SIGSTOP}};
  for (const auto& entry : kSignals) {
    if (strcmp(text, entry.name) == 0) return entry.value;
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  int sig = SIGTERM;
  std::vector<std::string> names;
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] == '-' && names.empty()) {
      sig = ParseSignal(argv[i] + 1);
      if (sig < 0) {
        fprintf(stderr, "killall: unknown signal %s\n", argv[i] + 1);
        return 2;
      }
    } else {
      names.push_back(argv[i]);
    }
  }
  if (names.empty()) {
    fprintf(stderr, "usage: killall [-SIGNAL] NAME...\n");
    return 2;
  }
  const std::string own_root = Normalise(quillstone::utilities::DeviceRoot());
  const uid_t own_uid = getuid();
  const pid_t own_pid = getpid();
  std::vector<int> found(names.size(), 0);

  DIR* proc = opendir("/proc");
  if (!proc) {
    perror("killall: /proc");
    return 1;
  }
  while (dirent* entry = readdir(proc)) {
    const std::string pid = entry->d_name;
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    if (atoi(pid.c_str()) == own_pid) continue;
    struct stat st;
    if (stat(("/proc/" + pid).c_str(), &st) != 0 || st.st_uid != own_uid) continue;
    std::string comm;
    if (!ReadFile("/proc/" + pid + "/comm", &comm)) continue;
    if (!comm.empty() && comm.back() == '\n') comm.pop_back();
    for (size_t i = 0; i < names.size(); ++i) {
      std::string root;
      if (!SameName(comm, names[i]) || !RootOf(pid, &root) || root != own_root) continue;
      if (kill(atoi(pid.c_str()), sig) == 0) found[i] = 1;
    }
  }
  closedir(proc);

  int status = 0;
  for (size_t i = 0; i < names.size(); ++i) {
    if (!found[i]) {
      fprintf(stderr, "%s: no process found\n", names[i].c_str());
      status = 1;
    }
  }
  return status;
}
