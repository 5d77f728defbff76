// Worker control: what a host process uses to drive the two worker programs.
//
// DropboxClient starts "/fwroot/bin/dropbox_auth" and "/fwroot/bin/dropbox_sync"
// each through the shell on a detached thread of its own, which blocks for
// the worker's whole life and then sends kWorkerEndedEvent (no payload) to the host's
// event handler. It stops a sync by "killall dropbox_sync", reads the token
// straight from the settings file, and reads the sync worker's run state
// from the shared block "/dropbox_state".
//
// The result queue is never initialised, so every worker's ActionResult is
// refused and ProcessResults only logs: a host learns the outcome from the
// settings files and the run state, not from the client.
//
// Threads: construct, Init once, then call from the host's event thread. The
// detached threads keep a raw pointer to the object, so it must outlive
// every worker it started; the destructor neither waits nor stops them.
#pragma once

#include <string>

#include "action.h"
#include "device_names.h"
#include "message_queue.h"
#include "shared_state.h"

namespace quillstone {
namespace dropbox {

class IDropboxClientResultListener {
 public:
  virtual void OnActionResult(ActionResult result) = 0;
  virtual ~IDropboxClientResultListener() {}
};

class DropboxClient {
 public:
  // Values of GetTokenStatus.
  enum TokenStatus { kTokenValid = 0, kTokenMissing = 1, kTokenExpired = 2 };
  // Values of the run state word; a fresh block holds neither, and
  // kSyncRunUnknown is GetStatus's answer when no block is attached.
  enum SyncRunState { kSyncRunUnknown = 0, kSyncRunIdle = 1, kSyncRunActive = 2 };

  explicit DropboxClient(IDropboxClientResultListener* listener);
  ~DropboxClient();
  DropboxClient(const DropboxClient&) = delete;
  DropboxClient& operator=(const DropboxClient&) = delete;

  // Attaches the shared run state. 0; -3 when already done; else the error
  // of the attach, after which a later call tries again.
  int Init();
  // Starts the authorisation worker. The bool is ignored. Always 0.
  int AuthentificateAsync(bool, void* user_data);
  // Brings a network up when none is, then starts the sync worker. 0, or -1
  // (no thread, no event) when no network could be had. There is no guard
  // against a worker that already runs.
  int StartSync(void* user_data);
  // "killall dropbox_sync", whatever it finds. Always 0.
  int StopSync(void*);
  // Hands queued results to the listener; call on kWorkerEndedEvent.
  void ProcessResults();
  int GetTokenStatus();
  // The run state word; kSyncRunUnknown when Init could not attach the block.
  int GetStatus();
  // Forgets the token and the account, the browser's cookie, and stops any
  // sync. Always 0.
  int LogOut();
  std::string GetConfigFile() const;

 private:
  // Thread bodies: run the worker, report its end.
  void runAuth(void* user_data);
  void runSync(void* user_data);
  void runWorker(const char* program, void* user_data);

  IDropboxClientResultListener* listener_;
  utilities::SharedStateImpl state_;
  utilities::MessageQueue<ActionResult> queue_;
  bool client_inited_;
};

}  // namespace dropbox
}  // namespace quillstone
