// The stop signals of a worker: SIGTERM (what "killall dropbox_sync" sends)
// and SIGINT are blocked in every thread and taken by one detached thread,
// so that a stop runs as ordinary code rather than inside a signal handler.
#pragma once

#include <pthread.h>
#include <signal.h>

namespace quillstone {
namespace workers {

// Call first in main, before any other thread starts: threads inherit the
// mask. `watch` gets `arg` and waits on `*signals` with sigwait; `signals`
// must live as long as the process.
inline void WatchStopSignals(sigset_t* signals, void* (*watch)(void*), void* arg) {
  sigemptyset(signals);
  sigaddset(signals, SIGTERM);
  sigaddset(signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, signals, nullptr);
  pthread_t thread;
  if (pthread_create(&thread, nullptr, watch, arg) == 0) pthread_detach(thread);
}

}  // namespace workers
}  // namespace quillstone
