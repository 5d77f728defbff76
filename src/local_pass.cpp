#define QS_SOURCE_NAME "src/local_pass"

#include "local_pass.h"

#include <json/json.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <memory>

#include "arbour_utilities.h"
#include "content_hash.h"
#include "device_names.h"
#include "dropboxprotocol.h"
#include "qs_log.h"
#include "retry_wait.h"
#include "sync_profile.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::DownloadStatus;
using utilities::Uploader;

namespace {

const off_t kLargestSingleUpload = 0x800000;  // a file of exactly this size still goes whole
const char kCaseConflict[] = " (Case Conflict)";
// Info key of a refused deletion: the time, in seconds since the epoch,
// before which it is not asked again.
const char kDeleteAfterSuffix[] = ":delete_after";
// A pass that would delete more than half of the synced files on the
// server, and at least this many, deletes nothing until confirmed: that is
// what an emptied, swapped or half-mounted sync folder looks like.
const size_t kHeldDeletionsFloor = 5;

bool PathIsFree(const std::string& path) {
  struct stat info;
  return te_stat(path.c_str(), &info) == -1;
}

// The numbered form of a conflict name, cut to what the name buffer holds.
std::string NumberedConflictName(const std::string& base, int k, const std::string& ext) {
  char buffer[512];
  snprintf(buffer, sizeof(buffer), "%s (Case Conflict (%d))%s", base.c_str(), k, ext.c_str());
  return buffer;
}

std::string Today() {
  const time_t now = time(nullptr);
  struct tm local;
  char buffer[32] = "";
  if (localtime_r(&now, &local) != nullptr) strftime(buffer, sizeof(buffer), "%Y-%m-%d", &local);
  return buffer;
}

// The service compares names without regard to case.
bool SameServerName(const std::string& a, const std::string& b) {
  return strcasecmp(a.c_str(), b.c_str()) == 0;
}

// Owns the records of one phase; the store reads them as plain pointers.
struct OwnedRecords {
  OwnedRecords() = default;
  OwnedRecords(const OwnedRecords&) = delete;
  OwnedRecords& operator=(const OwnedRecords&) = delete;
  ~OwnedRecords() {
    for (FileMetadata* m : items) delete m;
  }
  std::vector<FileMetadata*> items;
};

}  // namespace

std::string CaseConflictFileName(const std::string& full_dir, const std::string& name) {
  // The stem loses its extension, and the numbered forms take the whole name:
  // report.pdf, report (Case Conflict).pdf, report.pdf (Case Conflict (1)).pdf.
  size_t dot = name.rfind('.');
  std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
  std::string ext = dot == std::string::npos ? std::string() : name.substr(dot);
  std::string new_name = stem + kCaseConflict + ext;
  for (int k = 1; !PathIsFree(full_dir + new_name); ++k) {
    new_name = NumberedConflictName(name, k, ext);
  }
  return new_name;
}

std::string CaseConflictFolderPath(const std::string& sync_folder, const std::string& path) {
  std::string new_path = path + kCaseConflict;
  for (int k = 1; !PathIsFree(sync_folder + new_path); ++k) {
    new_path = NumberedConflictName(path, k, "");
  }
  return new_path;
}

std::string ConflictedCopyName(const std::string& full_dir, const std::string& name,
                               bool is_folder) {
  size_t dot = is_folder ? std::string::npos : name.rfind('.');
  std::string stem = dot == std::string::npos ? name : name.substr(0, dot);
  std::string ext = dot == std::string::npos ? std::string() : name.substr(dot);
  const std::string mark = stem + " (conflicted copy " + Today() + ")";
  std::string new_name = mark + ext;
  for (int k = 1; !PathIsFree(full_dir + new_name); ++k) {
    new_name = mark + " (" + std::to_string(k) + ")" + ext;
  }
  return new_name;
}

LocalPass::LocalPass(const RunContext& run, SyncService& service, utilities::Uploader& uploader,
                     ChunkedUpload& chunked, FileScanner& scanner, const Tallies& tallies)
    : run_(run),
      service_(service),
      uploader_(uploader),
      chunked_(chunked),
      scanner_(scanner),
      tallies_(tallies),
      batch_(run, service) {}

