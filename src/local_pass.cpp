#define QS_SOURCE_NAME "src/local_pass"

#include "local_pass.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>

#include "arbour_utilities.h"
#include "dropboxprotocol.h"
#include "qs_log.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::DownloadStatus;

namespace {

const off_t kLargestSingleUpload = 0x800000;  // a file of exactly this size still goes whole
const char kCaseConflict[] = " (Case Conflict)";

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

LocalPass::LocalPass(const RunContext& run, SyncService& service, utilities::Uploader& uploader,
                     ChunkedUpload& chunked, FileScanner& scanner, const Tallies& tallies)
    : run_(run),
      service_(service),
      uploader_(uploader),
      chunked_(chunked),
      scanner_(scanner),
      tallies_(tallies) {}

int LocalPass::Run(ISyncCallback* callback) {
  run_.status.SetProgressStatus(DownloadStatus::kUploadLocalChanges);
  QS_LOG(kLogInfo, "Start scan");
  scanner_.fm_manager_ = &run_.store;
  scanner_.sync_callback_ = callback;
  scanner_.delete_download_leftovers_ = !run_.safe();
  tallies_.file_deltas.clear();
  int err = scanner_.Scan(run_.folder);
  if (err != 0) {
    QS_LOG(kLogError, "err:[%d] Scanner failed", err);
    return err;
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

  for (auto& entry : tallies_.file_deltas) {
    err = ApplyFiles(entry.first, entry.second);
    if (err != 0) {
      QS_LOG(kLogError, "err:[%d] SyncFilesFinal failed", err);
      return err;
    }
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
      if (d.status == FileMetadataManager::kStatusFailed) continue;
      const std::string path = dir + d.name;
      err = service_.Delete(path);
      if (err == DropboxProtocol::kSuccess) {
        removed.push_back(path);
      } else if (err == DropboxProtocol::kNotFound) {
        QS_LOG(kLogInfo, "%s - not found on server", path.c_str());
        removed.push_back(path);
        err = DropboxProtocol::kSuccess;
      } else if (err == DropboxProtocol::kTooManyRequests) {
        QS_LOG(kLogInfo, "%s - too many files in operation", path.c_str());
        (void)run_.store.SetFileStatus(path, FileMetadataManager::kStatusFailed,
                                       FileMetadataManager::kErrorTooManyFiles);
        err = DropboxProtocol::kSuccess;
      } else {
        break;
      }
    }
    (void)run_.store.RemoveFiles(removed);
    if (err != 0) return err;
  }

  // Additions. Rows are written once for the folder, also after a failure,
  // so that what went up keeps its row.
  if (!delta.added.empty()) {
    OwnedRecords rows;
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
      err = UploadFileAndRecord(dir + added.name, &rows.items);
      if (err != 0) break;
    }
    (void)run_.store.AddFiles(rows.items);
    if (err != 0) return err;
  }

  // Changes.
  if (!delta.modified.empty()) {
    OwnedRecords rows;
    for (const FileInfo& m : delta.modified) {
      err = UploadFileAndRecord(dir + m.name, &rows.items);
      if (err != 0) break;
    }
    (void)run_.store.UpdateFiles(rows.items);
  }
  return err;
}

int LocalPass::UploadFileAndRecord(const std::string& path, std::vector<FileMetadata*>* rows) {
  FileMetadata* metadata = nullptr;
  int err = UploadFile(path, &metadata);
  if (err != 0) {
    delete metadata;
    return err;
  }
  if (metadata == nullptr) return 0;
  ++tallies_.files_done;
  run_.status.SetTotalProgressStatus(tallies_.files_total, tallies_.files_done, 0, 0);
  // The digest is taken again: the file may have changed while it went up.
  metadata->md5 = utilities::ArbourUtilities::QuickMD5(run_.folder + path);
  metadata->path = path;
  rows->push_back(metadata);
  return 0;
}

int LocalPass::ApplyDirs(FileSystemDirDelta& delta, std::vector<std::string>* local_dirs) {
  int err = DropboxProtocol::kSuccess;

  // Deletions. A folder too large to delete at once is walked after all:
  // it reads as empty, so its files are deleted one by one at the end.
  if (!delta.deleted.empty()) {
    std::vector<std::string> removed;
    for (const std::string& path : delta.deleted) {
      err = service_.Delete(path);
      if (err == DropboxProtocol::kSuccess) {
        removed.push_back(path);
      } else if (err == DropboxProtocol::kNotFound) {
        QS_LOG(kLogInfo, "%s - not found on server", path.c_str());
        removed.push_back(path);
        err = DropboxProtocol::kSuccess;
      } else if (err == DropboxProtocol::kTooManyRequests) {
        QS_LOG(kLogInfo, "%s - too many files in operation", path.c_str());
        (void)run_.store.SetFolderStatus(path, FileMetadataManager::kStatusFailed,
                                         FileMetadataManager::kErrorTooManyFiles);
        local_dirs->push_back(path);
        err = DropboxProtocol::kSuccess;
      } else {
        break;
      }
    }
    (void)run_.store.RemoveFolders(removed);
    if (err != 0) return err;
  }

  if (delta.added.empty()) return 0;
  std::vector<std::string> created;
  bool unauthorized = false;
  for (size_t i = 0; i < delta.added.size() && !unauthorized; ++i) {
    std::string& path = delta.added[i];
    std::vector<std::string> known;
    (void)run_.store.GetFolderByPathIgnoreCase(path, &known);
    if (!known.empty() && known[0] == path) continue;
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
    if (!moved_away_failed) r = service_.CreateFolder(path);
    if (r == DropboxProtocol::kSuccess) {
      created.push_back(path);
    } else if (r == DropboxProtocol::kConflict) {
      QS_LOG(kLogInfo, "%s - There is already a folder at the given destination.", path.c_str());
    } else if (r == DropboxProtocol::kNotAuthorized) {
      unauthorized = true;
    }
  }
  (void)run_.store.AddFolders(created);
  return unauthorized ? DropboxProtocol::kNotAuthorized : DropboxProtocol::kSuccess;
}

int LocalPass::UploadFile(const std::string& path, FileMetadata** result) {
  const std::string full_path = run_.folder + path;
  const off_t file_size = MeasureFile(full_path);
  PostponeTimedPoweroff();
  if (file_size > kLargestSingleUpload) {
    QS_LOG(kLogNotice, "Use chunked upload");
    return chunked_.Upload(path, result);
  }
  // A file that could not be measured goes this way too; the uploader then
  // fails to open it.
  Headers headers;
  std::vector<char> response;
  std::string url = service_.UploadUrl(path, &headers);
  // The service then refuses a body that changed after it was measured.
  if (run_.safe()) (void)AddContentHash(full_path, 0, file_size, &headers);
  QS_LOG(kLogNotice, "url = %s", url.c_str());
  int err =
      UploadResultCode(service_, uploader_, uploader_.Upload(full_path, url, headers, &response));
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
