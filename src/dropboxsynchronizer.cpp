#define QS_LOG_SOURCE "src/dropboxsynchronizer"

#include "dropboxsynchronizer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "arbour_utilities.h"
#include "device_root.h"
#include "json_parser_utils.h"
#include "qs_codes.h"
#include "qs_log.h"
#include "readstats.h"
#include "server_path.h"
#include "string_utils.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::DevicePath;
using utilities::Downloader;
using utilities::DownloadStatus;
using utilities::StringUtils;
using utilities::Uploader;

DropboxSynchronizer* DropboxSynchronizer::this_ = nullptr;

namespace {

const char kSharedStateName[] = "/dropbox_state";
const char kExplorerApp[] = "/fwroot/bin/explorer.app";
const char kDatabaseSuffix[] = "/.dropbox/files.db";
const int kEventFolderChanged = 73;
const int kStatisticsSource = 21;  // this service, for the statistics library

// The DownloadStatus::Error that goes with each sync error; 7 for anything
// outside the scale.
DownloadStatus::Error ErrorForSyncError(int sync_error) {
  switch (sync_error) {
    case DropboxSynchronizer::kSyncStopped:
      return DownloadStatus::kErrorFive;
    case DropboxSynchronizer::kSyncNoNetwork:
      return DownloadStatus::kErrorThree;
    case DropboxSynchronizer::kSyncDownloadFailed:
      return DownloadStatus::kErrorOne;
    case DropboxSynchronizer::kSyncUnauthorized:
      return DownloadStatus::kErrorTwo;
    case DropboxSynchronizer::kSyncWrongUser:
      return DownloadStatus::kErrorSix;
    case DropboxSynchronizer::kSyncNeedSdCard:
      return DownloadStatus::kErrorOne;
    case DropboxSynchronizer::kSyncRestricted:
      return DownloadStatus::kErrorEight;
    default:
      return DownloadStatus::kErrorSeven;
  }
}

// Splits `path` at its last "/": the part before it and the part after it.
void SplitAtLastSlash(const std::string& path, std::string* parent, std::string* leaf,
                      bool leaf_keeps_slash) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    parent->clear();
    *leaf = path;
    return;
  }
  *parent = path.substr(0, slash);
  *leaf = path.substr(leaf_keeps_slash ? slash : slash + 1);
}

// What Cleanup and CleanupOnErr go by: the target and the size.
utilities::FileToSync FileToSyncOf(const std::string& local_path, uint64_t size) {
  utilities::FileToSync file;
  file.local_path = local_path;
  file.size = static_cast<int>(static_cast<uint32_t>(size));
  return file;
}

}  // namespace

std::vector<std::string> DropboxSynchronizer::FoldersOfParent(const std::string& parent) {
  std::vector<std::string> folders;
  if (parent.empty()) {
    folders.push_back("");  // the root, which every tree has
  } else {
    (void)fm_manager_.GetFolderByPathIgnoreCase(parent, &folders);
  }
  return folders;
}

bool CanProceedOnError(int code) {
  return code == DropboxProtocol::kSuccess || code == DropboxProtocol::kRestrictedContent;
}

