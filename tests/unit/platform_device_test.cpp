// Device state, card, panel, statistics, logging and the small utilities
// of the host stand-ins.
#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "arbour_utilities.h"
#include "device_root.h"
#include "host_device.h"
#include "readstats.h"
#include "serialization_utils.h"
#include "signature.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::host::kDeviceSettings;

namespace host = quillstone::host;

namespace {

class Device : public ::testing::Test {
 protected:
  void SetUp() override { qs_test::DeviceRoot(); }
};

TEST_F(Device, CardKeepAliveAndPartnerAreSimulated) {
  EXPECT_EQ(0, IsSDinserted());
  ASSERT_EQ(0, host::SetSDInserted(true));
  EXPECT_NE(0, IsSDinserted());
  qs_test::WriteFile(qs_test::Under("/mnt/ext2/book.epub"), "x");
  ASSERT_EQ(0, host::SetSDInserted(false));
  EXPECT_EQ(0, IsSDinserted());
  EXPECT_TRUE(qs_test::Exists(qs_test::Under("/mnt/ext2/book.epub")));

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 25; ++i) StartPanelProgress(1, 1200);
    });
  }
  for (auto& thread : threads) thread.join();
  PostponeTimedPoweroff();
  EXPECT_EQ(100, host::PanelProgressCount());
  EXPECT_EQ(1, host::PoweroffPostponeCount());
  EXPECT_NE(std::string::npos,
            qs_test::ReadFile(qs_test::Under("/var/run/panel_progress")).find("b=1200"));

  // The partner is read from the firmware settings once.
  for (const char* partner : {"13", "2"}) {
    qs_test::WriteSettings(kDeviceSettings, {{"partner", partner}});
    EXPECT_EQ(13, GetCustomizedPartner());  // fixed for the life of the process
  }
}

TEST_F(Device, StatisticsReportTheNewBooks) {
  StatUtils_FreeStatList();  // legal on an empty list
  StatUtils_AddNewBookToStatList("/mnt/ext1/Dropbox Quillstone/a.epub");
  StatUtils_AddNewBookToStatList("/mnt/ext1/Dropbox Quillstone/\"b\".pdf");
  ASSERT_EQ(2, StatUtils_StatListSize());
  Stat_NewBooksEventEx(StatUtils_StatListSize(), StatUtils_GetStatList(), 21);
  StatUtils_FreeStatList();
  EXPECT_EQ(0, StatUtils_StatListSize());
  Json::Value line;
  std::string text = qs_test::ReadFile(qs_test::Under("/var/log/new_books.log"));
  ASSERT_TRUE(Json::Reader().parse(text, line)) << text;
  EXPECT_EQ(2, line["count"].asInt());
  EXPECT_EQ(21, line["source"].asInt());
  EXPECT_EQ("/mnt/ext1/Dropbox Quillstone/\"b\".pdf", line["paths"][1].asString());
}

TEST_F(Device, LogLinesAreWholeBoundedAndCarryTheRightPid) {
  EXPECT_EQ(getpid(), g_process_pid);
  std::string long_text(20000, 'x');
  qs_print_log2(1, "tests/device", 7, "void Test()", "[pid:%d]short %s", g_process_pid, "line");
  qs_print_log2(4, "tests/device", 8, "void Test()", "%s", long_text.c_str());
  pid_t child = fork();
  if (child == 0) _exit(g_process_pid == getpid() ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(0, WEXITSTATUS(status));

  std::string log = qs_test::ReadFile(qs_test::Under("/var/log/quillstone.log"));
  size_t first_end = log.find('\n');
  ASSERT_NE(std::string::npos, first_end);
  std::string first = log.substr(0, first_end);
  EXPECT_NE(std::string::npos,
            first.find("tests/device:7 Test: [pid:" + std::to_string(getpid()) + "]short line"));
  EXPECT_EQ('T', first[10]);  // ISO time first
  std::string second = log.substr(first_end + 1);
  EXPECT_LE(second.size(), 8192u);
  EXPECT_NE(std::string::npos, second.find("[line truncated]\n"));
}

TEST_F(Device, UtilitiesDecodeEncodeAndNeverRepeatANonce) {
  constexpr auto block = quillstone::utilities::MakeDataBlock("app-key-123");
  char out[16];
  EXPECT_EQ(0, quillstone::utilities::ArbourUtilities::get_data(block.bytes, sizeof block.bytes,
                                                                out, sizeof out));
  EXPECT_STREQ("app-key-123", out);
  char small[4];
  EXPECT_NE(0, quillstone::utilities::ArbourUtilities::get_data(block.bytes, sizeof block.bytes,
                                                                small, sizeof small));
  EXPECT_STREQ("app", small);

  auto base64 = [](const std::string& text) {
    return quillstone::utilities::SerializationUtils::ToBase64(
        std::vector<unsigned char>(text.begin(), text.end()));
  };
  EXPECT_EQ(
      "|Zm8=|Zm9vYmFy|a2V5OnNlY3JldP8=",
      base64("") + "|" + base64("fo") + "|" + base64("foobar") + "|" + base64("key:secret\xff"));

  // The stream forms are taken with the records that use them.
  std::set<std::string> nonces;
  for (int i = 0; i < 200; ++i) {
    std::string nonce = quillstone::utilities::Signature::GenerateNonce();
    ASSERT_EQ(32u, nonce.size());
    ASSERT_EQ(std::string::npos, nonce.find_first_not_of("0123456789abcdef"));
    nonces.insert(nonce);
  }
  EXPECT_EQ(200u, nonces.size());
}

}  // namespace
