// A clean end for a worker when an exception escapes the library.
//
// Some failures of a run (a reply of an unexpected shape, for instance) leave
// the library as an exception that nothing catches, and the process would end
// by SIGABRT: no outcome written, the run state left at "running", and a host
// reading the previous outcome as this one's. A worker's main calls
// InstallFailureExit once, before starting its threads:
//
//   InstallFailureExit(7, [] { WriteSyncError(7); ResetRunState(); });
//
// From then on std::terminate, on whatever thread it is called, logs the
// exception's text at level 1, runs `write_outcome` (which should only write
// settings and shared state: it runs on the failing thread while the others
// go on), and ends the process with `exit_code`. Destructors are not run:
// the failing thread's state is not to be trusted.
#pragma once

#include <cxxabi.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <typeinfo>

#include "qs_log.h"

namespace quillstone {
namespace workers {

struct FailureExit {
  int exit_code = 7;
  std::function<void()> write_outcome;
  std::once_flag once;  // a second thread failing meanwhile waits for the first
};

inline FailureExit& GetFailureExit() {
  static FailureExit* exit = new FailureExit;  // never destroyed: used up to _exit
  return *exit;
}

// The text of the exception being handled, or a note that there is none.
inline std::string CurrentExceptionText() {
  std::exception_ptr current = std::current_exception();
  if (!current) return "terminate called without an active exception";
  try {
    std::rethrow_exception(current);
  } catch (const std::exception& e) {
    int status = 0;
    char* name = abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, &status);
    std::string text = std::string(status == 0 && name ? name : typeid(e).name()) + ": " + e.what();
    free(name);
    return text;
  } catch (...) {
    return "an exception of unknown type";
  }
}

[[noreturn]] inline void FailureExitHandler() {
  FailureExit& exit = GetFailureExit();
  std::call_once(exit.once, [&exit] {
    std::string text = CurrentExceptionText();
    qs_print_log2(quillstone::kLogError, "workers/failure_exit", __LINE__, __PRETTY_FUNCTION__,
                  "[pid:%d]Uncaught exception: %s", g_process_pid, text.c_str());
    fprintf(stderr, "uncaught exception: %s\n", text.c_str());
    if (exit.write_outcome) exit.write_outcome();
    fflush(stdout);
    fflush(stderr);
    _exit(exit.exit_code);
  });
  _exit(exit.exit_code);  // not reached: the first caller ends the process
}

inline void InstallFailureExit(int exit_code, std::function<void()> write_outcome) {
  FailureExit& exit = GetFailureExit();
  exit.exit_code = exit_code;
  exit.write_outcome = std::move(write_outcome);
  std::set_terminate(FailureExitHandler);
}

}  // namespace workers
}  // namespace quillstone