int LocalPass::Run(ISyncCallback* callback) {
  run_.status.SetProgressStatus(DownloadStatus::kUploadLocalChanges);
  QS_LOG(kLogInfo, "Start scan");
  scanner_.fm_manager_ = &run_.store;
  scanner_.sync_callback_ = callback;
  scanner_.delete_download_leftovers_ = !run_.safe();
  tallies_.file_deltas.clear();
  created_folders_.clear();
  held_folder_deletions_.clear();
  item_error_ = 0;
  scanner_.keep_unreadable_ = run_.safe();
  service_.SetCommitMode(DropboxProtocol::CommitMode());
  int err = scanner_.Scan(run_.folder);
  if (err != 0) {
    QS_LOG(kLogError, "err:[%d] Scanner failed", err);
    return err;
  }
  if (run_.safe()) {
    err = CheckDeletions();
    if (err != 0) return err;
    // Their failures are dropped as during the walk: the rows stay, and the
    // next run asks again.
    (void)DeleteFolders(held_folder_deletions_, nullptr);
  }

  // The whole tree is known before the first upload, so the total is too.
  tallies_.files_total = 0;
  for (const auto& entry : tallies_.file_deltas) {
    tallies_.files_total +=
        static_cast<int>(entry.second.added.size() + entry.second.modified.size());
  }
  tallies_.files_done = 0;
  run_.status.SetTotalProgressStatus(tallies_.files_total, 0, 0, 0);
  QS_LOG(kLogInfo, "Sync scanned files");
  NotifyFileBrowser();

  batching_ = run_.safe() && WorthABatch();
  for (auto& entry : tallies_.file_deltas) {
    err = ApplyFiles(entry.first, entry.second);
    if (err != 0) break;
  }
  // What started goes on to its commit, also after a failure, so that what
  // went up keeps its row.
  const int sent = SendBatch();
  if (err == 0) err = sent;
  if (err != 0) {
    QS_LOG(kLogError, "err:[%d] SyncFilesFinal failed", err);
    return err;
  }
  tallies_.file_deltas.clear();
  return DropboxProtocol::kSuccess;
}

int LocalPass::CollectFiles(const std::string& dir, const FileSystemFileDelta& delta) {
  tallies_.file_deltas[dir] = delta;
  return 0;
}

