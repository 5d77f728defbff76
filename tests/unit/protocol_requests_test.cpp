// Requests of the protocol object by their exact bytes: the folder listing
// against a loopback server, and the file operation requests.
#include <gtest/gtest.h>
#include <unistd.h>

#include "device_root.h"
#include "dropboxprotocol.h"
#include "support/loopback_server.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::JsonToArg;
using quillstone::dropbox::ParamsToJson;
using Headers = std::map<std::string, std::string>;

namespace {

class ProtocolRequestsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    PointAt(server_.Url());
  }
  void PointAt(const std::string& url) {
    const std::string path = quillstone::utilities::DevicePath("/fwroot/etc/dropbox/service.cfg");
    void* config = OpenConfig(path.c_str(), 0);
    WriteString(config, "api_url", (url + "/2").c_str());
    WriteString(config, "content_url", (url + "/2c").c_str());
    CloseConfig(config);
    protocol_.reset(new DropboxProtocol());
    protocol_->access_token_ = "tok";
  }
  qs_test::RecordedRequest LastRequest() {
    const auto requests = server_.Requests();
    return requests.empty() ? qs_test::RecordedRequest() : requests.back();
  }

  qs_test::LoopbackServer server_;
  std::unique_ptr<DropboxProtocol> protocol_;
};

TEST_F(ProtocolRequestsTest, ListingPagesAreRequestedAndParsed) {
  server_.Queue(
      200,
      "{\"entries\":["
      "{\".tag\":\"file\",\"name\":\"A.txt\",\"id\":\"id:1\",\"client_modified\":\"2024-01-"
      "02T03:04:05Z\",\"server_modified\":\"2024-01-02T03:04:06Z\",\"rev\":\"015a\","
      "\"size\":5000000000,\"path_lower\":\"/d/a.txt\",\"path_display\":\"/D/A.txt\"},"
      "{\".tag\":\"folder\",\"name\":\"D\",\"id\":\"id:2\",\"path_lower\":\"/d\",\"path_"
      "display\":\"/D\"},"
      "{\".tag\":\"deleted\",\"name\":\"old\",\"path_lower\":\"/old\",\"path_display\":\"/"
      "old\"},"
      "{\"name\":\"n\",\"rev\":123},"
      "7],"
      "\"cursor\":\"c1\",\"has_more\":true}");
  ASSERT_EQ(DropboxProtocol::kSuccess, protocol_->ReceiveDelta(""));
  EXPECT_EQ("/2/files/list_folder", LastRequest().target);
  EXPECT_EQ("{\"path\":\"\",\"recursive\":true}\n", LastRequest().body);
  EXPECT_EQ("Bearer tok", LastRequest().Header("Authorization"));
  EXPECT_EQ("application/json", LastRequest().Header("Content-Type"));
  EXPECT_EQ("c1", protocol_->cursor_);
  EXPECT_TRUE(protocol_->has_more_);
  ASSERT_EQ(5u, protocol_->entries_.size());
  const FileMetadata& file = *protocol_->entries_[0];
  EXPECT_EQ("A.txt", file.name);
  EXPECT_EQ("id:1", file.id);
  EXPECT_EQ("2024-01-02T03:04:05Z", file.client_modified);
  EXPECT_EQ("2024-01-02T03:04:06Z", file.server_modified);
  EXPECT_EQ("015a", file.rev);
  EXPECT_EQ(5000000000u, file.size);
  EXPECT_EQ("/d/a.txt", file.path_lower);
  EXPECT_EQ("/D/A.txt", file.path_display);
  EXPECT_EQ("", file.path);
  EXPECT_FALSE(file.is_folder || file.is_deleted);
  EXPECT_TRUE(protocol_->entries_[1]->is_folder);
  EXPECT_EQ(0u, protocol_->entries_[1]->size);
  EXPECT_TRUE(protocol_->entries_[2]->is_deleted);
  EXPECT_EQ("", protocol_->entries_[2]->rev);
  EXPECT_EQ("123", protocol_->entries_[3]->rev);  // no tag: a file; a number kept as its text
  EXPECT_EQ("", protocol_->entries_[4]->name);    // not an object: an empty record

  server_.Queue(200, "{\"entries\":[],\"cursor\":\"x\",\"has_more\":false}");
  ASSERT_EQ(DropboxProtocol::kSuccess, protocol_->ReceiveDelta("c1"));
  EXPECT_EQ("/2/files/list_folder/continue", LastRequest().target);
  EXPECT_EQ("{\"cursor\":\"c1\"}\n", LastRequest().body);
  EXPECT_TRUE(protocol_->entries_.empty());
  EXPECT_EQ("x", protocol_->cursor_);
  EXPECT_FALSE(protocol_->has_more_);

  // A refused cursor or no answer leaves the page as it was.
  server_.Queue(409, "{\"error_summary\":\"reset/..\",\"error\":{\".tag\":\"reset\"}}");
  EXPECT_EQ(DropboxProtocol::kErrServer, protocol_->ReceiveDelta("x"));
  EXPECT_EQ("x", protocol_->cursor_);
  server_.Queue(429, "");
  EXPECT_EQ(DropboxProtocol::kTooManyRequests, protocol_->ReceiveDelta("x"));
  PointAt("http://127.0.0.1:" + std::to_string(qs_test::UnusedPort()));
  protocol_->cursor_ = "x";
  EXPECT_EQ(DropboxProtocol::kErrNoNetwork, protocol_->ReceiveDelta("x"));
  EXPECT_EQ("x", protocol_->cursor_);
}

