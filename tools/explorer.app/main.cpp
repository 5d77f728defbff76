// explorer.app: the stand-in for the device's file browser. It runs as the
// task of "/fwroot/bin/explorer.app" and appends every event it receives as
// a line "type par1 par2" to a log file, until SIGTERM or SIGINT.
//
//   explorer.app [LOG]   LOG defaults to <root>/tmp/explorer_events.log
//
// Once registered it prints "explorer.app: task N" on stdout, so a harness
// can wait for that line before it expects events to arrive.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "device_root.h"
#include "host_device.h"
#include "tessera.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void OnSignal(int) { g_stop = 1; }

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2) {
    fprintf(stderr, "usage: explorer.app [LOG]\n");
    return 2;
  }
  std::string log_path =
      argc == 2 ? argv[1] : quillstone::utilities::DevicePath("/tmp/explorer_events.log");
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = OnSignal;  // no SA_RESTART: the wait must end on a signal
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);

  (void)te_buildpath(log_path.c_str());  // a failure shows in the open below
  int log_fd = open(log_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (log_fd < 0) {
    fprintf(stderr, "explorer.app: cannot open %s: %s\n", log_path.c_str(), strerror(errno));
    return 1;
  }
  int task = quillstone::host::RegisterTask("/fwroot/bin/explorer.app");
  if (task < 0) {
    fprintf(stderr, "explorer.app: cannot register the task\n");
    return 1;
  }
  printf("explorer.app: task %d\n", task);
  fflush(stdout);

  // After a stop request the events already queued are still logged, so a
  // harness that stops the browser right after a sync counts all of them.
  for (;;) {
    quillstone::host::Event event;
    int got = quillstone::host::ReceiveEvent(g_stop ? 0 : 500, &event);
    if (got < 0) {
      fprintf(stderr, "explorer.app: the event socket failed\n");
      break;
    }
    if (got == 0) {
      if (g_stop) break;
      continue;
    }
    char line[64];
    int length = snprintf(line, sizeof line, "%d %d %d\n", event.type, event.par1, event.par2);
    // One write per line: a reader counting lines never sees half of one.
    if (write(log_fd, line, static_cast<size_t>(length)) != length) {
      fprintf(stderr, "explorer.app: cannot write %s\n", log_path.c_str());
    }
  }
  quillstone::host::UnregisterTask();
  close(log_fd);
  return 0;
}