int LocalPass::ApplyFiles(const std::string& dir, FileSystemFileDelta& delta) {
  int err = DropboxProtocol::kSuccess;

  // Deletions. A row in the failed state is a file that never arrived, or
  // whose deletion the service has refused before: its absence says nothing.
  if (!delta.deleted.empty()) {
    std::vector<std::string> removed;
    for (const FileInfo& d : delta.deleted) {
      const std::string path = dir + d.name;
      if (d.status == FileMetadataManager::kStatusFailed) {
        if (!run_.safe()) continue;
        FileMetadataManager::ItemStatus status;
        FileMetadataManager::ItemError error = FileMetadataManager::kErrorNone;
        (void)run_.store.GetFileStatus(path, &status, &error);
        if (error == FileMetadataManager::kErrorRefusedName) {
          removed.push_back(path);  // it never reached the server
          continue;
        }
        // Only a refused deletion is asked again, once the wait the service
        // asked for is over; any other failed file never arrived here, and
        // its absence says nothing.
        if (error != FileMetadataManager::kErrorTooManyFiles) continue;
        if (StillWaiting(path)) continue;
      }
      // With the row's revision the service keeps a newer version that
      // another device made.
      err = service_.Delete(path, run_.safe() ? d.rev : std::string());
      if (err == DropboxProtocol::kConflict && run_.safe()) {
        QS_LOG(kLogInfo, "%s - changed on server, not deleted", path.c_str());
        err = DropboxProtocol::kSuccess;  // the row stays: that version comes down
        continue;
      }
      const DeleteAnswer answer = JudgeDeletion(path, &err);
      if (answer == DeleteAnswer::kGone) removed.push_back(path);
      if (answer == DeleteAnswer::kRefused) {
        (void)run_.store.SetFileStatus(path, FileMetadataManager::kStatusFailed,
                                       FileMetadataManager::kErrorTooManyFiles);
        if (run_.safe()) NoteRetryAfter(path);
      }
      if (answer == DeleteAnswer::kFailed) break;
    }
    (void)run_.store.RemoveFiles(removed);
    if (err != 0) return err;
  }

  // Additions. Rows are written once for the folder, also after a failure,
  // so that what went up keeps its row.
  if (!delta.added.empty()) {
    OwnedRecords rows;
    std::vector<std::string> refused;
    std::vector<ServerChild> children;
    bool listed = false;
    for (FileInfo& added : delta.added) {
      std::vector<FileInfo> known;
      (void)run_.store.GetFileByPathIgnoreCase(dir + added.name, &known);
      if (!known.empty()) {
        // A row of this very name under a folder that differs in case.
        if (known[0].name == added.name) continue;
        // The store knows the file in another case: move the new one aside.
        const std::string new_name = CaseConflictFileName(run_.folder + dir, added.name);
        if (te_rename((run_.folder + dir + added.name).c_str(),
                      (run_.folder + dir + new_name).c_str()) == 0) {
          added.name = new_name;
        }
      }
      if (run_.safe()) {
        bool done = false;
        err = MatchServer(dir, &added, &children, &listed, &done, &rows.items);
        if (err != 0) break;
        if (done) continue;
        const DropboxProtocol::CommitMode mode{true, std::string()};
        if (batching_ && IsSmall(dir + added.name)) {
          err = Queue(dir + added.name, mode, false);
          if (err != 0) break;
          continue;
        }
        service_.SetCommitMode(mode);
      }
      err = UploadFileAndRecord(dir + added.name, &rows.items);
      if (err != 0 && run_.safe()) {
        err = AfterRefusedUpload(err, dir, &added.name, std::string(), &rows.items, &refused);
      }
      if (err != 0) break;
    }
    (void)run_.store.AddFiles(rows.items);
    MarkRefused(refused);
    if (err != 0) return err;
  }

  // Changes. In safe each replaces only the revision its row knows.
  if (!delta.modified.empty()) {
    OwnedRecords rows;
    OwnedRecords copies;
    std::vector<std::string> refused;
    for (FileInfo& m : delta.modified) {
      if (run_.safe()) {
        const DropboxProtocol::CommitMode mode{true, m.rev};
        if (batching_ && IsSmall(dir + m.name)) {
          err = Queue(dir + m.name, mode, true);
          if (err != 0) break;
          continue;
        }
        service_.SetCommitMode(mode);
      }
      err = UploadFileAndRecord(dir + m.name, &rows.items);
      if (err != 0 && run_.safe()) {
        err = AfterRefusedUpload(err, dir, &m.name, m.rev, &copies.items, &refused);
      }
      if (err != 0) break;
    }
    (void)run_.store.UpdateFiles(rows.items);
    // A conflicted copy is a new file beside the row, which keeps the
    // server's revision it knew, so the server's version comes down.
    if (!copies.items.empty()) (void)run_.store.AddFiles(copies.items);
    MarkRefused(refused);
  }
  return err;
}

bool LocalPass::IsSmall(const std::string& path) {
  const off_t size = MeasureFile(run_.folder + path);
  return size >= 0 && size <= kLargestSingleUpload;
}

bool LocalPass::WorthABatch() {
  const size_t transfers = static_cast<size_t>(std::max(run_.transfers, 1));
  size_t small = 0;
  for (const auto& entry : tallies_.file_deltas) {
    for (const FileInfo& file : entry.second.added) small += IsSmall(entry.first + file.name);
    for (const FileInfo& file : entry.second.modified) small += IsSmall(entry.first + file.name);
  }
  // Round trips: the starts go `transfers` at a time, and the commit is one
  // more; one at a time each file is one.
  return (small + transfers - 1) / transfers + 1 < small;
}

int LocalPass::Queue(const std::string& path, const DropboxProtocol::CommitMode& mode,
                     bool change) {
  // A start that failed for the run (a stop, no network) ends the walk as a
  // single upload's failure would.
  if (batch_.failure() != DropboxProtocol::kSuccess) return SendBatch();
  UploadBatch::Item item;
  item.path = path;
  item.mode = mode;
  item.change = change;
  batch_.Add(item);
  if (batch_.size() < UploadBatch::kMostPerCommit) return DropboxProtocol::kSuccess;
  return SendBatch();
}

