// dialog: the stand-in for the device's dialog program.
//
//   dialog KIND TITLE TEXT BUTTON...
//
// It records each dialog as one line in /var/log/dialogs.log under the root
// ("KIND|TITLE|TEXT|BUTTON|..."), and returns when the person presses the
// first button: after dialog_delay_ms of the person settings (host_device.h),
// at once by default. The exit status is the number of the button pressed
// (1), or 2 on a usage error.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "device_root.h"
#include "host_device.h"
#include "tessera.h"

int main(int argc, char** argv) {
  if (argc < 5) {
    fprintf(stderr, "usage: dialog KIND TITLE TEXT BUTTON...\n");
    return 2;
  }
  std::string line;
  for (int i = 1; i < argc; ++i) line += std::string(i > 1 ? "|" : "") + argv[i];
  line += '\n';
  const std::string path = quillstone::utilities::DevicePath("/var/log/dialogs.log");
  (void)te_buildpath(path.c_str());  // a failure shows in the open below
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  // One write per dialog, so a reader never sees half a line.
  if (fd < 0 || write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    fprintf(stderr, "dialog: cannot record the dialog in %s\n", path.c_str());
  }
  if (fd >= 0) close(fd);

  void* person =
      OpenConfig(quillstone::utilities::DevicePath(quillstone::host::kPersonSettings).c_str(), 0);
  const int delay_ms = ReadInt(person, "dialog_delay_ms", 0);
  CloseConfigNoSave(person);
  if (delay_ms > 0) usleep(static_cast<useconds_t>(delay_ms) * 1000u);
  return 1;
}
