// Parts of the sync engine that need no service: shell escaping, progress
// reports, the case of server paths and case-conflict names.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "arbour_utilities.h"
#include "configuration.h"
#include "dropboxsynchronizer.h"
#include "support/fake_env.h"
#include "support/test_root.h"

using quillstone::dropbox::CaseConflictFileName;
using quillstone::dropbox::CaseConflictFolderPath;
using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::DropboxSynchronizer;
using quillstone::dropbox::EscapeForShell;
using quillstone::dropbox::FileMetadata;
using quillstone::utilities::Downloader;
using quillstone::utilities::DownloadStatus;

namespace {

class SynchronizerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    folder_ = qs_test::MakeTempDir("case");
  }
  qs_test::FakePipeline fake_;
  quillstone::dropbox::FileMetadataManager store_;
  DownloadStatus status_;
  std::string folder_;
  quillstone::dropbox::RunContext run_{store_, status_, folder_, fake_.running};
  bool changed_ = false;
  quillstone::dropbox::ServerPass pass_{run_, fake_.service, *fake_.pipeline, &changed_};
};

TEST_F(SynchronizerTest, EscapeForShellEscapesExactlyTheShellSpecials) {
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
  status_.Init("unit-updater", getpid());
  auto update = pass_.StatusUpdater(DownloadStatus::File("id:1", "/a.pdf", 0));
  Downloader::StatusInfo status{};
  status.total_bytes = 0;
  status.downloaded_bytes = 10;
  update(status, "", 0);
  EXPECT_EQ(0, status_.current_file_.progress);  // size unknown

  status.total_bytes = 3000000;
  status.downloaded_bytes = 2000000;  // the product overflows 32 bits
  update(status, "", 0);
  EXPECT_EQ(66, status_.current_file_.progress);
  EXPECT_EQ(0, status_.current_file_.status);
  EXPECT_EQ("", status_.current_file_.path);

  update(status, "/full/a.pdf", DropboxProtocol::kErrNoNetwork);
  EXPECT_EQ(7, status_.current_file_.status);
  EXPECT_EQ("/full/a.pdf", status_.current_file_.path);
  update(status, "", 0);
  EXPECT_EQ(7, status_.current_file_.status);  // stays failed
  EXPECT_EQ(3000000, status_.current_file_.size);
}

