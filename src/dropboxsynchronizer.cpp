#define QS_SOURCE_NAME "src/dropboxsynchronizer"

#include "dropboxsynchronizer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "device_names.h"
#include "device_root.h"
#include "qs_codes.h"
#include "qs_log.h"
#include "readstats.h"
#include "server_path.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::DevicePath;
using utilities::Downloader;
using utilities::DownloadStatus;
using utilities::Uploader;

DropboxSynchronizer* DropboxSynchronizer::this_ = nullptr;

namespace {

const char kSharedStateName[] = "/dropbox_state";
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

}  // namespace

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
      callback_(callback),
      sync_error_(0),
      changed_(false),
      files_done_(0),
      files_total_(0),
      profile_(SyncProfile::kClassic),
      service_(protocol_),
      transfer_(downloader_),
      run_{fm_manager_, download_status_,      sync_folder_,
           is_syncing_, SyncProfile::kClassic, &transfer_board_},
      pipeline_(service_, {&transfer_}, {&downloader_state_}, &status_mutex_, &status_cond_,
                is_syncing_, sync_folder_),
      chunked_(run_, service_, uploader_),
      local_pass_(run_, service_, uploader_, chunked_, scanner_,
                  LocalPass::Tallies{file_deltas_, files_done_, files_total_}),
      server_pass_(run_, service_, pipeline_, &changed_),
      cond_inited_(false),
      keep_alive_threads_(0) {
  pipeline_.SetBoard(&transfer_board_);
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
  SetTransfers(kDefaultTransfers);
  is_syncing_ = false;
  this_ = this;
  thread_ = 0;
  (void)shared_state_.Init(kSharedStateName, 4);
  SetRunState(kRunIdle);
}

