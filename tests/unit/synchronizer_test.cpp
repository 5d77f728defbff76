// The run spine of the sync engine, without a service: the SD card rule, a
// dead network, the error model, shell escaping and progress reports.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>

#include "device_root.h"
#include "dropboxsynchronizer.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::CanProceedOnError;
using quillstone::dropbox::CaseConflictFileName;
using quillstone::dropbox::CaseConflictFolderPath;
using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::DropboxSynchronizer;
using quillstone::dropbox::EscapeForShell;
using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::FileMetadataManager;
using quillstone::dropbox::SynchronizerCallback;
using quillstone::utilities::Downloader;
using quillstone::utilities::DownloadStatus;

namespace {

class RecordingCallback : public SynchronizerCallback {
 public:
  int OnSyncFinished(int sync_error, bool changed) override {
    std::lock_guard<std::mutex> lock(mutex_);
    errors_.push_back(sync_error);
    cond_.notify_all();
    return 0;
  }
  int WaitForResult() {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait_for(lock, std::chrono::seconds(60), [this] { return !errors_.empty(); });
    return errors_.empty() ? -1 : errors_.back();
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<int> errors_;
};

class SynchronizerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    // Nothing listens on port 1 of the loopback: every request fails at once.
    std::string service = quillstone::utilities::DevicePath("/fwroot/etc/dropbox/service.cfg");
    void* config = OpenConfig(service.c_str(), nullptr);
    WriteString(config, "api_url", "https://127.0.0.1:1/2");
    WriteString(config, "content_url", "https://127.0.0.1:1/2");
    CloseConfig(config);
  }

  // Runs one sync on `folder` and gives the sync error.
  int RunOnce(DropboxSynchronizer* sync, RecordingCallback* callback, const std::string& folder) {
    EXPECT_EQ(0, sync->StartSync(folder));
    int result = callback->WaitForResult();
    // The run has ended by itself; StopSync would not join it.
    if (sync->thread_ != 0) pthread_join(sync->thread_, nullptr);
    sync->thread_ = 0;
    return result;
  }

  int RunState(DropboxSynchronizer* sync) {
    return *static_cast<int*>(sync->shared_state_.GetState());
  }
};

TEST_F(SynchronizerTest, SdCardFolderWithoutCardEndsBeforeTheStore) {
  RecordingCallback callback;
  DropboxSynchronizer sync(&callback);
  EXPECT_EQ(DropboxSynchronizer::kRunIdle, RunState(&sync));
  // No folder for the slot: no card is inserted.
  std::string folder = quillstone::utilities::DevicePath("/mnt/ext2/Books");
  rmdir(quillstone::utilities::DevicePath("/mnt/ext2").c_str());
  EXPECT_EQ(DropboxSynchronizer::kSyncNeedSdCard, RunOnce(&sync, &callback, folder));
  EXPECT_FALSE(qs_test::Exists(folder + "/.dropbox/files.db"));
  EXPECT_EQ(DropboxSynchronizer::kRunIdle, RunState(&sync));
}

TEST_F(SynchronizerTest, DeadNetworkPassesTheAccountCheckAndFailsInTheListing) {
  RecordingCallback callback;
  DropboxSynchronizer sync(&callback);
  std::string folder = qs_test::MakeTempDir("sync");
  EXPECT_EQ(DropboxSynchronizer::kSyncNoNetwork, RunOnce(&sync, &callback, folder));
  // The store was opened, rebuilt empty, and closed again on the way out.
  EXPECT_TRUE(qs_test::Exists(folder + "/.dropbox/files.db"));
  EXPECT_FALSE(sync.fm_manager_.is_inited_);
  EXPECT_EQ(DropboxSynchronizer::kRunIdle, RunState(&sync));

  // The engine can run again after a run has ended.
  EXPECT_EQ(DropboxSynchronizer::kSyncNoNetwork, RunOnce(&sync, &callback, folder));
}

