#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "host_device.h"
#include "shared_state.h"
#include "support/test_root.h"

using quillstone::utilities::SharedStateImpl;

namespace {

class SharedState : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    name_ = "/qs_state_test_" + std::to_string(getpid());
  }
  void TearDown() override { EXPECT_EQ(0, quillstone::host::RemoveSharedBlock(name_)); }

  std::string name_;
};

int WaitChild(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(SharedState, ProcessesShareOnePayloadAndStoresCrossOver) {
  SharedStateImpl state;
  EXPECT_EQ(nullptr, state.GetState());
  ASSERT_EQ(0, state.Init(name_, 4));
  volatile int32_t* value = static_cast<volatile int32_t*>(state.GetState());
  ASSERT_NE(nullptr, value);
  EXPECT_EQ(0, *value);  // a fresh block is zero
  *value = 1;
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    SharedStateImpl other;  // a second attach, as the host does beside the worker
    if (other.Init(name_, 4) != 0) _exit(2);
    volatile int32_t* seen = static_cast<volatile int32_t*>(other.GetState());
    if (*seen != 1) _exit(3);
    *seen = 2;
    for (int i = 0; i < 5000 && *seen != 3; ++i) usleep(1000);
    _exit(*seen == 3 ? 0 : 4);
  }
  for (int i = 0; i < 5000 && *value != 2; ++i) usleep(1000);
  EXPECT_EQ(2, *value);
  state.LockState();
  *value = 3;
  state.UnlockState();
  EXPECT_EQ(0, WaitChild(child));
}

TEST_F(SharedState, AKilledHolderDoesNotBlockTheLock) {
  SharedStateImpl state;
  ASSERT_EQ(0, state.Init(name_, 4));
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    SharedStateImpl holder;
    if (holder.Init(name_, 4) != 0 || holder.LockState() != 0) _exit(2);
    (void)!write(ready[1], "x", 1);
    pause();
    _exit(0);
  }
  char byte;
  ASSERT_EQ(1, read(ready[0], &byte, 1));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(0, state.LockState());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(0, state.UnlockState());
  EXPECT_NE(0, state.UnlockState());  // never frees a lock it does not hold
}

}  // namespace