void DropboxSynchronizer::SetTransfers(int transfers) {
  const size_t ahead = static_cast<size_t>(std::min(std::max(transfers, 1), kMaxTransfers) - 1);
  run_.transfers = static_cast<int>(ahead) + 1;  // the safe uploads take as many
  while (ahead_slots_.size() < ahead) {
    ahead_slots_.push_back(std::unique_ptr<AheadSlot>(new AheadSlot));
    ahead_slots_.back()->downloader.Init(this);
    ahead_slots_.back()->downloader.resume_partial_ = true;
  }
  ahead_slots_.resize(ahead);
  std::vector<Transfer*> slots{&transfer_};
  std::vector<int*> states{&downloader_state_};
  for (const auto& slot : ahead_slots_) {
    slots.push_back(&slot->transfer);
    states.push_back(&slot->state);
  }
  pipeline_.SetTransfers(std::move(slots), std::move(states));
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

void DropboxSynchronizer::MarkRunIdle() {
  DropboxSynchronizer* self = this_;
  if (self != nullptr) self->SetRunState(kRunIdle);
}

int DropboxSynchronizer::StartSync(const std::string& sync_folder) {
  download_status_.Init(utilities::ServicesDownloadStatus::dropbox_name, getpid());
  if (is_syncing_) return 0;
  transfer_board_.Init(getpid());
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

void DropboxSynchronizer::WaitForRun() {
  if (thread_ != 0) {
    pthread_join(thread_, nullptr);
    thread_ = 0;
  }
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
    transfer_board_.Settle();
  };
  try {
    const std::string sd_card = DevicePath("/mnt/ext2");
    if (sync_folder_.compare(0, sd_card.size(), sd_card) == 0 && !IsSDinserted()) {
      QS_LOG_CONDITION("isOnSdCard(sync_folder_) && !IsSDinserted()",
                       "DropboxProtocol::kNeedSDCard");
      finish();
      return DropboxProtocol::kNeedSDCard;
    }
    // In the safe profile a failed store call stops the run where it is, and
    // the run ends with a storage error below.
    fm_manager_.SetStrict(run_.safe(), [this]() { is_syncing_ = false; });
    if (!fm_manager_.is_inited_) (void)fm_manager_.Init(sync_folder_ + kStoreInFolder);
    protocol_.loadAccessToken();

    if (run_.safe() && !fm_manager_.is_inited_) {
      err = DropboxProtocol::kErrStorage;
      QS_LOG_ERR(err);
    } else if ((err = checkAccountInfo()) != 0) {
      QS_LOG_ERR(err);
    } else {
      download_status_.ResetProgress();
      if ((err = uploadLocalChanges()) != 0) {
        QS_LOG_ERR(err);
      } else if (run_.safe() && fm_manager_.Failure() != 0) {
        err = DropboxProtocol::kErrStorage;  // no listing is applied to a store that fails
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
          if (err == 0) err = local_pass_.item_error();
        }
      }
    }
  } catch (...) {
    finish();
    throw;
  }
  // No run reports success, or a stop, with rows that were not written.
  if (run_.safe() && fm_manager_.Failure() != 0) {
    QS_LOG(kLogError, "a store operation failed (%d): the run ends with a storage error",
           fm_manager_.Failure());
    err = DropboxProtocol::kErrStorage;
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
    const int set = fm_manager_.SetParam("account_id", id);
    // Unrecorded, the account would not be checked at the next run.
    if (set != 0 && run_.safe()) return DropboxProtocol::kErrStorage;
    return 0;
  }
  // A store that cannot be read just now is not a damaged one.
  if (run_.safe()) return DropboxProtocol::kErrStorage;
  // The store cannot be read: rebuild it empty; every local file then counts
  // as new.
  const std::string db_path = sync_folder_ + kStoreInFolder;
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
// The passes, delegated

int DropboxSynchronizer::uploadLocalChanges() { return local_pass_.Run(this); }

int DropboxSynchronizer::SyncFiles(const std::string& dir, FileSystemFileDelta& delta) {
  return local_pass_.CollectFiles(dir, delta);
}

int DropboxSynchronizer::SyncFilesFinal(const std::string& dir, FileSystemFileDelta& delta) {
  return local_pass_.ApplyFiles(dir, delta);
}

int DropboxSynchronizer::SyncDirs(FileSystemDirDelta& delta, std::vector<std::string>* local_dirs) {
  return local_pass_.ApplyDirs(delta, local_dirs);
}

int DropboxSynchronizer::processChangesFromServer() { return server_pass_.Run(); }

std::string DropboxSynchronizer::PathLowerToPath(FileMetadata* entry) {
  return server_pass_.PathLowerToPath(entry);
}

int DropboxSynchronizer::RemoveDirectory(FileMetadata* entry) {
  return server_pass_.RemoveDirectory(entry);
}

int DropboxSynchronizer::RemoveFile(FileMetadata* entry) { return server_pass_.RemoveFile(entry); }

int DropboxSynchronizer::CreateDirectory(FileMetadata* entry) {
  return server_pass_.CreateDirectory(entry);
}

int DropboxSynchronizer::AddOrModifyFile(FileMetadata* file, bool* is_new, int* err) {
  return server_pass_.AddOrModifyFile(file, is_new, err);
}

int DropboxSynchronizer::DownloadFile(FileMetadata* file) {
  return server_pass_.DownloadFile(file);
}

std::tuple<int, std::string> DropboxSynchronizer::DownloadFile(const std::string& id,
                                                               const std::string& server_path,
                                                               const std::string& local_path,
                                                               uint64_t size) {
  return server_pass_.DownloadFile(id, server_path, local_path, size);
}

std::tuple<int, std::string> DropboxSynchronizer::DownloadFileInt(
    const std::string& server_path, const std::string& local_path, uint64_t size,
    std::function<void(const Downloader::StatusInfo&)> on_status) {
  return pipeline_.Fetch(server_path, local_path, size, on_status);
}

std::function<void(const Downloader::StatusInfo&, const std::string&, int)>
DropboxSynchronizer::getStatusUpdater(DownloadStatus::File file) {
  return server_pass_.StatusUpdater(file);
}

void DropboxSynchronizer::NotifyDownloaderStatus(void* user) {
  pipeline_.NotifyDownloaderStatus(user);
}

int DropboxSynchronizer::UploadFile(FileMetadata* file, FileMetadata** result) {
  return UploadFile(file->path, result);
}

int DropboxSynchronizer::UploadFile(const std::string& path, FileMetadata** result) {
  return local_pass_.UploadFile(path, result);
}

int DropboxSynchronizer::UploadFileChunked(const std::string& path, FileMetadata** result) {
  return chunked_.Upload(path, result);
}

int DropboxSynchronizer::UploaderToDropboxError(Uploader::Error error) {
  return UploadResultCode(service_, uploader_, error);
}

void DropboxSynchronizer::Progress() {
  if (!is_syncing_) uploader_.abort_ = true;
  transfer_board_.Tick();
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

}  // namespace dropbox
}  // namespace quillstone