int LocalPass::SendBatch() {
  if (batch_.size() == 0) return DropboxProtocol::kSuccess;
  std::vector<UploadBatch::Item> batch;
  int err = batch_.Finish(&batch);
  // Rows as the phases of a folder write them: new files (and the copies
  // kept beside them), changes, the copies kept beside changes.
  OwnedRecords added;
  OwnedRecords changed;
  OwnedRecords copies;
  std::vector<std::string> refused;
  bool arrived = false;
  for (UploadBatch::Item& item : batch) {
    const std::string dir = item.path.substr(0, item.path.rfind('/') + 1);
    std::string name = item.path.substr(dir.size());
    std::vector<FileMetadata*>* rows = item.change ? &changed.items : &added.items;
    std::vector<FileMetadata*>* kept = item.change ? &copies.items : &added.items;
    int r = DropboxProtocol::kSuccess;
    switch (item.outcome) {
      case UploadBatch::Outcome::kDone:
        Record(item.path, item.record, rows);
        item.record = nullptr;
        arrived = true;
        break;
      case UploadBatch::Outcome::kRefused:
        // As a single upload's refusal, once nothing else has ended the pass.
        if (err != DropboxProtocol::kSuccess) break;
        r = ApplyRefusal(JudgeRefusal(item.failure), DropboxProtocol::kErrServer, dir, &name, kept,
                         &refused);
        break;
      case UploadBatch::Outcome::kAgain:
        if (err != DropboxProtocol::kSuccess) break;
        service_.SetCommitMode(item.mode);
        r = UploadFileAndRecord(item.path, rows);
        if (r != 0) r = AfterRefusedUpload(r, dir, &name, item.mode.rev, kept, &refused);
        break;
      case UploadBatch::Outcome::kFailed:
        r = item.err;
        break;
    }
    if (err == DropboxProtocol::kSuccess) err = r;
  }
  (void)run_.store.AddFiles(added.items);
  (void)run_.store.UpdateFiles(changed.items);
  if (!copies.items.empty()) (void)run_.store.AddFiles(copies.items);
  MarkRefused(refused);
  if (arrived) NotifyFileBrowser();
  return err;
}

void LocalPass::MarkRefused(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    (void)run_.store.SetFileStatus(path, FileMetadataManager::kStatusFailed,
                                   FileMetadataManager::kErrorRefusedName);
  }
}

LocalPass::Refusal LocalPass::LastRefusal(const std::string& dir, const std::string& name,
                                          const std::string& rev) {
  if (uploader_.GetStatus().http_status != 409) return Refusal::kNone;
  if (last_reply_.empty()) {
    // A session leaves no body here, and its 409 may be of any step: what
    // the server holds under the name tells whether it is a conflict.
    std::vector<ServerChild> children;
    if (service_.ListChildren(dir.substr(0, dir.size() - 1), &children) !=
        DropboxProtocol::kSuccess) {
      return Refusal::kNone;
    }
    for (const ServerChild& c : children) {
      if (SameServerName(c.name, name)) {
        return c.is_folder || c.rev != rev ? Refusal::kConflict : Refusal::kNone;
      }
    }
    return Refusal::kNone;
  }
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  const char* begin = last_reply_.data();
  const char* end = begin + strnlen(begin, last_reply_.size());
  if (!reader->parse(begin, end, &root, nullptr) || !root.isObject()) return Refusal::kNone;
  return JudgeRefusal(root["error"]);
}

LocalPass::Refusal LocalPass::JudgeRefusal(const Json::Value& error) {
  if (!error.isObject()) return Refusal::kNone;
  // An upload's error names the write error "reason", a session commit's
  // "path".
  const Json::Value& reason = error.isMember("reason") ? error["reason"] : error["path"];
  const std::string tag =
      reason.isObject() && reason[".tag"].isString() ? reason[".tag"].asString() : std::string();
  if (tag == "conflict") return Refusal::kConflict;
  if (tag == "disallowed_name" || tag == "malformed_path") return Refusal::kName;
  return Refusal::kNone;
}

int LocalPass::AfterRefusedUpload(int err, const std::string& dir, std::string* name,
                                  const std::string& rev, std::vector<FileMetadata*>* copies,
                                  std::vector<std::string>* refused) {
  return ApplyRefusal(LastRefusal(dir, *name, rev), err, dir, name, copies, refused);
}