// Server paths are applied in the case of the local tree: rows decide the
// case wherever they exist, the service's display case only for what is new.
TEST_F(SynchronizerTest, ServerPathsTakeTheCaseOfTheLocalTree) {
  ASSERT_EQ(0, store_.Init(folder_ + "/.dropbox/files.db"));
  store_.InitRootFolder();
  ASSERT_EQ(0, store_.AddFolders({"/books"}));
  FileMetadata stored;
  stored.path = "/books/A.pdf";
  stored.name = "A.pdf";
  stored.rev = "r1";
  stored.md5 = "m1";
  ASSERT_EQ(0, store_.AddFile(&stored));
  ASSERT_EQ(0, mkdir((folder_ + "/books").c_str(), 0755));
  qs_test::WriteFile(folder_ + "/books/A.pdf", "a");

  FileMetadata entry;
  entry.path_lower = "/books/a.pdf";
  entry.path_display = "/BOOKS/a.pdf";
  entry.name = "a.pdf";

  // A current file (same rev) is not fetched, and takes the stored name.
  entry.path = "/BOOKS/a.pdf";
  entry.rev = "r1";
  bool is_new = false;
  int err = -100;
  EXPECT_EQ(1, pass_.AddOrModifyFile(&entry, &is_new, &err));
  EXPECT_EQ("/books/A.pdf", entry.path);
  EXPECT_EQ("m1", entry.md5);
  EXPECT_FALSE(is_new);
  EXPECT_EQ(-100, err);

  // A deletion reaches the local file under its stored case.
  FileMetadata gone;
  gone.path = "/BOOKS/a.PDF";
  EXPECT_EQ(1, pass_.RemoveFile(&gone));
  EXPECT_EQ("/books/A.pdf", gone.path);
  EXPECT_FALSE(qs_test::Exists(folder_ + "/books/A.pdf"));
  EXPECT_EQ(0, pass_.RemoveFile(&gone));  // already gone from the disk

  // The sync folder itself can never be removed through an entry.
  FileMetadata root;
  EXPECT_EQ(1, pass_.RemoveDirectory(&root));
  EXPECT_TRUE(qs_test::Exists(folder_ + "/books"));
  store_.Close();
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

// The profile is one value in the settings file: absent and unknown read as
// classic, and what is written is read back.
TEST_F(SynchronizerTest, SyncProfileRoundTripsThroughTheSettingsFile) {
  using quillstone::dropbox::SyncProfile;
  EXPECT_EQ(SyncProfile::kClassic, quillstone::dropbox::ReadSyncProfile());
  quillstone::dropbox::WriteSyncProfile(SyncProfile::kSafe);
  EXPECT_EQ(SyncProfile::kSafe, quillstone::dropbox::ReadSyncProfile());
  quillstone::dropbox::WriteSyncProfile(SyncProfile::kClassic);
  EXPECT_EQ(SyncProfile::kClassic, quillstone::dropbox::ReadSyncProfile());
  qs_test::WriteSettings(quillstone::dropbox::kDropboxSettingsFile, {{"sync_profile", "Safe"}});
  EXPECT_EQ(SyncProfile::kClassic, quillstone::dropbox::ReadSyncProfile());
}

// Safe removals take only what the store can give back: files unchanged since
// their rows, then folders left empty. Edits, unknown files and links stay,
// and a link is never followed.
TEST_F(SynchronizerTest, SafeRemovalKeepsWhatItCannotGiveBack) {
  using quillstone::utilities::ArbourUtilities;
  run_.profile = quillstone::dropbox::SyncProfile::kSafe;
  ASSERT_EQ(0, store_.Init(folder_ + "/.dropbox/files.db"));
  store_.InitRootFolder();
  ASSERT_EQ(0, store_.AddFolders({"/Books", "/Books/Sub"}));
  ASSERT_EQ(0, mkdir((folder_ + "/Books").c_str(), 0755));
  ASSERT_EQ(0, mkdir((folder_ + "/Books/Sub").c_str(), 0755));
  const std::string outside = qs_test::MakeTempDir("outside");
  qs_test::WriteFile(outside + "/x.txt", "x");
  ASSERT_EQ(0, symlink(outside.c_str(), (folder_ + "/Books/link").c_str()));
  qs_test::WriteFile(folder_ + "/Books/new.txt", "not yet sent");
  for (const char* path :
       {"/Books/same.txt", "/Books/edited.txt", "/Books/Sub/deep.txt", "/top.txt"}) {
    qs_test::WriteFile(folder_ + path, path);
    FileMetadata row;
    row.path = path;
    row.name = strrchr(path, '/') + 1;
    row.rev = "r1";
    row.md5 = ArbourUtilities::QuickMD5(folder_ + path);
    ASSERT_EQ(0, store_.AddFile(&row));
  }
  qs_test::WriteFile(folder_ + "/Books/edited.txt", "edited since");

  EXPECT_FALSE(pass_.RemoveUnchangedTree("/Books"));
  EXPECT_FALSE(qs_test::Exists(folder_ + "/Books/same.txt"));
  EXPECT_FALSE(qs_test::Exists(folder_ + "/Books/Sub"));
  EXPECT_EQ("edited since", qs_test::ReadFile(folder_ + "/Books/edited.txt"));
  EXPECT_TRUE(qs_test::Exists(folder_ + "/Books/new.txt"));
  EXPECT_TRUE(qs_test::Exists(folder_ + "/Books/link"));
  EXPECT_EQ("x", qs_test::ReadFile(outside + "/x.txt"));

  FileMetadata edited, top;
  edited.path = "/Books/edited.txt";
  top.path = "/top.txt";
  EXPECT_EQ(0, pass_.RemoveFile(&edited));
  EXPECT_TRUE(qs_test::Exists(folder_ + "/Books/edited.txt"));
  EXPECT_EQ(1, pass_.RemoveFile(&top));
  EXPECT_FALSE(qs_test::Exists(folder_ + "/top.txt"));
  store_.Close();
}

TEST_F(SynchronizerTest, AFolderWithoutItsStoreIsNotTheOneSynced) {
  ASSERT_EQ(0, store_.Init(folder_ + "/.dropbox/files.db"));
  store_.Close();
  EXPECT_TRUE(quillstone::dropbox::FolderHoldsItsStore(folder_));
  // The card went away under the run: the folder is there, its store is not.
  ASSERT_EQ(0, rename((folder_ + "/.dropbox").c_str(), (folder_ + "/.kept").c_str()));
  EXPECT_FALSE(quillstone::dropbox::FolderHoldsItsStore(folder_));
  // The store on another file system, as when one is mounted on the folder.
  struct stat here, shm;
  const std::string other = "/dev/shm/qs-store-" + std::to_string(getpid());
  if (stat(folder_.c_str(), &here) == 0 && stat("/dev/shm", &shm) == 0 &&
      here.st_dev != shm.st_dev && mkdir(other.c_str(), 0755) == 0) {
    qs_test::WriteFile(other + "/files.db", "");
    ASSERT_EQ(0, symlink(other.c_str(), (folder_ + "/.dropbox").c_str()));
    EXPECT_FALSE(quillstone::dropbox::FolderHoldsItsStore(folder_));
    unlink((other + "/files.db").c_str());
    rmdir(other.c_str());
  }
}

}  // namespace
