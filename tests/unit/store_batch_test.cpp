// Batches: all or nothing under injected failures, and hostile names.
#include <functional>

#include "store_fixture.h"

namespace qs_test {
namespace {

using M = FileMetadataManager;

// Everything the store holds, ids left out, as one comparable text.
std::string Dump(const std::string& db_path) {
  return Rows(db_path,
              "SELECT 'D' || path || '|' || ifnull(status, '~') FROM Folders UNION ALL SELECT 'F' "
              "|| d.path || '/' || filename || '|' || rev || '|' || size || '|' || Files.status "
              "FROM Files JOIN Folders d ON d.id = folder_id UNION ALL SELECT 'I' || key || value "
              "FROM Info ORDER BY 1");
}

// Denies the n-th authorisation request of the connection: that statement
// then fails to prepare, as on a closed or damaged connection.
int DenyNth(void* countdown, int, const char*, const char*, const char*, const char*) {
  return (*static_cast<int*>(countdown))-- == 0 ? SQLITE_DENY : SQLITE_OK;
}

void Seed(M* fm) {
  std::vector<FileMetadata> seed = Metas({"/keep/k1", "/old/o1", "/old/sub/o2"});
  ASSERT_EQ(0, fm->AddFiles(Ptrs(seed)) + fm->SetCursor("c0"));
}

// Fails the i-th database request for i = 0, 1, ... and, with `pages`, the
// i-th page the file grows by (a full disk). Each run must leave the seed
// untouched or the batch complete, the connection out of any transaction,
// and a retry without faults must complete the batch.
void CheckAllOrNothing(const std::function<int(M*)>& batch, bool pages) {
  const std::string seed = MakeTempDir("seed") + "/files.db";
  {
    M fm;
    ASSERT_EQ(0, fm.Init(seed));
    Seed(&fm);
  }
  std::string full;
  for (int fault = -1;; ++fault) {
    const std::string db = seed + std::to_string(fault + 1);
    WriteFile(db, ReadFile(seed));  // much cheaper than building each one
    M fm;
    ASSERT_EQ(0, fm.Init(db));
    fm.db_.exec("PRAGMA synchronous=OFF;");  // atomicity is under test here, not durability
    const std::string before = Dump(db);
    int countdown = fault;
    if (fault >= 0 && pages) {
      fm.db_.exec("PRAGMA max_page_count = " +
                  std::to_string(std::stoi(Rows(db, "PRAGMA page_count")) + fault) + ";");
    } else if (fault >= 0) {
      sqlite3_set_authorizer(fm.db_.handle(), DenyNth, &countdown);
    }
    const int rc = batch(&fm);
    sqlite3_set_authorizer(fm.db_.handle(), nullptr, nullptr);
    fm.db_.exec("PRAGMA max_page_count = 1000000;");
    const std::string after = Dump(db);
    if (fault < 0) {
      ASSERT_EQ(0, rc);
      full = after;
      continue;
    }
    SCOPED_TRACE("fault " + std::to_string(fault));
    EXPECT_EQ(1, sqlite3_get_autocommit(fm.db_.handle()));
    if (rc != 0) {
      EXPECT_EQ(before, after);
    }
    EXPECT_TRUE(after == before || after == full);
    EXPECT_EQ(0, batch(&fm));
    EXPECT_EQ(full, Dump(db));
    if (rc == 0 && (pages || countdown >= 0)) break;  // the fault was never reached
  }
}

TEST(StoreBatches, EveryFailurePointLeavesAllOrNothing) {
  DeviceRoot();
  std::vector<FileMetadata> added = Metas({"/n1/a", "/n2/b", "/n1/c", "/keep/k1"});
  std::vector<FileMetadata> updated = Metas({"/keep/k1", "/old/o1"}, "r9", 9);
  std::vector<std::string> many_paths;
  for (int i = 0; i < 300; ++i)
    many_paths.push_back("/b" + std::to_string(i % 7) + "/" + std::string(100, 'x') +
                         std::to_string(i));
  std::vector<FileMetadata> many = Metas(many_paths);
  CheckAllOrNothing([&](M* fm) { return fm->AddFiles(Ptrs(added)); }, false);
  CheckAllOrNothing([&](M* fm) { return fm->UpdateFiles(Ptrs(updated)); }, false);
  CheckAllOrNothing([](M* fm) { return fm->AddFolders({"/p", "/p/q", "/old"}); }, false);
  CheckAllOrNothing([](M* fm) { return fm->RemoveFiles({"/keep/k1", "/old/sub/o2"}); }, false);
  CheckAllOrNothing([](M* fm) { return fm->RemoveFolders({"/old", "/keep"}); }, false);
  CheckAllOrNothing([&](M* fm) { return fm->AddFiles(Ptrs(many)); }, true);
}

// Quotes, wildcards, line breaks, bytes that are no UTF-8, and names that
// differ only in case, as files and as folders.
TEST_F(StoreTest, HostileNamesGoThroughEveryOperation) {
  const std::string d = "/it's \"100%_\"\n";
  const std::vector<std::string> names = {"a'b",  "line\nbreak", "\xff\xfe",
                                          "Case", "cASE",        "x; DROP TABLE Files; --",
                                          "トラ", "%",           "_"};
  std::vector<std::string> paths;
  for (const std::string& name : names) paths.push_back(d + "/" + name);
  std::vector<FileMetadata> records = Metas(paths, "");
  ASSERT_EQ(0, fm_.AddFiles(Ptrs(records)) + fm_.UpdateFiles(Ptrs(records)));
  std::vector<quillstone::dropbox::FileInfo> listed;
  ASSERT_EQ(0, fm_.GetFilesByDir(d, 0, 10000, &listed));
  ASSERT_EQ(names.size(), listed.size());
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    quillstone::dropbox::FileInfo info;
    ASSERT_EQ(0, fm_.GetFile(d + "/" + name, &info));
    EXPECT_EQ(name + name, info.name + info.rev);
    EXPECT_EQ(0, fm_.GetFileByPathIgnoreCase(d + "/" + name, &listed));
    EXPECT_EQ(0, fm_.SetFileStatus(d + "/" + name, M::kStatusFailed, M::kErrorNone));
    M::ItemStatus status = M::kStatusUnset;
    EXPECT_EQ(0, fm_.GetFileStatus(d + "/" + name, &status, nullptr));
    EXPECT_EQ(M::kStatusFailed, status);
  }
  EXPECT_EQ(2 * names.size() + 2, listed.size());  // Case and cASE find each other
  ASSERT_EQ(0, fm_.RemoveFiles({d + "/%", d + "/_", d + "/Case"}));
  EXPECT_EQ(std::to_string(names.size() - 3) + ";", Rows("SELECT count(*) FROM Files"));

  ASSERT_EQ(0, fm_.AddFolders({"/100%", "/100%/in", "/100_", "/1000", "/100%x", "/o'k"}));
  ASSERT_EQ(0, fm_.RemoveFolders({"/100%", "/o'k"}));
  EXPECT_EQ("/100%x;/1000;/100_;" + d + ";", Rows("SELECT path FROM Folders ORDER BY path"));
  EXPECT_EQ("ok;", Rows("PRAGMA integrity_check"));
}

}  // namespace
}  // namespace qs_test
