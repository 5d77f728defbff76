// Requests of the protocol object by their exact bytes: the folder listing
// against a loopback server, and the file operation requests.
#include <gtest/gtest.h>

#include "device_names.h"
#include "device_root.h"
#include "dropboxprotocol.h"
#include "support/loopback_server.h"
#include "support/test_root.h"
#include "tessera.h"

using quillstone::dropbox::DropboxProtocol;
using quillstone::dropbox::FileMetadata;
using quillstone::dropbox::kServiceSettingsFile;
using Headers = std::map<std::string, std::string>;

namespace {

// Every parsed field of a record in one line, so one comparison shows all.
std::string Describe(const FileMetadata& m) {
  return m.name + "|" + m.id + "|" + m.client_modified + "|" + m.server_modified + "|" + m.rev +
         "|" + std::to_string(m.size) + "|" + m.path + "|" + m.path_lower + "|" + m.path_display +
         "|" + (m.is_folder ? "folder" : "") + (m.is_deleted ? "deleted" : "") + "|" + m.md5;
}

class ProtocolRequestsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    PointAt(server_.Url());
  }
  void PointAt(const std::string& url) {
    qs_test::WriteSettings(kServiceSettingsFile,
                           {{"api_url", url + "/2"}, {"content_url", url + "/2c"}});
    protocol_.reset(new DropboxProtocol());
    protocol_->access_token_ = "tok";
  }
  std::string LastRequest() {
    const auto requests = server_.Requests();
    if (requests.empty()) return "none";
    const qs_test::RecordedRequest& r = requests.back();
    return r.target + " " + r.Header("Authorization") + " " + r.Header("Content-Type") + " " +
           r.body;
  }

  qs_test::LoopbackServer server_;
  std::unique_ptr<DropboxProtocol> protocol_;
};

TEST_F(ProtocolRequestsTest, ListingPagesAreRequestedAndParsed) {
  server_.Queue(200, R"({"entries":[
      {".tag":"file","name":"A.txt","id":"id:1","client_modified":"2024-01-02T03:04:05Z",
       "server_modified":"2024-01-02T03:04:06Z","rev":"015a","size":5000000000,
       "path_lower":"/d/a.txt","path_display":"/D/A.txt"},
      {".tag":"folder","name":"D","id":"id:2","path_lower":"/d","path_display":"/D"},
      {".tag":"deleted","name":"old","path_lower":"/old","path_display":"/old"},
      {"name":"n","rev":123}, 7],
    "cursor":"c1","has_more":true})");
  ASSERT_EQ(0, protocol_->ReceiveDelta(""));
  EXPECT_EQ("/2/files/list_folder Bearer tok application/json {\"path\":\"\",\"recursive\":true}\n",
            LastRequest());
  EXPECT_EQ("c1", protocol_->cursor_);
  EXPECT_TRUE(protocol_->has_more_);
  ASSERT_EQ(5u, protocol_->entries_.size());
  EXPECT_EQ(
      "A.txt|id:1|2024-01-02T03:04:05Z|2024-01-02T03:04:06Z|015a|5000000000||/d/a.txt|/D/A.txt||",
      Describe(*protocol_->entries_[0]));
  EXPECT_EQ("D|id:2||||0||/d|/D|folder|", Describe(*protocol_->entries_[1]));
  EXPECT_EQ("old|||||0||/old|/old|deleted|", Describe(*protocol_->entries_[2]));
  EXPECT_EQ("n||||123|0|||||", Describe(*protocol_->entries_[3]));  // no tag: a file
  EXPECT_EQ("|||||0|||||", Describe(*protocol_->entries_[4]));      // not an object: empty

  server_.Queue(200, R"({"entries":[],"cursor":"x","has_more":false})");
  ASSERT_EQ(0, protocol_->ReceiveDelta("c1"));
  EXPECT_EQ("/2/files/list_folder/continue Bearer tok application/json {\"cursor\":\"c1\"}\n",
            LastRequest());
  EXPECT_TRUE(protocol_->entries_.empty());
  EXPECT_EQ("x", protocol_->cursor_);
  EXPECT_FALSE(protocol_->has_more_);

  // A refused cursor or no answer leaves the page as it was.
  server_.Queue(409, R"({"error_summary":"reset/..","error":{".tag":"reset"}})");
  EXPECT_EQ(DropboxProtocol::kErrServer, protocol_->ReceiveDelta("x"));
  EXPECT_EQ("x", protocol_->cursor_);
  PointAt("http://127.0.0.1:" + std::to_string(qs_test::UnusedPort()));
  protocol_->cursor_ = "x";
  EXPECT_EQ(DropboxProtocol::kErrNoNetwork, protocol_->ReceiveDelta("x"));
  EXPECT_EQ("x", protocol_->cursor_);
}

