// The local scan over a real folder and store: the order of the walk, the
// byte-order merge with the stored rows, download leftovers, the store's own
// folder, and what the callback may do to the walk.
#include "file_scanner.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "arbour_utilities.h"
#include "store_fixture.h"
#include "tessera.h"

using quillstone::dropbox::FileInfo;
using quillstone::dropbox::FileScanner;
using quillstone::dropbox::FileSystemDirDelta;
using quillstone::dropbox::FileSystemFileDelta;
using quillstone::dropbox::ISyncCallback;
using quillstone::utilities::ArbourUtilities;

namespace {

std::string Join(const char* mark, const std::vector<FileInfo>& list, bool with_rev = false) {
  std::string out;
  for (const FileInfo& f : list)
    out += std::string(" ") + mark + f.name + (with_rev ? "@" + f.rev : "");
  return out;
}
std::string Join(const char* mark, const std::vector<std::string>& list) {
  std::string out;
  for (const std::string& p : list) out += std::string(" ") + mark + p;
  return out;
}

// Records every call as one line; can end the walk or redirect it.
class Recorder : public ISyncCallback {
 public:
  int SyncFiles(const std::string& dir, FileSystemFileDelta& d) override {
    calls.push_back("F " + dir + Join("+", d.added) + Join("~", d.modified, true) +
                    Join("-", d.deleted));
    // A modified entry carries the local digest, not the stored one.
    for (const FileInfo& f : d.modified) EXPECT_NE("md5-r1", f.md5) << f.name;
    return dir == fail_at ? 7 : 0;
  }
  int SyncDirs(FileSystemDirDelta& d, std::vector<std::string>* local_dirs) override {
    calls.push_back("D" + Join("+", d.added) + Join("-", d.deleted));
    // As the engine does with a folder whose deletion the service put off.
    for (const std::string& p : d.deleted) local_dirs->push_back(p);
    return 1;  // not looked at: the walk goes on
  }
  std::vector<std::string> calls;
  std::string fail_at;
};

// Modes bind everyone but root: a root test scans as nobody for a while.
struct AsNobody {
  AsNobody() : changed(geteuid() == 0 && seteuid(65534) == 0) {}
  ~AsNobody() {
    if (changed) {
      EXPECT_EQ(0, seteuid(0));
    }
  }
  const bool changed;
};

class FileScannerTest : public qs_test::StoreTest {
 protected:
  std::string Put(const std::string& rel, const std::string& content = "x") {
    std::string full = root_ + rel;
    te_buildpath(full.c_str());
    qs_test::WriteFile(full, content);
    return full;
  }
  std::string root_;
};

TEST_F(FileScannerTest, WalksInByteOrderAndMergesWithTheStore) {
  root_ = path_.substr(0, path_.rfind("/.dropbox/"));
  for (const char* name :
       {"ab", "a b", "A", "a", "a.PROGRESS", "gone.progress", ".progress", "part.downloading",
        "sub/.dropbox", "sub/.dropbox.x/f", "sub/deep/.dropbox/files.db", "sub/deep/z"}) {
    Put(std::string("/") + name);
  }
  mkdir((root_ + "/new").c_str(), 0755);
  // Stored: "a" unchanged, "ab" changed, "gone" gone; the folder /old is gone
  // from the disk with a file row in it.
  Add("/a");
  Add("/ab");
  Add("/gone");
  Add("/old/f");
  Add("/sub/deep/z");
  sqlite_int64 id = 0;
  fm_.AddFolder("/sub", &id);
  fm_.AddFolder("/sub/deep", &id);
  fm_.AddFolder("/old", &id);
  qs_test::FileMetadata same = qs_test::Metas({"/a"})[0];
  same.md5 = ArbourUtilities::QuickMD5(root_ + "/a");
  fm_.UpdateFile(&same);
  qs_test::FileMetadata deep = qs_test::Metas({"/sub/deep/z"})[0];
  deep.md5 = ArbourUtilities::QuickMD5(root_ + "/sub/deep/z");
  fm_.UpdateFile(&deep);

  Recorder rec;
  FileScanner scanner;
  EXPECT_EQ(1, scanner.Scan(root_));  // no callback yet
  scanner.fm_manager_ = &fm_;
  scanner.sync_callback_ = &rec;
  ASSERT_EQ(0, scanner.Scan(root_));
  EXPECT_EQ((std::vector<std::string>{
                "F / +A +a b +a.PROGRESS ~ab@r1 -gone",
                "D +/new -/old",
                "F /new/",
                "D",
                "F /sub/ +.dropbox",
                "D +/sub/.dropbox.x",
                "F /sub/.dropbox.x/ +f",
                "D",
                "F /sub/deep/",
                "D",
                "F /old/ -f",  // appended by the callback; reads as an empty folder
                "D",
            }),
            rec.calls);
  // Download leftovers are deleted, other names with a dot stay.
  EXPECT_FALSE(qs_test::Exists(root_ + "/gone.progress"));
  EXPECT_FALSE(qs_test::Exists(root_ + "/.progress"));
  EXPECT_FALSE(qs_test::Exists(root_ + "/part.downloading"));
  EXPECT_TRUE(qs_test::Exists(root_ + "/a.PROGRESS"));

  // A failing SyncFiles ends the walk at once with its code.
  rec.calls.clear();
  rec.fail_at = "/new/";
  EXPECT_EQ(7, scanner.Scan(root_));
  EXPECT_EQ(3u, rec.calls.size());

  // When asked, what cannot be read says nothing: a folder that cannot be
  // opened is neither entered nor emptied, a changed file that cannot be
  // read keeps its row; a folder gone during the walk still reads as empty.
  // Without the sync folder itself there is nothing to compare.
  rec.calls.clear();
  rec.fail_at.clear();
  scanner.keep_unreadable_ = true;
  chmod(qs_test::DeviceRoot().c_str(), 0755);  // for the unprivileged scan
  chmod((root_ + "/sub").c_str(), 0);
  chmod((root_ + "/ab").c_str(), 0);
  int results[2];
  for (int& result : results) {
    {
      AsNobody nobody;
      result = scanner.Scan(root_);
    }
    chmod(root_.c_str(), 0);  // for the second round
  }
  chmod(root_.c_str(), 0755);
  chmod((root_ + "/sub").c_str(), 0755);
  EXPECT_EQ(0, results[0]);
  EXPECT_EQ(2, results[1]);
  EXPECT_EQ((std::vector<std::string>{
                "F / +A +a b +a.PROGRESS -gone",
                "D +/new -/old",
                "F /new/",
                "D",
                "F /old/ -f",
                "D",
            }),
            rec.calls);
}

}  // namespace
