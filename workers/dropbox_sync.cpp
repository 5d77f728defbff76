// The sync worker: runs one sync of the configured folder and exits with its
// sync error (0 on success).
//
// It writes the outcome where hosts look for it: "sync_error" in the sync
// error settings file, and "<expired>" in place of a token that the service
// refused. The signal that "killall dropbox_sync" sends (SIGTERM), and SIGINT,
// stop the run gently through the engine's own stop, so the run state returns
// to idle and the store is closed before the process ends. An exception that
// escapes the run ends the worker with sync error 7 and the run state idle
// (failure_exit.h), never by SIGABRT with the previous outcome left in place.
//
// In the safe profile one worker at a time syncs a folder: the lock beside
// its store is taken before anything else of the run, and a second worker
// ends at once with sync error 1, leaving the run state to the first. A stop
// there that the run does not follow within moments (it waits on a request)
// ends the process with the stop's outcome written.
#define QS_SOURCE_NAME "workers/dropbox_sync"

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "configuration.h"
#include "device_names.h"
#include "device_root.h"
#include "dropboxsynchronizer.h"
#include "failure_exit.h"
#include "no_core_dump.h"
#include "qs_log.h"
#include "stop_signals.h"
#include "tessera.h"

using quillstone::dropbox::Configuration;
using quillstone::dropbox::DropboxSynchronizer;
using quillstone::dropbox::kAccessTokenKey;
using quillstone::dropbox::kDropboxSettingsFile;
using quillstone::dropbox::kExpiredToken;
using quillstone::dropbox::kSyncErrorFile;
using quillstone::dropbox::kSyncErrorKey;
using quillstone::dropbox::SynchronizerCallback;
using quillstone::utilities::DevicePath;

namespace {

class WorkerCallback : public SynchronizerCallback {
 public:
  int OnSyncFinished(int sync_error, bool /*changed*/) override {
    std::lock_guard<std::mutex> lock(mutex_);
    sync_error_ = sync_error;
    finished_ = true;
    cond_.notify_all();
    return 0;
  }

  int Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    cond_.wait(lock, [this] { return finished_; });
    return sync_error_;
  }

  bool WaitFor(std::chrono::milliseconds time) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, time, [this] { return finished_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool finished_ = false;
  int sync_error_ = 0;
};

// How long a stop in the safe profile lets the run end by itself. A request
// that the service holds cannot be cut short from outside the connection,
// and it may take a minute to time out.
constexpr std::chrono::seconds kStopGrace(3);

struct Worker {
  WorkerCallback callback;
  DropboxSynchronizer* synchronizer = nullptr;
  std::mutex stop_mutex;  // orders the signal thread's stop and main's join
  bool stop_requested = false;
  bool safe = false;
  std::mutex outcome_mutex;  // one outcome written: the run's or the stop's
  sigset_t signals;
};

void WriteSyncError(int sync_error) {
  void* config = OpenConfig(DevicePath(kSyncErrorFile).c_str(), nullptr);
  WriteString(config, kSyncErrorKey, std::to_string(sync_error).c_str());
  CloseConfig(config);
}

void* SignalThread(void* arg) {
  Worker* worker = static_cast<Worker*>(arg);
  int sig = 0;
  if (sigwait(&worker->signals, &sig) != 0) return nullptr;
  std::unique_lock<std::mutex> lock(worker->stop_mutex);
  worker->stop_requested = true;
  if (worker->synchronizer == nullptr) return nullptr;
  if (!worker->safe) {
    (void)worker->synchronizer->StopSync();
    return nullptr;
  }
  worker->synchronizer->RequestStop();
  lock.unlock();
  if (worker->callback.WaitFor(kStopGrace)) return nullptr;  // main writes the outcome
  // The run is held in a request. Ending the process here is what a kill
  // does, which the store and the transfers survive; the stop's outcome is
  // written first.
  std::lock_guard<std::mutex> outcome(worker->outcome_mutex);
  QS_LOG(quillstone::kLogNotice, "the run did not end within %d s of the stop; the worker ends",
         static_cast<int>(kStopGrace.count()));
  WriteSyncError(DropboxSynchronizer::kSyncStopped);
  DropboxSynchronizer::MarkRunIdle();
  printf("sync_error=%d\n", DropboxSynchronizer::kSyncStopped);
  fflush(stdout);
  _exit(DropboxSynchronizer::kSyncStopped);
}

// Marks a token that the service refused, so hosts can tell an expired login
// from none at all.
void MarkTokenExpired() {
  void* config = OpenConfig(DevicePath(kDropboxSettingsFile).c_str(), nullptr);
  std::string token = ReadSecret(config, kAccessTokenKey, "");
  if (!token.empty() && token != kExpiredToken) {
    WriteSecret(config, kAccessTokenKey, kExpiredToken);
    CloseConfig(config);
  } else {
    CloseConfigNoSave(config);
  }
}

enum class FolderLock { kHeld, kTaken, kNone };

// Takes the lock of `folder` for the life of the process. A folder on a card
// that is out gets none and no folders made: the run ends on the card check.
FolderLock LockFolder(const std::string& folder) {
  const std::string card = DevicePath("/mnt/ext2");
  if (folder.compare(0, card.size(), card) == 0 && !IsSDinserted()) return FolderLock::kNone;
  const std::string path = folder + quillstone::dropbox::kWorkerLockInFolder;
  (void)te_buildpath(path.c_str());
  // Close-on-exec: a shell the run starts must not keep the folder locked.
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    // Nothing can be stored beside the folder either; the run says so.
    QS_LOG(quillstone::kLogError, "cannot open the lock %s: errno %d", path.c_str(), errno);
    return FolderLock::kNone;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) == 0) return FolderLock::kHeld;  // fd stays open
  const int error = errno;
  (void)close(fd);
  if (error != EWOULDBLOCK) return FolderLock::kNone;
  QS_LOG(quillstone::kLogNotice, "another sync of %s is running; this one ends", folder.c_str());
  return FolderLock::kTaken;
}

}  // namespace

