// The stream forms of the two records, and the result queue.
#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

#include "action.h"
#include "message_queue.h"
#include "qs_codes.h"
#include "support/test_root.h"

namespace qs_test {
namespace {

using quillstone::dropbox::Action;
using quillstone::dropbox::ActionResult;
using quillstone::utilities::MessageQueue;

TEST(ActionStream, RecordsFollowOneAnotherAndACutRecordFails) {
  DeviceRoot();
  int a = 0, b = 0;
  const Action action = {7, &a, &b};
  const ActionResult result = {2, 255, &b, nullptr};
  std::stringstream stream;
  ASSERT_EQ(0, action.WriteToStream(stream));
  ASSERT_EQ(0, result.WriteToStream(stream));
  const std::string bytes = stream.str();

  Action read_action = {};
  ActionResult read_result = {};
  EXPECT_EQ(0, read_action.ReadFromStream(stream));
  EXPECT_EQ(0, read_result.ReadFromStream(stream));
  EXPECT_EQ(QS_NOT_FOUND, read_result.ReadFromStream(stream));  // a clean end
  EXPECT_TRUE(read_action.type == 7 && read_action.argument == &a && read_action.context == &b);
  EXPECT_TRUE(read_result.type == 2 && read_result.code == 255 && read_result.context == &b &&
              read_result.payload == nullptr);

  // Cut after every byte of the second record: a clean end only at its start.
  const size_t first = bytes.size() - (2 * sizeof(int) + 2 * sizeof(void*));
  for (size_t cut = first; cut < bytes.size(); ++cut) {
    std::istringstream in(bytes.substr(0, cut));
    ASSERT_EQ(0, read_action.ReadFromStream(in));
    EXPECT_EQ(cut == first ? QS_NOT_FOUND : QS_FAILED, read_result.ReadFromStream(in)) << cut;
  }
}

TEST(MessageQueue, KeepsOrderAndLosesNothing) {
  DeviceRoot();
  const ActionResult a = {2, 1, nullptr, nullptr}, b = {2, 2, nullptr, nullptr},
                     c = {2, 3, nullptr, nullptr};
  ActionResult out = {0, -5, nullptr, nullptr};
  MessageQueue<ActionResult> queue;
  ASSERT_EQ(0, queue.Init());
  EXPECT_NE(0, queue.IsEmpty());
  ASSERT_EQ(0, queue.Push(a));
  ASSERT_EQ(0, queue.Push(b));
  ASSERT_EQ(0, queue.PushFront(c));
  EXPECT_EQ(0, queue.IsEmpty());
  for (int code : {3, 1, 2}) {
    ASSERT_EQ(0, queue.Pop(&out));
    EXPECT_EQ(code, out.code);
  }
  EXPECT_EQ(-1, queue.Pop(&out));
  EXPECT_EQ(2, out.code);

  // Producers on several threads lose nothing.
  std::vector<std::thread> producers;
  for (int t = 0; t < 4; ++t) {
    producers.emplace_back([&queue, t] {
      for (int i = 0; i < 500; ++i) queue.Push({2, t, nullptr, nullptr});
    });
  }
  for (std::thread& producer : producers) producer.join();
  int count = 0;
  while (queue.IsEmpty() == 0 && queue.Pop(&out) == 0) ++count;
  EXPECT_EQ(2000, count);
}

}  // namespace
}  // namespace qs_test
