// The authorisation worker: logs the device in to the service and exits with
// the result (0 on success).
//
// An OAuth 1 pair that an older version stored is migrated first, without
// the browser. When there is none, or when its migration fails, the browser
// log-in runs: the person asked to log in, and an old pair that the service
// refuses must not lock them out. A failed migration leaves the settings
// file as it was, so the next start tries it again. After a success the
// account gets its sync folder.
//
// SIGTERM and SIGINT end the browser, and the worker exits with the result
// of a log-in that did not finish. An exception that leaves the log-in is
// logged and gives the exit status kUnexpectedFailure.
#define QS_SOURCE_NAME "workers/dropbox_auth"

#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <exception>

#include "auth.h"
#include "configuration.h"
#include "dropboxprotocol.h"
#include "no_core_dump.h"
#include "qs_log.h"
#include "stop_signals.h"
#include "sync_profile.h"
#include "tessera.h"

using quillstone::kLogError;
using quillstone::kLogNotice;

using quillstone::dropbox::Auth;
using quillstone::dropbox::Configuration;
using quillstone::dropbox::DropboxProtocol;

namespace {

// Exit status of a log-in ended by an exception; apart from the result codes.
constexpr int kUnexpectedFailure = 70;

struct Worker {
  Auth auth;
  sigset_t signals;
};

void* SignalThread(void* arg) {
  Worker* worker = static_cast<Worker*>(arg);
  int sig = 0;
  if (sigwait(&worker->signals, &sig) != 0) return nullptr;
  QS_LOG(kLogNotice, "signal %d: ending the log-in", sig);
  // Repeated, so a browser session that starts just after the signal ends
  // too; the process exits when main returns.
  for (;;) {
    worker->auth.Stop();
    usleep(100 * 1000);
  }
  return nullptr;
}

int LogIn(Worker* worker) {
  DropboxProtocol protocol;
  if (protocol.needMigrateToV2()) {
    if (protocol.migrateToV2()) {
      QS_LOG(kLogNotice, "the stored OAuth 1 login was migrated");
      Configuration::Instance()->UpdateDownloadFolder();
      return DropboxProtocol::kSuccess;
    }
    QS_LOG(kLogError, "the stored OAuth 1 login could not be migrated; trying the browser");
  }
  worker->auth.SetProfile(quillstone::dropbox::ReadSyncProfile());
  const int result = worker->auth.Run(&protocol);
  if (result == DropboxProtocol::kSuccess) Configuration::Instance()->UpdateDownloadFolder();
  return result;
}

}  // namespace

int main() {
  quillstone::workers::ForbidCoreDumps();
  // Lives to the end of the process: the signal thread may still use it.
  static Worker worker;
  quillstone::workers::WatchStopSignals(&worker.signals, SignalThread, &worker);

  int result;
  try {
    result = LogIn(&worker);
  } catch (const std::exception& e) {
    QS_LOG(kLogError, "the log-in failed: %s", e.what());
    result = kUnexpectedFailure;
  } catch (...) {
    QS_LOG(kLogError, "the log-in failed: unknown exception");
    result = kUnexpectedFailure;
  }
  QS_LOG(kLogNotice, "log-in result %d", result);
  printf("auth_result=%d\n", result);
  fflush(stdout);
  return result;
}