TEST_F(ProtocolRequestsTest, UnusableRepliesGiveEmptyPages) {
  for (const char* body : {"<html>oops</html>", R"([{"name":"a"}])"}) {
    protocol_->cursor_ = "before";
    protocol_->has_more_ = true;
    protocol_->entries_.push_back(new FileMetadata());  // a previous page, freed by the next
    server_.Queue(200, body);
    EXPECT_EQ(0, protocol_->ReceiveDelta("before")) << body;
    EXPECT_EQ("", protocol_->cursor_) << body;
    EXPECT_FALSE(protocol_->has_more_) << body;
    EXPECT_TRUE(protocol_->entries_.empty()) << body;
  }
}

TEST_F(ProtocolRequestsTest, ContentRequestsCarryExactArguments) {
  const std::string content = server_.Url() + "/2c/files/";
  Headers headers{{"Range", "bytes=5-"}};
  EXPECT_EQ(content + "download",
            protocol_->GetDownloadUrlAndHeaders("/My \"Q\" \xC3\xA9.txt", &headers));
  EXPECT_EQ((Headers{{"Authorization", "Bearer tok"},
                     {"Dropbox-API-Arg", R"({"path":"/My \"Q\" \u00e9.txt"})"},
                     {"Range", "bytes=5-"}}),
            headers);

  const Headers upload{{"Authorization", "Bearer tok"},
                       {"Content-Type", "application/octet-stream"},
                       {"Dropbox-API-Arg", R"({"autorename":true,"path":"/b.txt"})"}};
  headers.clear();
  EXPECT_EQ(content + "upload", protocol_->GetUploadUrlAndHeaders("/b.txt", &headers));
  EXPECT_EQ(upload, headers);
  headers.clear();
  EXPECT_EQ(content + "upload",
            protocol_->GetChunkedUploadUrlAndHeaders("/b.txt", &headers, "", 0, true));
  EXPECT_EQ(upload, headers);

  EXPECT_EQ(content + "upload_session/start",
            protocol_->GetChunkedUploadUrlAndHeaders("/b.txt", &headers, "", 0, false));
  EXPECT_EQ("{}", headers["Dropbox-API-Arg"]);
  EXPECT_EQ(content + "upload_session/append_v2",
            protocol_->GetChunkedUploadUrlAndHeaders("/b.txt", &headers, "sid", 0, false));
  EXPECT_EQ(R"({"cursor":{"offset":0,"session_id":"sid"}})", headers["Dropbox-API-Arg"]);
  EXPECT_EQ(content + "upload_session/finish",
            protocol_->GetChunkedUploadUrlAndHeaders("/b.txt", &headers, "sid", 8388608, true));
  EXPECT_EQ(R"({"commit":{"autorename":true,"path":"/b.txt"},)"
            R"("cursor":{"offset":8388608,"session_id":"sid"}})",
            headers["Dropbox-API-Arg"]);
  EXPECT_EQ(upload.at("Content-Type"), headers["Content-Type"]);

  // A strict commit never renames, and replaces only the revision it names.
  protocol_->commit_mode_ = DropboxProtocol::CommitMode{true, "015a"};
  (void)protocol_->GetUploadUrlAndHeaders("/b.txt", &headers);
  EXPECT_EQ(R"({"autorename":false,"mode":{".tag":"update","update":"015a"},"path":"/b.txt"})",
            headers["Dropbox-API-Arg"]);
  protocol_->commit_mode_.rev.clear();
  (void)protocol_->GetChunkedUploadUrlAndHeaders("/b.txt", &headers, "sid", 4, true);
  EXPECT_EQ(R"({"commit":{"autorename":false,"path":"/b.txt"},)"
            R"("cursor":{"offset":4,"session_id":"sid"}})",
            headers["Dropbox-API-Arg"]);
}

