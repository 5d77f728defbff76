// Shared harness of the store tests: a fresh database per test in the test's
// device root, and a raw connection to look at rows as another process would.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "filemetadatamanager.h"
#include "support/test_root.h"

namespace qs_test {

using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::FileMetadataManager;

// Every row of `sql` as "a|b;c|d;", NULL as "~"; "ERR" when it cannot run.
inline std::string Rows(const std::string& db_path, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_stmt* st = nullptr;
  sqlite3_open_v2(db_path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  std::string out = sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr) ? "ERR" : "";
  while (st && sqlite3_step(st) == SQLITE_ROW) {
    for (int i = 0; i < sqlite3_column_count(st); ++i) {
      const char* text = reinterpret_cast<const char*>(sqlite3_column_text(st, i));
      out += std::string(i ? "|" : "") + (text ? text : "~");
    }
    out += ";";
  }
  sqlite3_finalize(st);
  sqlite3_close(db);
  return out;
}

// Records for `paths`, named after their last part; rev and md5 from `rev`.
inline std::vector<FileMetadata> Metas(const std::vector<std::string>& paths,
                                       const std::string& rev = "r1", uint64_t size = 1) {
  std::vector<FileMetadata> out(paths.size());
  for (size_t i = 0; i < paths.size(); ++i) {
    out[i].path = paths[i];
    out[i].name = quillstone::dropbox::GetBaseName(paths[i]);
    out[i].rev = rev.empty() ? out[i].name : rev;
    out[i].md5 = "md5-" + out[i].rev;
    out[i].size = size;
  }
  return out;
}

inline std::vector<FileMetadata*> Ptrs(std::vector<FileMetadata>& records) {
  std::vector<FileMetadata*> out;
  for (FileMetadata& m : records) out.push_back(&m);
  return out;
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
    return fm_.AddFile(&Metas({path}, rev, size)[0]);
  }

  std::string path_;
  FileMetadataManager fm_;
};

}  // namespace qs_test
