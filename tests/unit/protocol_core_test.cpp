// The protocol object's core: result codes, token keeping, the account
// request, service settings, and the HTTP runner beneath them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <map>

#include "device_root.h"
#include "dropboxprotocol.h"
#include "support/loopback_server.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::utilities::DevicePath;
using quillstone::utilities::HttpRequest;
using quillstone::utilities::HttpRequestRunner;

namespace {

const char kSettings[] = "/mnt/ext1/system/config/dropbox/dropbox.cfg";
const char kService[] = "/fwroot/etc/dropbox/service.cfg";

void WriteKeys(const char* device_path, const std::map<std::string, std::string>& keys) {
  void* config = OpenConfig(DevicePath(device_path).c_str(), 0);
  for (const auto& key : keys) WriteString(config, key.first.c_str(), key.second.c_str());
  CloseConfig(config);
}

std::string ReadKey(const char* device_path, const char* key, bool secret = false) {
  void* config = OpenConfig(DevicePath(device_path).c_str(), 0);
  std::string value =
      secret ? ReadSecret(config, key, "<none>") : ReadString(config, key, "<none>");
  CloseConfigNoSave(config);
  return value;
}

std::vector<char> Bytes(const std::string& text) {
  return std::vector<char>(text.begin(), text.end());
}

class ProtocolCoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    unlink(DevicePath(kSettings).c_str());
    unlink(DevicePath(kService).c_str());
  }
  // A protocol object that talks to `url` instead of the real service.
  std::unique_ptr<DropboxProtocol> ProtocolFor(const std::string& url) {
    WriteKeys(kService, {{"api_url", url + "/2"}, {"content_url", url + "/2"}});
    return std::unique_ptr<DropboxProtocol>(new DropboxProtocol());
  }
};

TEST_F(ProtocolCoreTest, MapsEveryAnswerToItsResultCode) {
  struct Case {
    long code;
    const char* body;
    int expected;
  } cases[] = {
      {200, "not even json", DropboxProtocol::kSuccess},
      {401, "", DropboxProtocol::kNotAuthorized},
      {429, "{\"error\":{\"reason\":{\".tag\":\"too_many_requests\"}}}",
       DropboxProtocol::kTooManyRequests},
      {409, "{\"error\":{\".tag\":\"path\",\"path\":{\".tag\":\"not_found\"}}}",
       DropboxProtocol::kNotFound},
      {409, "{\"error\":{\".tag\":\"path_lookup\",\"path_lookup\":{\".tag\":\"not_found\"}}}",
       DropboxProtocol::kNotFound},
      {409, "{\"error\":{\".tag\":\"path\",\"path\":{\".tag\":\"conflict\"}}}",
       DropboxProtocol::kConflict},
      {409, "{\"error\":{\".tag\":\"path\",\"path\":{\".tag\":\"restricted_content\"}}}",
       DropboxProtocol::kRestrictedContent},
      {409, "{\"error\":{\".tag\":\"path\",\"path\":{\".tag\":\"malformed_path\"}}}",
       DropboxProtocol::kErrServer},
      {409, "{\"error\":{\".tag\":\"reset\"}}", DropboxProtocol::kErrServer},
      {409, "{\"error\":{\".tag\":6}}", DropboxProtocol::kErrServer},  // a number matches no tag
      {409, "", DropboxProtocol::kErrServer},
      {409, "<html>busy</html>", DropboxProtocol::kErrServer},
      {206, "", DropboxProtocol::kErrServer},
      {201, "", DropboxProtocol::kErrServer},
      {400, "Error in call to API function", DropboxProtocol::kErrServer},
      {500, "", DropboxProtocol::kErrServer},
  };
  DropboxProtocol protocol;
  for (const Case& c : cases) {
    EXPECT_EQ(c.expected, protocol.processResponseCode(c.code, Bytes(c.body)))
        << c.code << " " << c.body;
  }
}

