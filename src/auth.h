// Log-in through the device's browser (the OAuth 2 authorisation-code flow).
//
// Auth opens the browser on the service's authorisation page, watches every
// address the browser arrives at, and when it arrives at the redirect page
// takes the code from it, trades it for a token and saves the token and the
// account in the settings file. A redirect without a code, or with a "state"
// other than the one sent, empties the stored token: a forged or refused
// redirect logs out an account that was logged in. In the safe profile such
// a redirect, and a code the service refuses, leave the stored token as it
// was and end the log-in without one.
//
// Thread safety: Run on one thread at a time; it blocks for the whole life
// of the browser, during which the event operations run on the thread that
// delivers the browser's events. Stop and IsRunning from any thread.
#pragma once

#include <string>

#include "browser_authorization.h"
#include "dropboxprotocol.h"
#include "sync_profile.h"

namespace quillstone {
namespace dropbox {

class Auth : private utilities::BrowserAuthorization::IEventHandler {
 public:
  Auth();
  ~Auth() override;
  Auth(const Auth&) = delete;
  Auth& operator=(const Auth&) = delete;

  // One whole log-in with `protocol` (not owned). kSuccess once a token was
  // saved (possibly empty, when the service refused the code, unless in the
  // safe profile); kFail for a
  // null protocol; kErrServer when the browser ended without a token; or the
  // code of BrowserAuthorization::Start when the browser could not be had.
  // Exceptions of the token exchange (a reply that is JSON but not an
  // object) pass through.
  int Run(DropboxProtocol* protocol);
  // The profile of the log-ins that follow; classic until set.
  void SetProfile(SyncProfile profile) { profile_ = profile; }
  // Ends the browser; Run then returns.
  void Stop();
  bool IsRunning();
  void SetFocus();

  // Events of the browser session.
  void UrlChanged(const std::string& url_string) override;
  void BrowserClosed() override;
  // After five minutes, tells the person once per run that the log-in takes
  // long; the browser is left running.
  void TimePassed(int ms) override;

 private:
  utilities::BrowserAuthorization browser_;
  bool logged_in_;             // a token was saved in this run
  ServerUrls server_urls_;     // not read
  DropboxProtocol* protocol_;  // of the current run; not owned
  bool too_long_shown_;        // the too-long dialog was shown in this run
  SyncProfile profile_ = SyncProfile::kClassic;
};

}  // namespace dropbox
}  // namespace quillstone