TEST_F(ProtocolRequestsTest, UnusableListingRepliesGiveAnEmptyPage) {
  for (const char* body : {"<html>oops</html>", "", "[{\"name\":\"a\"}]", "\"cursor\"", "42"}) {
    protocol_->cursor_ = "before";
    protocol_->has_more_ = true;
    protocol_->entries_.push_back(new FileMetadata());  // a previous page, freed by the next
    server_.Queue(200, body);
    EXPECT_EQ(DropboxProtocol::kSuccess, protocol_->ReceiveDelta("before")) << body;
    EXPECT_EQ("", protocol_->cursor_) << body;
    EXPECT_FALSE(protocol_->has_more_) << body;
    EXPECT_TRUE(protocol_->entries_.empty()) << body;
  }
  // The reply to an upload: one entry without a tag.
  const std::string upload =
      "{\"name\":\"b.txt\",\"rev\":\"a1\",\"size\":3,\"path_lower\":\"/b.txt\"}";
  std::unique_ptr<FileMetadata> file(
      protocol_->parseMetadataEntry(std::vector<char>(upload.begin(), upload.end())));
  EXPECT_EQ("b.txt", file->name);
  EXPECT_EQ(3u, file->size);
  EXPECT_FALSE(file->is_folder || file->is_deleted);
  file.reset(protocol_->parseMetadataEntry(std::vector<char>{'[', ']'}));
  EXPECT_EQ("", file->name);
}

