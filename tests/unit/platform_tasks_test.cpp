// The task registry and events across processes.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "device_root.h"
#include "host_device.h"
#include "support/test_root.h"
#include "tessera.h"

namespace host = quillstone::host;

namespace {

const char kExplorer[] = "/fwroot/bin/explorer.app";

class Tasks : public ::testing::Test {
 protected:
  void SetUp() override { qs_test::DeviceRoot(); }
};

TEST_F(Tasks, AChildTaskReceivesEventsUntilItEnds) {
  EXPECT_EQ(-1, FindTaskByAppName(kExplorer));
  int ready[2], report[2];
  ASSERT_EQ(0, pipe(ready));
  ASSERT_EQ(0, pipe(report));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int task = host::RegisterTask(kExplorer);
    (void)!write(ready[1], &task, sizeof task);
    host::Event event;
    int got = host::ReceiveEvent(5000, &event);
    int values[4] = {got, event.type, event.par1, event.par2};
    (void)!write(report[1], values, sizeof values);
    _exit(0);
  }
  int task = -1;
  ASSERT_EQ(static_cast<ssize_t>(sizeof task), read(ready[0], &task, sizeof task));
  EXPECT_EQ(child, task);
  EXPECT_EQ(task, FindTaskByAppName(kExplorer));
  // Paths formed under the device root name the same program.
  EXPECT_EQ(task, FindTaskByAppName(quillstone::utilities::DevicePath(kExplorer).c_str()));
  EXPECT_EQ(-1, FindTaskByAppName("/fwroot/bin/browser.app"));
  EXPECT_EQ(0, SendEventTo(task, 73, 1, 2));
  int values[4] = {0, 0, 0, 0};
  ASSERT_EQ(static_cast<ssize_t>(sizeof values), read(report[0], values, sizeof values));
  EXPECT_EQ(1, values[0]);
  EXPECT_EQ(73, values[1]);
  EXPECT_EQ(1, values[2]);
  EXPECT_EQ(2, values[3]);
  waitpid(child, nullptr, 0);

  // The child ended without unregistering: its entry is stale.
  EXPECT_EQ(-1, FindTaskByAppName(kExplorer));
  EXPECT_NE(0, SendEventTo(task, 73, 0, 0));
  EXPECT_NE(0, SendEventTo(999999, 73, 0, 0));
}

}  // namespace
