// The sync settings as the file gives them, the change bits, and the choice
// of a new account's sync folder.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>

#include "configuration.h"
#include "device_root.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::Configuration;
using quillstone::dropbox::kAccessTokenKey;
using quillstone::dropbox::kAccountIdKey;
using quillstone::dropbox::kAutosyncKey;
using quillstone::dropbox::kConnectAutomaticallyKey;
using quillstone::dropbox::kDropboxSettingsFile;
using quillstone::dropbox::kFolderKey;
using quillstone::dropbox::kSync3gKey;
using quillstone::utilities::DevicePath;

namespace {

class ConfigurationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    path_ = DevicePath(kDropboxSettingsFile);
    default_folder_ = DevicePath("/mnt/ext1/Dropbox Quillstone");
    ASSERT_EQ(0, system(("rm -rf '" + DevicePath("/mnt/ext1") + "'").c_str()));
    te_buildpath(path_.c_str());
  }
  // Writes as the device's settings screen would: through a handle of its own.
  void Write(const std::map<std::string, std::string>& keys) {
    qs_test::WriteSettings(kDropboxSettingsFile, keys);
  }
  std::string Read(const std::string& key) {
    return qs_test::ReadSetting(kDropboxSettingsFile, key);
  }

  // Autosync, 3G and connect flags, folder, token and the folder's key.
  static std::string Describe(Configuration& c) {
    const Configuration::Status s = c.GetStatus();
    return std::to_string(s.autosync) + std::to_string(s.sync_3g) +
           std::to_string(s.connect_automatically) + " " + s.folder + " |" + s.token + " " +
           c.getFolderKey();
  }

  std::string path_;
  std::string default_folder_;
};

TEST_F(ConfigurationTest, DefaultsAndTheAccountsFolderKey) {
  qs_test::WriteFile(path_, "");
  Configuration configuration;
  ASSERT_EQ(0, configuration.Init(path_));
  EXPECT_EQ("100 " + default_folder_ + " | dropbox_folder", Describe(configuration));

  Write({{kAccountIdKey, "dbid:1"},
         {kFolderKey + std::string("dbid:1"), "/books"},
         {kFolderKey, "/other"},
         {kAutosyncKey, "0"},
         {kConnectAutomaticallyKey, "1"}});
  Write({{kAccessTokenKey, "tok"}});
  EXPECT_EQ("001 /books |tok dropbox_folderdbid:1", Describe(configuration));

  // A missing file, a path that cannot be a file: defaults.
  unlink(path_.c_str());
  EXPECT_EQ(default_folder_, configuration.GetStatus().folder);
  Configuration broken;
  EXPECT_NE(0, broken.Init(DevicePath("/mnt/ext1")));
  EXPECT_EQ(1, broken.GetStatus().autosync);
}

TEST_F(ConfigurationTest, ChangeBitsAccumulateUntilReset) {
  Write({{kAutosyncKey, "1"}});
  Configuration configuration;
  ASSERT_EQ(0, configuration.Init(path_));
  EXPECT_EQ(0, configuration.CheckChanges());

  Write({{kAutosyncKey, "0"}});
  EXPECT_EQ(Configuration::kChangedFile | Configuration::kChangedAutosync,
            configuration.CheckChanges());
  EXPECT_EQ(17, configuration.CheckChanges());  // nothing new, bits stay
  configuration.ResetChanges();
  EXPECT_EQ(0, configuration.CheckChanges());

  const timespec times[2] = {{1000, 0}, {1000, 0}};  // touched, no value changed
  ASSERT_EQ(0, utimensat(AT_FDCWD, path_.c_str(), times, 0));
  EXPECT_EQ(16, configuration.CheckChanges());

  Write({{kSync3gKey, "1"}});
  Write({{kAccessTokenKey, "t"}});
  EXPECT_EQ(16 | 2 | 8, configuration.CheckChanges());
  configuration.ResetChanges();
  Write({{kAccountIdKey, "dbid:9"},
         {kFolderKey + std::string("dbid:9"), "/elsewhere"},
         {kConnectAutomaticallyKey, "1"}});
  EXPECT_EQ(16 | 4 | 32, configuration.CheckChanges());
  EXPECT_EQ("/elsewhere", configuration.GetStatus().folder);
}

TEST_F(ConfigurationTest, NewAccountGetsTheFirstFreeFolder) {
  Configuration configuration;
  ASSERT_EQ(0, configuration.Init(path_));
  ASSERT_EQ(0, mkdir(default_folder_.c_str(), 0755));
  ASSERT_EQ(0, mkdir((default_folder_ + " (1)").c_str(), 0755));
  // The account id lands after the last poll, as after a log-in in this process.
  Write({{kAccountIdKey, "dbid:1"}});
  configuration.UpdateDownloadFolder();
  const std::string chosen = default_folder_ + " (2)";
  EXPECT_TRUE(qs_test::Exists(chosen));
  EXPECT_EQ(chosen, Read(kFolderKey + std::string("dbid:1")));
  EXPECT_EQ(chosen, Read(kFolderKey));
  EXPECT_EQ(chosen, configuration.GetStatus().folder);

  // A folder already chosen stays chosen, even when it is gone.
  rmdir(chosen.c_str());
  configuration.UpdateDownloadFolder();
  EXPECT_FALSE(qs_test::Exists(chosen));
  EXPECT_EQ(chosen, Read(kFolderKey + std::string("dbid:1")));

  // All 99 names taken: nothing is made or written.
  for (int n = 2; n <= 99; ++n)
    mkdir((default_folder_ + " (" + std::to_string(n) + ")").c_str(), 0755);
  Write({{kAccountIdKey, "dbid:2"}});
  EXPECT_EQ("", configuration.findNonexistentPathWithPrefix(default_folder_));
  configuration.UpdateDownloadFolder();
  EXPECT_EQ("<none>", Read(kFolderKey + std::string("dbid:2")));
  EXPECT_EQ(chosen, Read(kFolderKey));
  EXPECT_FALSE(qs_test::Exists(default_folder_ + " (100)"));
  EXPECT_EQ(default_folder_, configuration.GetStatus().folder);
}

}  // namespace