TEST_F(SynchronizerTest, ConvertErrorFollowsTheScale) {
  DropboxSynchronizer sync(nullptr);
  const std::pair<int, int> table[] = {
      {DropboxProtocol::kSuccess, 0},
      {DropboxProtocol::kStopped, 1},
      {DropboxProtocol::kErrNoNetwork, 2},
      {DropboxProtocol::kErrStorage, 3},
      {DropboxProtocol::kNotAuthorized, 4},
      {DropboxProtocol::kWrongUser, 5},
      {DropboxProtocol::kNeedSDCard, 6},
      {DropboxProtocol::kFail, 7},
      {DropboxProtocol::kErrServer, 7},
      {DropboxProtocol::kRestrictedContent, 8},
      {3, 7},
      {DropboxProtocol::kNotFound, 7},
      {DropboxProtocol::kTooManyRequests, 7},
      {DropboxProtocol::kConflict, 7},
      {14, 7},
      {-1, 7},
      {-8, 7},
  };
  for (const auto& row : table) {
    sync.ConvertError(row.first);
    EXPECT_EQ(row.second, sync.sync_error_) << "code " << row.first;
  }
  EXPECT_TRUE(CanProceedOnError(DropboxProtocol::kSuccess));
  EXPECT_TRUE(CanProceedOnError(DropboxProtocol::kRestrictedContent));
  EXPECT_FALSE(CanProceedOnError(DropboxProtocol::kNotFound));
  EXPECT_FALSE(CanProceedOnError(DropboxProtocol::kStopped));
}

TEST_F(SynchronizerTest, EscapeForShellEscapesExactlyTheShellSpecials) {
  EXPECT_EQ("", EscapeForShell(""));
  EXPECT_EQ("/a\\ b\\'c", EscapeForShell("/a b'c"));
  EXPECT_EQ("\\!\\#\\$\\%\\&\\(\\)\\@\\^\\`\\{\\}\\~\\'\\+\\,\\;\\=\\[\\]\\?\\<\\:\\>\\|\\\"",
            EscapeForShell("!#$%&()@^`{}~'+,;=[]?<:>|\""));
  // Left as they are: backslash, star, line end, bytes from 128 up.
  EXPECT_EQ("a\\*\nb\xc3\xa4", EscapeForShell("a\\*\nb\xc3\xa4"));

  // What the shell makes of an escaped name is the name itself.
  std::string dir = qs_test::MakeTempDir("escape");
  std::string name = dir + "/odd name 'q' (1) & $x; [a]=b";
  ASSERT_EQ(0, mkdir(name.c_str(), 0755));
  ASSERT_EQ(0, system(("rm -rf " + EscapeForShell(name)).c_str()));
  EXPECT_FALSE(qs_test::Exists(name));
  EXPECT_TRUE(qs_test::Exists(dir));
}

TEST_F(SynchronizerTest, StatusUpdaterReportsPercentAndKeepsTheFailure) {
  DropboxSynchronizer sync(nullptr);
  sync.download_status_.Init("unit-updater", getpid());
  auto update = sync.getStatusUpdater(DownloadStatus::File("id:1", "/a.pdf", 0));
  Downloader::StatusInfo status{};
  status.total_bytes = 0;
  status.downloaded_bytes = 10;
  update(status, "", 0);
  EXPECT_EQ(0, sync.download_status_.current_file_.progress);  // size unknown

  status.total_bytes = 3000000;
  status.downloaded_bytes = 2000000;  // the product overflows 32 bits
  update(status, "", 0);
  EXPECT_EQ(66, sync.download_status_.current_file_.progress);
  EXPECT_EQ(0, sync.download_status_.current_file_.status);
  EXPECT_EQ("", sync.download_status_.current_file_.path);

  update(status, "/full/a.pdf", DropboxProtocol::kErrNoNetwork);
  EXPECT_EQ(7, sync.download_status_.current_file_.status);
  EXPECT_EQ("/full/a.pdf", sync.download_status_.current_file_.path);
  update(status, "", 0);
  EXPECT_EQ(7, sync.download_status_.current_file_.status);  // stays failed
  EXPECT_EQ(3000000, sync.download_status_.current_file_.size);
}