TEST_F(ProtocolRequestsTest, ContentRequestsCarryExactArguments) {
  Headers headers{{"Range", "bytes=5-"}};
  EXPECT_EQ(server_.Url() + "/2c/files/download",
            protocol_->GetDownloadUrlAndHeaders("/My \"Q\" \xC3\xA9.txt", &headers));
  EXPECT_EQ((Headers{{"Authorization", "Bearer tok"},
                     {"Dropbox-API-Arg", "{\"path\":\"/My \\\"Q\\\" \\u00e9.txt\"}"},
                     {"Range", "bytes=5-"}}),
            headers);

  const Headers upload_headers{{"Authorization", "Bearer tok"},
                               {"Content-Type", "application/octet-stream"},
                               {"Dropbox-API-Arg", "{\"autorename\":true,\"path\":\"/b.txt\"}"}};
  headers.clear();
  EXPECT_EQ(server_.Url() + "/2c/files/upload",
            protocol_->GetUploadUrlAndHeaders("/b.txt", &headers));
  EXPECT_EQ(upload_headers, headers);
  headers.clear();
  EXPECT_EQ(server_.Url() + "/2c/files/upload",
            protocol_->GetChunkedUploadUrlAndHeaders("/b.txt", &headers, "", 0, true));
  EXPECT_EQ(upload_headers, headers);

  headers.clear();
  EXPECT_EQ(server_.Url() + "/2c/files/upload_session/start",
            protocol_->GetChunkedUploadUrlAndHeaders("/b.txt", &headers, "", 0, false));
  EXPECT_EQ("{}", headers["Dropbox-API-Arg"]);
  EXPECT_EQ("application/octet-stream", headers["Content-Type"]);
  EXPECT_EQ(server_.Url() + "/2c/files/upload_session/append_v2",
            protocol_->GetChunkedUploadUrlAndHeaders("/b.txt", &headers, "sid", 0, false));
  EXPECT_EQ("{\"cursor\":{\"offset\":0,\"session_id\":\"sid\"}}", headers["Dropbox-API-Arg"]);
  EXPECT_EQ(server_.Url() + "/2c/files/upload_session/finish",
            protocol_->GetChunkedUploadUrlAndHeaders("/b.txt", &headers, "sid", 8388608, true));
  EXPECT_EQ(
      "{\"commit\":{\"autorename\":true,\"path\":\"/b.txt\"},"
      "\"cursor\":{\"offset\":8388608,\"session_id\":\"sid\"}}",
      headers["Dropbox-API-Arg"]);
  EXPECT_EQ(3u, headers.size());

  EXPECT_EQ("{}", ParamsToJson({}));
  EXPECT_EQ("{}", JsonToArg(Json::Value()));
  EXPECT_EQ("{}", JsonToArg(Json::Value(Json::objectValue)));
  EXPECT_EQ("{\"a\":\"1\",\"b\":\"\\n\"}", ParamsToJson({{"b", "\n"}, {"a", "1"}}));
}

TEST_F(ProtocolRequestsTest, CreateAndDeleteRunTheExchange) {
  server_.Queue(200, "{\"name\":\"New\"}");
  EXPECT_EQ(DropboxProtocol::kSuccess, protocol_->CreateFolder("/New"));
  EXPECT_EQ("/2/files/create_folder", LastRequest().target);
  EXPECT_EQ("{\"path\":\"/New\"}", LastRequest().body);
  EXPECT_EQ("Bearer tok", LastRequest().Header("Authorization"));
  EXPECT_EQ("application/json", LastRequest().Header("Content-Type"));

  server_.Queue(409,
                "{\"error\":{\".tag\":\"path\",\"path\":{\".tag\":\"conflict\",\"conflict\":{\"."
                "tag\":\"folder\"}}}}");
  EXPECT_EQ(DropboxProtocol::kConflict, protocol_->CreateFolder("/New"));

  server_.Queue(409,
                "{\"error\":{\".tag\":\"path_lookup\",\"path_lookup\":{\".tag\":\"not_found\"}}}");
  EXPECT_EQ(DropboxProtocol::kNotFound, protocol_->DeleteFileFolder("/gone"));
  EXPECT_EQ("/2/files/delete", LastRequest().target);
  EXPECT_EQ("{\"path\":\"/gone\"}", LastRequest().body);
  server_.Queue(401, "");
  EXPECT_EQ(DropboxProtocol::kNotAuthorized, protocol_->DeleteFileFolder("/x"));

  PointAt("http://127.0.0.1:" + std::to_string(qs_test::UnusedPort()));
  EXPECT_EQ(DropboxProtocol::kErrNoNetwork, protocol_->CreateFolder("/New"));
  EXPECT_EQ(DropboxProtocol::kErrNoNetwork, protocol_->DeleteFileFolder("/New"));
}

}  // namespace