std::string EscapeForShell(const std::string& text) {
  static const char kSpecial[] = " !#$%&()@^`{}~'+,;=[]?<:>|\"";
  std::string out;
  out.reserve(text.size() * 2);
  for (char c : text) {
    if (c != '\0' && std::strchr(kSpecial, c) != nullptr) out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

DropboxSynchronizer::DropboxSynchronizer(SynchronizerCallback* callback)
    : thread_(0),
      is_syncing_(false),
      downloader_state_(0),
      ahead_state_(0),
      slots_{{&downloader_, &downloader_state_, "", "", 0, nullptr},
             {&ahead_downloader_, &ahead_state_, "", "", 0, nullptr}},
      ahead_(nullptr),
      waited_(&downloader_),
      entry_(nullptr),
      next_entry_(nullptr),
      callback_(callback),
      sync_error_(0),
      changed_(false),
      files_done_(0),
      files_total_(0),
      cond_inited_(false),
      keep_alive_threads_(0) {
  pthread_mutex_init(&status_mutex_, nullptr);
  if (pthread_cond_init(&status_cond_, nullptr) != 0) {
    // Without a condition there is no download wait; construction goes on.
    pthread_mutex_destroy(&status_mutex_);
  } else {
    cond_inited_ = true;
  }
  downloader_.Init(this);
  uploader_.callback_ = this;
  downloader_.resume_partial_ = true;
  ahead_downloader_.Init(this);
  ahead_downloader_.resume_partial_ = true;
  is_syncing_ = false;
  this_ = this;
  thread_ = 0;
  (void)shared_state_.Init(kSharedStateName, 4);
  SetRunState(kRunIdle);
}

DropboxSynchronizer::~DropboxSynchronizer() {
  // A run that ends before StartSync has stored its flag leaves is_syncing_
  // set, and the keep-alive thread would ping on for ever. Nothing can run on
  // an object that is being destroyed, so end the pings and wait for the last.
  if (keep_alive_threads_.load() > 0) {
    is_syncing_ = false;
    while (keep_alive_threads_.load() > 0) usleep(10000);
  }
  if (cond_inited_) {
    pthread_cond_destroy(&status_cond_);
    pthread_mutex_destroy(&status_mutex_);
  }
  this_ = nullptr;
}

void DropboxSynchronizer::SetRunState(int state) {
  void* payload = shared_state_.GetState();
  if (payload == nullptr) return;
  // A plain aligned 32-bit store; readers in other processes take the lock.
  __atomic_store_n(static_cast<int32_t*>(payload), static_cast<int32_t>(state), __ATOMIC_SEQ_CST);
}

int DropboxSynchronizer::StartSync(const std::string& sync_folder) {
  download_status_.Init(utilities::ServicesDownloadStatus::dropbox_name, getpid());
  if (is_syncing_) return 0;
  sync_folder_ = sync_folder;
  sync_error_ = 0;
  int err = pthread_create(&thread_, nullptr, sync_thread, nullptr);
  is_syncing_ = (err == 0);
  if (err != 0) return err;

  pthread_t keep_alive;
  ++keep_alive_threads_;
  if (pthread_create(&keep_alive, nullptr, keep_alive_thread, this) == 0) {
    pthread_detach(keep_alive);
  } else {
    --keep_alive_threads_;
  }
  return 0;
}

void* DropboxSynchronizer::keep_alive_thread(void* arg) {
  DropboxSynchronizer* self = static_cast<DropboxSynchronizer*>(arg);
  while (self->is_syncing_) {
    StartPanelProgress(1, 1200);
    usleep(1000000);
  }
  --self->keep_alive_threads_;
  return nullptr;
}

int DropboxSynchronizer::StopSync() {
  if (is_syncing_ && thread_ != 0) {
    is_syncing_ = false;
    pthread_join(thread_, nullptr);
  }
  thread_ = 0;
  return 0;
}

int DropboxSynchronizer::ResetDirectory() {
  std::string command = "rm -rf " + EscapeForShell(sync_folder_);
  (void)system(command.c_str());
  (void)te_buildpath((sync_folder_ + "/").c_str());
  return 0;
}

void* DropboxSynchronizer::sync_thread(void*) {
  DropboxSynchronizer* self = this_;
  self->SetRunState(kRunActive);
  int result = self->Synchronize();
  self->SetRunState(kRunIdle);
  if (self->callback_ == nullptr) return nullptr;
  self->ConvertError(result);
  if (self->sync_error_ != kSyncOk) {
    self->download_status_.SetErrorStatus(ErrorForSyncError(self->sync_error_), "");
  }
  self->callback_->OnSyncFinished(self->sync_error_, self->changed_);
  return nullptr;
}

int DropboxSynchronizer::Synchronize() {
  int err = DropboxProtocol::kSuccess;
  // Every way out closes the store and publishes the idle phase; an exception
  // does the same on its way through.
  auto finish = [this]() {
    is_syncing_ = false;
    fm_manager_.Close();
    download_status_.SetProgressStatus(DownloadStatus::kIdle);
  };
  try {
    const std::string sd_card = DevicePath("/mnt/ext2");
    if (sync_folder_.compare(0, sd_card.size(), sd_card) == 0 && !IsSDinserted()) {
      QS_LOG_CONDITION("isOnSdCard(sync_folder_) && !IsSDinserted()",
                       "DropboxProtocol::kNeedSDCard");
      finish();
      return DropboxProtocol::kNeedSDCard;
    }
    if (!fm_manager_.is_inited_) (void)fm_manager_.Init(sync_folder_ + kDatabaseSuffix);
    protocol_.loadAccessToken();

    if ((err = checkAccountInfo()) != 0) {
      QS_LOG_ERR(err);
    } else {
      download_status_.ResetProgress();
      if ((err = uploadLocalChanges()) != 0) {
        QS_LOG_ERR(err);
      } else if ((err = processChangesFromServer()) != 0) {
        // Restricted content ends the run here as well.
        QS_LOG_ERR(err);
      } else {
        (void)fm_manager_.UpdateFoldersStatusAfterSync();
        if ((err = processFailedFiles()) != 0) {
          QS_LOG_ERR(err);
        } else {
          updateStatistics();
          // Items left out or refused: the run did not sync all there is.
          if ((TakeServerPathRefusals() | scanner_.skipped_) != 0) err = DropboxProtocol::kFail;
        }
      }
    }
  } catch (...) {
    finish();
    throw;
  }
  finish();
  return err;
}

int DropboxSynchronizer::checkAccountInfo() {
  // Without an answer the check is skipped: the first request of the run meets
  // the same failure and reports it.
  if (protocol_.receiveAccountInfo() != DropboxProtocol::kSuccess) return 0;
  std::string id = protocol_.account_id_;
  std::string stored;
  int r = fm_manager_.GetParam("account_id", &stored);
  if (r == 0) {
    if (stored == id) return 0;
    fm_manager_.Close();
    QS_LOG(kLogError, "Wrong User");
    return DropboxProtocol::kWrongUser;
  }
  if (r == QS_NOT_FOUND) {
    (void)fm_manager_.SetParam("account_id", id);
    return 0;
  }
  // The store cannot be read: rebuild it empty; every local file then counts
  // as new.
  const std::string db_path = sync_folder_ + kDatabaseSuffix;
  fm_manager_.Close();
  (void)unlink(db_path.c_str());
  (void)fm_manager_.Init(db_path);
  (void)fm_manager_.SetParam("account_id", id);
  return 0;
}

void DropboxSynchronizer::ConvertError(int code) {
  switch (code) {
    case DropboxProtocol::kSuccess:
      sync_error_ = kSyncOk;
      break;
    case DropboxProtocol::kStopped:
      sync_error_ = kSyncStopped;
      break;
    case DropboxProtocol::kErrNoNetwork:
      sync_error_ = kSyncNoNetwork;
      break;
    case DropboxProtocol::kErrStorage:
      sync_error_ = kSyncDownloadFailed;
      break;
    case DropboxProtocol::kNotAuthorized:
      sync_error_ = kSyncUnauthorized;
      break;
    case DropboxProtocol::kWrongUser:
      sync_error_ = kSyncWrongUser;
      break;
    case DropboxProtocol::kNeedSDCard:
      sync_error_ = kSyncNeedSdCard;
      break;
    case DropboxProtocol::kRestrictedContent:
      sync_error_ = kSyncRestricted;
      break;
    case DropboxProtocol::kFail:
      sync_error_ = kSyncFailed;
      break;
    default:
      sync_error_ = kSyncFailed;
      QS_LOG(kLogNotice, "Unknown sync error = %d", code);
      break;
  }
}

void DropboxSynchronizer::updateStatistics() {
  int size = StatUtils_StatListSize();
  QS_LOG(kLogInfo, "m_newBookStatList size [%d]", size);
  if (size == 0) return;
  fprintf(stderr, "Stat_NewBooksEventEx(%d)\n", size);
  Stat_NewBooksEventEx(StatUtils_StatListSize(), StatUtils_GetStatList(), kStatisticsSource);
  StatUtils_FreeStatList();
}

// ---------------------------------------------------------------------------
// Local changes

namespace {

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

int DropboxSynchronizer::uploadLocalChanges() {
  download_status_.SetProgressStatus(DownloadStatus::kUploadLocalChanges);
  QS_LOG(kLogInfo, "Start scan");
  scanner_.fm_manager_ = &fm_manager_;
  scanner_.sync_callback_ = this;
  file_deltas_.clear();
  int err = scanner_.Scan(sync_folder_);
  if (err != 0) {
    QS_LOG(kLogError, "err:[%d] Scanner failed", err);
    return err;
  }
  // The whole tree is known before the first upload, so the total is too.
  files_total_ = 0;
  for (const auto& entry : file_deltas_) {
    files_total_ += static_cast<int>(entry.second.added.size() + entry.second.modified.size());
  }
  files_done_ = 0;
  download_status_.SetTotalProgressStatus(files_total_, 0, 0, 0);
  QS_LOG(kLogInfo, "Sync scanned files");
  NotifyFileBrowser();

  for (auto& entry : file_deltas_) {
    err = SyncFilesFinal(entry.first, entry.second);
    if (err != 0) {
      QS_LOG(kLogError, "err:[%d] SyncFilesFinal failed", err);
      return err;
    }
  }
  file_deltas_.clear();
  return DropboxProtocol::kSuccess;
}

int DropboxSynchronizer::SyncFiles(const std::string& dir, FileSystemFileDelta& delta) {
  file_deltas_[dir] = delta;
  return 0;
}

int DropboxSynchronizer::SyncFilesFinal(const std::string& dir, FileSystemFileDelta& delta) {
  int err = DropboxProtocol::kSuccess;

  // Deletions. A row in the failed state is a file that never arrived, or
  // whose deletion the service has refused before: its absence says nothing.
  if (!delta.deleted.empty()) {
    std::vector<std::string> removed;
    for (const FileInfo& d : delta.deleted) {
      if (d.status == FileMetadataManager::kStatusFailed) continue;
      const std::string path = dir + d.name;
      err = protocol_.DeleteFileFolder(path);
      if (err == DropboxProtocol::kSuccess) {
        removed.push_back(path);
      } else if (err == DropboxProtocol::kNotFound) {
        QS_LOG(kLogInfo, "%s - not found on server", path.c_str());
        removed.push_back(path);
        err = DropboxProtocol::kSuccess;
      } else if (err == DropboxProtocol::kTooManyRequests) {
        QS_LOG(kLogInfo, "%s - too many files in operation", path.c_str());
        (void)fm_manager_.SetFileStatus(path, FileMetadataManager::kStatusFailed,
                                        FileMetadataManager::kErrorTooManyFiles);
        err = DropboxProtocol::kSuccess;
      } else {
        break;
      }
    }
    (void)fm_manager_.RemoveFiles(removed);
    if (err != 0) return err;
  }

  // Additions. Rows are written once for the folder, also after a failure,
  // so that what went up keeps its row.
  if (!delta.added.empty()) {
    OwnedRecords rows;
    for (FileInfo& added : delta.added) {
      std::vector<FileInfo> known;
      (void)fm_manager_.GetFileByPathIgnoreCase(dir + added.name, &known);
      if (!known.empty()) {
        // A row of this very name under a folder that differs in case.
        if (known[0].name == added.name) continue;
        // The store knows the file in another case: move the new one aside.
        const std::string new_name = CaseConflictFileName(sync_folder_ + dir, added.name);
        if (te_rename((sync_folder_ + dir + added.name).c_str(),
                      (sync_folder_ + dir + new_name).c_str()) == 0) {
          added.name = new_name;
        }
      }
      err = UploadFileAndRecord(dir + added.name, &rows.items);
      if (err != 0) break;
    }
    (void)fm_manager_.AddFiles(rows.items);
    if (err != 0) return err;
  }

  // Changes.
  if (!delta.modified.empty()) {
    OwnedRecords rows;
    for (const FileInfo& m : delta.modified) {
      err = UploadFileAndRecord(dir + m.name, &rows.items);
      if (err != 0) break;
    }
    (void)fm_manager_.UpdateFiles(rows.items);
  }
  return err;
}

int DropboxSynchronizer::UploadFileAndRecord(const std::string& path,
                                             std::vector<FileMetadata*>* rows) {
  FileMetadata* metadata = nullptr;
  int err = UploadFile(path, &metadata);
  if (err != 0) {
    delete metadata;
    return err;
  }
  if (metadata == nullptr) return 0;
  ++files_done_;
  download_status_.SetTotalProgressStatus(files_total_, files_done_, 0, 0);
  // The digest is taken again: the file may have changed while it went up.
  metadata->md5 = utilities::ArbourUtilities::QuickMD5(sync_folder_ + path);
  metadata->path = path;
  rows->push_back(metadata);
  return 0;
}

int DropboxSynchronizer::SyncDirs(FileSystemDirDelta& delta, std::vector<std::string>* local_dirs) {
  int err = DropboxProtocol::kSuccess;

  // Deletions. A folder too large to delete at once is walked after all:
  // it reads as empty, so its files are deleted one by one at the end.
  if (!delta.deleted.empty()) {
    std::vector<std::string> removed;
    for (const std::string& path : delta.deleted) {
      err = protocol_.DeleteFileFolder(path);
      if (err == DropboxProtocol::kSuccess) {
        removed.push_back(path);
      } else if (err == DropboxProtocol::kNotFound) {
        QS_LOG(kLogInfo, "%s - not found on server", path.c_str());
        removed.push_back(path);
        err = DropboxProtocol::kSuccess;
      } else if (err == DropboxProtocol::kTooManyRequests) {
        QS_LOG(kLogInfo, "%s - too many files in operation", path.c_str());
        (void)fm_manager_.SetFolderStatus(path, FileMetadataManager::kStatusFailed,
                                          FileMetadataManager::kErrorTooManyFiles);
        local_dirs->push_back(path);
        err = DropboxProtocol::kSuccess;
      } else {
        break;
      }
    }
    (void)fm_manager_.RemoveFolders(removed);
    if (err != 0) return err;
  }

  if (delta.added.empty()) return 0;
  std::vector<std::string> created;
  bool unauthorized = false;
  for (size_t i = 0; i < delta.added.size() && !unauthorized; ++i) {
    std::string& path = delta.added[i];
    std::vector<std::string> known;
    (void)fm_manager_.GetFolderByPathIgnoreCase(path, &known);
    if (!known.empty() && known[0] == path) continue;
    int r = 0;
    bool moved_away_failed = false;
    if (!known.empty()) {
      // The store knows the folder in another case: move the new one aside,
      // and let the walk enter it under its new name.
      auto local = std::find(local_dirs->begin(), local_dirs->end(), path);
      if (local != local_dirs->end()) {
        const std::string new_path = CaseConflictFolderPath(sync_folder_, path);
        r = te_rename((sync_folder_ + path).c_str(), (sync_folder_ + new_path).c_str());
        if (r == 0) {
          path = new_path;
          *local = path;
        } else {
          moved_away_failed = true;
        }
      }
    }
    if (!moved_away_failed) r = protocol_.CreateFolder(path);
    if (r == DropboxProtocol::kSuccess) {
      created.push_back(path);
    } else if (r == DropboxProtocol::kConflict) {
      QS_LOG(kLogInfo, "%s - There is already a folder at the given destination.", path.c_str());
    } else if (r == DropboxProtocol::kNotAuthorized) {
      unauthorized = true;
    }
  }
  (void)fm_manager_.AddFolders(created);
  return unauthorized ? DropboxProtocol::kNotAuthorized : DropboxProtocol::kSuccess;
}

void DropboxSynchronizer::NotifyFileBrowser() {
  int task = FindTaskByAppName(DevicePath(kExplorerApp).c_str());
  if (task != -1) (void)SendEventTo(task, kEventFolderChanged, 0, 0);
}

// ---------------------------------------------------------------------------
// Server changes

int DropboxSynchronizer::processChangesFromServer() {
  QS_LOG(kLogInfo, "Get cursor");
  // Every page is asked for with the cursor of the start of the pass: a
  // listing of several pages repeats the first until a stop or an error, and
  // each run gains one page. The entries it repeats find their rows and cost
  // no transfer.
  const std::string cursor = fm_manager_.GetCursor();
  changed_ = false;
  download_status_.SetProgressStatus(DownloadStatus::kServerChanges);
  StatUtils_FreeStatList();
  int err = DropboxProtocol::kSuccess;
  int deferred = DropboxProtocol::kSuccess;
  int files_done = 0;
  std::vector<DownloadStatus::File> file_list;
  std::vector<std::string> removed_files;
  std::vector<std::string> removed_folders;
  std::vector<std::string> added_folders;

  for (;;) {
    if (!CanProceedOnError(err)) return err;
    err = protocol_.ReceiveDelta(cursor);
    if (err != DropboxProtocol::kSuccess) return err;
    QS_LOG(kLogInfo, "Process Delta");

    removed_files.clear();
    removed_folders.clear();
    added_folders.clear();
    std::vector<FileMetadata*> entries = protocol_.entries_;
    // Grown to the page at once rather than by doubling, which would leave
    // up to half of a large list's room unused for the rest of the run.
    const size_t listed = file_list.size() + entries.size();
    if (listed > file_list.capacity())
      file_list.reserve(std::max(listed, 2 * file_list.capacity()));
    for (FileMetadata* entry : entries) {
      if (entry != nullptr && !entry->is_deleted && !entry->is_folder) {
        file_list.emplace_back(entry->id, entry->name, 0);
      }
    }
    download_status_.SetFileList(file_list);
    download_status_.SetTotalProgressStatus(static_cast<int>(file_list.size()), files_done, 0, 0);

    bool stopped = false;
    if (entries.empty()) {
      err = DropboxProtocol::kSuccess;
    } else {
      for (size_t k = 0; k < entries.size(); ++k) {
        FileMetadata* entry = entries[k];
        if (!is_syncing_) {
          err = DropboxProtocol::kStopped;
          stopped = true;
          break;
        }
        if (!CanProceedOnError(err)) break;
        if (entry == nullptr) continue;
        entry_ = entry;
        next_entry_ = k + 1 < entries.size() ? entries[k + 1] : nullptr;
        QS_LOG(kLogInfo, "Process %s", entry->path_lower.c_str());
        if (!IsSafeServerEntry(*entry)) {
          err = DropboxProtocol::kFail;  // the page ends here, and no cursor passes it
          break;
        }
        entry->path = PathLowerToPath(entry);

        if (entry->is_deleted) {
          std::vector<std::string> folders;
          (void)fm_manager_.GetFolderByPathIgnoreCase(entry->path_lower, &folders);
          if (!folders.empty()) {
            QS_LOG(kLogNotice, "RemoveDirectory path = %s", entry->path.c_str());
            changed_ = true;
            entry->path = folders[0];
            (void)RemoveDirectory(entry);
            removed_folders.push_back(entry->path);
          }
          if (RemoveFile(entry) != 0) {
            QS_LOG(kLogNotice, "RemoveFile path = %s", entry->path.c_str());
            changed_ = true;
          }
          removed_files.push_back(entry->path);
          NotifyFileBrowser();
        } else if (entry->is_folder) {
          QS_LOG(kLogNotice, "CreaterDirectory path = %s", entry->path.c_str());
          if (CreateDirectory(entry) != 0) {
            changed_ = true;
            // Written at once, so the files that follow find their parent.
            added_folders.push_back(entry->path);
            (void)fm_manager_.AddFolders(added_folders);
            added_folders.clear();
          }
        } else {
          DownloadStatus::File file(entry->id, entry->path, 0);
          download_status_.SetCurrentProgressStatus(file);
          bool is_new = false;
          int r = AddOrModifyFile(entry, &is_new, &err);
          if (r != 0) {
            changed_ = true;
            if (is_new) {
              (void)fm_manager_.AddFile(entry);
              StatUtils_AddNewBookToStatList((sync_folder_ + entry->path).c_str());
            } else {
              (void)fm_manager_.UpdateFile(entry);
            }
            DownloadStatus::File done = download_status_.current_file_;
            done.progress = 100;
            download_status_.SetCurrentProgressStatus(done);
            ++files_done;
            download_status_.SetTotalProgressStatus(static_cast<int>(file_list.size()), files_done,
                                                    0, 0);
          }
          if (err != DropboxProtocol::kSuccess) {
            if (err == DropboxProtocol::kRestrictedContent) {
              // The row waits in the failed state: not retried by this pass,
              // and not taken for a local deletion by the next pass 1.
              (void)fm_manager_.AddFile(entry);
              (void)fm_manager_.SetFileStatus(entry->path, FileMetadataManager::kStatusFailed,
                                              FileMetadataManager::kErrorRestrictedContent);
            }
            deferred = err;
          }
        }
        // A look-ahead that its own entry did not take.
        if (ahead_ != nullptr && ahead_->entry == entry) DropLookAhead();
      }
      DropLookAhead();
      entry_ = nullptr;
      next_entry_ = nullptr;
    }

    if (!stopped && CanProceedOnError(err)) (void)fm_manager_.SetCursor(protocol_.cursor_);
    (void)fm_manager_.RemoveFiles(removed_files);
    (void)fm_manager_.RemoveFolders(removed_folders);

    if (CanProceedOnError(err) && !protocol_.has_more_) {
      if (err == DropboxProtocol::kSuccess) err = deferred;
      return err;
    }
  }
}

std::string DropboxSynchronizer::PathLowerToPath(FileMetadata* entry) {
  // Looked up by the last element, which never matches a stored folder path;
  // the display path is what comes out, and the parent lookups of the
  // handlers put it into the local case.
  std::string base = GetBaseName(entry->path_lower);
  std::vector<std::string> folders;
  (void)fm_manager_.GetFolderByPathIgnoreCase(base, &folders);
  if (!folders.empty()) return folders[0] + "/" + entry->name;
  return entry->path_display;
}

int DropboxSynchronizer::RemoveDirectory(FileMetadata* entry) {
  if (entry->path.empty()) return 1;  // never the sync folder itself
  if (!IsSafeServerPath(sync_folder_, entry->path, PathUse::kRemoveTree)) return 0;
  std::string command = "rm -rf " + EscapeForShell(sync_folder_) + EscapeForShell(entry->path);
  (void)system(command.c_str());
  return 0;
}

int DropboxSynchronizer::RemoveFile(FileMetadata* entry) {
  std::string parent, leaf;
  SplitAtLastSlash(entry->path, &parent, &leaf, false);
  std::vector<std::string> folders = FoldersOfParent(parent);
  if (folders.empty()) return 0;
  entry->path = folders[0] + "/" + leaf;
  std::vector<FileInfo> files;
  (void)fm_manager_.GetFileByPathIgnoreCase(entry->path, &files);
  if (files.empty()) return 0;
  entry->path = folders[0] + "/" + files[0].name;
  if (!IsSafeServerPath(sync_folder_, entry->path, PathUse::kWrite)) return 0;
  return unlink((sync_folder_ + entry->path).c_str()) == 0 ? 1 : 0;
}

int DropboxSynchronizer::CreateDirectory(FileMetadata* entry) {
  std::vector<std::string> folders;
  (void)fm_manager_.GetFolderByPathIgnoreCase(entry->path, &folders);
  if (!folders.empty()) return 0;  // known, under any case
  std::string parent, leaf;
  SplitAtLastSlash(entry->path, &parent, &leaf, true);
  folders = FoldersOfParent(parent);
  if (folders.empty()) {
    QS_LOG(kLogError, "path = %s\nsrc_path = %s", entry->path.c_str(), entry->path.c_str());
    return 0;
  }
  entry->path = folders[0] + leaf;
  if (!IsSafeServerPath(sync_folder_, entry->path, PathUse::kWrite)) return 0;
  (void)te_buildpath((sync_folder_ + entry->path + "/").c_str());
  return 1;
}

// ---------------------------------------------------------------------------
// Download

DropboxSynchronizer::FilePlan DropboxSynchronizer::PlanFile(const FileMetadata& file) {
  FilePlan plan;
  std::string parent, leaf;
  SplitAtLastSlash(file.path, &parent, &leaf, false);
  std::vector<std::string> folders = FoldersOfParent(parent);
  if (folders.empty()) return plan;  // the parent is unknown locally
  plan.folder = folders[0];
  plan.path = plan.folder + "/" + leaf;

  std::vector<FileInfo> files;
  (void)fm_manager_.GetFileByPathIgnoreCase(plan.path, &files);
  if (files.empty()) {
    plan.kind = FilePlan::kFetch;
    return plan;
  }
  plan.found = true;
  // The local case of the file name wins.
  plan.path = plan.folder + "/" + files[0].name;
  plan.row = fm_manager_.GetFile(plan.path, &plan.info);
  if (plan.row == 0 && plan.info.rev == file.rev) {
    plan.kind = FilePlan::kUnchanged;
  } else if (plan.row != 0 && plan.row != QS_NOT_FOUND) {
    plan.kind = FilePlan::kStoreError;
  } else {
    plan.kind = FilePlan::kFetch;
  }
  return plan;
}

int DropboxSynchronizer::AddOrModifyFile(FileMetadata* file, bool* is_new, int* err) {
  FilePlan plan = PlanFile(*file);
  if (plan.kind == FilePlan::kNoParent) return 0;
  file->path = plan.path;
  if (!plan.found) {
    *err = DownloadFile(file);
    if (*err == DropboxProtocol::kSuccess) {
      *is_new = true;
      return 1;
    }
    return 0;
  }
  if (plan.kind == FilePlan::kUnchanged) {
    file->md5 = plan.info.md5;
    DownloadStatus::File current(file->id, file->path, 0);
    current.progress = 100;
    current.path = file->path;
    download_status_.SetCurrentProgressStatus(current);
    return 1;
  }
  if (plan.kind == FilePlan::kStoreError) return plan.row;

  QS_LOG(kLogNotice, "DownloadFile path = %s", file->path.c_str());
  *err = DownloadFile(file);
  if (*err == DropboxProtocol::kSuccess) {
    *is_new = (plan.row == QS_NOT_FOUND);
    return 1;
  }
  // 0, or -8 when the row was found only without regard to case: the caller
  // takes the latter for success and records the file.
  return plan.row;
}

int DropboxSynchronizer::DownloadFile(FileMetadata* file) {
  int code;
  std::string name;
  std::tie(code, name) = DownloadFile(file->id, file->path_lower, file->path, file->size);
  if (code == DropboxProtocol::kSuccess) file->md5 = utilities::ArbourUtilities::QuickMD5(name);
  return code;
}

std::tuple<int, std::string> DropboxSynchronizer::DownloadFile(const std::string& id,
                                                               const std::string& server_path,
                                                               const std::string& local_path,
                                                               uint64_t size) {
  if (!IsSafeServerPath(sync_folder_, local_path, PathUse::kWrite)) {
    return std::make_tuple(static_cast<int>(DropboxProtocol::kFail), std::string());
  }
  DownloadStatus::File file(id, local_path, 0);
  auto update = getStatusUpdater(file);
  auto on_status = [&update](const Downloader::StatusInfo& status) { update(status, "", 0); };
  int code;
  std::string name;
  std::tie(code, name) = DownloadFileInt(server_path, local_path, size, on_status);
  for (int attempt = 0; attempt < 2 && code == DropboxProtocol::kErrNoNetwork; ++attempt) {
    if (NetConnect(nullptr) != 0) break;
    auto retry_status = [&update](const Downloader::StatusInfo& status) { update(status, "", 0); };
    std::tie(code, name) = DownloadFileInt(server_path, local_path, size, retry_status);
  }
  std::string full = sync_folder_ + name;
  if (code == DropboxProtocol::kSuccess) NotifyFileBrowser();
  update(waited_->GetStatus(), full, code);
  return std::make_tuple(code, name);
}

std::tuple<int, std::string> DropboxSynchronizer::DownloadFileInt(
    const std::string& server_path, const std::string& local_path, uint64_t size,
    std::function<void(const Downloader::StatusInfo&)> on_status) {
  DownloadSlot* slot = TakeLookAhead(server_path, local_path, size);
  if (slot == nullptr) {
    slot = &slots_[ahead_ == &slots_[0] ? 1 : 0];
    StartTransfer(slot, server_path, local_path, size);
  }
  LookAhead(*slot);
  Downloader& downloader = *slot->downloader;
  waited_ = &downloader;
  const int& state = *slot->state;
  const utilities::FileToSync file = FileToSyncOf(local_path, size);

  pthread_mutex_lock(&status_mutex_);
  while (state == Downloader::kStateInProgress || state == Downloader::kStateFour) {
    if (!is_syncing_) downloader.Abort(nullptr);
    on_status(downloader.GetStatus());
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct timespec deadline;
    long long nsec = static_cast<long long>(now.tv_usec) * 1000 + 500LL * 1000 * 1000;
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(nsec / 1000000000LL);
    deadline.tv_nsec = static_cast<long>(nsec % 1000000000LL);
    pthread_cond_timedwait(&status_cond_, &status_mutex_, &deadline);
    PostponeTimedPoweroff();
  }
  Downloader::StatusInfo status = downloader.GetStatus();
  std::vector<char> body;
  if (status.response_code == 409) body = downloader.getErrorBody(file);
  body.push_back('\0');

  int code;
  if (state == Downloader::kStateAborted) {
    code = DropboxProtocol::kStopped;
  } else {
    QS_LOG(kLogInfo, "statusToError status.error = %d", status.error);
    switch (status.error) {
      case Downloader::kErrorNone:
        code = DropboxProtocol::kSuccess;
        break;
      case Downloader::kErrorNetwork:
        code = DropboxProtocol::kErrNoNetwork;
        break;
      case Downloader::kErrorHttp:
        code = protocol_.processResponseCode(status.response_code, body);
        break;
      case Downloader::kErrorStorage:
        code = DropboxProtocol::kErrStorage;
        break;
      default:
        code = DropboxProtocol::kErrServer;
        break;
    }
  }
  QS_LOG(kLogInfo, "response_code = %d, err code = %d, error_data = %s", status.response_code, code,
         body.data());

  if (state == Downloader::kStateDone) {
    downloader.Cleanup(file);
    // Data that could not be put in place is no download, whatever the
    // transfer said: the file must not be recorded as synced.
    if (code == DropboxProtocol::kSuccess &&
        downloader.GetStatus().state != Downloader::kStateDone) {
      code = DropboxProtocol::kErrStorage;
    }
  } else if (code != DropboxProtocol::kErrNoNetwork) {
    downloader.CleanupOnErr(file);
  }
  // After a lost connection the partial data stays for the retry.
  std::tuple<int, std::string> result(code, downloader.last_file_);
  pthread_mutex_unlock(&status_mutex_);
  return result;
}

void DropboxSynchronizer::StartTransfer(DownloadSlot* slot, const std::string& server_path,
                                        const std::string& local_path, uint64_t size) {
  std::map<std::string, std::string> headers;
  std::string url = protocol_.GetDownloadUrlAndHeaders(server_path, &headers);
  QS_LOG(kLogNotice, "url = %s", url.c_str());
  utilities::FileToSync file = FileToSyncOf(local_path, size);
  file.url = url;
  slot->server_path = server_path;
  slot->local_path = local_path;
  slot->size = size;
  // The other slot's thread may be telling of its own transfer meanwhile.
  pthread_mutex_lock(&status_mutex_);
  *slot->state = Downloader::kStateInProgress;
  pthread_mutex_unlock(&status_mutex_);
  Downloader& downloader = *slot->downloader;
  downloader.ClearHeaders();
  for (const auto& header : headers) downloader.AddHeader(header.first, header.second);
  // The slot comes back to NotifyDownloaderStatus; the first one as nothing.
  (void)downloader.Start(file, sync_folder_, slot == &slots_[0] ? nullptr : slot);
}

DropboxSynchronizer::DownloadSlot* DropboxSynchronizer::TakeLookAhead(
    const std::string& server_path, const std::string& local_path, uint64_t size) {
  DownloadSlot* slot = ahead_;
  if (slot == nullptr) return nullptr;
  if (slot->server_path != server_path || slot->local_path != local_path || slot->size != size) {
    return nullptr;  // another file, or a plan that changed: dropped after the entry
  }
  ahead_ = nullptr;
  return slot;
}

void DropboxSynchronizer::LookAhead(const DownloadSlot& current) {
  const FileMetadata* next = next_entry_;
  next_entry_ = nullptr;  // one look per entry, also when a retry comes back here
  if (next == nullptr || entry_ == nullptr || ahead_ != nullptr || next->is_deleted ||
      next->is_folder) {
    return;
  }
  if (!IsSafeServerEntry(*next)) return;  // refused when its turn comes
  FileMetadata probe = *next;
  probe.path = PathLowerToPath(&probe);
  FilePlan plan = PlanFile(probe);
  if (plan.kind != FilePlan::kFetch) return;
  if (!IsSafeServerPath(sync_folder_, plan.path, PathUse::kWrite)) return;
  // The current file's row, once written, must not be one that the next
  // entry's lookups could find: same folder and a name equal without case.
  std::string folder, leaf;
  SplitAtLastSlash(current.local_path, &folder, &leaf, false);
  if (StringUtils::ToLower(folder) == StringUtils::ToLower(plan.folder)) {
    const std::string lower = StringUtils::ToLower(plan.path.substr(plan.folder.size() + 1));
    if (lower == StringUtils::ToLower(leaf) || lower == StringUtils::ToLower(entry_->name)) {
      return;
    }
  }
  ahead_ = &slots_[&current == &slots_[0] ? 1 : 0];
  ahead_->entry = next;
  StartTransfer(ahead_, next->path_lower, plan.path, next->size);
}

void DropboxSynchronizer::DropLookAhead() {
  DownloadSlot* slot = ahead_;
  ahead_ = nullptr;
  if (slot == nullptr) return;
  slot->downloader->Abort(nullptr);
  pthread_mutex_lock(&status_mutex_);
  while (*slot->state == Downloader::kStateInProgress || *slot->state == Downloader::kStateFour) {
    pthread_cond_wait(&status_cond_, &status_mutex_);
  }
  pthread_mutex_unlock(&status_mutex_);
  slot->downloader->CleanupOnErr(FileToSyncOf(slot->local_path, slot->size));
}

std::function<void(const Downloader::StatusInfo&, const std::string&, int)>
DropboxSynchronizer::getStatusUpdater(DownloadStatus::File file) {
  return [this, file](const Downloader::StatusInfo& status, const std::string& path,
                      int code) mutable {
    file.progress = status.total_bytes < 1
                        ? 0
                        : static_cast<int>(static_cast<int64_t>(status.downloaded_bytes) * 100 /
                                           status.total_bytes);
    if (code != 0) file.status = 7;
    file.downloaded_bytes = status.downloaded_bytes;
    file.size = status.total_bytes;
    if (!path.empty()) file.path = path;
    QS_LOG(kLogInfo, "Set progress status for [%s] = [%d], size = [%d], downloaded_bytes = [%d]",
           file.path.c_str(), file.progress, status.total_bytes, status.downloaded_bytes);
    download_status_.SetCurrentProgressStatus(file);
  };
}

void DropboxSynchronizer::NotifyDownloaderStatus(void* user) {
  DownloadSlot* slot = user == nullptr ? &slots_[0] : static_cast<DownloadSlot*>(user);
  pthread_mutex_lock(&status_mutex_);
  if (*slot->state == Downloader::kStateInProgress) {
    Downloader::StatusInfo status = slot->downloader->GetStatus();
    if (status.state == Downloader::kStateDone || status.state == Downloader::kStateFailed ||
        status.state == Downloader::kStateAborted) {
      *slot->state = status.state;
    }
    pthread_cond_signal(&status_cond_);
  }
  pthread_mutex_unlock(&status_mutex_);
}

// ---------------------------------------------------------------------------
// Failed files

int DropboxSynchronizer::processFailedFiles() {
  std::vector<FileMetadataManager::FailedFileInfo> failed = fm_manager_.getFailedFiles();
  std::vector<DownloadStatus::File> list = download_status_.GetFileList();
  for (const auto& info : failed) list.emplace_back(info.path, info.path, 0);
  download_status_.SetFileList(list);
  if (failed.empty()) return 0;

  int result = DropboxProtocol::kSuccess;
  // Counts from the number of failed files, so the figure can pass the list's
  // size; the panel only shows it.
  int files_done = static_cast<int>(failed.size());
  for (const auto& info : failed) {
    int code = std::get<0>(
        DownloadFile(info.path, info.path_lc, info.path, static_cast<uint64_t>(info.size)));
    if (code == DropboxProtocol::kRestrictedContent) {
      result = code;
      continue;
    }
    if (code == DropboxProtocol::kNotFound) {
      QS_LOG(kLogInfo, "Removing previously failed file as it is no found on server %s",
             info.path.c_str());
      (void)fm_manager_.RemoveFile(info.path);
      continue;
    }
    if (code != DropboxProtocol::kSuccess) {
      result = code;
      break;
    }
    changed_ = true;
    (void)fm_manager_.SetFileStatus(info.path, FileMetadataManager::kStatusSynced,
                                    FileMetadataManager::kErrorNone);
    StatUtils_AddNewBookToStatList((sync_folder_ + info.path).c_str());
    DownloadStatus::File done = download_status_.current_file_;
    done.progress = 100;
    download_status_.SetCurrentProgressStatus(done);
    ++files_done;
    download_status_.SetTotalProgressStatus(static_cast<int>(list.size()), files_done, 0, 0);
  }
  return result;
}

// ---------------------------------------------------------------------------
// File upload

namespace {

const off_t kLargestSingleUpload = 0x800000;  // a file of exactly this size still goes whole
const off_t kChunkSize = 0x400000;
const int kRejectedChunksAllowed = 3;  // the next HTTP 400 in one upload ends it
const char kUploadIdSuffix[] = ":upload_id";
const char kUploadedOffsetSuffix[] = ":uploaded_offset";

// The size of the file at `full_path`; -1 when it cannot be opened.
off_t MeasureFile(const std::string& full_path) {
  // Never blocking: a FIFO would hang the run here. It, a socket or a device
  // has no size to send.
  const int fd = open(full_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd == -1) return -1;
  const off_t size = utilities::IsStream(fd) ? -1 : lseek(fd, 0, SEEK_END);
  close(fd);
  return size;
}

}  // namespace

int DropboxSynchronizer::UploadFile(FileMetadata* file, FileMetadata** result) {
  return UploadFile(file->path, result);
}

int DropboxSynchronizer::UploadFile(const std::string& path, FileMetadata** result) {
  const std::string full_path = sync_folder_ + path;
  const off_t file_size = MeasureFile(full_path);
  PostponeTimedPoweroff();
  if (file_size > kLargestSingleUpload) {
    QS_LOG(kLogNotice, "Use chunked upload");
    return UploadFileChunked(path, result);
  }
  // A file that could not be measured goes this way too; the uploader then
  // fails to open it.
  std::map<std::string, std::string> headers;
  std::vector<char> response;
  std::string url = protocol_.GetUploadUrlAndHeaders(path, &headers);
  QS_LOG(kLogNotice, "url = %s", url.c_str());
  int err = UploaderToDropboxError(uploader_.Upload(full_path, url, headers, &response));
  if (err != DropboxProtocol::kSuccess) {
    QS_LOG_ERR(err);
    return err;
  }
  if (uploader_.GetStatus().http_status == 400) {
    // One more try for a rejected request. The uploader reports a 400 as an
    // error already, so this serves an uploader that passes it through.
    headers.clear();
    response.clear();
    url = protocol_.GetUploadUrlAndHeaders(path, &headers);
    QS_LOG(kLogNotice, "url = %s", url.c_str());
    err = UploaderToDropboxError(uploader_.Upload(full_path, url, headers, &response));
    if (err != DropboxProtocol::kSuccess) {
      QS_LOG_ERR(err);
      return err;
    }
  }
  return ParseUploadReply(response, result);
}

int DropboxSynchronizer::UploadFileChunked(const std::string& path, FileMetadata** result) {
  const std::string full_path = sync_folder_ + path;
  const std::string id_key = path + kUploadIdSuffix;
  const std::string offset_key = path + kUploadedOffsetSuffix;
  // An absent key leaves the start value: a fresh upload.
  std::string upload_id;
  int offset = 0;
  (void)fm_manager_.GetParam(id_key, &upload_id);
  (void)fm_manager_.GetParamInt(offset_key, &offset);
  if (offset < 0) {
    // Not an offset this code writes; start over rather than fail every run.
    offset = 0;
    upload_id.clear();
  }

  const off_t file_size = MeasureFile(full_path);
  if ((off_t)-1 == file_size) {
    QS_LOG_CONDITION("(off_t)-1 == file_size", "DropboxProtocol::kFail");
    return DropboxProtocol::kFail;
  }
  // The stored offset is an int; a larger file could not be resumed.
  if (file_size > static_cast<off_t>(INT_MAX)) {
    QS_LOG_CONDITION("file_size <= INT_MAX", "DropboxProtocol::kFail");
    return DropboxProtocol::kFail;
  }

  int offset_error_count = 0;
  std::map<std::string, std::string> headers;
  std::vector<char> response;
  while (offset < file_size) {
    const off_t chunk = std::min(kChunkSize, file_size - offset);
    const bool finish = offset + chunk == file_size;
    PostponeTimedPoweroff();
    headers.clear();
    const std::string url =
        protocol_.GetChunkedUploadUrlAndHeaders(path, &headers, upload_id, offset, finish);
    QS_LOG(kLogNotice, "url = %s", url.c_str());
    response.clear();
    const Uploader::Error sent =
        uploader_.UploadPart(full_path, static_cast<size_t>(offset), static_cast<size_t>(chunk),
                             url, headers, &response);
    if (sent != Uploader::kUploadHttpError) {
      // A stop or a lost network leaves the keys as they were: the chunk in
      // flight counts as not sent.
      const int err = UploaderToDropboxError(sent);
      if (err != DropboxProtocol::kSuccess) {
        QS_LOG_ERR(err);
        return err;
      }
    }
    // Counted as sent before the answer is judged, so a rejected chunk is
    // skipped rather than sent again.
    offset += static_cast<int>(chunk);
    (void)fm_manager_.SetParamInt(offset_key, offset);
    if (!response.empty()) {
      utilities::JsonParser parser;
      if (parser.Init(response) == 0 && upload_id.empty()) {
        upload_id = parser.GetString("session_id");
        (void)fm_manager_.SetParam(id_key, upload_id);
      }
    }

    const long http_status = uploader_.GetStatus().http_status;
    if (http_status == 404) {
      // The session is gone: the whole file again, in a new one.
      upload_id.clear();
      offset = 0;
      (void)fm_manager_.SetParam(id_key, upload_id);
      (void)fm_manager_.SetParamInt(offset_key, offset);
      continue;
    }
    if (http_status == 400) {
      if (offset_error_count++ >= kRejectedChunksAllowed) {
        QS_LOG_CONDITION("offset_error_count > 3", "DropboxProtocol::kFail");
        return DropboxProtocol::kFail;
      }
      continue;
    }
    if (http_status == 200) continue;
    const int err = protocol_.processResponseCode(http_status, std::vector<char>());
    if (err != DropboxProtocol::kSuccess) {
      QS_LOG_ERR(err);
      return err;
    }
  }
  (void)fm_manager_.RemoveParam(id_key);
  (void)fm_manager_.RemoveParam(offset_key);
  return ParseUploadReply(response, result);
}

int DropboxSynchronizer::ParseUploadReply(const std::vector<char>& response,
                                          FileMetadata** result) {
  try {
    *result = protocol_.parseMetadataEntry(std::vector<char>(response));
  } catch (const Json::Exception& e) {
    // A record with a member of the wrong type; the file is not known to
    // have arrived.
    QS_LOG(kLogError, "bad upload reply: %s", e.what());
    return DropboxProtocol::kErrServer;
  }
  NotifyFileBrowser();
  return DropboxProtocol::kSuccess;
}

int DropboxSynchronizer::UploaderToDropboxError(Uploader::Error error) {
  switch (error) {
    case Uploader::kUploadOk:
      return DropboxProtocol::kSuccess;
    case Uploader::kUploadTransferFailed:
      return DropboxProtocol::kErrNoNetwork;
    case Uploader::kUploadHttpError:
      // Without the body a 409 can only be kErrServer.
      return protocol_.processResponseCode(uploader_.GetStatus().http_status, std::vector<char>());
    case Uploader::kUploadAborted:
      return DropboxProtocol::kStopped;
    default:
      return DropboxProtocol::kErrServer;
  }
}

void DropboxSynchronizer::Progress() {
  if (!is_syncing_) uploader_.abort_ = true;
}

}  // namespace dropbox
}  // namespace quillstone
