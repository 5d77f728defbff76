// Item status, the sweep at the end of a run, and the failed-file list.
#include "store_fixture.h"

namespace qs_test {
namespace {

using M = FileMetadataManager;

class StatusTest : public StoreTest {
 protected:
  // "result|status|error" of a read; out-values preset to 3 and 1.
  std::string Read(bool file, const std::string& path) {
    M::ItemStatus status = M::kStatusThree;
    M::ItemError error = M::kErrorTooManyFiles;
    const int rc = file ? fm_.GetFileStatus(path, &status, &error)
                        : fm_.GetFolderStatus(path, &status, &error);
    return std::to_string(rc) + "|" + std::to_string(status) + "|" + std::to_string(error);
  }
};

TEST_F(StatusTest, StatusByExactPathAndTheSweep) {
  EXPECT_EQ("-8|3|1", Read(false, ""));
  EXPECT_EQ(0, fm_.SetFileStatus("/none", M::kStatusFailed, M::kErrorTooManyFiles));
  EXPECT_EQ("-8|3|1", Read(true, "/none"));
  ASSERT_EQ(0, Add("/f/x"));
  EXPECT_EQ("0|1|0", Read(true, "/f/x"));  // a NULL error reads 0
  EXPECT_EQ("0|2|0", Read(false, "/f"));
  EXPECT_EQ(0, fm_.GetFileStatus("/f/x", nullptr, nullptr));
  EXPECT_EQ(0, fm_.SetFileStatus("/F/x", M::kStatusFailed, M::kErrorTooManyFiles));
  EXPECT_EQ("0|1|0", Read(true, "/f/x"));  // exact case only

  // The sweep turns 0, 2, 3 and NULL folders to 1 and keeps every other
  // value; files and errors are not touched.
  ASSERT_EQ(0, fm_.AddFolders({"/s0", "/s2", "/s3", "/s4", "/s9", "/sn"}));
  ASSERT_EQ(0, fm_.SetFolderStatus("/s0", M::kStatusUnset, M::kErrorNone));
  ASSERT_EQ(0, fm_.SetFolderStatus("/s3", M::kStatusThree, M::kErrorTooManyFiles));
  ASSERT_EQ(0, fm_.SetFolderStatus("/s4", M::kStatusFailed, M::kErrorTooManyFiles));
  ASSERT_EQ(0, fm_.SetFolderStatus("/s9", static_cast<M::ItemStatus>(9), M::kErrorNone));
  ASSERT_EQ("", Rows("UPDATE Folders SET status = NULL WHERE path = '/sn'"));
  ASSERT_EQ(0, fm_.SetFileStatus("/f/x", M::kStatusChanged, M::kErrorNone));
  EXPECT_EQ(0, fm_.UpdateFoldersStatusAfterSync());
  EXPECT_EQ("/f|1|~;/s0|1|0;/s2|1|~;/s3|1|1;/s4|4|1;/s9|9|0;/sn|1|~;",
            Rows("SELECT path, status, error FROM Folders ORDER BY path"));
  EXPECT_EQ("0|2|0", Read(true, "/f/x"));
}

TEST_F(StatusTest, FailedFilesAreRestrictedDownloadsOnly) {
  EXPECT_TRUE(fm_.getFailedFiles().empty());
  std::vector<FileMetadata> files =
      Metas({"/x.pdf", "/Docs/A.pdf", "/Docs/tmf.pdf", "/Docs/null.pdf"}, "r", 3000000000ULL);
  ASSERT_EQ(0, fm_.AddFiles(Ptrs(files)));
  ASSERT_EQ(0, fm_.SetFileStatus("/x.pdf", M::kStatusFailed, M::kErrorRestrictedContent));
  ASSERT_EQ(0, fm_.SetFileStatus("/Docs/A.pdf", M::kStatusFailed, M::kErrorRestrictedContent));
  ASSERT_EQ(0, fm_.SetFileStatus("/Docs/tmf.pdf", M::kStatusFailed, M::kErrorTooManyFiles));
  ASSERT_EQ("", Rows("UPDATE Files SET status = 4 WHERE filename = 'null.pdf'"));
  std::vector<M::FailedFileInfo> failed = fm_.getFailedFiles();
  ASSERT_EQ(2u, failed.size());
  if (failed[0].path != "/x.pdf") std::swap(failed[0], failed[1]);
  EXPECT_EQ("/x.pdf|/x.pdf", failed[0].path + "|" + failed[0].path_lc);
  EXPECT_EQ("/DocsA.pdf|/docsa.pdf", failed[1].path + "|" + failed[1].path_lc);  // no separator
  EXPECT_EQ(3000000000LL, failed[1].size);

  ASSERT_EQ(0, fm_.UpdateFile(&files[1]));  // status 1 alone takes it off the list
  failed = fm_.getFailedFiles();
  ASSERT_EQ(1u, failed.size());
  EXPECT_EQ("/x.pdf", failed[0].path);
}

}  // namespace
}  // namespace qs_test
