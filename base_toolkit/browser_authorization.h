// A session of the device's browser program, watched for the addresses it
// arrives at.
//
// Start runs the browser program on an address and blocks until the session
// ends. While it blocks, it calls the event handler on the calling thread:
// UrlChanged for each address the browser arrives at, BrowserError when the
// browser reports a failure, TimePassed about once a second with the
// milliseconds since Start, and BrowserClosed when the browser has gone. An
// exception thrown by the handler ends the browser and leaves Start.
//
// The session ends when running_ is cleared under mutex_ (from the handler
// or from any other thread), or when the browser exits. No event is
// delivered once running_ is cleared.
//
// Thread safety: Start on one thread at a time; SetFocus and the running_
// flag (under mutex_) from any thread.
#pragma once

#include <sys/types.h>

#include <mutex>
#include <string>
#include <vector>

namespace quillstone {
namespace utilities {

class BrowserAuthorization {
 public:
  class IEventHandler {
   public:
    virtual void UrlChanged(const std::string& url) = 0;
    virtual void BrowserError() {}
    virtual void BrowserClosed() = 0;
    virtual void TimePassed(int ms) = 0;
    virtual ~IEventHandler() {}
  };

  // Codes of Start besides 0; apart from the system's result codes, and
  // usable as a program's exit status.
  enum StartError {
    kStartFailed = 126,     // already running, or no pipe or process to be had
    kBrowserMissing = 127,  // the browser program cannot be run
  };

  // `name` tells the session apart in log lines; `handler` is not owned and
  // must outlive every Start.
  BrowserAuthorization(const std::string& name, IEventHandler* handler);
  ~BrowserAuthorization();
  BrowserAuthorization(const BrowserAuthorization&) = delete;
  BrowserAuthorization& operator=(const BrowserAuthorization&) = delete;

  // Shows `url` in the browser program, with `arguments` after it on its
  // command line, and blocks until the session ends. 0 when the session took
  // place (however it ended), else a StartError.
  int Start(const std::string& url, const std::vector<std::string>& arguments);
  // Brings the browser to the front; nothing when none runs.
  void SetFocus();

  std::string browser_;  // path of the browser program
  bool running_;         // a session is on; clearing it ends the session
  std::mutex mutex_;     // guards running_

 private:
  std::string name_;
  IEventHandler* handler_;
  pid_t pid_;  // the browser process of the session, under mutex_; 0 when none
};

}  // namespace utilities
}  // namespace quillstone
