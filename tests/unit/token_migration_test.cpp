// Migration of a stored OAuth 1 pair to an OAuth 2 token, against a loopback
// service: when it is needed, the request, and that every failure leaves the
// settings file exactly as it was.
#include <gtest/gtest.h>

#include <map>

#include "device_names.h"
#include "device_root.h"
#include "dropboxprotocol.h"
#include "support/loopback_server.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::kAccessTokenKey;
using quillstone::dropbox::kAccountIdKey;
using quillstone::dropbox::kDropboxSettingsFile;
using quillstone::dropbox::kFolderKey;
using quillstone::dropbox::kOldTokenKey;
using quillstone::dropbox::kOldTokenSecretKey;
using quillstone::dropbox::kOldUidKey;
using quillstone::dropbox::kServiceSettingsFile;
using quillstone::dropbox::kUserEmailKey;
using quillstone::dropbox::kUserNameKey;
using quillstone::utilities::DevicePath;
using Keys = std::map<std::string, std::string>;

namespace {

const char kAccount[] = R"({"account_id":"dbid:NEW","name":{"display_name":"N"},"email":"e"})";

void Reset(const Keys& keys) {
  unlink(DevicePath(kDropboxSettingsFile).c_str());
  qs_test::WriteSettings(kDropboxSettingsFile, keys);
}

std::string Read(const std::string& key) { return qs_test::ReadSetting(kDropboxSettingsFile, key); }

class TokenMigrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    qs_test::WriteSettings(
        kServiceSettingsFile,
        {{"api_url", server_.Url() + "/2"}, {"app_key", "key"}, {"app_secret", "s3cr:t"}});
  }
  qs_test::LoopbackServer server_;
};

TEST_F(TokenMigrationTest, NeededOnlyWithTheOldTokenAlone) {
  DropboxProtocol protocol;
  const struct {
    Keys keys;
    bool need;
  } table[] = {
      {{}, false},
      {{{kOldTokenKey, "v1"}}, true},
      {{{kAccessTokenKey, "v2"}}, false},
      {{{kAccessTokenKey, "v2"}, {kOldTokenKey, "v1"}}, false},
  };
  for (const auto& row : table) EXPECT_EQ(row.need, (Reset(row.keys), protocol.needMigrateToV2()));
}

TEST_F(TokenMigrationTest, FailuresChangeNothingAndSuccessMovesTheFolder) {
  const Keys old_pair = {{kOldTokenKey, "T1"},
                         {kOldTokenSecretKey, "S1"},
                         {kOldUidKey, "77"},
                         {kFolderKey + std::string("77"), "/old/folder"}};
  const qs_test::CannedReply refused{409, R"({"error":{".tag":"invalid_oauth1_token_info"}})", {}};
  const qs_test::CannedReply new_token{200, R"({"oauth2_token":"T2"})", {}};
  const struct {
    const char* name;
    Keys keys;
    std::vector<qs_test::CannedReply> replies;
    size_t requests;
    const char* token_after;  // access_token_ in memory
  } failures[] = {
      {"no secret", {{kOldTokenKey, "T1"}}, {}, 0, ""},
      {"no answer", old_pair, {{200, "", {}, true}}, 1, ""},
      {"refused", old_pair, {refused}, 1, ""},
      {"no new token", old_pair, {{200, "{}", {}}}, 1, ""},
      {"account refused", old_pair, {new_token, {401, "{}", {}}}, 2, "T2"},
  };
  for (const auto& f : failures) {
    SCOPED_TRACE(f.name);
    Reset(f.keys);
    const std::string before = qs_test::ReadFile(DevicePath(kDropboxSettingsFile));
    for (const auto& reply : f.replies) server_.Queue(reply);
    const size_t sent = server_.Requests().size();
    DropboxProtocol protocol;  // a fresh connection each time
    EXPECT_FALSE(protocol.migrateToV2());
    EXPECT_EQ(f.requests, server_.Requests().size() - sent);
    EXPECT_EQ(f.token_after, protocol.access_token_);
    EXPECT_EQ(before, qs_test::ReadFile(DevicePath(kDropboxSettingsFile)));
    EXPECT_TRUE(protocol.needMigrateToV2());  // so the next start tries again
  }

  // The folder comes from the old account's key, else the plain key, else
  // the default folder.
  const struct {
    Keys keys;
    std::string folder;
  } successes[] = {
      {old_pair, "/old/folder"},
      {{{kOldTokenKey, "T1"}, {kOldTokenSecretKey, "S1"}, {kFolderKey, "/plain"}}, "/plain"},
      {{{kOldTokenKey, "T1"}, {kOldTokenSecretKey, "S1"}},
       DevicePath("/mnt/ext1/Dropbox Quillstone")},
  };
  for (const auto& s : successes) {
    SCOPED_TRACE(s.folder);
    Reset(s.keys);
    server_.Queue(200, R"({"oauth2_token":"T2"})");
    server_.Queue(200, kAccount);
    DropboxProtocol protocol;
    ASSERT_TRUE(protocol.migrateToV2());
    const qs_test::RecordedRequest convert = server_.Requests()[server_.Requests().size() - 2];
    EXPECT_EQ("/2/auth/token/from_oauth1", convert.target);
    EXPECT_EQ("Basic a2V5OnMzY3I6dA==", convert.Header("Authorization"));  // "key:s3cr:t"
    EXPECT_EQ(R"({"oauth1_token":"T1","oauth1_token_secret":"S1"})", convert.body);
    EXPECT_EQ("Bearer T2", server_.Requests().back().Header("Authorization"));
    EXPECT_EQ("T2|dbid:NEW|N|e|" + s.folder + "|<none>|<none>|<none>",
              Read(kAccessTokenKey) + "|" + Read(kAccountIdKey) + "|" + Read(kUserNameKey) + "|" +
                  Read(kUserEmailKey) + "|" + Read(kFolderKey + std::string("dbid:NEW")) + "|" +
                  Read(kOldTokenKey) + "|" + Read(kOldTokenSecretKey) + "|" + Read(kOldUidKey));
    EXPECT_FALSE(protocol.needMigrateToV2());
  }
  EXPECT_EQ("/old/folder",
            (Reset(old_pair), Read(kFolderKey + std::string("77"))));  // the old key stays
}

}  // namespace