int LocalPass::ApplyRefusal(Refusal refusal, int err, const std::string& dir, std::string* name,
                            std::vector<FileMetadata*>* copies, std::vector<std::string>* refused) {
  switch (refusal) {
    case Refusal::kConflict:
      QS_LOG(kLogInfo, "%s%s - changed on both sides, the local one is kept as a copy", dir.c_str(),
             name->c_str());
      return KeepAsConflictedCopy(dir, name, copies);
    case Refusal::kName:
      // The file stays, with a failed row that the file browser shows; the
      // pass goes on, and the run reports it at its end.
      QS_LOG(kLogError, "%s%s - name refused by the service", dir.c_str(), name->c_str());
      NoteItemError(err);
      refused->push_back(dir + *name);
      if (FileInfo known; run_.store.GetFile(dir + *name, &known) != 0) {
        FileMetadata* row = new FileMetadata;
        row->name = *name;
        row->path = dir + *name;
        row->md5 = utilities::ArbourUtilities::QuickMD5(run_.folder + row->path);
        copies->push_back(row);
      }
      return DropboxProtocol::kSuccess;
    case Refusal::kNone:
      break;
  }
  return err;
}

int LocalPass::KeepAsConflictedCopy(const std::string& dir, std::string* name,
                                    std::vector<FileMetadata*>* rows) {
  const std::string new_name = ConflictedCopyName(run_.folder + dir, *name);
  if (te_rename((run_.folder + dir + *name).c_str(), (run_.folder + dir + new_name).c_str()) != 0) {
    QS_LOG(kLogError, "%s%s - cannot be renamed to %s", dir.c_str(), name->c_str(),
           new_name.c_str());
    NoteItemError(DropboxProtocol::kFail);
    return DropboxProtocol::kSuccess;  // the file stays as it is, for the next run
  }
  *name = new_name;
  service_.SetCommitMode(DropboxProtocol::CommitMode{true, std::string()});
  return UploadFileAndRecord(dir + new_name, rows);
}

int LocalPass::MatchServer(const std::string& dir, FileInfo* added,
                           std::vector<ServerChild>* children, bool* listed, bool* done,
                           std::vector<FileMetadata*>* rows) {
  *done = false;
  if (!*listed) {
    const std::string folder = dir.substr(0, dir.size() - 1);  // "" for the root
    children->clear();
    // A folder this run created holds nothing yet.
    if (folder.empty() || created_folders_.count(folder) == 0) {
      const int err = service_.ListChildren(folder, children);
      if (err == DropboxProtocol::kNotFound) {
        children->clear();
      } else if (err != DropboxProtocol::kSuccess) {
        return err;
      }
    }
    *listed = true;
  }
  auto same = std::find_if(children->begin(), children->end(), [added](const ServerChild& c) {
    return SameServerName(c.name, added->name);
  });
  if (same == children->end()) return DropboxProtocol::kSuccess;
  const std::string full_path = run_.folder + dir + added->name;
  std::string local_hash;
  const off_t size = MeasureFile(full_path);
  if (!same->is_folder && size >= 0 && ContentHashOfRange(full_path, 0, size, &local_hash) &&
      same->content_hash == local_hash) {
    // The same bytes on both sides: recorded, nothing moves.
    FileMetadata* row = new FileMetadata;
    row->name = added->name;
    row->path = dir + added->name;
    row->rev = same->rev;
    row->md5 = utilities::ArbourUtilities::QuickMD5(full_path);
    row->size = static_cast<uint64_t>(size);
    rows->push_back(row);
    ++tallies_.files_done;
    run_.status.SetTotalProgressStatus(tallies_.files_total, tallies_.files_done, 0, 0);
    *done = true;
    return DropboxProtocol::kSuccess;
  }
  // Other bytes, or a folder, under that name: both are kept, the local one
  // under a name that says so; the server's comes down under its own.
  const std::string new_name = ConflictedCopyName(run_.folder + dir, added->name);
  if (te_rename(full_path.c_str(), (run_.folder + dir + new_name).c_str()) != 0) {
    QS_LOG(kLogError, "%s - cannot be renamed to %s", full_path.c_str(), new_name.c_str());
    NoteItemError(DropboxProtocol::kFail);
    *done = true;
    return DropboxProtocol::kSuccess;
  }
  QS_LOG(kLogInfo, "%s%s - differs from the server's, kept as %s", dir.c_str(), added->name.c_str(),
         new_name.c_str());
  added->name = new_name;
  return DropboxProtocol::kSuccess;
}

int LocalPass::UploadFileAndRecord(const std::string& path, std::vector<FileMetadata*>* rows) {
  FileMetadata* metadata = nullptr;
  int err = UploadFile(path, &metadata);
  if (err != 0) {
    delete metadata;
    return err;
  }
  if (metadata != nullptr) Record(path, metadata, rows);
  return 0;
}