TEST_F(ProtocolCoreTest, KeepsTokenAndAccountInTheSettingsFile) {
  const std::string token = "sl.T\xC3\xB6k\xE2\x82\xAC=n+/";  // non-ASCII bytes pass unchanged
  {
    DropboxProtocol protocol;
    protocol.loadAccessToken();  // no file yet
    EXPECT_EQ("", protocol.access_token_);
    protocol.access_token_ = token;
    protocol.user_name_ = "Ada L";
    protocol.account_id_ = "dbid:AAA";
    protocol.user_email_ = "ada@example.org";
    protocol.saveAccessTokenAndAccountInfo();
  }
  EXPECT_EQ("dbid:AAA", ReadKey(kSettings, "account_id"));
  EXPECT_EQ("Ada L", ReadKey(kSettings, "user_name"));
  EXPECT_EQ("ada@example.org", ReadKey(kSettings, "user_email"));
  EXPECT_EQ(token, ReadKey(kSettings, "access_token_v2", true));

  DropboxProtocol protocol;
  protocol.loadAccessToken();
  EXPECT_EQ(token, protocol.access_token_);
  EXPECT_EQ("Bearer " + token, protocol.getRpcHeaders()["Authorization"]);
  EXPECT_EQ(0, protocol.resetAuth());
  EXPECT_EQ("", protocol.access_token_);
  protocol.loadAccessToken();  // only memory was cleared
  EXPECT_EQ(token, protocol.access_token_);

  protocol.account_id_ = "dbid:BBB";
  protocol.access_token_ = "other";
  protocol.saveAccountInfo();  // leaves the token alone
  EXPECT_EQ("dbid:BBB", ReadKey(kSettings, "account_id"));
  EXPECT_EQ(token, ReadKey(kSettings, "access_token_v2", true));
  protocol.access_token_.clear();
  protocol.saveAccessToken();
  protocol.access_token_ = "stale";
  protocol.loadAccessToken();
  EXPECT_EQ("", protocol.access_token_);
}

TEST_F(ProtocolCoreTest, AccountRequestFillsFieldsOrLeavesThem) {
  qs_test::LoopbackServer server;
  auto protocol = ProtocolFor(server.Url());
  protocol->access_token_ = "tok";
  server.Queue(
      200,
      "{\"account_id\":\"dbid:AAA\",\"name\":{\"display_name\":\"Ada\"},\"email\":\"a@x.org\"}");
  ASSERT_EQ(DropboxProtocol::kSuccess, protocol->receiveAccountInfo());
  EXPECT_EQ("dbid:AAA", protocol->account_id_);
  EXPECT_EQ("dbid:AAA", protocol->uid_);
  EXPECT_EQ("Ada", protocol->user_name_);
  EXPECT_EQ("a@x.org", protocol->user_email_);

  const auto requests = server.Requests();
  ASSERT_EQ(1u, requests.size());
  EXPECT_EQ("POST", requests[0].method);
  EXPECT_EQ("/2/users/get_current_account", requests[0].target);
  EXPECT_EQ("null", requests[0].body);
  EXPECT_EQ("Bearer tok", requests[0].Header("Authorization"));
  EXPECT_EQ("application/json", requests[0].Header("Content-Type"));
  EXPECT_FALSE(requests[0].HasHeader("Expect"));

  server.Queue(401, "{\"error\":{\".tag\":\"expired_access_token\"}}");
  EXPECT_EQ(DropboxProtocol::kNotAuthorized, protocol->receiveAccountInfo());
  EXPECT_EQ("Ada", protocol->user_name_);

  // Replies the parser cannot use, or of the wrong shape, give empty fields.
  for (const char* body : {"<html>", "[1,2]", "\"text\"", "{\"account_id\":7,\"name\":\"Ada\"}"}) {
    protocol->user_email_ = "kept?";
    server.Queue(200, body);
    EXPECT_EQ(DropboxProtocol::kSuccess, protocol->receiveAccountInfo()) << body;
    EXPECT_EQ("", protocol->user_name_) << body;
    EXPECT_EQ("", protocol->user_email_) << body;
  }
  EXPECT_EQ("7", protocol->account_id_);  // a signed number is read as its text
}

TEST_F(ProtocolCoreTest, ServiceSettingsChooseAddressesAndAppKeys) {
  {
    DropboxProtocol protocol;
    EXPECT_EQ("https://api.dropboxapi.com/2", protocol.server_urls_.rpc_url);
    EXPECT_EQ(protocol.server_urls_.rpc_url, protocol.server_urls_.api_url);
    EXPECT_EQ("https://content.dropboxapi.com/2", protocol.server_urls_.content_url);
    EXPECT_FALSE(quillstone::dropbox::oauth_consumer_key.empty());
    EXPECT_LE(quillstone::dropbox::oauth_consumer_key.size(), 15u);
    EXPECT_FALSE(quillstone::dropbox::oauth_consumer_secret.empty());
    EXPECT_EQ("HMAC-SHA1", quillstone::dropbox::oauth_signature_method);
  }
  WriteKeys(kService, {{"api_url", "http://127.0.0.1:1/2"},
                       {"content_url", "http://127.0.0.1:2/2"},
                       {"app_key", "emulator-app-key-longer-than-16"},
                       {"app_secret", "s3cret"}});
  DropboxProtocol protocol;
  EXPECT_EQ("http://127.0.0.1:1/2", protocol.server_urls_.rpc_url);
  EXPECT_EQ("http://127.0.0.1:1/2", protocol.server_urls_.api_url);
  EXPECT_EQ("http://127.0.0.1:2/2", protocol.server_urls_.content_url);
  EXPECT_EQ("emulator-app-key-longer-than-16", quillstone::dropbox::oauth_consumer_key);
  EXPECT_EQ("s3cret", quillstone::dropbox::oauth_consumer_secret);
}