// Server paths are applied in the case of the local tree: rows decide the
// case wherever they exist, the service's display case only for what is new.
TEST_F(SynchronizerTest, ServerPathsTakeTheCaseOfTheLocalTree) {
  DropboxSynchronizer sync(nullptr);
  sync.sync_folder_ = qs_test::MakeTempDir("case");
  ASSERT_EQ(0, sync.fm_manager_.Init(sync.sync_folder_ + "/.dropbox/files.db"));
  sync.fm_manager_.InitRootFolder();
  ASSERT_EQ(0, sync.fm_manager_.AddFolders({"/books"}));
  FileMetadata stored;
  stored.path = "/books/A.pdf";
  stored.name = "A.pdf";
  stored.rev = "r1";
  stored.md5 = "m1";
  ASSERT_EQ(0, sync.fm_manager_.AddFile(&stored));
  ASSERT_EQ(0, mkdir((sync.sync_folder_ + "/books").c_str(), 0755));
  qs_test::WriteFile(sync.sync_folder_ + "/books/A.pdf", "a");

  FileMetadata entry;
  entry.path_lower = "/books/a.pdf";
  entry.path_display = "/BOOKS/a.pdf";
  entry.name = "a.pdf";
  EXPECT_EQ("/BOOKS/a.pdf", sync.PathLowerToPath(&entry));  // looked up by the leaf: no match

  // A current file (same rev) is not fetched, and takes the stored name.
  entry.path = "/BOOKS/a.pdf";
  entry.rev = "r1";
  bool is_new = false;
  int err = -100;
  EXPECT_EQ(1, sync.AddOrModifyFile(&entry, &is_new, &err));
  EXPECT_EQ("/books/A.pdf", entry.path);
  EXPECT_EQ("m1", entry.md5);
  EXPECT_FALSE(is_new);
  EXPECT_EQ(-100, err);

  // A file whose folder the store does not know is left alone.
  FileMetadata orphan;
  orphan.path = "/nowhere/x.pdf";
  EXPECT_EQ(0, sync.AddOrModifyFile(&orphan, &is_new, &err));
  EXPECT_EQ(-100, err);

  // A folder known under another case is not built again; a new one below
  // it is built in the stored case.
  FileMetadata folder;
  folder.path = "/Books";
  EXPECT_EQ(0, sync.CreateDirectory(&folder));
  folder.path = "/BOOKS/New";
  EXPECT_EQ(1, sync.CreateDirectory(&folder));
  EXPECT_EQ("/books/New", folder.path);
  EXPECT_TRUE(qs_test::Exists(sync.sync_folder_ + "/books/New"));
  folder.path = "/missing/child";
  EXPECT_EQ(0, sync.CreateDirectory(&folder));

  // A deletion reaches the local file under its stored case.
  FileMetadata gone;
  gone.path = "/BOOKS/a.PDF";
  EXPECT_EQ(1, sync.RemoveFile(&gone));
  EXPECT_EQ("/books/A.pdf", gone.path);
  EXPECT_FALSE(qs_test::Exists(sync.sync_folder_ + "/books/A.pdf"));
  EXPECT_EQ(0, sync.RemoveFile(&gone));  // already gone from the disk

  // The sync folder itself can never be removed through an entry.
  FileMetadata root;
  EXPECT_EQ(1, sync.RemoveDirectory(&root));
  EXPECT_TRUE(qs_test::Exists(sync.sync_folder_ + "/books"));
  sync.fm_manager_.Close();
}

TEST_F(SynchronizerTest, CaseConflictNamesTakeTheFirstFreeForm) {
  const std::string dir = qs_test::MakeTempDir("conflict");
  // Each step makes the expected name taken, so the next asks for the next.
  const char* const report[] = {"report (Case Conflict).pdf", "report.pdf (Case Conflict (1)).pdf",
                                "report.pdf (Case Conflict (2)).pdf"};
  for (const char* expected : report) {
    EXPECT_EQ(CaseConflictFileName(dir + "/", "report.pdf"), expected);
    qs_test::WriteFile(dir + "/" + expected, "x");
  }
  EXPECT_EQ(CaseConflictFileName(dir + "/", "README"), "README (Case Conflict)");
  EXPECT_EQ(CaseConflictFileName(dir + "/", ".hidden"), " (Case Conflict).hidden");

  const char* const books[] = {"/Books (Case Conflict)", "/Books (Case Conflict (1))",
                               "/Books (Case Conflict (2))"};
  for (const char* expected : books) {
    EXPECT_EQ(CaseConflictFolderPath(dir, "/Books"), expected);
    ASSERT_EQ(mkdir((dir + expected).c_str(), 0755), 0);
  }
  EXPECT_EQ(CaseConflictFolderPath(dir, "/a.b/c.d"), "/a.b/c.d (Case Conflict)");
}

}  // namespace
