#define QS_SOURCE_NAME "src/filemetadatamanager"

#include "filemetadatamanager.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "qs_log.h"
#include "split_path.h"
#include "string_utils.h"
#include "tessera.h"

// The statement texts are part of the database contract between the host
// and the worker, and stay byte for byte as they are, blanks included.

// Logging names the operation's own line and signature, hence macros.
#define QS_RETURN_IF_NO_STATEMENT(st)             \
  do {                                            \
    if (!(st).get()) {                            \
      QS_LOG_CONDITION("!st.get()", "QS_FAILED"); \
      Latch(QS_FAILED);                           \
      return QS_FAILED;                           \
    }                                             \
  } while (0)

#define QS_BIND_OR_RETURN(st, index, value)           \
  do {                                                \
    const int bind_rc = (st)->bind((index), (value)); \
    if (bind_rc != 0) {                               \
      QS_LOG_ERR(bind_rc);                            \
      Latch(bind_rc);                                 \
      return bind_rc;                                 \
    }                                                 \
  } while (0)

// In the strict mode nothing more is written once an operation of the run
// has failed: a row written after a failed read may rest on what was not
// read (a file row in the wrong folder, a revision without its download).
#define QS_REFUSE_AFTER_FAILURE()                   \
  do {                                              \
    if (strict_ && failure_ != 0) return QS_FAILED; \
  } while (0)

const char* NullToEmpty(const char* s) { return s ? s : ""; }

