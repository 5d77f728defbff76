// SQLite wrappers over the C API.
//
// Two processes share one database file: the sync worker writes rows in
// batches while the host reads item status and marks items changed. Waiting
// is therefore left to SQLite's busy handler on every connection, and batch
// transactions take the write lock at their start (see Transaction::acquire).
#include "sqlite.h"

#include <sys/stat.h>
#include <unistd.h>

#include "host_common.h"

namespace quillstone {
namespace utilities {

namespace {

// How long a statement waits for the other process's lock before it gives
// SQLITE_BUSY. A worker batch or a WAL checkpoint holds the lock for well
// under a second, so three seconds rides them out; much longer would freeze
// the host's event thread behind a stuck worker. Callers do not retry, and a
// busy integrity check at opening makes the store rebuild the database, so
// the wait matters.
const int kBusyTimeoutMs = 3000;

// Each database operation may be made to fail by the host's fault tests; the
// failure is the one a full or failing disk gives.
bool Injected() { return host::FaultHit("sqlite"); }

// SQLite's own automatic checkpoint, with one step in front: renames that
// the rows of this log may speak of are made durable before the log is
// flushed (synchronous=NORMAL flushes it only at checkpoints and at close).
constexpr int kCheckpointPages = 1000;  // SQLite's default

int OnWalCommit(void*, sqlite3* db, const char* name, int pages) {
  if (pages >= kCheckpointPages) {
    host::FlushFolderSyncs();
    (void)sqlite3_wal_checkpoint_v2(db, name, SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
  }
  return SQLITE_OK;
}

void Configure(sqlite3* db) {
  (void)sqlite3_busy_timeout(db, kBusyTimeoutMs);
  (void)sqlite3_wal_hook(db, &OnWalCommit, nullptr);
}

bool FileExists(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

// The store uses about twenty fixed texts; the bound only guards against a
// caller that builds texts with values in them.
constexpr size_t kMaxKeptStatements = 64;

}  // namespace

struct StatementCache {
  bool open = true;  // false once the connection is closed: nothing is kept
  std::map<std::string, sqlite3_stmt*> idle;

  // Takes `stmt` back; false when it is to be finalised instead.
  bool Keep(const std::string& sql, sqlite3_stmt* stmt) {
    if (!open || idle.size() >= kMaxKeptStatements) return false;
    // Reset ends its read of the database, so a kept statement never holds
    // a snapshot that stops a checkpoint or hides the other process's rows.
    (void)sqlite3_reset(stmt);  // repeats the last step's error, already seen
    (void)sqlite3_clear_bindings(stmt);
    return idle.emplace(sql, stmt).second;  // a second copy of a text is freed
  }

  sqlite3_stmt* Take(const std::string& sql) {
    auto it = idle.find(sql);
    if (it == idle.end()) return nullptr;
    sqlite3_stmt* stmt = it->second;
    idle.erase(it);
    return stmt;
  }

  void Close() {
    for (auto& entry : idle) (void)sqlite3_finalize(entry.second);
    idle.clear();
    open = false;
  }
};

Statement::Statement(sqlite3_stmt* stmt) : stmt_(stmt) {}

Statement::Statement(sqlite3_stmt* stmt, std::shared_ptr<StatementCache> home,
                     const std::string& sql)
    : stmt_(stmt), home_(std::move(home)), sql_(sql) {}

Statement::~Statement() { finalize(); }

int Statement::bind(int index, const std::string& value) {
  if (!stmt_) return SQLITE_MISUSE;
  // value.data() is never null, so an empty string binds an empty text; the
  // root folder's row is found by path = ''. SQLITE_TRANSIENT copies at once.
  return sqlite3_bind_text64(stmt_, index, value.data(), value.size(), SQLITE_TRANSIENT,
                             SQLITE_UTF8);
}

int Statement::bind(int index, int value) {
  if (!stmt_) return SQLITE_MISUSE;
  return sqlite3_bind_int(stmt_, index, value);
}

int Statement::bind(int index, long long value) {
  if (!stmt_) return SQLITE_MISUSE;
  return sqlite3_bind_int64(stmt_, index, value);
}

int Statement::step() {
  if (!stmt_) return SQLITE_MISUSE;
  if (Injected()) return SQLITE_IOERR;
  // Unsynced log pages may reach the disk at any moment, before a folder
  // flush that was put off: a row could then outlive the rename it records.
  // So renames still waiting are made durable before any row is written.
  if (!sqlite3_stmt_readonly(stmt_)) host::FlushFolderSyncs();
  return sqlite3_step(stmt_);
}

// SQLite leaves a column outside the current row undefined; the store reads
// one past the last column on purpose and relies on getting 0.
const char* Statement::column_text(int index) {
  if (!stmt_ || index < 0 || index >= sqlite3_data_count(stmt_)) return nullptr;
  return reinterpret_cast<const char*>(sqlite3_column_text(stmt_, index));
}

int Statement::column_int(int index) {
  if (!stmt_ || index < 0 || index >= sqlite3_data_count(stmt_)) return 0;
  return sqlite3_column_int(stmt_, index);
}

long long Statement::column_int64(int index) {
  if (!stmt_ || index < 0 || index >= sqlite3_data_count(stmt_)) return 0;
  return sqlite3_column_int64(stmt_, index);
}

void Statement::finalize() {
  if (!stmt_) return;
  if (!home_ || !home_->Keep(sql_, stmt_)) {
    (void)sqlite3_finalize(stmt_);  // repeats the last step's error, already seen
  }
  stmt_ = nullptr;
  home_.reset();
}

Sqlite::Sqlite() : db_(nullptr) {}

Sqlite::~Sqlite() { close(); }

int Sqlite::open(const std::string& path) {
  // The held connection may be one to a file that was just unlinked. Closed
  // first, so that its last-connection cleanup of "-wal" and "-shm" by name
  // cannot hit the files of the new database.
  close();
  if (!FileExists(path)) {
    // With the main file gone, a "-shm" beside it belongs to the deleted
    // database, possibly still mapped by another process's connection. A new
    // database joining that index would read the other file's pages.
    (void)unlink((path + "-wal").c_str());
    (void)unlink((path + "-shm").c_str());
  }
  if (Injected()) return SQLITE_CANTOPEN;
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (rc != SQLITE_OK) {
    (void)sqlite3_close(db);  // a failed open still allocates a handle
    return rc;
  }
  Configure(db);
  db_ = db;
  cache_ = std::make_shared<StatementCache>();
  return SQLITE_OK;
}

int Sqlite::open_no_create(const std::string& path) {
  close();
  if (Injected()) return SQLITE_CANTOPEN;
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  if (rc != SQLITE_OK) {
    (void)sqlite3_close(db);
    return rc;
  }
  Configure(db);
  db_ = db;
  cache_ = std::make_shared<StatementCache>();
  return SQLITE_OK;
}

int Sqlite::exec(const std::string& sql) {
  if (!db_) return SQLITE_MISUSE;
  if (Injected()) return SQLITE_IOERR;
  const char* next = sql.c_str();
  const char* end = next + sql.size();
  while (next < end) {
    sqlite3_stmt* stmt = nullptr;
    const char* tail = nullptr;
    int rc = sqlite3_prepare_v2(db_, next, static_cast<int>(end - next), &stmt, &tail);
    if (rc != SQLITE_OK) return rc;
    if (!stmt) break;  // only blanks or comments were left
    // Rows of statements such as "PRAGMA journal_mode=WAL" are read and
    // dropped; only the statement's end counts.
    do {
      rc = sqlite3_step(stmt);
    } while (rc == SQLITE_ROW);
    (void)sqlite3_finalize(stmt);
    if (rc != SQLITE_DONE) return rc;
    next = tail;
  }
  return SQLITE_DONE;
}

Statement* Sqlite::prepare(const std::string& sql) {
  if (!db_) return nullptr;
  if (Injected()) return nullptr;
  if (sqlite3_stmt* kept = cache_->Take(sql)) return new Statement(kept, cache_, sql);
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v2(db_, sql.c_str(), static_cast<int>(sql.size()), &stmt, nullptr);
  if (rc != SQLITE_OK || !stmt) {
    (void)sqlite3_finalize(stmt);
    return nullptr;
  }
  return new Statement(stmt, cache_, sql);
}

void Sqlite::close() {
  if (!db_) return;
  cache_->Close();
  cache_.reset();
  host::FlushFolderSyncs();  // closing may checkpoint, flushing the log
  // close_v2 keeps the connection alive as long as a statement is still
  // held, so a late Statement destruction finalises safely.
  (void)sqlite3_close_v2(db_);
  db_ = nullptr;
}

Transaction::Transaction(sqlite3* db, bool begun) : db_(db), open_(begun) {}

// IMMEDIATE takes the write lock at BEGIN, waiting under the busy time-out.
// A DEFERRED batch would start as a reader (its first item looks a folder
// up), and its upgrade to writer fails at once with SQLITE_BUSY_SNAPSHOT,
// without waiting, whenever the host wrote a status in the meantime.
Transaction* Transaction::acquire(Sqlite& db) {
  sqlite3* handle = db.handle();
  bool begun = handle && !Injected() &&
               sqlite3_exec(handle, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
  return new Transaction(handle, begun);
}

Transaction::~Transaction() {
  if (open_ && db_) (void)sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Transaction::commit() {
  if (!open_ || !db_) return;
  if (Injected()) return;    // as a failed COMMIT: the destructor rolls back
  host::FlushFolderSyncs();  // as in Statement::step
  (void)sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
  // A failed COMMIT (busy, disk full) can leave the transaction open; the
  // destructor must then roll it back, or every later statement of the
  // connection would join a transaction that never ends.
  open_ = sqlite3_get_autocommit(db_) == 0;
}

}  // namespace utilities
}  // namespace quillstone
