#define QS_SOURCE_NAME "src/auth"

#include "auth.h"

#include <stdlib.h>

#include <map>
#include <vector>

#include "device_root.h"
#include "dropboxsynchronizer.h"
#include "qs_log.h"
#include "tessera.h"
#include "url.h"

namespace quillstone {
namespace dropbox {

namespace {

constexpr char kLogoPath[] = "/tmp/dropbox_browser_logo.bmp";
// Five minutes: the point at which the person is told, not a time-out.
constexpr int kTooLongMs = 300000;

}  // namespace

Auth::Auth()
    : browser_("dropbox", this), logged_in_(false), protocol_(nullptr), too_long_shown_(false) {
  browser_.browser_ = utilities::DevicePath("/fwroot/bin/browser.app");
}

Auth::~Auth() {}

int Auth::Run(DropboxProtocol* protocol) {
  logged_in_ = false;
  protocol_ = protocol;
  if (!protocol) {
    QS_LOG(kLogError,
           "Condition: \"protocol\", return(\"DropboxProtocol::kFail\")]protocol is NULL");
    return DropboxProtocol::kFail;
  }

  // The service's logo in the browser's title bar, when the device has it.
  std::vector<std::string> arguments;
  void* logo = GetResource("browser_dropbox", 0);
  if (logo) {
    const std::string logo_path = utilities::DevicePath(kLogoPath);
    (void)SaveBitmap(logo_path.c_str(), logo);
    arguments.push_back("-img");
    arguments.push_back(logo_path);
  }

  (void)protocol->resetAuth();
  const std::string url = protocol->generateAuthorizationUrl();
  too_long_shown_ = false;
  const int err = browser_.Start(url, arguments);
  if (err != 0) {
    QS_LOG(kLogError, "err:[%d] Authorize - failed", err);
    return err;
  }
  if (!logged_in_) {
    QS_LOG(kLogError, "Failed to log it");
    return DropboxProtocol::kErrServer;
  }
  return DropboxProtocol::kSuccess;
}

void Auth::Stop() {
  std::lock_guard<std::mutex> lock(browser_.mutex_);
  browser_.running_ = false;
}

bool Auth::IsRunning() {
  std::lock_guard<std::mutex> lock(browser_.mutex_);
  return browser_.running_;
}

void Auth::SetFocus() { browser_.SetFocus(); }

void Auth::UrlChanged(const std::string& url_string) {
  // The redirect carries the code, which never goes into a log.
  QS_LOG(kLogNotice, "WebAuthorization::ProcessNewUrl. url_string = [%s]",
         utilities::RedactUrl(url_string).c_str());
  const utilities::Url url(url_string);
  // Only a prefix counts: the authorisation page's own address carries the
  // redirect address inside its query.
  if (url_string.find(protocol_->getRedirectUri(), 0) != 0) {
    QS_LOG(kLogError,
           "Condition: \"url_string.find(protocol_->getRedirectUri(), 0) != 0\", return]");
    return;
  }

  std::map<std::string, std::string> params = utilities::Url::ParseQuery(url.query_);
  const auto state = params.find("state");
  const bool good = params.count("code") != 0 && state != params.end() &&
                    state->second == protocol_->oauth_state_;
  const bool safe = profile_ == SyncProfile::kSafe;
  if (good) {
    if (protocol_->retrieveTokenByCode(params["code"]) == DropboxProtocol::kSuccess) {
      if (safe && protocol_->access_token_.empty()) {
        // A refused code is a failed log-in; the person may still be logged in.
        QS_LOG(kLogError, "the service gave no token for the code; the stored one is kept");
      } else {
        (void)protocol_->receiveAccountInfo();  // a refused token is saved all the same
        protocol_->saveAccessTokenAndAccountInfo();
        logged_in_ = true;
      }
    }
  } else if (safe) {
    // Whoever can make the browser arrive here must not log the person out.
    logged_in_ = false;
    QS_LOG(kLogError, "a redirect without a valid code; the stored login is kept");
  } else {
    logged_in_ = false;
    if (protocol_) {
      (void)protocol_->resetAuth();
      protocol_->saveAccessToken();
    }
  }
  Stop();
}

void Auth::BrowserClosed() {}

void Auth::TimePassed(int ms) {
  if (ms < kTooLongMs + 1) return;
  if (too_long_shown_) return;
  const std::string command = EscapeForShell(utilities::DevicePath("/fwroot/bin/dialog")) +
                              " 1 @TooLongDropboxAuth @TooLongDropboxAuth @OK";
  (void)system(command.c_str());  // blocks until the person presses the button
  too_long_shown_ = true;
}

}  // namespace dropbox
}  // namespace quillstone
