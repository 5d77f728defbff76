// The facade: item status from the store and the marks a
// host sets, token status, and the worker programs' ends as events.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "dropbox.h"
#include "dropbox_client.h"
#include "host_device.h"
#include "store_fixture.h"

namespace qs_test {
namespace {

using quillstone::dropbox::Dropbox;
using quillstone::dropbox::DropboxClient;
using quillstone::dropbox::kAccessTokenKey;
using quillstone::dropbox::kDropboxSettingsFile;
using quillstone::dropbox::kExpiredToken;
using quillstone::dropbox::kFolderKey;
using quillstone::dropbox::kSyncErrorFile;
using quillstone::dropbox::kSyncErrorKey;
using quillstone::dropbox::kWorkerEndedEvent;
using M = FileMetadataManager;
namespace host = quillstone::host;

// Events of `type` until none comes for `wait_ms`; the others are dropped.
int CountEvents(int type, int wait_ms) {
  int count = 0;
  host::Event event;
  while (host::WaitEvent(wait_ms, &event) == 1) count += event.type == type;
  return count;
}

class FacadeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DeviceRoot();
    folder_ = MakeTempDir("sync");
    ASSERT_EQ(0, system(("mkdir -p '" + Under("/mnt/ext1/system/config/dropbox") + "'").c_str()));
    unlink(Under(kDropboxSettingsFile).c_str());
    WriteSettings(kDropboxSettingsFile, {{kFolderKey, folder_}});
    unlink(Under(kSyncErrorFile).c_str());
    host::SetNetworkState(true, true);
    (void)CountEvents(0, 0);  // what earlier tests left
    dropbox_.reset(new Dropbox());
  }
  std::string Status(bool file, const std::string& path) {
    Dropbox::ItemStatus status = Dropbox::kItemStatusThree;
    Dropbox::ItemError error = Dropbox::kItemTooManyFiles;
    int rc = file ? dropbox_->GetFileStatus(path, &status, &error)
                  : dropbox_->GetFolderStatus(path, &status, &error);
    return std::to_string(rc) + "|" + std::to_string(status) + "|" + std::to_string(error);
  }
  std::string Db() { return folder_ + "/.dropbox/files.db"; }
  std::string Folders() { return Rows(Db(), "SELECT path, status FROM Folders ORDER BY path"); }

  std::string folder_;
  std::unique_ptr<Dropbox> dropbox_;
};

TEST_F(FacadeTest, ItemStatusComesFromTheStoreAndTheLastSync) {
  // Paths outside the folder are answered without opening the store.
  EXPECT_EQ("-8|0|0", Status(true, "/mnt/ext1/elsewhere/a"));
  EXPECT_EQ("-8|0|0", Status(true, folder_));
  EXPECT_EQ("-8|0|0", Status(false, folder_ + "x"));
  EXPECT_FALSE(Exists(Db()));

  EXPECT_EQ("-8|2|0", Status(true, folder_ + "/unknown"));  // opens the store
  ASSERT_TRUE(Exists(Db()));
  M fm;
  ASSERT_EQ(0, fm.Init(Db()));
  fm.InitRootFolder();
  std::vector<FileMetadata> files =
      Metas({"/d/ok", "/d/tmf", "/d/restricted", "/d/zero", "/d/odd"});
  ASSERT_EQ(0, fm.AddFiles(Ptrs(files)));
  fm.SetFileStatus("/d/tmf", M::kStatusFailed, M::kErrorTooManyFiles);
  fm.SetFileStatus("/d/restricted", M::kStatusFailed, M::kErrorRestrictedContent);
  fm.SetFileStatus("/d/zero", M::kStatusUnset, M::kErrorNone);
  fm.SetFileStatus("/d/odd", static_cast<M::ItemStatus>(9), M::kErrorNone);
  fm.SetFolderStatus("", M::kStatusSynced, M::kErrorNone);
  fm.SetFolderStatus("/d", M::kStatusSynced, M::kErrorNone);
  EXPECT_EQ("0|1|0", Status(true, folder_ + "/d/ok"));
  EXPECT_EQ("0|4|1", Status(true, folder_ + "/d/tmf"));
  EXPECT_EQ("0|4|0", Status(true, folder_ + "/d/restricted"));
  EXPECT_EQ("0|2|0", Status(true, folder_ + "/d/zero"));
  EXPECT_EQ("0|0|0", Status(true, folder_ + "/d/odd"));

  // A failed last sync marks the sync folder itself and nothing else.
  const struct {
    const char* value;
    bool failed;
  } errors[] = {{"", false}, {"1", false}, {"7", false},
                {"2", true}, {"-1", true}, {"junk", false}};
  for (const auto& e : errors) {
    if (*e.value) WriteSettings(kSyncErrorFile, {{kSyncErrorKey, e.value}});
    EXPECT_EQ(e.failed ? "-8|4|0" : "0|1|0", Status(false, folder_)) << e.value;
    EXPECT_EQ("-8|2|0", Status(false, folder_ + "/")) << e.value;
    EXPECT_EQ("0|1|0", Status(false, folder_ + "/d")) << e.value;
  }
  WriteSettings(kSyncErrorFile, {{kSyncErrorKey, "junk"}});
  EXPECT_EQ(0, dropbox_->GetSyncError());  // "junk" reads as the default
}

