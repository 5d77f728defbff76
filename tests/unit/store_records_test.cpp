// Folder and file rows, path ranges, listings and lookups without case.
#include <algorithm>

#include "store_fixture.h"

namespace qs_test {
namespace {

using quillstone::dropbox::FileInfo;

const char kFolders[] = "SELECT path, level, path_lc, status, error FROM Folders ORDER BY path";

TEST_F(StoreTest, FileAndFolderRecords) {
  ASSERT_EQ(0, Add("/x.pdf", "r1", 5000000000ULL));
  ASSERT_EQ(0, Add("/a/b/y.pdf"));
  EXPECT_EQ("|0||2|~;/a/b|2|/a/b|2|~;", Rows(kFolders));  // one level only, no "/a"
  EXPECT_EQ("x.pdf|r1|5000000000|1|~;", Rows("SELECT filename, rev, size, status, error FROM "
                                             "Files WHERE filename = 'x.pdf'"));
  EXPECT_EQ(0, Add("/x.pdf", "r2"));  // an existing row is kept as it is
  EXPECT_EQ("r1;", Rows("SELECT rev FROM Files WHERE filename = 'x.pdf'"));

  FileMetadata m = Metas({"/x.pdf"}, "r3", 9)[0];
  ASSERT_EQ(0, fm_.SetFileStatus("/x.pdf", FileMetadataManager::kStatusFailed,
                                 FileMetadataManager::kErrorRestrictedContent));
  EXPECT_EQ(0, fm_.UpdateFile(&m));
  EXPECT_EQ("r3|9|md5-r3|1|2;", Rows("SELECT rev, size, md5, status, error FROM Files WHERE "
                                     "filename = 'x.pdf'"));
  EXPECT_EQ(0, fm_.UpdateFile(&Metas({"/a/b/ghost.pdf"})[0]));
  EXPECT_EQ("2;", Rows("SELECT count(*) FROM Files"));
  EXPECT_EQ(QS_NOT_FOUND, fm_.GetFile("/A/b/y.pdf", nullptr));  // exact case only

  // Folders go by path_lc when a file is added or an id asked for, by exact
  // path when a folder is added or a file updated or removed.
  ASSERT_EQ(0, fm_.AddFolders({"/Books"}));
  ASSERT_EQ(0, Add("/books/z.pdf"));
  EXPECT_EQ(0, fm_.RemoveFile("/books/z.pdf"));
  EXPECT_EQ(0, fm_.GetFile("/Books/z.pdf", nullptr));
  sqlite_int64 id = -5, same = -6;
  EXPECT_EQ(0, fm_.GetFolderId("/BOOKS", &id));
  EXPECT_EQ(0, fm_.GetOrCreateFolderId("/bOOKs", &same));
  EXPECT_EQ(id, same);
  EXPECT_EQ(12, fm_.GetFolderId("/nowhere", &same));
  EXPECT_EQ(id, same);
  ASSERT_EQ(0, fm_.SetFolderStatus("/Books", FileMetadataManager::kStatusSynced,
                                   FileMetadataManager::kErrorNone));
  EXPECT_EQ(0, fm_.AddFolders({"/Books", "/books"}));
  EXPECT_EQ("/Books|1|/books|1|0;/books|1|/books|2|~;",
            Rows("SELECT path, level, path_lc, status, error FROM Folders WHERE level = 1 "
                 "ORDER BY path"));
  EXPECT_EQ(0, fm_.RemoveFile("/Books/z.pdf"));
  EXPECT_EQ(QS_NOT_FOUND, fm_.GetFile("/Books/z.pdf", nullptr));  // the folder row stays
}

TEST_F(StoreTest, RangesHoldExactlyTheDescendants) {
  for (const char* folder : {"/a", "/a/b", "/a/b/c", "/a.b", "/a0", "/ab", "/c"}) {
    ASSERT_EQ(0, Add(std::string(folder) + "/f"));
  }
  std::vector<std::string> folders = {"kept"};
  EXPECT_EQ(0, fm_.GetFoldersByDir("", 0, 10000, &folders));
  EXPECT_EQ((std::vector<std::string>{"kept", "/a", "/a.b", "/a0", "/ab", "/c"}), folders);
  folders.clear();
  EXPECT_EQ(0, fm_.GetFoldersByDir("/a", 5, 1, &folders));
  EXPECT_EQ((std::vector<std::string>{"/a/b"}), folders);
  folders.clear();
  EXPECT_EQ(0, fm_.RemoveFolders({"/a/b"}));
  ASSERT_EQ(0, Add("/a/b/c/f"));  // "/a/b" has no row now, its child is listed all the same
  EXPECT_EQ(0, fm_.GetFoldersByDir("/a/b", 0, 10000, &folders));
  EXPECT_EQ((std::vector<std::string>{"/a/b/c"}), folders);

  EXPECT_EQ(0, fm_.RemoveFilesFromFolderRec("/a"));
  EXPECT_EQ("/a.b;/a0;/ab;/c;", Rows("SELECT path FROM Folders f JOIN Files ON f.id = folder_id "
                                     "ORDER BY path"));
  EXPECT_EQ(0, fm_.RemoveFolders({"/a"}));
  EXPECT_EQ("/a.b;/a0;/ab;/c;", Rows("SELECT path FROM Folders ORDER BY path"));
  EXPECT_EQ(0, fm_.RemoveFolders({""}));  // the whole tree, root included
  EXPECT_EQ("0;0;", Rows("SELECT count(*) FROM Folders UNION ALL SELECT count(*) FROM Files"));
}

TEST_F(StoreTest, ListingsAndLookupsWithoutCase) {
  for (const char* name : {"/d/b", "/d/B", "/d/a", "/Ärzte/Öl.TXT", "/bad\xff/N\xfe"}) {
    ASSERT_EQ(0, Add(name));
  }
  ASSERT_EQ(0, fm_.AddFolders({"/D"}));
  ASSERT_EQ(0, fm_.SetFileStatus("/d/b", FileMetadataManager::kStatusFailed,
                                 FileMetadataManager::kErrorNone));
  std::vector<FileInfo> files(1);
  EXPECT_EQ(0, fm_.GetFilesByDir("/d", 5, 1, &files));
  ASSERT_EQ(4u, files.size());
  EXPECT_EQ("|B|a|b",
            files[0].name + "|" + files[1].name + "|" + files[2].name + "|" + files[3].name);
  EXPECT_EQ(4, files[3].status);  // the listing reads the stored status
  files.clear();
  EXPECT_EQ(0, fm_.GetFilesByDir("/nowhere", 0, 10000, &files));
  EXPECT_TRUE(files.empty());

  // Lookups give no order: sorted "name,status;" texts and "path;" texts.
  auto find_files = [&](const std::string& path) {
    std::vector<FileInfo> found;
    EXPECT_EQ(0, fm_.GetFileByPathIgnoreCase(path, &found));
    std::vector<std::string> texts;
    for (const FileInfo& f : found) texts.push_back(f.name + "," + std::to_string(f.status) + ";");
    std::sort(texts.begin(), texts.end());
    std::string all;
    for (const std::string& t : texts) all += t;
    return all;
  };
  auto find_folders = [&](const std::string& path) {
    std::vector<std::string> found;
    EXPECT_EQ(0, fm_.GetFolderByPathIgnoreCase(path, &found));
    std::sort(found.begin(), found.end());
    std::string all;
    for (const std::string& f : found) all += f + ";";
    return all;
  };
  EXPECT_EQ("B,0;b,0;", find_files("/D/B"));  // status not selected: 0 for the failed one
  EXPECT_EQ("Öl.TXT,0;", find_files("/ärzte/öL.txt"));
  // Bytes that are no UTF-8 keep their case and match only themselves.
  EXPECT_EQ("", find_files("/bad\xff/n\xfe"));
  EXPECT_EQ("N\xfe,0;", find_files("/bad\xff/N\xfe"));
  EXPECT_EQ("/D;/d;", find_folders("/d"));
  EXPECT_EQ("", find_folders(""));
  fm_.InitRootFolder();
  EXPECT_EQ(";", find_folders(""));
}

}  // namespace
}  // namespace qs_test
