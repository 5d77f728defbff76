// Shared harness of the store tests: a fresh database per test in the test's
// device root, and a second, raw connection to look at rows as another
// process would.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>

#include "filemetadatamanager.h"
#include "support/test_root.h"

namespace qs_test {

using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::FileMetadataManager;

// Every row of `sql` as "a|b;c|d;", NULL as "~"; "ERR" when it cannot run.
inline std::string Rows(const std::string& db_path, const std::string& sql) {
  sqlite3* db = nullptr;
  std::string out;
  sqlite3_stmt* st = nullptr;
  if (sqlite3_open_v2(db_path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
    out = "ERR";
  }
  while (st && sqlite3_step(st) == SQLITE_ROW) {
    for (int i = 0; i < sqlite3_column_count(st); ++i) {
      const unsigned char* text = sqlite3_column_text(st, i);
      out += (i ? "|" : "") + (text ? std::string(reinterpret_cast<const char*>(text)) : "~");
    }
    out += ";";
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  return out;
}

inline FileMetadata Meta(const std::string& path, const std::string& rev = "r1",
                         uint64_t size = 1) {
  FileMetadata m;
  m.path = path;
  m.name = quillstone::dropbox::GetBaseName(path);
  m.rev = rev;
  m.size = size;
  m.md5 = "md5-" + rev;
  return m;
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DeviceRoot();
    path_ = MakeTempDir("store") + "/.dropbox/files.db";
    ASSERT_EQ(0, fm_.Init(path_));
  }
  std::string Rows(const std::string& sql) { return qs_test::Rows(path_, sql); }
  int Add(const std::string& path, const std::string& rev = "r1", uint64_t size = 1) {
    FileMetadata m = Meta(path, rev, size);
    return fm_.AddFile(&m);
  }

  std::string path_;
  FileMetadataManager fm_;
};

}  // namespace qs_test