namespace quillstone {
namespace dropbox {

using utilities::Statement;
using utilities::StringUtils;
using utilities::Transaction;

namespace {

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS Folders ( id INTEGER PRIMARY KEY AUTOINCREMENT, path TEXT UNIQUE, "
    "level INTEGER, path_lc TEXT, last_sync INTEGER, status INTEGER, error INTEGER); CREATE TABLE "
    "IF NOT EXISTS Files (id INTEGER PRIMARY KEY AUTOINCREMENT, folder_id INTEGER, filename TEXT, "
    "rev TEXT, size INTEGER, md5 TEXT, filename_lc TEXT, status INTEGER, error INTEGER, last_sync "
    "INTEGER, FOREIGN KEY (folder_id) REFERENCES Folders(id), UNIQUE (filename, folder_id) ON "
    "CONFLICT REPLACE ); CREATE TABLE IF NOT EXISTS Info ( key TEXT PRIMARY KEY, value TEXT); ";

// Indexes beside the fixed tables, for the lookups without regard to case
// and for a folder's files, which would otherwise scan whole tables: cost per
// lookup grows with the tree. Each is made on its own, so that a missing
// table costs only its own index; any reader of the format ignores them.
const char* const kIndexes[] = {
    "CREATE INDEX IF NOT EXISTS FoldersByPathLc ON Folders (path_lc);",
    "CREATE INDEX IF NOT EXISTS FilesByFolderNameLc ON Files (folder_id, filename_lc);",
};

// How long a strict connection waits for another one's lock. The host holds
// its locks for moments; a minute covers a slow card without letting a
// stuck host hold the run for ever.
const int kStrictBusyTimeoutMs = 60000;

// SQLITE_NOTFOUND's value; GetFolderId alone answers with it.
const int kFolderNotFound = 12;

// Number of "/" in a folder path: the root 0, "/a" 1, "/a/b" 2.
int Level(const std::string& path) {
  return static_cast<int>(std::count(path.begin(), path.end(), '/'));
}

}  // namespace

std::string GetBaseName(const std::string& path) {
  std::string base;
  (void)utilities::SplitPath(path, nullptr, &base);
  return base;
}

std::string GetFolderName(const std::string& path) {
  std::string folder;
  (void)utilities::SplitPath(path, &folder, nullptr);
  return folder;
}

FileMetadataManager::FileMetadataManager() : is_inited_(false) {}

FileMetadataManager::~FileMetadataManager() {
  if (db_.is_open()) db_.close();
}

int FileMetadataManager::Init(const std::string& path) {
  (void)te_buildpath(path.c_str());  // a missing folder shows up as a failed open
  db_path_ = path;
  int rc;
  if (strict_) {
    rc = OpenExisting(path);
    if (rc != 0) return Latch(rc);
  }
  const bool make_anew =
      strict_ ? !db_.is_open() : (db_.open_no_create(path) != 0 || DoIntegrityCheck() != 0);
  if (make_anew) {
    // Recovery is total: a damaged file is thrown away with all its rows,
    // cursor and account included, and the next sync starts from scratch.
    (void)unlink(path.c_str());
    rc = db_.open(path);
    if (rc != 0) {
      QS_LOG_ERR(rc);
      return Latch(rc);
    }
    WaitLongerWhenBusy();
    // Small pages for a new file: each row written puts its pages into the
    // log, and rows are small, so 1 KiB pages quarter the bytes written per
    // file on flash. Any reader takes the page size from the file's header.
    (void)db_.exec("PRAGMA page_size=1024;");
    rc = db_.exec(kSchema);
    if (rc != SQLITE_DONE) {
      QS_LOG_ERR(rc);
      return Latch(rc);
    }
  } else if (strict_) {
    // A file whose making failed midway is completed, not thrown away.
    rc = db_.exec(kSchema);
    if (rc != SQLITE_DONE) {
      QS_LOG_ERR(rc);
      return Latch(rc);
    }
  }
  rc = db_.exec("PRAGMA journal_mode=WAL; ");
  if (rc != SQLITE_DONE) {
    QS_LOG_ERR(rc);
    return Latch(rc);
  }
  rc = db_.exec("PRAGMA synchronous=NORMAL;");
  if (rc != SQLITE_DONE) {
    QS_LOG_ERR(rc);
    return Latch(rc);
  }
  // Also on older files. A failure (a busy file, a dropped table) only costs
  // speed, so it is not the opening's failure.
  for (const char* index : kIndexes) (void)db_.exec(index);
  is_inited_ = true;
  return 0;
}

// The strict opening: only a file that is missing, or that SQLite itself
// finds damaged, is made anew; a file that cannot be opened or checked just
// now (busy, a failing read) is left for a later run. Leaves db_ closed when
// a new file is to be made; else the code of the failure.
int FileMetadataManager::OpenExisting(const std::string& path) {
  db_.close();
  if (access(path.c_str(), F_OK) != 0) return errno == ENOENT ? 0 : QS_FAILED;
  int rc = db_.open_no_create(path);
  if (rc != 0) return rc;
  WaitLongerWhenBusy();
  std::unique_ptr<Statement> st(db_.prepare("PRAGMA integrity_check;"));
  rc = st ? st->step() : QS_FAILED;
  const bool damaged = rc == SQLITE_CORRUPT || rc == SQLITE_NOTADB ||
                       (rc == SQLITE_ROW && strcmp(NullToEmpty(st->column_text(0)), "ok") != 0);
  st.reset();
  if (damaged) {
    QS_LOG(kLogError, "the store is damaged and is made anew");
    db_.close();
    return 0;
  }
  if (rc != SQLITE_ROW) {
    db_.close();
    return rc;
  }
  return 0;
}

// A worker that writes rows waits for the host's reads and status writes
// instead of failing on them.
void FileMetadataManager::WaitLongerWhenBusy() {
  if (strict_) (void)sqlite3_busy_timeout(db_.handle(), kStrictBusyTimeoutMs);
}

int FileMetadataManager::Close() {
  db_.close();
  is_inited_ = false;
  return 0;
}

int FileMetadataManager::DoIntegrityCheck() {
  std::unique_ptr<Statement> st(db_.prepare("PRAGMA integrity_check;"));
  QS_RETURN_IF_NO_STATEMENT(st);
  // A busy answer counts as damage too; the busy time-out of the connection
  // is what keeps a healthy file shared with the other process alive.
  if (st->step() != SQLITE_ROW) return QS_FAILED;
  return strcmp(NullToEmpty(st->column_text(0)), "ok") == 0 ? 0 : QS_FAILED;
}

void FileMetadataManager::InitRootFolder() {
  sqlite_int64 id = 0;
  if (GetFolderId("", &id) == kFolderNotFound) (void)AddFolder("", &id);
}

int FileMetadataManager::GetParam(const std::string& key, std::string* value) {
  std::unique_ptr<Statement> st(db_.prepare("SELECT value FROM Info WHERE key = ? ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, key);
  const int rc = st->step();
  if (rc != SQLITE_ROW) return Missing(rc, QS_NOT_FOUND);
  *value = NullToEmpty(st->column_text(0));
  return 0;
}

int FileMetadataManager::GetParamInt(const std::string& key, int* value) {
  std::unique_ptr<Statement> st(db_.prepare("SELECT value FROM Info WHERE key = ? ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, key);
  const int rc = st->step();
  if (rc != SQLITE_ROW) return Missing(rc, QS_NOT_FOUND);
  *value = st->column_int(0);
  return 0;
}

int FileMetadataManager::SetParam(const std::string& key, const std::string& value) {
  QS_REFUSE_AFTER_FAILURE();
  std::unique_ptr<Statement> st(
      db_.prepare("INSERT OR REPLACE INTO Info (key, value) VALUES (?, ?) ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, key);
  QS_BIND_OR_RETURN(st, 2, value);
  return Written(st->step());
}

int FileMetadataManager::SetParamInt(const std::string& key, int value) {
  QS_REFUSE_AFTER_FAILURE();
  std::unique_ptr<Statement> st(
      db_.prepare("INSERT OR REPLACE INTO Info (key, value) VALUES (?, ?) ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, key);
  QS_BIND_OR_RETURN(st, 2, value);
  return Written(st->step());
}

int FileMetadataManager::RemoveParam(const std::string& key) {
  QS_REFUSE_AFTER_FAILURE();
  std::unique_ptr<Statement> st(db_.prepare("DELETE FROM Info WHERE key = ?; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, key);
  return Written(st->step());
}

std::string FileMetadataManager::GetCursor() {
  // A read failure and a lost database both mean: list from the beginning.
  std::string cursor;
  return GetParam("cursor", &cursor) == 0 ? cursor : std::string();
}

int FileMetadataManager::SetCursor(const std::string& cursor) { return SetParam("cursor", cursor); }

int FileMetadataManager::GetFolderId(const std::string& path, sqlite_int64* id) {
  std::unique_ptr<Statement> st(db_.prepare("SELECT id FROM Folders WHERE path_lc = ?; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, StringUtils::ToLower(path));
  const int rc = st->step();
  if (rc != SQLITE_ROW) return Missing(rc, kFolderNotFound);
  *id = st->column_int64(0);
  return 0;
}

int FileMetadataManager::GetOrCreateFolderId(const std::string& path, sqlite_int64* id) {
  int rc = GetFolderId(path, id);
  if (rc == 0) return 0;
  if (rc != kFolderNotFound) {
    QS_LOG_ERR(rc);
    return rc;
  }
  rc = AddFolder(path, id);
  if (rc != 0) {
    QS_LOG_ERR(rc);
    return rc;
  }
  return 0;
}

int FileMetadataManager::AddFolder(const std::string& path, sqlite_int64* id) {
  QS_REFUSE_AFTER_FAILURE();
  std::unique_ptr<Statement> st(db_.prepare(
      "INSERT OR IGNORE INTO Folders (path, level, path_lc, status ) VALUES (?, ?, ?, ?); "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, path);
  QS_BIND_OR_RETURN(st, 2, Level(path));
  QS_BIND_OR_RETURN(st, 3, StringUtils::ToLower(path));
  QS_BIND_OR_RETURN(st, 4, static_cast<int>(kStatusChanged));
  if (Written(st->step()) != 0) return QS_FAILED;
  // After an ignored insert this is whatever row the connection added last;
  // callers that need the folder's own id ask GetFolderId first.
  *id = sqlite3_last_insert_rowid(db_.handle());
  return 0;
}

// A batch: every item in one transaction, in order. The first failure is
// logged in the name of the batch operation and returned, and the
// transaction rolls back on destruction; the result of the commit is not
// looked at.
template <typename Item, typename Op>
int FileMetadataManager::RunBatch(const char* function, const std::vector<Item>& items, Op op) {
  QS_REFUSE_AFTER_FAILURE();
  std::unique_ptr<Transaction> transaction(Transaction::acquire(db_));
  // Without its transaction a batch would be written row by row, and a
  // failure midway would leave half of it.
  if (strict_ && !InTransaction()) return Latch(QS_FAILED);
  for (const Item& item : items) {
    const int rc = op(item);
    if (rc != 0) {
      qs_print_log2(kLogError, QS_SOURCE_NAME, __LINE__, function, "[pid:%d] err:[%d] ",
                    g_process_pid, rc);
      return rc;
    }
  }
  transaction->commit();
  // A commit that did not happen leaves the transaction open until the
  // rollback of its destruction.
  if (strict_ && InTransaction()) return Latch(QS_FAILED);
  return 0;
}

int FileMetadataManager::Latch(int rc) {
  if (failure_ == 0) failure_ = rc;
  if (strict_ && on_failure_) on_failure_();
  return rc;
}

int FileMetadataManager::Written(int step_rc) {
  return step_rc == SQLITE_DONE ? 0 : Latch(QS_FAILED);
}

int FileMetadataManager::Missing(int step_rc, int not_found) {
  if (step_rc == SQLITE_DONE) return not_found;
  // Busy or failing: nothing may take this for an absent row.
  (void)Latch(step_rc);
  return strict_ ? QS_FAILED : not_found;
}

int FileMetadataManager::Listed(int step_rc) {
  if (step_rc == SQLITE_DONE) return 0;
  (void)Latch(step_rc);
  return strict_ ? QS_FAILED : 0;
}

bool FileMetadataManager::InTransaction() {
  return db_.is_open() && sqlite3_get_autocommit(db_.handle()) == 0;
}

int FileMetadataManager::AddFolders(const std::vector<std::string>& paths) {
  return RunBatch(__PRETTY_FUNCTION__, paths, [this](const std::string& path) {
    sqlite_int64 ignored = 0;
    return AddFolder(path, &ignored);
  });
}

int FileMetadataManager::AddFile(FileMetadata* file) {
  QS_REFUSE_AFTER_FAILURE();
  if (!file) return QS_FAILED;
  // OR IGNORE wins over the table's ON CONFLICT REPLACE: an existing row
  // stays as it is, and overwriting is UpdateFile's business.
  std::unique_ptr<Statement> st(
      db_.prepare("INSERT OR IGNORE INTO Files (folder_id, filename, rev, size, md5, filename_lc, "
                  "status ) VALUES (?, ?, ?, ?, ?, ?, ?); "));
  QS_RETURN_IF_NO_STATEMENT(st);
  sqlite_int64 folder_id = 0;
  const int rc = GetOrCreateFolderId(GetFolderName(file->path), &folder_id);
  if (rc != 0) {
    QS_LOG_ERR(rc);
    return rc;
  }
  QS_BIND_OR_RETURN(st, 1, static_cast<long long>(folder_id));
  QS_BIND_OR_RETURN(st, 2, file->name);
  QS_BIND_OR_RETURN(st, 3, file->rev);
  QS_BIND_OR_RETURN(st, 4, static_cast<long long>(file->size));
  QS_BIND_OR_RETURN(st, 5, file->md5);
  QS_BIND_OR_RETURN(st, 6, StringUtils::ToLower(file->name));
  QS_BIND_OR_RETURN(st, 7, static_cast<int>(kStatusSynced));
  return Written(st->step());
}

int FileMetadataManager::AddFiles(const std::vector<FileMetadata*>& files) {
  return RunBatch(__PRETTY_FUNCTION__, files, [this](FileMetadata* file) { return AddFile(file); });
}

int FileMetadataManager::UpdateFile(FileMetadata* file) {
  QS_REFUSE_AFTER_FAILURE();
  if (!file) return QS_FAILED;
  // The folder goes by exact path here, and error is left as it was: status
  // 1 alone takes a restricted file off the retry list.
  std::unique_ptr<Statement> st(
      db_.prepare("UPDATE Files SET  rev = ?, size = ?, md5 = ?, status = ? WHERE filename = ? "
                  "AND folder_id IN (SELECT id FROM Folders WHERE path = ?); "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, file->rev);
  QS_BIND_OR_RETURN(st, 2, static_cast<long long>(file->size));
  QS_BIND_OR_RETURN(st, 3, file->md5);
  QS_BIND_OR_RETURN(st, 4, static_cast<int>(kStatusSynced));
  QS_BIND_OR_RETURN(st, 5, file->name);
  QS_BIND_OR_RETURN(st, 6, GetFolderName(file->path));
  return Written(st->step());
}

int FileMetadataManager::UpdateFiles(const std::vector<FileMetadata*>& files) {
  return RunBatch(__PRETTY_FUNCTION__, files,
                  [this](FileMetadata* file) { return UpdateFile(file); });
}

int FileMetadataManager::RemoveFile(const std::string& path) {
  QS_REFUSE_AFTER_FAILURE();
  std::unique_ptr<Statement> st(
      db_.prepare("DELETE FROM Files WHERE filename = ? AND folder_id IN (SELECT id FROM Folders "
                  "WHERE path = ?);"));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, GetBaseName(path));
  QS_BIND_OR_RETURN(st, 2, GetFolderName(path));
  return Written(st->step());
}

int FileMetadataManager::RemoveFiles(const std::vector<std::string>& paths) {
  return RunBatch(__PRETTY_FUNCTION__, paths,
                  [this](const std::string& path) { return RemoveFile(path); });
}

// Descendants are the half-open byte range (path + "/", path + "0"): "0"
// follows "/", so the range holds exactly the texts that start with
// path + "/". LIKE would treat "%" and "_" in names as wildcards.
int FileMetadataManager::RemoveFilesFromFolderRec(const std::string& path) {
  QS_REFUSE_AFTER_FAILURE();
  std::unique_ptr<Statement> st(
      db_.prepare("DELETE FROM Files WHERE folder_id IN (SELECT id FROM Folders WHERE (path > ? "
                  "AND path < ?) OR path = ? ) ;"));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, path + "/");
  QS_BIND_OR_RETURN(st, 2, path + "0");
  QS_BIND_OR_RETURN(st, 3, path);
  return Written(st->step());
}

int FileMetadataManager::RemoveFolder(const std::string& path) {
  QS_REFUSE_AFTER_FAILURE();
  // Files first, so that no file row is left pointing at a deleted folder.
  const int rc = RemoveFilesFromFolderRec(path);
  if (rc != 0) {
    QS_LOG_ERR(rc);
    return rc;
  }
  std::unique_ptr<Statement> st(
      db_.prepare("DELETE FROM Folders WHERE (path > ? AND path < ?) OR path = ? ;"));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, path + "/");
  QS_BIND_OR_RETURN(st, 2, path + "0");
  QS_BIND_OR_RETURN(st, 3, path);
  return Written(st->step());
}

int FileMetadataManager::RemoveFolders(const std::vector<std::string>& paths) {
  return RunBatch(__PRETTY_FUNCTION__, paths,
                  [this](const std::string& path) { return RemoveFolder(path); });
}

int FileMetadataManager::GetFile(const std::string& path, FileInfo* info) {
  std::unique_ptr<Statement> st(
      db_.prepare("SELECT filename, md5, rev FROM Files INNER JOIN Folders ON Files.folder_id = "
                  "Folders.id WHERE Folders.path = ? AND filename = ? ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, GetFolderName(path));
  QS_BIND_OR_RETURN(st, 2, GetBaseName(path));
  const int rc = st->step();
  if (rc != SQLITE_ROW) return Missing(rc, QS_NOT_FOUND);
  if (info) {
    FileInfo row;
    ReadFileInfoRow(st.get(), &row);
    *info = row;
  }
  return 0;
}

// Reads four columns whatever the statement selected; a statement of three
// gives status 0 through column_int past the last column.
void FileMetadataManager::ReadFileInfoRow(Statement* st, FileInfo* info) {
  info->name = NullToEmpty(st->column_text(0));
  info->md5 = NullToEmpty(st->column_text(1));
  info->rev = NullToEmpty(st->column_text(2));
  info->status = st->column_int(3);
}

// A step failing midway ends a listing like its last row: the rows so far
// are kept and the result is 0.
int FileMetadataManager::GetFilesByDir(const std::string& path, int, int,
                                       std::vector<FileInfo>* files) {
  std::unique_ptr<Statement> st(
      db_.prepare("SELECT filename, md5, rev, Files.status FROM Files INNER JOIN Folders ON "
                  "Files.folder_id = Folders.id WHERE Folders.path = ? ORDER BY filename ASC ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, path);
  int rc;
  while ((rc = st->step()) == SQLITE_ROW) {
    FileInfo info;
    ReadFileInfoRow(st.get(), &info);
    files->push_back(info);
  }
  return Listed(rc);
}

int FileMetadataManager::GetFoldersByDir(const std::string& path, int, int,
                                         std::vector<std::string>* folders) {
  std::unique_ptr<Statement> st(db_.prepare(
      "SELECT path FROM Folders WHERE path > ? AND path < ? AND level = ? ORDER BY path ASC ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, path + "/");
  QS_BIND_OR_RETURN(st, 2, path + "0");
  QS_BIND_OR_RETURN(st, 3, Level(path + "/"));
  int rc;
  while ((rc = st->step()) == SQLITE_ROW) folders->push_back(NullToEmpty(st->column_text(0)));
  return Listed(rc);
}

int FileMetadataManager::GetFileByPathIgnoreCase(const std::string& path,
                                                 std::vector<FileInfo>* files) {
  std::unique_ptr<Statement> st(
      db_.prepare("SELECT filename, md5, rev FROM Files INNER JOIN Folders ON Files.folder_id = "
                  "Folders.id WHERE Folders.path_lc = ? AND filename_lc = ? ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  // Split first, then lowercase, as the stored forms were made.
  QS_BIND_OR_RETURN(st, 1, StringUtils::ToLower(GetFolderName(path)));
  QS_BIND_OR_RETURN(st, 2, StringUtils::ToLower(GetBaseName(path)));
  int rc;
  while ((rc = st->step()) == SQLITE_ROW) {
    FileInfo info;
    ReadFileInfoRow(st.get(), &info);
    files->push_back(info);
  }
  return Listed(rc);
}

int FileMetadataManager::GetFolderByPathIgnoreCase(const std::string& path,
                                                   std::vector<std::string>* folders) {
  std::unique_ptr<Statement> st(db_.prepare("SELECT path FROM Folders WHERE path_lc = ? ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, StringUtils::ToLower(path));
  int rc;
  while ((rc = st->step()) == SQLITE_ROW) folders->push_back(NullToEmpty(st->column_text(0)));
  return Listed(rc);
}

int FileMetadataManager::SetFileStatus(const std::string& path, ItemStatus status,
                                       ItemError error) {
  QS_REFUSE_AFTER_FAILURE();
  std::unique_ptr<Statement> st(
      db_.prepare("UPDATE Files SET  status = ?, error = ? WHERE filename = ? AND folder_id IN "
                  "(SELECT id FROM Folders WHERE path = ?); "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, static_cast<int>(status));
  QS_BIND_OR_RETURN(st, 2, static_cast<int>(error));
  QS_BIND_OR_RETURN(st, 3, GetBaseName(path));
  QS_BIND_OR_RETURN(st, 4, GetFolderName(path));
  return Written(st->step());
}

int FileMetadataManager::GetFileStatus(const std::string& path, ItemStatus* status,
                                       ItemError* error) {
  std::unique_ptr<Statement> st(
      db_.prepare("SELECT Files.status, Files.error FROM Files INNER JOIN Folders ON "
                  "Files.folder_id = Folders.id WHERE Folders.path = ? AND filename = ? ; "));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, GetFolderName(path));
  QS_BIND_OR_RETURN(st, 2, GetBaseName(path));
  const int rc = st->step();
  if (rc != SQLITE_ROW) return Missing(rc, QS_NOT_FOUND);
  if (status) *status = static_cast<ItemStatus>(st->column_int(0));
  if (error) *error = static_cast<ItemError>(st->column_int(1));  // NULL reads 0
  return 0;
}

int FileMetadataManager::SetFolderStatus(const std::string& path, ItemStatus status,
                                         ItemError error) {
  QS_REFUSE_AFTER_FAILURE();
  std::unique_ptr<Statement> st(
      db_.prepare("UPDATE Folders SET status = ? , error = ? WHERE path = ? ;"));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, static_cast<int>(status));
  QS_BIND_OR_RETURN(st, 2, static_cast<int>(error));
  QS_BIND_OR_RETURN(st, 3, path);
  return Written(st->step());
}

int FileMetadataManager::GetFolderStatus(const std::string& path, ItemStatus* status,
                                         ItemError* error) {
  std::unique_ptr<Statement> st(db_.prepare("SELECT status, error FROM Folders WHERE path = ? ;"));
  QS_RETURN_IF_NO_STATEMENT(st);
  QS_BIND_OR_RETURN(st, 1, path);
  const int rc = st->step();
  if (rc != SQLITE_ROW) return Missing(rc, QS_NOT_FOUND);
  if (status) *status = static_cast<ItemStatus>(st->column_int(0));
  if (error) *error = static_cast<ItemError>(st->column_int(1));
  return 0;
}

int FileMetadataManager::UpdateFoldersStatusAfterSync() {
  QS_REFUSE_AFTER_FAILURE();
  // The kept values are named one by one so that 4, and anything unknown,
  // survive the sweep.
  std::unique_ptr<Statement> st(
      db_.prepare("UPDATE Folders SET status = 1 WHERE status = 0 OR status = 2 OR status = 3 OR "
                  "status IS NULL;"));
  QS_RETURN_IF_NO_STATEMENT(st);
  return Written(st->step());
}

std::vector<FileMetadataManager::FailedFileInfo> FileMetadataManager::getFailedFiles() {
  std::vector<FailedFileInfo> failed;
  std::unique_ptr<Statement> st(
      db_.prepare("SELECT file.filename, file.filename_lc, file.size, folder.path, folder.path_lc "
                  "FROM Files file INNER JOIN Folders folder ON file.folder_id = folder.id WHERE "
                  "file.status = 4 AND file.error = 2; "));
  if (!st.get()) {
    QS_LOG_CONDITION("!st.get()", "std::vector<FailedFileInfo>()");
    Latch(QS_FAILED);
    return std::vector<FailedFileInfo>();
  }
  int rc;
  while ((rc = st->step()) == SQLITE_ROW) {
    std::string folder = NullToEmpty(st->column_text(3));
    std::string folder_lc = NullToEmpty(st->column_text(4));
    if (folder.empty()) folder = "/";
    if (folder_lc.empty()) folder_lc = "/";
    // No separator between folder and name: the retry pass works with this
    // text as it stands, and only a file of the root reads as a path.
    FailedFileInfo info;
    info.path = folder + NullToEmpty(st->column_text(0));
    info.path_lc = folder_lc + NullToEmpty(st->column_text(1));
    info.size = st->column_int64(2);
    failed.push_back(info);
  }
  (void)Listed(rc);  // the list so far is what there is to retry
  return failed;
}

}  // namespace dropbox
}  // namespace quillstone
