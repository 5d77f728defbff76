// The local pass of a run: what changed in the sync folder since the store
// last agreed with the service goes up.
//
// The scan reports each folder twice: its folder delta is applied at once
// (folders created and deleted on the service, so a folder exists there
// before its files), its file delta is only collected. When the whole tree is
// known, the file deltas are applied folder by folder in key order:
// deletions, additions, changes, each ended by one store write.
//
// In the safe profile nothing local is given up to a conflict: an edit
// replaces only the revision its row knows, a deletion deletes only that
// revision, a new file is first compared with what the server folder holds
// under its name (the same bytes are recorded, other bytes or a folder keep
// the local file as a conflicted copy), and a name the service refuses gets
// a failed row while the pass goes on. Where it saves round trips, the
// small files go up side by side while the walk goes on, and are committed
// together when it ends (UploadBatch), their rows written then; each file's
// answer is applied as a single upload's is.
//
// Threads: the sync thread only; a batch runs its own workers and joins
// them before it returns. The pass owns its batch alone: the engine hands in
// the run's context, the service, the uploader, the scanner and its own
// tallies, which it keeps as members of its own.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "chunked_upload.h"
#include "file_scanner.h"
#include "sync_env.h"
#include "upload_batch.h"
#include "uploader.h"

namespace quillstone {
namespace dropbox {

// Names for a local item moved aside because the store knows it in another
// case. `full_dir` is the full path of the file's folder with a trailing
// slash; the result is the first free name: "stem (Case Conflict).ext", then
// "name (Case Conflict (1)).ext" and up. For a folder `path` is the store
// path under `sync_folder`, and the result the first free store path.
std::string CaseConflictFileName(const std::string& full_dir, const std::string& name);
std::string CaseConflictFolderPath(const std::string& sync_folder, const std::string& path);

// The first free name in `full_dir` for a local version kept beside the
// server's: "stem (conflicted copy YYYY-MM-DD).ext", then with " (1)" and up
// before the extension (a folder has none); the date is today's, local
// time.
std::string ConflictedCopyName(const std::string& full_dir, const std::string& name,
                               bool is_folder = false);

class LocalPass {
 public:
  // What the pass counts in; the engine owns them.
  struct Tallies {
    std::map<std::string, FileSystemFileDelta>& file_deltas;  // by folder, "/", "/a/"
    int& files_done;
    int& files_total;
  };

  LocalPass(const RunContext& run, SyncService& service, utilities::Uploader& uploader,
            ChunkedUpload& chunked, FileScanner& scanner, const Tallies& tallies);

  // The whole pass; the scan reports to `callback`, which is expected to
  // hand its deltas to CollectFiles and ApplyDirs.
  int Run(ISyncCallback* callback);
  int CollectFiles(const std::string& dir, const FileSystemFileDelta& delta);
  int ApplyFiles(const std::string& dir, FileSystemFileDelta& delta);
  int ApplyDirs(FileSystemDirDelta& delta, std::vector<std::string>* local_dirs);

  // Uploads one file, whole or in chunks by its size. On kSuccess *result is
  // a new record, owned by the caller; otherwise it is left alone.
  int UploadFile(const std::string& path, FileMetadata** result);

  // The code of the first item that failed without ending the pass; the
  // run reports it once everything else is done. 0 when none did.
  int item_error() const { return item_error_; }

 private:
  // UploadFile's work, without showing the transfer.
  int SendFile(const std::string& path, FileMetadata** result);
  // Uploads one file and, when the service gives a record, counts it done and
  // appends the record, with the local digest, to `rows`.
  int UploadFileAndRecord(const std::string& path, std::vector<FileMetadata*>* rows);
  // Counts the file at `path` done and appends the service's `record` of it,
  // with the local digest, to `rows`, which take it.
  void Record(const std::string& path, FileMetadata* record, std::vector<FileMetadata*>* rows);

