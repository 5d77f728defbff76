#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "device_names.h"
#include "device_root.h"
#include "host_device.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::kAccessTokenKey;
using quillstone::dropbox::kDropboxSettingsFile;
using quillstone::dropbox::kSyncErrorKey;
using quillstone::dropbox::kUserNameKey;

namespace {

class Settings : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    path_ = quillstone::utilities::DevicePath(kDropboxSettingsFile);
  }
  std::string path_;
};

TEST_F(Settings, ValuesAndSecretsSurviveASaveAndReload) {
  const std::string awkward = "  two lines\nwith \\ back\\nslash = and # hash\r ";
  void* config = OpenConfig(path_.c_str(), nullptr);  // the file and its folders are missing
  ASSERT_NE(nullptr, config);
  WriteString(config, "plain", awkward.c_str());
  WriteString(config, "odd key = #1", "v");
  WriteString(config, "number", "-42");
  WriteString(config, "cleared", "");
  WriteSecret(config, kAccessTokenKey, "s3cr\xc3\xa9t-token");
  WriteSecret(config, "empty_secret", "");
  CloseConfig(config);

  std::string file = qs_test::ReadFile(path_);
  EXPECT_EQ(std::string::npos, file.find("s3cr")) << file;
  // Holding a secret, the file is its owner's only; without one it is not.
  struct stat st;
  ASSERT_EQ(0, stat(path_.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 0777u);
  const std::string plain_path = path_ + ".plain";
  config = OpenConfig(plain_path.c_str(), nullptr);
  WriteString(config, kSyncErrorKey, "0");
  CloseConfig(config);
  ASSERT_EQ(0, stat(plain_path.c_str(), &st));
  EXPECT_EQ(0644u, st.st_mode & 0777u & ~0022u);
  config = OpenConfig(path_.c_str(), nullptr);
  EXPECT_EQ(awkward, ReadString(config, "plain", ""));
  EXPECT_STREQ("v", ReadString(config, "odd key = #1", ""));
  EXPECT_EQ(-42, ReadInt(config, "number", 0));
  EXPECT_EQ(7, ReadInt(config, "cleared", 7));
  EXPECT_STREQ("", ReadString(config, "cleared", "x"));
  EXPECT_STREQ("s3cr\xc3\xa9t-token", ReadSecret(config, kAccessTokenKey, ""));
  EXPECT_STRNE("s3cr\xc3\xa9t-token", ReadString(config, kAccessTokenKey, ""));
  EXPECT_STREQ("", ReadSecret(config, "empty_secret", "x"));
  EXPECT_STREQ("dflt", ReadSecret(config, "absent", "dflt"));
  EXPECT_EQ(nullptr, ReadString(config, "absent", nullptr));
  CloseConfigNoSave(config);
}

TEST_F(Settings, HandWrittenFilesGarbageAndBadHandles) {
  ASSERT_EQ(0, te_buildpath(path_.c_str()));
  qs_test::WriteFile(path_,
                     "\xEF\xBB\xBF# comment\r\nuser_name = Ana\r\ngarbage line\n=nokey\n"
                     "dup=1\ndup=2\naccess_token_v2=handwritten\n");
  void* config = OpenConfig(path_.c_str(), nullptr);
  ASSERT_NE(nullptr, config);
  EXPECT_STREQ("Ana", ReadString(config, kUserNameKey, ""));
  EXPECT_EQ(2, ReadInt(config, "dup", 0));
  EXPECT_STREQ("handwritten", ReadSecret(config, kAccessTokenKey, ""));  // plain text is taken
  EXPECT_STREQ("", ReadString(config, "garbage line", ""));
  CloseConfigNoSave(config);

  // A folder where the file should be cannot be read: null, and every call
  // with the null handle is harmless.
  EXPECT_EQ(nullptr, OpenConfig(qs_test::MakeTempDir("dir").c_str(), nullptr));
  EXPECT_EQ(nullptr, OpenConfig(nullptr, nullptr));
  EXPECT_STREQ("d", ReadString(nullptr, "k", "d"));
  EXPECT_STREQ("d", ReadSecret(nullptr, "k", "d"));
  EXPECT_EQ(3, ReadInt(nullptr, "k", 3));
  WriteString(nullptr, "k", "v");
  WriteSecret(nullptr, "k", "v");
  DeleteString(nullptr, "k");
  SaveConfig(nullptr);
  CloseConfig(nullptr);
  CloseConfigNoSave(nullptr);
}

TEST_F(Settings, ReturnedTextsLiveUntilCloseAndSavesHappenOnlyOnChange) {
  void* config = OpenConfig(path_.c_str(), nullptr);
  WriteString(config, "k", "first");
  WriteSecret(config, "s", "secret-one");
  const char* first = ReadString(config, "k", "");
  const char* secret = ReadSecret(config, "s", "");
  WriteString(config, "k", "second, and long enough to need a new buffer");
  WriteSecret(config, "s", "secret-two");
  DeleteString(config, "k");
  EXPECT_STREQ("first", first);
  EXPECT_STREQ("secret-one", secret);
  SaveConfig(config);
  CloseConfigNoSave(config);
  EXPECT_TRUE(qs_test::Exists(path_));

  struct stat before, after;
  ASSERT_EQ(0, stat(path_.c_str(), &before));
  config = OpenConfig(path_.c_str(), nullptr);
  WriteSecret(config, "s", "secret-two");  // the same value is no change
  CloseConfig(config);
  config = OpenConfig(path_.c_str(), nullptr);
  WriteString(config, "dropped", "1");
  CloseConfigNoSave(config);
  ASSERT_EQ(0, stat(path_.c_str(), &after));
  EXPECT_EQ(before.st_ino, after.st_ino);  // every save replaces the file
  config = OpenConfig(path_.c_str(), nullptr);
  EXPECT_STREQ("none", ReadString(config, "dropped", "none"));
  EXPECT_STREQ("secret-two", ReadSecret(config, "s", ""));
  CloseConfigNoSave(config);
}

TEST_F(Settings, ConcurrentSaversNeverLeaveATornFile) {
  // Two processes rewrite the file in a loop, each with its own mark in every
  // key; a reader must always find all keys, all of one writer.
  const int kKeys = 200;
  pid_t writers[2];
  for (int w = 0; w < 2; ++w) {
    writers[w] = fork();
    ASSERT_GE(writers[w], 0);
    if (writers[w] == 0) {
      std::string mark(300, static_cast<char>('A' + w));
      for (int round = 0; round < 40; ++round) {
        void* config = OpenConfig(path_.c_str(), nullptr);
        for (int k = 0; k < kKeys; ++k)
          WriteString(config, ("key" + std::to_string(k)).c_str(), mark.c_str());
        WriteString(config, "round", std::to_string(round).c_str());
        if (quillstone::host::SaveSettings(config) != 0) _exit(1);
        CloseConfigNoSave(config);
      }
      _exit(0);
    }
  }
  int complete_reads = 0;
  bool writers_done = false;
  while (!writers_done) {
    writers_done =
        waitpid(writers[0], nullptr, WNOHANG) != 0 && waitpid(writers[1], nullptr, WNOHANG) != 0;
    void* config = OpenConfig(path_.c_str(), nullptr);
    ASSERT_NE(nullptr, config);
    std::string first = ReadString(config, "key0", "");
    if (!first.empty()) {
      for (int k = 1; k < kKeys; ++k) {
        ASSERT_EQ(first, ReadString(config, ("key" + std::to_string(k)).c_str(), "")) << k;
      }
      ++complete_reads;
    }
    CloseConfigNoSave(config);
  }
  EXPECT_GT(complete_reads, 0);
  void* config = OpenConfig(path_.c_str(), nullptr);
  EXPECT_STREQ("39", ReadString(config, "round", ""));
  CloseConfigNoSave(config);
}

}  // namespace