void LocalPass::Record(const std::string& path, FileMetadata* record,
                       std::vector<FileMetadata*>* rows) {
  ++tallies_.files_done;
  run_.status.SetTotalProgressStatus(tallies_.files_total, tallies_.files_done, 0, 0);
  // The digest is taken again: the file may have changed while it went up.
  record->md5 = utilities::ArbourUtilities::QuickMD5(run_.folder + path);
  record->path = path;
  rows->push_back(record);
}

int LocalPass::CountStoredFiles(const std::string& folder) {
  std::vector<FileInfo> files;
  std::vector<std::string> folders;
  (void)run_.store.GetFilesByDir(folder, 0, 10000, &files);
  (void)run_.store.GetFoldersByDir(folder, 0, 10000, &folders);
  int count = static_cast<int>(files.size());
  for (const std::string& sub : folders) count += CountStoredFiles(sub);
  return count;
}

int LocalPass::CheckDeletions() {
  size_t going = 0;
  for (const auto& entry : tallies_.file_deltas) {
    for (const FileInfo& d : entry.second.deleted) {
      if (d.status != FileMetadataManager::kStatusFailed) ++going;
    }
  }
  size_t synced = static_cast<size_t>(scanner_.stored_files_seen_);
  for (const std::string& folder : held_folder_deletions_) {
    const size_t below = static_cast<size_t>(CountStoredFiles(folder));
    going += below;
    synced += below;
  }
  if (going > 0 && !FolderHoldsItsStore(run_.folder)) {
    // The card went away under the scan, or another file system was mounted
    // on the folder: what the scan missed was never seen, not deleted.
    QS_LOG(kLogError,
           "Held: the sync folder %s is no longer the file system of its store; nothing is "
           "deleted on the server",
           run_.folder.c_str());
    return DropboxProtocol::kFail;
  }
  // Taken at every run, so that a go-ahead never waits for a later mishap.
  const bool confirmed = TakeDeletionConfirmation();
  if (going < kHeldDeletionsFloor || going * 2 <= synced) return DropboxProtocol::kSuccess;
  if (confirmed) {
    QS_LOG(kLogNotice, "Deleting %zu of %zu synced files on the server, as confirmed", going,
           synced);
    return DropboxProtocol::kSuccess;
  }
  QS_LOG(kLogError,
         "Held: %zu of %zu synced files would be deleted on the server; nothing is deleted "
         "until the deletions are confirmed",
         going, synced);
  return DropboxProtocol::kFail;
}

bool LocalPass::StillWaiting(const std::string& path) {
  int not_before = 0;
  if (run_.store.GetParamInt(path + kDeleteAfterSuffix, &not_before) != 0) return false;
  if (time(nullptr) < not_before) return true;
  (void)run_.store.RemoveParam(path + kDeleteAfterSuffix);  // the wait is over
  return false;
}

LocalPass::DeleteAnswer LocalPass::JudgeDeletion(const std::string& path, int* err) {
  switch (*err) {
    case DropboxProtocol::kSuccess:
      return DeleteAnswer::kGone;
    case DropboxProtocol::kNotFound:
      QS_LOG(kLogInfo, "%s - not found on server", path.c_str());
      *err = DropboxProtocol::kSuccess;
      return DeleteAnswer::kGone;
    case DropboxProtocol::kTooManyRequests:
      QS_LOG(kLogInfo, "%s - too many files in operation", path.c_str());
      *err = DropboxProtocol::kSuccess;
      return DeleteAnswer::kRefused;
    default:
      return DeleteAnswer::kFailed;
  }
}

void LocalPass::NoteRetryAfter(const std::string& path) {
  if (service_.RetryAfter() <= 0) return;
  (void)run_.store.SetParamInt(path + kDeleteAfterSuffix,
                               static_cast<int>(time(nullptr)) + service_.RetryAfter());
}

