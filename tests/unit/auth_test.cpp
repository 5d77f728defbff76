// The browser log-in: the authorisation address and token request forms, the
// redirect check of Auth::Run over a scripted browser program and a loopback
// token endpoint, the logo, and the too-long dialog.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "auth.h"
#include "device_names.h"
#include "device_root.h"
#include "support/loopback_server.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::Auth;
using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::kAccessTokenKey;
using quillstone::dropbox::kDropboxSettingsFile;
using quillstone::dropbox::kServiceSettingsFile;
using quillstone::utilities::DevicePath;

namespace {

const char kRedirect[] = "https://redirect.test/misc/dropbox/index.html";

std::string StoredToken() { return qs_test::ReadSetting(kDropboxSettingsFile, kAccessTokenKey); }

class AuthTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    qs_test::WriteSettings(kServiceSettingsFile,
                           {{"api_url", server_.Url() + "/2"},
                            {"authorize_url", "https://auth.test/oauth2/authorize"},
                            {"token_url", server_.Url() + "/oauth2/token"},
                            {"redirect_uri", kRedirect},
                            {"app_key", "K"},
                            {"app_secret", "S"}});
    protocol_.reset(new DropboxProtocol());
  }

  // Installs a browser program that runs `script` with the address in $1,
  // its state in $s and the redirect page in $R; events go to fd 3.
  void Browser(const std::string& script) {
    const std::string path = DevicePath("/fwroot/bin/browser.app");
    (void)te_buildpath(path.c_str());
    (void)te_buildpath(qs_test::Under("/tmp/").c_str());
    unlink(path.c_str());
    qs_test::WriteFile(path, "#!/bin/sh\necho $$ > " + qs_test::Under("/tmp/browser.pid") +
                                 "\necho \"$@\" > " + qs_test::Under("/tmp/browser.args") +
                                 "\ns=${1##*state=}\nR=" + kRedirect + "\n" + script + "\n");
    chmod(path.c_str(), 0755);
  }

  // The browser does not outlive the run.
  bool BrowserGone() {
    const int pid = std::atoi(qs_test::ReadFile(qs_test::Under("/tmp/browser.pid")).c_str());
    return pid > 0 && kill(pid, 0) != 0;
  }

  qs_test::LoopbackServer server_;
  std::unique_ptr<DropboxProtocol> protocol_;
};

TEST_F(AuthTest, AddressAndTokenRequestAreSentAsTheyStand) {
  const std::string url = protocol_->generateAuthorizationUrl();
  EXPECT_EQ("https://auth.test/oauth2/authorize?client_id=K&redirect_uri=" +
                std::string(kRedirect) + "&response_type=code&state=" + protocol_->oauth_state_,
            url);
  EXPECT_EQ(32u, protocol_->oauth_state_.size());
  protocol_->generateAuthorizationUrl();
  EXPECT_EQ(std::string::npos, url.find(protocol_->oauth_state_));

  // Whatever the HTTP code, the fields come from the reply.
  server_.Queue(400, R"({"access_token":"T","account_id":42})");
  ASSERT_EQ(0, protocol_->retrieveTokenByCode("a&b+c%2B"));
  EXPECT_EQ("T", protocol_->access_token_);
  EXPECT_EQ("42", protocol_->uid_);
  const qs_test::RecordedRequest request = server_.Requests().back();
  EXPECT_EQ("POST /oauth2/token", request.method + " " + request.target);
  EXPECT_EQ(
      "client_id=K&client_secret=S&code=a&b+c%2B&grant_type=authorization_code&redirect_uri=" +
          std::string(kRedirect),
      request.body);
  server_.Queue(400, R"({"error":"invalid_grant"})");
  EXPECT_EQ(0, protocol_->retrieveTokenByCode("x"));
  EXPECT_EQ("", protocol_->access_token_ + protocol_->uid_);
}

