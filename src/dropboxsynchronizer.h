// The sync engine: one object per sync worker process.
//
// A DropboxSynchronizer owns every collaborator of a run (service protocol,
// downloaders, uploader, metadata store, status channels) and drives one run
// at a time on a thread of its own. A run is a fixed chain of steps (SD card,
// store, account, local changes, server changes, folder statuses, failed
// files, statistics); the first failing step ends it. The outcome reaches the
// worker through SynchronizerCallback, other processes through the shared run
// state and DownloadStatus, and the file browser through event 73.
//
// The engine keeps the run's state and delegates the work: LocalPass (local
// changes up), ServerPass (server changes down), DownloadPipeline (the
// transfers in flight and the look-ahead) and ChunkedUpload. They reach the
// service and the downloaders through the interfaces of sync_env.h, which
// the engine adapts over its own members.
//
// Threads: StartSync, StopSync and WaitForRun are called by the owner. The
// sync thread alone uses the store and the protocol object. A detached
// keep-alive thread pings the device's progress panel while a run lasts, and
// the threads of the downloaders deliver NotifyDownloaderStatus, each with
// its own slot. `is_syncing_` is read and written without a lock by all of
// them; it is also the stop request.
//
// There can be one object per process: the sync thread reaches it through the
// static `this_`.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "chunked_upload.h"
#include "download_pipeline.h"
#include "download_status.h"
#include "downloader.h"
#include "dropboxprotocol.h"
#include "file_metadata.h"
#include "file_scanner.h"
#include "filemetadatamanager.h"
#include "local_pass.h"
#include "server_pass.h"
#include "shared_state.h"
#include "sync_env.h"
#include "sync_profile.h"
#include "uploader.h"