int LocalPass::DeleteFolders(const std::vector<std::string>& paths,
                             std::vector<std::string>* local_dirs) {
  int err = DropboxProtocol::kSuccess;
  if (!paths.empty()) {
    std::vector<std::string> removed;
    for (const std::string& path : paths) {
      if (run_.safe() && StillWaiting(path)) continue;
      err = service_.Delete(path, std::string());
      const DeleteAnswer answer = JudgeDeletion(path, &err);
      if (answer == DeleteAnswer::kGone) removed.push_back(path);
      if (answer == DeleteAnswer::kRefused) {
        (void)run_.store.SetFolderStatus(path, FileMetadataManager::kStatusFailed,
                                         FileMetadataManager::kErrorTooManyFiles);
        if (run_.safe()) NoteRetryAfter(path);
        // Without a walk to come, the row stays and the next run asks again.
        if (local_dirs != nullptr) local_dirs->push_back(path);
      }
      if (answer == DeleteAnswer::kFailed) break;
    }
    (void)run_.store.RemoveFolders(removed);
  }
  return err;
}

int LocalPass::ApplyDirs(FileSystemDirDelta& delta, std::vector<std::string>* local_dirs) {
  // Deletions. A folder too large to delete at once is walked after all:
  // it reads as empty, so its files are deleted one by one at the end. In
  // safe they wait for the end of the walk, when it is known how much would
  // go.
  if (run_.safe()) {
    held_folder_deletions_.insert(held_folder_deletions_.end(), delta.deleted.begin(),
                                  delta.deleted.end());
  } else {
    const int err = DeleteFolders(delta.deleted, local_dirs);
    if (err != 0) return err;
  }

  if (delta.added.empty()) return 0;
  std::vector<std::string> created;
  bool unauthorized = false;
  // What the service's answer `r` for the new folder `path` means for it.
  auto settle = [&](std::string& path, int r) {
    if (r == DropboxProtocol::kConflict && run_.safe() && !unauthorized) {
      r = MoveAsideOfServerFile(&path, local_dirs);
    }
    if (r == DropboxProtocol::kSuccess) {
      created.push_back(path);
      created_folders_.insert(path);
    } else if (r == DropboxProtocol::kConflict) {
      QS_LOG(kLogInfo, "%s - There is already a folder at the given destination.", path.c_str());
    } else if (r == DropboxProtocol::kNotAuthorized) {
      unauthorized = true;
    }
  };
  // Safe decides every path first and creates the new ones together; classic
  // creates each as soon as it is decided.
  std::vector<size_t> to_create;  // safe: indexes into delta.added
  for (size_t i = 0; i < delta.added.size() && !unauthorized; ++i) {
    std::string& path = delta.added[i];
    std::vector<std::string> known;
    (void)run_.store.GetFolderByPathIgnoreCase(path, &known);
    if (!known.empty() && known[0] == path) continue;
    // In safe the row of a folder renamed in case alone is still there, as
    // deletions wait for the end of the walk: it is no conflict.
    if (run_.safe() && !known.empty() &&
        std::find(delta.deleted.begin(), delta.deleted.end(), known[0]) != delta.deleted.end()) {
      known.clear();
    }
    int r = 0;
    bool moved_away_failed = false;
    if (!known.empty()) {
      // The store knows the folder in another case: move the new one aside,
      // and let the walk enter it under its new name.
      auto local = std::find(local_dirs->begin(), local_dirs->end(), path);
      if (local != local_dirs->end()) {
        const std::string new_path = CaseConflictFolderPath(run_.folder, path);
        r = te_rename((run_.folder + path).c_str(), (run_.folder + new_path).c_str());
        if (r == 0) {
          path = new_path;
          *local = path;
        } else {
          moved_away_failed = true;
        }
      }
    }
    if (run_.safe() && !moved_away_failed) {
      to_create.push_back(i);
      continue;
    }
    if (!moved_away_failed) r = service_.CreateFolder(path);
    settle(path, r);
  }
  if (to_create.size() == 1) {
    std::string& path = delta.added[to_create[0]];
    settle(path, service_.CreateFolder(path));
  } else if (!to_create.empty()) {
    std::vector<std::string> paths;
    for (size_t i : to_create) paths.push_back(delta.added[i]);
    std::vector<int> codes;
    const int err = service_.CreateFolders(paths, &codes);
    // A batch that failed as a whole gives each folder its code, as that
    // many single requests failing alike would have.
    if (err != DropboxProtocol::kSuccess) codes.assign(paths.size(), err);
    for (size_t k = 0; k < to_create.size(); ++k) settle(delta.added[to_create[k]], codes[k]);
  }
  (void)run_.store.AddFolders(created);
  return unauthorized ? DropboxProtocol::kNotAuthorized : DropboxProtocol::kSuccess;
}