TEST_F(FacadeTest, LocalChangesMarkTheFoldersAbove) {
  dropbox_->InitFmManager();
  M fm;
  ASSERT_EQ(0, fm.Init(Db()));
  fm.InitRootFolder();
  ASSERT_EQ(0, fm.AddFolders({"/a", "/a/b", "/x"}));
  for (const char* path : {"", "/a", "/a/b", "/x"})
    fm.SetFolderStatus(path, M::kStatusSynced, M::kErrorNone);
  fm.SetFolderStatus("/a", M::kStatusFailed, M::kErrorTooManyFiles);

  EXPECT_EQ(1, dropbox_->CheckFolderStatus(folder_ + "/a/b/c"));  // new: ancestors marked
  EXPECT_EQ("|2;/a|4;/a/b|2;/x|1;", Folders());
  EXPECT_EQ(0, dropbox_->CheckFolderStatus(folder_ + "/x"));  // known: not looked into
  dropbox_->SetFoldersStatusChanged("/mnt/ext2/elsewhere/y");
  dropbox_->SetFoldersStatusChanged(Under("/mnt/ext1/elsewhere/y"));
  EXPECT_EQ("|2;/a|4;/a/b|2;/x|1;", Folders());

  fm.SetFolderStatus("", M::kStatusSynced, M::kErrorNone);
  dropbox_->SetFoldersStatusChanged("");  // the sync folder's own row only
  EXPECT_EQ("|2;/a|4;/a/b|2;/x|1;", Folders());
}

TEST_F(FacadeTest, TokenStatus) {
  DropboxClient client(nullptr);
  ASSERT_EQ(0, client.Init());
  EXPECT_EQ(-3, client.Init());
  const struct {
    const char* token;  // null: no settings file
    int status;
  } cases[] = {{nullptr, 1}, {"", 1}, {kExpiredToken, 2}, {"abc", 0}};
  for (const auto& c : cases) {
    unlink(Under(kDropboxSettingsFile).c_str());
    if (c.token) WriteSettings(kDropboxSettingsFile, {{kAccessTokenKey, c.token}});
    EXPECT_EQ(c.status, client.GetTokenStatus()) << (c.token ? c.token : "no file");
    EXPECT_EQ(c.status == 0, dropbox_->IsLoggedIn());
  }
}

// Workers are stand-in scripts in a firmware folder of the test's own root,
// with the root-scoped killall beside them, so that no stop reaches a
// process of another root.
TEST_F(FacadeTest, EveryWorkerEndIsOneEventAndStopsStayInTheRoot) {
  const std::string bin = Under("/fwroot/bin");
  InstallBuiltProgram("killall");
  WriteFile(bin + "/dropbox_sync", "#!/bin/sh\nwhile :; do sleep 0.05; done\n");
  chmod((bin + "/dropbox_sync").c_str(), 0755);
  unlink((bin + "/dropbox_auth").c_str());
  // The shell must find this root's killall before any other.
  FILE* which = popen("command -v killall", "r");
  char found[4096] = {0};
  ASSERT_NE(nullptr, fgets(found, sizeof found, which));
  pclose(which);
  ASSERT_EQ(bin + "/killall\n", std::string(found));

  ASSERT_EQ(0, system(("mkdir -p '" + Under("/mnt/ext1/system/config/browser") + "'").c_str()));
  WriteFile(Under(LINDEN_SOCIAL_COOKIES_PATH), "cookie");
  ASSERT_EQ(0, dropbox_->StarSync());
  ASSERT_EQ(0, dropbox_->StarSync());  // no guard: a second worker
  EXPECT_EQ(0, dropbox_->LogIn());     // the program is missing
  EXPECT_EQ(1, CountEvents(kWorkerEndedEvent, 1000));
  EXPECT_EQ(0, dropbox_->LogOut());  // stops both sync workers
  EXPECT_FALSE(Exists(Under(LINDEN_SOCIAL_COOKIES_PATH)));
  EXPECT_EQ(2, CountEvents(kWorkerEndedEvent, 2000));
  dropbox_->ProcessResults();  // the queue was never initialised: only logs
  EXPECT_EQ(0, dropbox_->StopSync());
  EXPECT_NE(std::string::npos,
            ReadFile(Under("/var/log/quillstone.log"))
                .find("Condition: \"is_inited_\", return(\"QS_NOT_IMPEMENTED\")"));
}

}  // namespace
}  // namespace qs_test