  // Deletes folders on the service and removes their rows. A folder the
  // service will not delete at once is appended to `local_dirs` when given,
  // so that the walk empties it.
  int DeleteFolders(const std::vector<std::string>& paths, std::vector<std::string>* local_dirs);
  // Safe, for a deletion the service refused with 429: true while the wait
  // it asked for lasts; NoteRetryAfter records that wait.
  bool StillWaiting(const std::string& path);
  // What the answer `*err` to the deletion of `path` means for its row: gone
  // on the server (also when it was already), refused for now (429; the
  // caller marks the row), or a failure that ends the deletions. The first
  // two leave kSuccess in *err.
  enum class DeleteAnswer { kGone, kRefused, kFailed };
  DeleteAnswer JudgeDeletion(const std::string& path, int* err);
  void NoteRetryAfter(const std::string& path);
  // Safe: kFail, with nothing deleted, when the pass would delete too much of
  // what is synced and no confirmation has been given.
  int CheckDeletions();
  int CountStoredFiles(const std::string& folder);  // rows at and below it

  // Safe: after kConflict on creating the folder `*path`. When the server
  // has a file of that name, the local folder is renamed to a conflicted
  // copy name, in `*path` and `local_dirs` too, and created under it;
  // otherwise kConflict stands.
  int MoveAsideOfServerFile(std::string* path, std::vector<std::string>* local_dirs);

  // What the service said of the last upload of `dir + name` that failed;
  // `rev` is the revision it was to replace, empty for a new file.
  enum class Refusal { kNone, kConflict, kName };
  Refusal LastRefusal(const std::string& dir, const std::string& name, const std::string& rev);
  // What the "error" member of a refusal says: an upload's, or a session
  // commit's, as a batch entry carries it.
  static Refusal JudgeRefusal(const Json::Value& error);
  // For a new file in safe: what the server folder already holds under its
  // name decides. Returns kSuccess with *done set when nothing is left to do
  // (the server has the same bytes: a row goes to `rows`; or the file could
  // not be renamed: an item error), or with the local file renamed aside
  // when the server has other content or a folder there; another code when
  // the folder could not be listed. The folder is listed once, into
  // `children`, with *listed set.
  int MatchServer(const std::string& dir, FileInfo* added, std::vector<ServerChild>* children,
                  bool* listed, bool* done, std::vector<FileMetadata*>* rows);
  // Renames the local file `dir + *name` to a conflicted copy name and
  // uploads it as a new file; its record goes to `rows`.
  int KeepAsConflictedCopy(const std::string& dir, std::string* name,
                           std::vector<FileMetadata*>* rows);
  // Safe only: what to do after an upload of `dir + *name` failed with
  // `err`. A conflict keeps the local version as a conflicted copy; a name
  // the service refuses gets a failed row. Returns what ends the phase.
  // `copies` takes the record of a copy, or the row of a refused file,
  // whose path also goes to `refused`.
  int AfterRefusedUpload(int err, const std::string& dir, std::string* name, const std::string& rev,
                         std::vector<FileMetadata*>* copies, std::vector<std::string>* refused);
  // AfterRefusedUpload once the refusal is known.
  int ApplyRefusal(Refusal refusal, int err, const std::string& dir, std::string* name,
                   std::vector<FileMetadata*>* copies, std::vector<std::string>* refused);

  // Safe: whether the small files the pass sends go up faster in a batch
  // than one at a time; a small file is one a single request takes.
  bool WorthABatch();
  bool IsSmall(const std::string& path);
  // Hands `path` to the batch, which starts it at once, and commits the
  // batch when it is full. Returns what ends the walk.
  int Queue(const std::string& path, const DropboxProtocol::CommitMode& mode, bool change);
  // Commits the batch and applies each answer as a single upload's: a
  // record becomes a row, a refusal is handled as AfterRefusedUpload does,
  // and a file the batch could not commit for a reason of its own goes up
  // alone. Returns what ends the pass; the rows of what went up are written
  // all the same.
  int SendBatch();

  // Gives the rows of `paths` the failed status of a refused name.
  void MarkRefused(const std::vector<std::string>& paths);
  void NoteItemError(int err) {
    if (item_error_ == 0) item_error_ = err;
  }

  const RunContext& run_;  // the engine's, so the profile set before a run reaches here
  SyncService& service_;
  utilities::Uploader& uploader_;
  ChunkedUpload& chunked_;
  FileScanner& scanner_;
  Tallies tallies_;
  std::vector<std::string> held_folder_deletions_;  // safe: sent after the walk
  std::set<std::string> created_folders_;           // on the server by this run, so empty there
  std::vector<char> last_reply_;                    // body of the last single-request upload
  UploadBatch batch_;                               // safe: the small files of the pass
  bool batching_ = false;                           // safe: small files go to batch_
  int item_error_ = 0;
};

}  // namespace dropbox
}  // namespace quillstone