int LocalPass::MoveAsideOfServerFile(std::string* path, std::vector<std::string>* local_dirs) {
  const size_t slash = path->rfind('/');
  const std::string parent = path->substr(0, slash);
  const std::string leaf = path->substr(slash + 1);
  std::vector<ServerChild> children;
  if (service_.ListChildren(parent, &children) != DropboxProtocol::kSuccess) {
    return DropboxProtocol::kConflict;
  }
  const bool file_there = std::any_of(
      children.begin(), children.end(),
      [&leaf](const ServerChild& c) { return !c.is_folder && SameServerName(c.name, leaf); });
  if (!file_there) return DropboxProtocol::kConflict;  // the folder is there already
  const std::string new_path =
      parent + "/" + ConflictedCopyName(run_.folder + parent + "/", leaf, true);
  auto local = std::find(local_dirs->begin(), local_dirs->end(), *path);
  if (te_rename((run_.folder + *path).c_str(), (run_.folder + new_path).c_str()) != 0) {
    // Its files would go up under the server's file: they wait instead.
    QS_LOG(kLogError, "%s - cannot be renamed to %s", path->c_str(), new_path.c_str());
    NoteItemError(DropboxProtocol::kFail);
    if (local != local_dirs->end()) local_dirs->erase(local);
    return DropboxProtocol::kConflict;
  }
  QS_LOG(kLogInfo, "%s - a file on the server, the folder is kept as %s", path->c_str(),
         new_path.c_str());
  if (local != local_dirs->end()) *local = new_path;
  *path = new_path;
  return service_.CreateFolder(new_path);
}

int LocalPass::UploadFile(const std::string& path, FileMetadata** result) {
  // One file at a time, whole or in chunks: shown in flight as the others are.
  const int shown =
      run_.board != nullptr ? run_.board->Begin(path, MeasureFile(run_.folder + path)) : 0;
  const int err = SendFile(path, result);
  if (run_.board != nullptr) run_.board->End(shown);
  return err;
}

int LocalPass::SendFile(const std::string& path, FileMetadata** result) {
  const std::string full_path = run_.folder + path;
  const off_t file_size = MeasureFile(full_path);
  last_reply_.clear();
  PostponeTimedPoweroff();
  if (file_size > kLargestSingleUpload) {
    QS_LOG(kLogNotice, "Use chunked upload");
    return chunked_.Upload(path, result);
  }
  // A file that could not be measured goes this way too; the uploader then
  // fails to open it.
  Headers headers;
  std::vector<char>& response = last_reply_;
  std::string url;
  Uploader::Error sent = Uploader::kUploadOk;
  for (int waits = 1;; ++waits) {
    headers.clear();
    response.clear();
    url = service_.UploadUrl(path, &headers);
    // The service then refuses a body that changed after it was measured.
    if (run_.safe()) (void)AddContentHash(full_path, 0, file_size, &headers);
    QS_LOG(kLogNotice, "url = %s", url.c_str());
    sent = uploader_.Upload(full_path, url, headers, &response);
    // Safe: a 429 stored nothing; the same upload once the service lets it.
    if (!run_.safe() || sent != Uploader::kUploadHttpError ||
        uploader_.GetStatus().http_status != 429 ||
        !WaitOutRetryAfter(RetryAfterOf(response), waits, run_.running, path)) {
      break;
    }
  }
  int err = UploadResultCode(service_, uploader_, sent);
  if (err != DropboxProtocol::kSuccess) {
    QS_LOG_ERR(err);
    return err;
  }
  if (uploader_.GetStatus().http_status == 400) {
    // One more try for a rejected request. The uploader reports a 400 as an
    // error already, so this serves an uploader that passes it through.
    headers.clear();
    response.clear();
    url = service_.UploadUrl(path, &headers);
    if (run_.safe()) (void)AddContentHash(full_path, 0, file_size, &headers);
    QS_LOG(kLogNotice, "url = %s", url.c_str());
    err =
        UploadResultCode(service_, uploader_, uploader_.Upload(full_path, url, headers, &response));
    if (err != DropboxProtocol::kSuccess) {
      QS_LOG_ERR(err);
      return err;
    }
  }
  return ParseUploadReply(service_, response, result);
}

}  // namespace dropbox
}  // namespace quillstone