int main() {
  quillstone::workers::ForbidCoreDumps();
  // Large blocks (a listing page, the published file list) are mapped and
  // unmapped on their own. Left to adjust itself, the threshold rises after
  // the first such block is freed, and later ones stay resident in the heap
  // for the rest of the run.
  (void)mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  // Worker state lives to the end of the process: detached engine threads may
  // still read the synchronizer while the process ends.
  static Worker worker;
  quillstone::workers::WatchStopSignals(&worker.signals, SignalThread, &worker);

  quillstone::workers::InstallFailureExit(DropboxSynchronizer::kSyncFailed, [] {
    WriteSyncError(DropboxSynchronizer::kSyncFailed);
    DropboxSynchronizer::MarkRunIdle();
    printf("sync_error=%d\n", DropboxSynchronizer::kSyncFailed);
  });
  std::string folder = Configuration::Instance()->GetStatus().folder;
  const quillstone::dropbox::SyncProfile profile = quillstone::dropbox::ReadSyncProfile();
  if (profile == quillstone::dropbox::SyncProfile::kSafe &&
      LockFolder(folder) == FolderLock::kTaken) {
    // Before the engine exists: it would set the other worker's run state.
    WriteSyncError(DropboxSynchronizer::kSyncStopped);
    printf("sync_error=%d\n", DropboxSynchronizer::kSyncStopped);
    fflush(stdout);
    _exit(DropboxSynchronizer::kSyncStopped);
  }
  {
    std::lock_guard<std::mutex> lock(worker.stop_mutex);  // the signal thread reads both
    worker.safe = profile == quillstone::dropbox::SyncProfile::kSafe;
    worker.synchronizer = new DropboxSynchronizer(&worker.callback);
    worker.synchronizer->SetProfile(profile);
    worker.synchronizer->SetTransfers(quillstone::dropbox::ReadTransfers());
  }

  int sync_error;
  {
    std::lock_guard<std::mutex> lock(worker.stop_mutex);
    if (worker.stop_requested) {
      sync_error = DropboxSynchronizer::kSyncStopped;
    } else if (worker.synchronizer->StartSync(folder) != 0) {
      fprintf(stderr, "dropbox_sync: cannot start the sync thread\n");
      sync_error = DropboxSynchronizer::kSyncFailed;
    } else {
      sync_error = -1;
    }
  }
  if (sync_error < 0) {
    sync_error = worker.callback.Wait();
    std::lock_guard<std::mutex> lock(worker.stop_mutex);
    worker.synchronizer->WaitForRun();
  }

  std::lock_guard<std::mutex> outcome(worker.outcome_mutex);  // held to the exit
  WriteSyncError(sync_error);
  if (sync_error == DropboxSynchronizer::kSyncUnauthorized) MarkTokenExpired();
  printf("sync_error=%d\n", sync_error);
  fflush(stdout);
  // Everything is written; static destructors would run under the engine's
  // detached threads (the keep-alive ping may still be reading device paths),
  // so the process ends here without them.
  _exit(sync_error);
}
