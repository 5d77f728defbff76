// The metadata store: one SQLite database per sync folder that remembers the
// last synchronised state of every folder and file, their item status, and a
// small key/value table of run state (listing cursor, account, uploads).
//
// Threads: an object is used by one thread at a time. The sync worker and
// the host each own an object with its own connection to the same file;
// SQLite's WAL and file locks order them, the class takes no lock.
// Ownership: the object owns its connection. Every operation prepares its
// own statements and gives them back before it returns; the connection keeps
// them compiled, reset and unbound, for the next operation of the same text,
// so nothing of one operation is left bound or mid-read for the next.
//
// Paths are relative to the sync folder: the root is "", any other folder
// "/a/b" (leading "/", no trailing one), a file "<folder>/<name>". Results:
// 0 success, QS_FAILED (no statement, or a write that did not finish),
// QS_NOT_FOUND (a single-row read found nothing, busy included), 12 from
// GetFolderId alone, other positive values are SQLite codes of a failed bind
// (or in Init of open/exec). Nothing throws of its own.
//
// Strict mode (the sync worker's safe profile): a connection waits up to a
// minute for another's lock; a read that fails is a failure (QS_FAILED),
// never "not found" or a short listing; Init makes a new file only when
// there is none or SQLite finds it damaged; a batch without its transaction
// fails; and once any operation has failed, every write is refused until
// SetStrict is called again, so nothing is recorded on the strength of what
// could not be read. In both modes the first failure is kept (Failure).
#pragma once

#include <sqlite3.h>

#include <functional>
#include <string>
#include <vector>

#include "file_info.h"
#include "file_metadata.h"
#include "qs_codes.h"
#include "sqlite.h"

// `s`, or an empty text for null.
const char* NullToEmpty(const char* s);

namespace quillstone {
namespace dropbox {

// The text behind the last "/"; the whole text without one.
std::string GetBaseName(const std::string& path);
// The text before the last "/"; "" without one (the root).
std::string GetFolderName(const std::string& path);

class FileMetadataManager {
 public:
  // Fixed to int: the store hands on whatever value a row holds.
  enum ItemStatus : int {
    kStatusUnset = 0,    // read as changed by the sweep and the host
    kStatusSynced = 1,   // in step with the service
    kStatusChanged = 2,  // changes no sync has carried yet; every new folder
    kStatusThree = 3,    // accepted and swept, never written
    kStatusFailed = 4,   // the last attempt failed; the sweep keeps it
  };
  enum ItemError : int {
    kErrorNone = 0,
    kErrorTooManyFiles = 1,       // deletion refused for too many files
    kErrorRestrictedContent = 2,  // download refused; retried by the failed-file pass
    kErrorRefusedName = 3,        // upload refused for its name; never on the server
  };
  // One file to retry. `path` is the folder's path and the name joined with
  // no separator between them (only a file of the root reads "/name").
  struct FailedFileInfo {
    std::string path;
    std::string path_lc;
    long long size = 0;
  };

  FileMetadataManager();
  ~FileMetadataManager();
  FileMetadataManager(const FileMetadataManager&) = delete;
  FileMetadataManager& operator=(const FileMetadataManager&) = delete;

  // Opens the database at `path`, making its folders. A file that is missing,
  // unreadable or fails the integrity check is deleted and rebuilt empty.
  // 0, or the code of the failed open/exec (is_inited_ then unchanged).
  int Init(const std::string& path);
  // Closes the connection; legal at any time. Always 0.
  int Close();
  // 0 when SQLite's integrity check answers "ok", else QS_FAILED.
  int DoIntegrityCheck();
  // Makes sure the root folder's row exists; failures are ignored.
  void InitRootFolder();

  // Info table. Reads give QS_NOT_FOUND and leave *value alone when absent.
  int GetParam(const std::string& key, std::string* value);
  int GetParamInt(const std::string& key, int* value);
  int SetParam(const std::string& key, const std::string& value);
  int SetParamInt(const std::string& key, int value);
  int RemoveParam(const std::string& key);  // an absent key is success
  std::string GetCursor();                  // "" when absent or unreadable
  int SetCursor(const std::string& cursor);

