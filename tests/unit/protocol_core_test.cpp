// The protocol object's core: result codes, token keeping, the account
// request, service settings, and the HTTP runner beneath them.
#include <gtest/gtest.h>
#include <unistd.h>

#include "device_names.h"
#include "device_root.h"
#include "dropboxprotocol.h"
#include "host_device.h"
#include "support/loopback_server.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::kAccessTokenKey;
using quillstone::dropbox::kAccountIdKey;
using quillstone::dropbox::kDropboxSettingsFile;
using quillstone::dropbox::kServiceSettingsFile;
using quillstone::host::kNetworkSettings;
using quillstone::utilities::DevicePath;
using quillstone::utilities::HttpRequest;
using quillstone::utilities::HttpRequestRunner;

namespace {

std::vector<char> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

class ProtocolCoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    unlink(DevicePath(kDropboxSettingsFile).c_str());
    unlink(DevicePath(kServiceSettingsFile).c_str());
  }
};

TEST_F(ProtocolCoreTest, MapsEveryAnswerToItsResultCode) {
  const struct {
    long code;
    const char* body;
    int expected;
  } cases[] = {
      {200, "not even json", 0},
      {401, "", 1},
      {429, R"({"error":{"reason":{".tag":"too_many_requests"}}})", 7},
      {409, R"({"error":{".tag":"path","path":{".tag":"not_found"}}})", 6},
      {409, R"({"error":{".tag":"path_lookup","path_lookup":{".tag":"not_found"}}})", 6},
      {409, R"({"error":{".tag":"path","path":{".tag":"conflict"}}})", 8},
      {409, R"({"error":{".tag":"path","path":{".tag":"restricted_content"}}})", 13},
      {409, R"({"error":{".tag":"path","path":{".tag":"malformed_path"}}})", 10},
      {409, R"({"error":{".tag":"reset"}})", 10},
      {409, R"({"error":{".tag":6}})", 10},  // a number matches no tag
      {409, "", 10},
      {206, "", 10},
      {400, "Error in call to API function", 10},
      {500, "", 10},
  };
  DropboxProtocol protocol;
  for (const auto& c : cases) {
    EXPECT_EQ(c.expected, protocol.processResponseCode(c.code, Bytes(c.body))) << c.code << c.body;
  }
}

TEST_F(ProtocolCoreTest, KeepsTokenAndAccountInTheSettingsFile) {
  const std::string token = "sl.T\xC3\xB6k\xE2\x82\xAC=n+/";  // non-ASCII bytes pass unchanged
  DropboxProtocol protocol;
  protocol.loadAccessToken();  // no file yet
  EXPECT_EQ("", protocol.access_token_);
  protocol.access_token_ = token;
  protocol.saveAccessTokenAndAccountInfo();  // the account fields are checked by the log-in runs

  EXPECT_EQ(0, protocol.resetAuth());
  EXPECT_EQ("", protocol.access_token_);
  protocol.loadAccessToken();  // only memory was cleared
  EXPECT_EQ(token, protocol.access_token_);
  EXPECT_EQ("Bearer " + token, protocol.getRpcHeaders()["Authorization"]);

  protocol.account_id_ = "dbid:BBB";
  protocol.access_token_ = "unsaved";
  protocol.saveAccountInfo();  // leaves the token alone
  EXPECT_EQ("dbid:BBB", qs_test::ReadSetting(kDropboxSettingsFile, kAccountIdKey));
  EXPECT_EQ(token, qs_test::ReadSetting(kDropboxSettingsFile, kAccessTokenKey));
  protocol.access_token_.clear();
  protocol.saveAccessToken();
  EXPECT_EQ("", qs_test::ReadSetting(kDropboxSettingsFile, kAccessTokenKey));
}

TEST_F(ProtocolCoreTest, AccountRequestFillsFieldsOrLeavesThem) {
  qs_test::LoopbackServer server;
  qs_test::WriteSettings(kServiceSettingsFile, {{"api_url", server.Url() + "/2"}});
  DropboxProtocol protocol;
  protocol.access_token_ = "tok";
  server.Queue(200, R"({"account_id":"dbid:A","name":{"display_name":"Ada"},"email":"a@x.org"})");
  ASSERT_EQ(0, protocol.receiveAccountInfo());
  EXPECT_EQ("dbid:A dbid:A Ada a@x.org", protocol.account_id_ + " " + protocol.uid_ + " " +
                                             protocol.user_name_ + " " + protocol.user_email_);
  const qs_test::RecordedRequest request = server.Requests().at(0);
  EXPECT_EQ("POST /2/users/get_current_account null",
            request.method + " " + request.target + " " + request.body);
  EXPECT_EQ("Bearer tok", request.Header("Authorization"));
  EXPECT_EQ("application/json", request.Header("Content-Type"));

  server.Queue(401, R"({"error":{".tag":"expired_access_token"}})");
  EXPECT_EQ(DropboxProtocol::kNotAuthorized, protocol.receiveAccountInfo());
  EXPECT_EQ("Ada", protocol.user_name_);

  // Replies the parser cannot use, or of the wrong shape, give empty fields.
  for (const char* body : {"<html>", R"({"account_id":7,"name":"Ada"})"}) {
    protocol.user_email_ = "kept?";
    server.Queue(200, body);
    EXPECT_EQ(0, protocol.receiveAccountInfo()) << body;
    EXPECT_EQ("", protocol.user_name_ + protocol.user_email_) << body;
  }
  EXPECT_EQ("7", protocol.account_id_);  // a signed number is read as its text
}

TEST_F(ProtocolCoreTest, RunnerSendsExactRequestsOverOneConnectionOrTheProxy) {
  qs_test::LoopbackServer server;
  HttpRequestRunner runner;
  HttpRequest empty("POST", server.Url() + "/empty");
  empty.AddHeader("X-Empty", "");
  HttpRequest big("POST", server.Url() + "/big?x=1");
  big.AddPostData(std::string(1200000, 'b'));  // large enough for curl to want "100-continue"
  big.AddHeader("Authorization", "Bearer T");  // a log-in exchange, without it, never shares
  empty.AddHeader("Authorization", "Bearer T");
  for (const HttpRequest* request : {&empty, &big}) {
    server.Queue(200, "{}");
    long code = 0;
    std::vector<char> data;
    ASSERT_EQ(0, runner.PerformRequest(*request, &code, &data));
    EXPECT_EQ(200, code);
    EXPECT_EQ("{}", std::string(data.begin(), data.end()));
  }
  const auto requests = server.Requests();
  EXPECT_EQ("POST", requests[0].method);
  EXPECT_EQ("0", requests[0].Header("Content-Length"));
  EXPECT_TRUE(requests[0].HasHeader("X-Empty"));
  EXPECT_EQ("/big?x=1", requests[1].target);
  EXPECT_EQ(1200000u, requests[1].body.size());
  EXPECT_FALSE(requests[1].HasHeader("Expect"));
  EXPECT_EQ(1, server.ConnectionCount());

  // A fresh runner reads the device's proxy.
  qs_test::WriteSettings(kNetworkSettings, {{"proxy", server.Url()}});
  server.Queue(200, "via proxy");
  long code = 0;
  std::vector<char> data;
  EXPECT_EQ(0, HttpRequestRunner().PerformRequest(HttpRequest("POST", "http://svc.invalid/2/x"),
                                                  &code, &data));
  EXPECT_EQ("via proxy", std::string(data.begin(), data.end()));
  EXPECT_EQ("http://svc.invalid/2/x", server.Requests().back().target);
  unlink(DevicePath(kNetworkSettings).c_str());
}

}  // namespace
