// Thin wrappers over the SQLite C API, as the metadata store uses them.
//
// Ownership: a Sqlite object holds one connection or none. Statement and
// Transaction objects come from the library as plain pointers and belong to
// the caller from then on, who frees them with `delete`. A statement given
// back (finalize or `delete`) stays compiled on its connection, reset and
// unbound, and the next prepare of the same text takes it again: the store
// runs a handful of fixed texts for every file, and compiling them each time
// cost more than running them.
// Thread safety: a connection and its statements are used by one thread at a
// time. Several processes may hold connections to one file at once.
#pragma once

#include <sqlite3.h>

#include <map>
#include <memory>
#include <string>

namespace quillstone {
namespace utilities {

// The compiled statements of one connection that nobody holds, by text.
struct StatementCache;

class Statement {
 public:
  explicit Statement(sqlite3_stmt* stmt);
  // One that goes back to `home` under `sql` when done, if the connection is
  // still open.
  Statement(sqlite3_stmt* stmt, std::shared_ptr<StatementCache> home, const std::string& sql);
  ~Statement();  // finalises the statement if still held
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  // Bind by 1-based index. The text is copied at once. An empty text binds
  // an empty text, never NULL. 0 on success, else SQLite's code.
  int bind(int index, const std::string& value);
  int bind(int index, int value);
  int bind(int index, long long value);

  // 100 (SQLITE_ROW) a row is ready, 101 (SQLITE_DONE) finished, else failure.
  int step();

  // Columns by 0-based index. Text is valid until the next step or finalize;
  // null for NULL. Integers read 0 for NULL and for an index past the last
  // column.
  const char* column_text(int index);
  int column_int(int index);
  long long column_int64(int index);

  // Done with the statement: kept for the next prepare of its text, or
  // freed. Either way this object holds nothing afterwards.
  void finalize();

 private:
  sqlite3_stmt* stmt_;
  std::shared_ptr<StatementCache> home_;  // null: freed when done
  std::string sql_;                       // the text it was asked for
};

class Sqlite {
 public:
  Sqlite();
  ~Sqlite();
  Sqlite(const Sqlite&) = delete;
  Sqlite& operator=(const Sqlite&) = delete;

  // Opens `path`, creating the file when absent; replaces any connection
  // still held. 0 on success, else SQLite's code.
  int open(const std::string& path);
  // Opens an existing file; never creates one. 0 on success.
  int open_no_create(const std::string& path);
  // Runs every statement of `sql` to its end. 101 (SQLITE_DONE) on success,
  // rows of statements such as PRAGMA journal_mode included; else the code.
  int exec(const std::string& sql);
  // A statement of `sql` (a kept one when there is one), or null on any
  // failure (a closed connection included).
  Statement* prepare(const std::string& sql);
  // Legal without a connection; the object can open again afterwards.
  void close();

  bool is_open() const { return db_ != nullptr; }
  sqlite3* handle() const { return db_; }

 private:
  sqlite3* db_;
  std::shared_ptr<StatementCache> cache_;  // of db_; null while closed
};

// One transaction on a connection; rolled back on destruction unless
// committed. Not nested.
class Transaction {
 public:
  // Always gives an object, also when BEGIN failed (its commit then fails
  // quietly and its destruction does nothing harmful).
  static Transaction* acquire(Sqlite& db);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit();

 private:
  explicit Transaction(sqlite3* db, bool begun);
  sqlite3* db_;
  bool open_;  // begun and neither committed nor rolled back yet
};

}  // namespace utilities
}  // namespace quillstone