TEST_F(ProtocolCoreTest, RunnerSendsExactRequestsAndReusesTheConnection) {
  qs_test::LoopbackServer server;
  HttpRequestRunner runner;
  for (int i = 0; i < 3; ++i) server.Queue(200, "{}");
  HttpRequest empty("POST", server.Url() + "/empty");
  empty.AddHeader("X-Empty", "");
  HttpRequest big("POST", server.Url() + "/big");
  big.AddPostData(std::string(1200000, 'b'));  // large enough for curl to want "100-continue"
  HttpRequest form("POST", server.Url() + "/form?x=1");
  form.AddPostData("a=1&b=2");
  for (const HttpRequest* request : {&empty, &big, &form}) {
    long code = 0;
    std::vector<char> data;
    ASSERT_EQ(0, runner.PerformRequest(*request, &code, &data));
    EXPECT_EQ(200, code);
    EXPECT_EQ("{}", std::string(data.begin(), data.end()));
  }
  const auto requests = server.Requests();
  ASSERT_EQ(3u, requests.size());
  EXPECT_EQ("POST", requests[0].method);
  EXPECT_EQ("0", requests[0].Header("Content-Length"));
  EXPECT_TRUE(requests[0].HasHeader("X-Empty"));
  EXPECT_EQ(1200000u, requests[1].body.size());
  EXPECT_FALSE(requests[1].HasHeader("Expect"));
  EXPECT_EQ("/form?x=1", requests[2].target);
  EXPECT_EQ("a=1&b=2", requests[2].body);
  EXPECT_EQ(1, server.ConnectionCount());
}

TEST_F(ProtocolCoreTest, RunnerReportsNoAnswerWithoutTouchingOutputs) {
  HttpRequestRunner runner;
  long code = -5;
  std::vector<char> data{'x'};
  const auto start = std::chrono::steady_clock::now();
  HttpRequest refused("POST", "http://127.0.0.1:" + std::to_string(qs_test::UnusedPort()) + "/2/x");
  EXPECT_NE(0, runner.PerformRequest(refused, &code, &data));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

  qs_test::LoopbackServer server;
  qs_test::CannedReply drop;
  drop.drop = true;
  server.Queue(drop);
  EXPECT_NE(0, runner.PerformRequest(HttpRequest("POST", server.Url() + "/x"), &code, &data));
  EXPECT_EQ(-5, code);
  EXPECT_EQ(1u, data.size());

  // An https address whose peer speaks plain HTTP is a failed exchange too.
  server.Queue(200, "{}");
  EXPECT_NE(0, runner.PerformRequest(
                   HttpRequest("POST", "https://127.0.0.1:" + std::to_string(server.port()) + "/x"),
                   &code, &data));

  auto protocol = ProtocolFor("http://127.0.0.1:" + std::to_string(qs_test::UnusedPort()));
  protocol->account_id_ = "kept";
  EXPECT_EQ(DropboxProtocol::kErrNoNetwork, protocol->receiveAccountInfo());
  EXPECT_EQ("kept", protocol->account_id_);
}

TEST_F(ProtocolCoreTest, RunnerGoesThroughTheDeviceProxy) {
  qs_test::LoopbackServer proxy;
  WriteKeys("/fwroot/etc/network.cfg", {{"proxy", proxy.Url()}});
  proxy.Queue(200, "via proxy");
  HttpRequestRunner runner;
  long code = 0;
  std::vector<char> data;
  EXPECT_EQ(0,
            runner.PerformRequest(HttpRequest("POST", "http://service.invalid/2/x"), &code, &data));
  EXPECT_EQ("via proxy", std::string(data.begin(), data.end()));
  ASSERT_EQ(1u, proxy.Requests().size());
  EXPECT_EQ("http://service.invalid/2/x", proxy.Requests()[0].target);
  unlink(DevicePath("/fwroot/etc/network.cfg").c_str());
}

}  // namespace
