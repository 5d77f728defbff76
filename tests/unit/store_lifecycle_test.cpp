// Opening and recovery of the database file, and the Info table.
#include <unistd.h>

#include "store_fixture.h"

namespace qs_test {
namespace {

TEST_F(StoreTest, InitCreatesRebuildsAndKeepsHealthyFiles) {
  EXPECT_TRUE(fm_.is_inited_);
  EXPECT_EQ("Files;Folders;Info;",
            Rows("SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite%' "
                 "ORDER BY name"));
  EXPECT_EQ("", Rows("SELECT * FROM Folders"));  // no root row before the first scan
  EXPECT_EQ("wal;", Rows("PRAGMA journal_mode"));
  ASSERT_EQ(0, fm_.SetCursor("c1"));
  EXPECT_EQ(0, fm_.Close() + fm_.Close());
  EXPECT_FALSE(fm_.is_inited_);
  EXPECT_EQ(QS_FAILED, fm_.SetCursor("x"));
  ASSERT_EQ(0, fm_.Init(path_));  // a healthy file keeps its rows
  EXPECT_EQ("c1", fm_.GetCursor());
  fm_.Close();

  WriteFile(path_, std::string(8192, 'g'));  // garbage: thrown away and rebuilt
  ASSERT_EQ(0, fm_.Init(path_));
  EXPECT_EQ("", fm_.GetCursor());
  EXPECT_EQ(0, fm_.SetCursor("c2"));
  EXPECT_EQ("ok;", Rows("PRAGMA integrity_check"));

  // A dropped table passes the check; statements on it then fail at prepare.
  EXPECT_EQ("", Rows("DROP TABLE Info"));
  ASSERT_EQ(0, fm_.Init(path_));
  EXPECT_EQ(QS_FAILED, fm_.SetCursor("c3"));
  EXPECT_EQ("", fm_.GetCursor());
  EXPECT_EQ(0, Add("/x.pdf"));
  EXPECT_NE(std::string::npos, ReadFile(Under("/var/log/quillstone.log"))
                                   .find("Condition: \"!st.get()\", return(\"QS_FAILED\")]"));

  // A folder that cannot be made: open's own code, nothing usable.
  FileMetadataManager blocked;
  WriteFile(Under("/plainfile"), "x");
  EXPECT_EQ(SQLITE_CANTOPEN, blocked.Init(Under("/plainfile/.dropbox/files.db")));
  EXPECT_FALSE(blocked.is_inited_);
  EXPECT_EQ(QS_FAILED, blocked.SetParam("k", "v"));
}

// The other process may still hold the old file and its shared-memory index
// when the database is deleted and rebuilt under it.
TEST_F(StoreTest, RebuildDoesNotJoinTheIndexOfADeletedFile) {
  sqlite3* other = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path_.c_str(), &other));
  for (int i = 0; i < 50; ++i) Add("/old/f" + std::to_string(i));
  sqlite3_exec(other, "SELECT count(*) FROM Files", nullptr, nullptr, nullptr);
  fm_.Close();
  ASSERT_EQ(0, unlink(path_.c_str()));
  ASSERT_EQ(0, fm_.Init(path_));
  for (int i = 0; i < 5; ++i) EXPECT_EQ(0, Add("/new/f" + std::to_string(i)));
  EXPECT_EQ(SQLITE_OK, sqlite3_exec(other, "INSERT INTO Info VALUES ('late', 'x')", nullptr,
                                    nullptr, nullptr));
  EXPECT_EQ("5;", Rows("SELECT count(*) FROM Files"));
  EXPECT_EQ("ok;", Rows("PRAGMA integrity_check"));
  std::string late;
  EXPECT_EQ(QS_NOT_FOUND, fm_.GetParam("late", &late));
  sqlite3_close(other);
}

// Statements are kept compiled between uses. One left after its first row
// must still end its read: else the store would go on reading an old
// snapshot, missing the other process's writes, and block its checkpoints.
TEST_F(StoreTest, KeptStatementsHoldNoSnapshot) {
  ASSERT_EQ(0, Add("/f/x"));
  sqlite3* other = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path_.c_str(), &other));
  for (const char* rev : {"r2", "r3"}) {
    quillstone::dropbox::FileInfo info;
    ASSERT_EQ(0, fm_.GetFile("/f/x", &info));  // stops at its row
    const std::string update = std::string("UPDATE Files SET rev = '") + rev + "'";
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, update.c_str(), nullptr, nullptr, nullptr));
    std::vector<quillstone::dropbox::FileInfo> found;
    ASSERT_EQ(0, fm_.GetFileByPathIgnoreCase("/F/X", &found));
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(rev, found[0].rev);
    EXPECT_EQ(SQLITE_OK, sqlite3_wal_checkpoint_v2(other, nullptr, SQLITE_CHECKPOINT_TRUNCATE,
                                                   nullptr, nullptr));
  }
  sqlite3_close(other);
}

TEST_F(StoreTest, ParamsAndCursor) {
  EXPECT_EQ(0, fm_.SetParam("k", "a") + fm_.SetParam("k", "b") + fm_.SetParamInt("n", 7));
  EXPECT_EQ("k|b;n|7;", Rows("SELECT key, value FROM Info ORDER BY key"));
  int number = -1;
  EXPECT_EQ(0, fm_.GetParamInt("n", &number) + fm_.RemoveParam("n") + fm_.RemoveParam("n"));
  std::string text = "untouched";
  EXPECT_EQ(QS_NOT_FOUND, fm_.GetParam("n", &text));
  EXPECT_EQ(QS_NOT_FOUND, fm_.GetParamInt("n", &number));
  EXPECT_EQ("untouched|7", text + "|" + std::to_string(number));
}

}  // namespace
}  // namespace qs_test