  // Folder rows. GetFolderId searches without regard to case and gives 12
  // when nothing matches; GetOrCreateFolderId adds the folder then (one level
  // only). AddFolder adds by exact path and ignores an existing one; its *id
  // is then the connection's last insert, not that folder's.
  int GetFolderId(const std::string& path, sqlite_int64* id);
  int GetOrCreateFolderId(const std::string& path, sqlite_int64* id);
  int AddFolder(const std::string& path, sqlite_int64* id);
  int AddFolders(const std::vector<std::string>& paths);

  // File rows. AddFile keeps an existing row unchanged (status 1 for a new
  // one); UpdateFile overwrites rev, size, md5 and sets status 1, and never
  // creates. Batches run in one transaction and roll back whole at the first
  // failure, whose code they return.
  int AddFile(FileMetadata* file);
  int AddFiles(const std::vector<FileMetadata*>& files);
  int UpdateFile(FileMetadata* file);
  int UpdateFiles(const std::vector<FileMetadata*>& files);
  int RemoveFile(const std::string& path);
  int RemoveFiles(const std::vector<std::string>& paths);
  // Removes the file rows of `path` and of every folder below it.
  int RemoveFilesFromFolderRec(const std::string& path);
  // Removes `path`, every folder below it, and all their files.
  int RemoveFolder(const std::string& path);
  int RemoveFolders(const std::vector<std::string>& paths);
  // Exact case. `info` may be null (a test of existence); its status is
  // always 0, use GetFileStatus for that.
  int GetFile(const std::string& path, FileInfo* info);

  // Listings append to the caller's vector and give 0 found or not. The two
  // ints are accepted and ignored: a folder is always listed whole.
  int GetFilesByDir(const std::string& path, int, int, std::vector<FileInfo>* files);
  // Direct subfolders as full paths, in byte order.
  int GetFoldersByDir(const std::string& path, int, int, std::vector<std::string>* folders);
  // Every file whose folder and name match without regard to case; status 0.
  int GetFileByPathIgnoreCase(const std::string& path, std::vector<FileInfo>* files);
  // Every stored folder path that matches without regard to case.
  int GetFolderByPathIgnoreCase(const std::string& path, std::vector<std::string>* folders);

  // Status by exact path. Setters on a missing row succeed and change
  // nothing; getters give QS_NOT_FOUND then, and skip null out-pointers.
  int SetFileStatus(const std::string& path, ItemStatus status, ItemError error);
  int GetFileStatus(const std::string& path, ItemStatus* status, ItemError* error);
  int SetFolderStatus(const std::string& path, ItemStatus status, ItemError error);
  int GetFolderStatus(const std::string& path, ItemStatus* status, ItemError* error);
  // End of a run: every folder not failed becomes synced. Files untouched.
  int UpdateFoldersStatusAfterSync();
  // Files whose download was refused as restricted; empty on failure.
  std::vector<FailedFileInfo> getFailedFiles();

  // Chooses the mode for what follows and forgets an earlier failure.
  // `on_failure` (may be empty) is called, in strict mode, at every failure,
  // on the thread of the failing call.
  void SetStrict(bool strict, std::function<void()> on_failure = {}) {
    strict_ = strict;
    on_failure_ = std::move(on_failure);
    failure_ = 0;
  }
  // The code of the first failure since SetStrict, or 0.
  int Failure() const { return failure_; }

  std::string db_path_;
  utilities::Sqlite db_;
  bool is_inited_;  // read by the facade and the sync engine

 private:
  int Latch(int rc);  // records a failure; gives rc
  int Written(int step_rc);
  int Missing(int step_rc, int not_found);
  int Listed(int step_rc);
  bool InTransaction();
  int OpenExisting(const std::string& path);
  void WaitLongerWhenBusy();

  bool strict_ = false;
  int failure_ = 0;
  std::function<void()> on_failure_;

  template <typename Item, typename Op>
  int RunBatch(const char* function, const std::vector<Item>& items, Op op);
  void ReadFileInfoRow(utilities::Statement* st, FileInfo* info);
};

}  // namespace dropbox
}  // namespace quillstone