TEST_F(ProtocolRequestsTest, BatchCommitIsOneRequestAndAnswersPerEntry) {
  Headers headers;
  EXPECT_EQ(server_.Url() + "/2c/files/upload_session/start",
            protocol_->GetSessionStartUrlAndHeaders(&headers));
  EXPECT_EQ(R"({"close":true})", headers["Dropbox-API-Arg"]);

  const std::vector<DropboxProtocol::BatchEntry> entries{
      {"s1", 3, "/a.txt", DropboxProtocol::CommitMode{true, ""}},
      {"s2", 0, "/b.txt", DropboxProtocol::CommitMode{true, "015a"}}};
  std::vector<DropboxProtocol::BatchResult> results;
  server_.Queue(200, R"({"entries":[{".tag":"success","name":"a.txt","rev":"016b","size":3,
      "path_lower":"/a.txt","path_display":"/a.txt"},
      {".tag":"failure","failure":{".tag":"path","path":{".tag":"conflict"}}}]})");
  ASSERT_EQ(0, protocol_->FinishUploadBatch(entries, &results));
  EXPECT_EQ(
      "/2/files/upload_session/finish_batch_v2 Bearer tok application/json "
      R"({"entries":[{"commit":{"autorename":false,"path":"/a.txt"},)"
      R"("cursor":{"offset":3,"session_id":"s1"}},)"
      R"({"commit":{"autorename":false,"mode":{".tag":"update","update":"015a"},"path":"/b.txt"},)"
      R"("cursor":{"offset":0,"session_id":"s2"}}]})",
      LastRequest());
  ASSERT_EQ(2u, results.size());
  ASSERT_NE(nullptr, results[0].record);
  EXPECT_EQ("016b", results[0].record->rev);
  delete results[0].record;
  EXPECT_EQ(nullptr, results[1].record);
  EXPECT_EQ("conflict", results[1].failure["path"][".tag"].asString());

  // A reply that does not answer every entry commits nothing known; a 429
  // says how long to wait.
  server_.Queue(200, R"({"entries":[]})");
  EXPECT_EQ(DropboxProtocol::kErrServer, protocol_->FinishUploadBatch(entries, &results));
  server_.Queue(429,
                R"({"error":{"reason":{".tag":"too_many_write_operations"},"retry_after":2}})");
  EXPECT_EQ(DropboxProtocol::kTooManyRequests, protocol_->FinishUploadBatch(entries, &results));
  EXPECT_EQ(2, protocol_->retry_after_);
}

TEST_F(ProtocolRequestsTest, FolderBatchGivesEachPathCreateFoldersCode) {
  const std::vector<std::string> paths{"/a", "/b", "/c", "/d", "/e"};
  const std::string done =
      R"({".tag":"complete","entries":[{".tag":"success","metadata":{"name":"a"}},
      {".tag":"failure","failure":{".tag":"path","path":{".tag":"conflict","conflict":{".tag":"file"}}}},
      {".tag":"failure","failure":{".tag":"path","path":{".tag":"malformed_path"}}},
      {".tag":"failure","failure":"path"}, 7]})";
  const std::vector<int> codes_of_done{DropboxProtocol::kSuccess, DropboxProtocol::kConflict,
                                       DropboxProtocol::kErrServer, DropboxProtocol::kErrServer,
                                       DropboxProtocol::kErrServer};
  // Each case: the replies in turn, the routes asked, the result and the
  // codes. A job is checked until it is no longer in progress.
  struct Case {
    std::vector<std::pair<int, std::string>> replies;
    std::vector<std::string> routes;
    int result;
    std::vector<int> codes;
  };
  const std::string batch = "/2/files/create_folder_batch", check = batch + "/check";
  using Reply = std::pair<int, std::string>;
  const Reply job = {200, R"({".tag":"async_job_id","async_job_id":"j1"})"};
  const Reply in_progress = {200, R"({".tag":"in_progress"})"};
  const Reply failed = {200, R"({".tag":"failed","failed":{".tag":"too_many_files"}})"};
  const Reply too_few = {200, R"({".tag":"complete","entries":[{".tag":"success"}]})"};
  const int kErr = DropboxProtocol::kErrServer;
  const Case cases[] = {
      {{{200, done}}, {batch}, 0, codes_of_done},
      {{job, in_progress, {200, done}}, {batch, check, check}, 0, codes_of_done},
      {{job, failed}, {batch, check}, kErr, {}},
      {{too_few}, {batch}, kErr, {}},
      {{{200, "[1]"}}, {batch}, kErr, {}},
      {{{401, "{}"}}, {batch}, DropboxProtocol::kNotAuthorized, {}},
  };
  for (const Case& c : cases) {
    const size_t before = server_.Requests().size();
    for (const auto& reply : c.replies) server_.Queue(reply.first, reply.second);
    std::vector<int> codes{99};
    EXPECT_EQ(c.result, protocol_->CreateFolders(paths, &codes)) << c.replies[0].second;
    EXPECT_EQ(c.codes, codes) << c.replies[0].second;
    const auto requests = server_.Requests();
    std::vector<std::string> routes;
    for (size_t i = before; i < requests.size(); ++i) routes.push_back(requests[i].target);
    EXPECT_EQ(c.routes, routes) << c.replies[0].second;
  }
  const auto requests = server_.Requests();
  EXPECT_EQ(R"({"autorename":false,"paths":["/a","/b","/c","/d","/e"]})", requests[0].body);
  EXPECT_EQ(R"({"async_job_id":"j1"})", requests[2].body);
}

}  // namespace