TEST_F(AuthTest, OnlyAGoodRedirectGivesAToken) {
  struct Case {
    const char* script;
    const char* token_reply;  // null: no token request expected; "drop": no answer
    int result;
    const char* token;  // in the file afterwards
    const char* code = "&code=C&";
  };
  const Case cases[] = {
      // The redirect address inside the authorisation page's query does not count.
      {"echo \"url $1\" >&3; echo \"url https://a.test/?r=$R?code=C&state=$s\" >&3", nullptr, 10,
       "OLD"},
      {"echo \"url $R?code=c%2B1&state=$s#_=_\" >&3; exec sleep 30", R"({"access_token":"NEW"})", 0,
       "NEW", "&code=c%2B1&"},
      {"echo \"url ${R}x?code=C&state=$s\" >&3; exec sleep 30", R"({"access_token":"NEW"})", 0,
       "NEW"},
      {"echo \"url $R?code=C&state=$s\" >&3; exec sleep 30", "<html>not JSON</html>", 0, ""},
      {"echo \"url $R?code=C&state=$s\" >&3; exec sleep 30", "drop", 10, "OLD"},
      {"echo \"url $R?code=C&state=$(echo $s | tr a-f A-F)\" >&3; exec sleep 30", nullptr, 10, ""},
      {"echo \"url $R?code=C&state=$s&state=$s\" >&3; exec sleep 30", nullptr, 10, ""},
      {"kill -SEGV $$", nullptr, 10, "OLD"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.script);
    qs_test::WriteSettings(kDropboxSettingsFile, {{kAccessTokenKey, "OLD"}});
    Browser(c.script);
    protocol_.reset(new DropboxProtocol());  // a fresh connection, which curl does not retry
    const size_t before = server_.Requests().size();
    if (c.token_reply) {
      qs_test::CannedReply reply;
      reply.drop = std::string(c.token_reply) == "drop";
      reply.body = c.token_reply;
      server_.Queue(reply);
      if (!reply.drop) server_.Queue(200, R"({"account_id":"dbid:1"})");
    }
    Auth auth;
    EXPECT_EQ(c.result, auth.Run(protocol_.get()));
    EXPECT_EQ(c.token, StoredToken());
    EXPECT_FALSE(auth.IsRunning());
    const auto requests = server_.Requests();
    EXPECT_EQ(c.token_reply ? (std::string(c.token_reply) == "drop" ? 1u : 2u) : 0u,
              requests.size() - before);
    // The code goes on as the redirect gave it.
    if (requests.size() > before) {
      EXPECT_NE(std::string::npos, requests[before].body.find(c.code)) << requests[before].body;
    }
    EXPECT_TRUE(BrowserGone());
  }
  // Without a logo resource the browser gets the address alone.
  EXPECT_EQ(std::string::npos, qs_test::ReadFile(qs_test::Under("/tmp/browser.args")).find("-img"));
  EXPECT_FALSE(qs_test::Exists(qs_test::Under("/tmp/dropbox_browser_logo.bmp")));
}

TEST_F(AuthTest, FailuresOutsideTheRedirect) {
  Auth auth;
  EXPECT_EQ(DropboxProtocol::kFail, auth.Run(nullptr));
  unlink(DevicePath("/fwroot/bin/browser.app").c_str());
  EXPECT_EQ(127, auth.Run(protocol_.get()));

  // A token reply that is JSON but no object leaves Run; the browser goes too.
  Browser("echo \"url $R?code=C&state=$s\" >&3; exec sleep 30");
  server_.Queue(200, "[1]");
  EXPECT_ANY_THROW(auth.Run(protocol_.get()));
  EXPECT_FALSE(auth.IsRunning());
  EXPECT_TRUE(BrowserGone());
}

TEST_F(AuthTest, LogoIsSavedAsABitmapAndShown) {
  const std::string resource = DevicePath("/fwroot/share/resources/browser_dropbox.pnm");
  (void)te_buildpath(resource.c_str());
  qs_test::WriteFile(resource, std::string("P6\n# logo\n2 2\n255\n") + std::string(12, '\x7f'));
  Browser("exit 0");
  Auth auth;
  EXPECT_EQ(10, auth.Run(protocol_.get()));
  const std::string logo = qs_test::Under("/tmp/dropbox_browser_logo.bmp");
  EXPECT_NE(std::string::npos,
            qs_test::ReadFile(qs_test::Under("/tmp/browser.args")).find(" -img " + logo));
  const std::string bmp = qs_test::ReadFile(logo);
  ASSERT_EQ(54u + 2 * 8, bmp.size());  // two rows of 6 bytes, padded to 8
  EXPECT_EQ("BM", bmp.substr(0, 2));
}

TEST_F(AuthTest, TooLongDialogOncePerRun) {
  qs_test::InstallBuiltProgram("dialog");
  const std::string log = qs_test::Under("/var/log/dialogs.log");
  Auth auth;
  auth.TimePassed(300000);
  EXPECT_EQ("", qs_test::ReadFile(log));
  auth.TimePassed(300001);
  auth.TimePassed(999999);
  EXPECT_EQ("1|@TooLongDropboxAuth|@TooLongDropboxAuth|@OK\n", qs_test::ReadFile(log));
  Browser("exit 0");
  auth.Run(protocol_.get());
  auth.TimePassed(300001);
  EXPECT_EQ(2 * 46u, qs_test::ReadFile(log).size());
}

}  // namespace