namespace quillstone {
namespace dropbox {

// Implemented by the worker program; told how a run ended.
class SynchronizerCallback {
 public:
  // `sync_error` is on the sync error scale (0 to 8); `changed` tells whether
  // the run changed anything locally. The result is ignored.
  virtual int OnSyncFinished(int sync_error, bool changed) = 0;
  virtual ~SynchronizerCallback() {}
};

// True for the codes that do not end a pass: kSuccess and kRestrictedContent.
bool CanProceedOnError(int code);

// `text` with a backslash before each byte that a POSIX shell treats as
// special in a word (blank, ! # $ % & ( ) @ ^ ` { } ~ ' + , ; = [ ] ? < : > |
// and the double quote). The backslash itself, '*', line ends and bytes from
// 128 up pass unescaped.
std::string EscapeForShell(const std::string& text);

class DropboxSynchronizer : public utilities::IDownloaderCallback,
                            private utilities::IUploaderCallback,
                            private ISyncCallback {
 public:
  // Sync error scale: what a run's result code is converted to.
  enum SyncError {
    kSyncOk = 0,
    kSyncStopped = 1,
    kSyncNoNetwork = 2,
    kSyncDownloadFailed = 3,
    kSyncUnauthorized = 4,
    kSyncWrongUser = 5,
    kSyncNeedSdCard = 6,
    kSyncFailed = 7,
    kSyncRestricted = 8,
  };

  // Values of the run state in the shared block "/dropbox_state".
  enum RunState { kRunIdle = 1, kRunActive = 2 };

  // `callback` is not owned and may be null (then a run reports nothing).
  explicit DropboxSynchronizer(SynchronizerCallback* callback);
  // Neither stops nor joins a run.
  ~DropboxSynchronizer() override;

  DropboxSynchronizer(const DropboxSynchronizer&) = delete;
  DropboxSynchronizer& operator=(const DropboxSynchronizer&) = delete;

  // Starts a run on `sync_folder` (no trailing slash). 0, or the error of
  // pthread_create. While a run is in progress it only re-initialises the
  // progress channel and returns 0.
  int StartSync(const std::string& sync_folder);
  // Asks a running run to stop and waits for its thread; always 0.
  int StopSync();
  // Asks a running run to stop and returns at once; any thread.
  void RequestStop() { is_syncing_ = false; }
  // Waits for the thread of the last run started, once its end has been
  // reported; returns at once when there is none to wait for.
  void WaitForRun();
  bool IsSyncing() { return is_syncing_; }
  // Empties the sync folder (the store inside it goes too); always 0.
  int ResetDirectory();
  // The profile of the runs that follow; set before StartSync.
  void SetProfile(SyncProfile profile) {
    profile_ = profile;
    run_.profile = profile;
    pipeline_.SetProfile(profile);
  }
  SyncProfile profile() const { return profile_; }
  // The downloads the runs that follow keep in flight, 1 to 16 (clamped);
  // set before StartSync.
  void SetTransfers(int transfers);
  // Stores the idle run state of the process's engine, if there is one. For
  // the failure exit of a worker: it takes no lock and allocates nothing.
  static void MarkRunIdle();

  static void* sync_thread(void*);

  // The steps of a run.
  int Synchronize();
  void ConvertError(int code);
  int checkAccountInfo();
  void updateStatistics();

  // Local changes (pass 1). The scan calls SyncFiles, which only collects
  // each folder's file delta, and SyncDirs, which creates and deletes
  // folders on the service at once; the files are applied after the walk.
  int uploadLocalChanges();
  int SyncFiles(const std::string& dir, FileSystemFileDelta& delta) override;
  int SyncFilesFinal(const std::string& dir, FileSystemFileDelta& delta);
  int SyncDirs(FileSystemDirDelta& delta, std::vector<std::string>* local_dirs) override;

  // Server changes (pass 2).
  int processChangesFromServer();
  std::string PathLowerToPath(FileMetadata* entry);
  int RemoveDirectory(FileMetadata* entry);
  int RemoveFile(FileMetadata* entry);
  int CreateDirectory(FileMetadata* entry);

  // Download of one server file.
  int AddOrModifyFile(FileMetadata* file, bool* is_new, int* err);
  int DownloadFile(FileMetadata* file);
  std::tuple<int, std::string> DownloadFile(const std::string& id, const std::string& server_path,
                                            const std::string& local_path, uint64_t size);
  std::tuple<int, std::string> DownloadFileInt(
      const std::string& server_path, const std::string& local_path, uint64_t size,
      std::function<void(const utilities::Downloader::StatusInfo&)> on_status);
  std::function<void(const utilities::Downloader::StatusInfo&, const std::string&, int)>
  getStatusUpdater(utilities::DownloadStatus::File file);
  void NotifyDownloaderStatus(void*) override;

  // Retry of files whose content the service refused.
  int processFailedFiles();

  // Upload of one local file. `path` is relative to the sync folder with a
  // leading "/" and is also the service path. On kSuccess *result is a new
  // record, owned by the caller, of what the service stored; otherwise it is
  // left alone. Files above 8 MiB go in 4 MiB chunks through an upload
  // session that a later run resumes.
  int UploadFile(const std::string& path, FileMetadata** result);
  int UploadFile(FileMetadata* file, FileMetadata** result);
  int UploadFileChunked(const std::string& path, FileMetadata** result);
  // The result code of an uploader outcome; HTTP answers go through the
  // protocol's mapping without their body.
  int UploaderToDropboxError(utilities::Uploader::Error error);
  // Uploader progress tick: a cleared is_syncing_ aborts the transfer.
  void Progress() override;

  static DropboxSynchronizer* this_;

 private:
  void SetRunState(int state);
  static void* keep_alive_thread(void* arg);

  // A slot of the pipeline after the first, which is downloader_.
  struct AheadSlot {
    utilities::Downloader downloader;
    int state = 0;  // guarded by status_mutex_
    DownloaderTransfer transfer{downloader};
  };

  // Members in the order of construction.
  DropboxProtocol protocol_;
  utilities::Downloader downloader_;
  ServerUrls server_urls_;
  pthread_mutex_t status_mutex_;  // guards the downloaders' states
  pthread_cond_t status_cond_;    // signalled by NotifyDownloaderStatus
  pthread_t thread_;
  // Set for the length of a run; cleared also to ask the run to stop. Atomic
  // only so that the unlocked reads of several threads are well defined.
  std::atomic<bool> is_syncing_;
  int downloader_state_;
  utilities::Uploader uploader_;
  FileScanner scanner_;
  FileMetadataManager fm_manager_;
  SynchronizerCallback* callback_;
  int sync_error_;
  bool changed_;
  std::string sync_folder_;
  utilities::SharedStateImpl shared_state_;
  utilities::DownloadStatus download_status_;
  TransferBoard transfer_board_;  // what is in flight, for the host's progress
  // The scan's file deltas by folder ("/", "/a/"); byte order puts a folder
  // before what lies below it.
  std::map<std::string, FileSystemFileDelta> file_deltas_;
  int files_done_;
  int files_total_;

  // The parts a run is delegated to, over the members above.
  SyncProfile profile_;
  ProtocolService service_;
  DownloaderTransfer transfer_;
  RunContext run_;
  std::vector<std::unique_ptr<AheadSlot>> ahead_slots_;  // built before pipeline_
  DownloadPipeline pipeline_;
  ChunkedUpload chunked_;
  LocalPass local_pass_;
  ServerPass server_pass_;

  bool cond_inited_;
  std::atomic<int> keep_alive_threads_;  // so destruction waits for the last ping
};

}  // namespace dropbox
}  // namespace quillstone
