#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host_device.h"
#include "support/test_root.h"
#include "tessera.h"

namespace {

const std::string& LogPath() {
  static const std::string path = qs_test::Under("/var/log/quillstone.log");
  return path;
}

// Several processes of two threads each log far more than the bound, with a
// tiny rotation size, so rotations race each other.
TEST(Log, LevelAndRotationHoldAcrossProcessesAndThreads) {
  qs_test::DeviceRoot();
  qs_test::WriteFile(qs_test::Under("/fwroot/etc/device.cfg"), "log_level=3\nlog_rotate_kib=64\n");
  quillstone::host::ReloadLogSettings();
  qs_print_log2(4, "tests/log", 1, "void Test()", "information is dropped");
  qs_print_log2(3, "tests/log", 2, "void Test()", "a notice is kept");
  std::string log = qs_test::ReadFile(LogPath());
  EXPECT_NE(std::string::npos, log.find("a notice is kept"));
  EXPECT_EQ(std::string::npos, log.find("information is dropped"));

  const int kProcesses = 4, kLines = 300;
  const std::string filler(900, 'x');
  std::vector<pid_t> children;
  for (int p = 0; p < kProcesses; ++p) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      auto writer = [&](int t) {
        for (int i = 0; i < kLines; ++i) {
          qs_print_log2(1, "tests/log", 3, "void Test()", "p%d t%d n%d %s END", p, t, i,
                        filler.c_str());
        }
      };
      std::thread other(writer, 1);
      writer(0);
      other.join();
      _exit(0);
    }
    children.push_back(child);
  }
  for (pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, WEXITSTATUS(status));
  }
  const std::string current = qs_test::ReadFile(LogPath());
  const std::string previous = qs_test::ReadFile(LogPath() + ".1");
  // Writers that measured the file at the same moment may each add their
  // line past the size: one line per writer at most.
  const size_t bound = 64u * 1024 + kProcesses * 2 * 1024;
  EXPECT_LE(current.size(), bound);
  EXPECT_LE(previous.size(), bound);
  // A rotation that renamed a file already rotated by another process would
  // put a nearly empty file in the place of the full one.
  EXPECT_GT(previous.size(), 60u * 1024);
  std::istringstream lines(previous + current);
  std::string line;
  while (std::getline(lines, line)) {
    ASSERT_EQ('T', line[10]) << line.substr(0, 80);
    ASSERT_EQ(" END", line.substr(line.size() - 4)) << line.substr(0, 80);
  }
}

}  // namespace
