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
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>

#include "configuration.h"
#include "device_root.h"
#include "dropboxsynchronizer.h"
#include "failure_exit.h"
#include "no_core_dump.h"
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

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool finished_ = false;
  int sync_error_ = 0;
};

struct Worker {
  WorkerCallback callback;
  DropboxSynchronizer* synchronizer = nullptr;
  std::mutex stop_mutex;  // orders the signal thread's stop and main's join
  bool stop_requested = false;
  sigset_t signals;
};

void* SignalThread(void* arg) {
  Worker* worker = static_cast<Worker*>(arg);
  int sig = 0;
  if (sigwait(&worker->signals, &sig) != 0) return nullptr;
  std::lock_guard<std::mutex> lock(worker->stop_mutex);
  worker->stop_requested = true;
  if (worker->synchronizer != nullptr) (void)worker->synchronizer->StopSync();
  return nullptr;
}

void WriteSyncError(int sync_error) {
  void* config = OpenConfig(DevicePath(kSyncErrorFile).c_str(), nullptr);
  WriteString(config, kSyncErrorKey, std::to_string(sync_error).c_str());
  CloseConfig(config);
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
  worker.synchronizer = new DropboxSynchronizer(&worker.callback);
  worker.synchronizer->SetProfile(quillstone::dropbox::ReadSyncProfile());

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

  WriteSyncError(sync_error);
  if (sync_error == DropboxSynchronizer::kSyncUnauthorized) MarkTokenExpired();
  printf("sync_error=%d\n", sync_error);
  fflush(stdout);
  // Everything is written; static destructors would run under the engine's
  // detached threads (the keep-alive ping may still be reading device paths),
  // so the process ends here without them.
  _exit(sync_error);
}
