// The uploader against a real HTTP server on loopback: the exact bytes and
// headers of a body range, how answers map to results, an abort from the
// progress callback, and a refused connection.
#include "uploader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "device_root.h"
#include "support/loopback_server.h"
#include "support/test_root.h"

using quillstone::utilities::IUploaderCallback;
using quillstone::utilities::Uploader;

namespace {

class AbortAt : public IUploaderCallback {
 public:
  explicit AbortAt(Uploader* up) : up_(up) {}
  void Progress() override {
    if (++ticks == 1) up_->abort_ = true;
  }
  int ticks = 0;

 private:
  Uploader* up_;
};

class UploaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    file_ = qs_test::MakeTempDir("up") + "/book.pdf";
    for (int i = 0; i < 10000; ++i) content_ += static_cast<char>('a' + i * 7 % 26);
    qs_test::WriteFile(file_, content_);
  }
  std::string file_;
  std::string content_;
  const std::map<std::string, std::string> headers_ = {
      {"Dropbox-API-Arg", "{\"path\":\"/book.pdf\"}"},
      {"Authorization", "Bearer t"},
      {"Content-Type", "application/octet-stream"}};
};

TEST_F(UploaderTest, SendsTheRangeWithTheHeadersAndMapsTheAnswer) {
  struct Case {
    size_t offset, size;
    int status;
    Uploader::Error want;
    size_t body_from, body_len;
  } cases[] = {
      {0, 0, 200, Uploader::kUploadOk, 0, 10000},                 // the whole file
      {3000, 4000, 206, Uploader::kUploadOk, 3000, 4000},         // 206 is success here
      {6000, 4000, 409, Uploader::kUploadHttpError, 6000, 4000},  // the part at the end
      {9000, 0, 400, Uploader::kUploadHttpError, 9000, 1000},     // no size: to the end
  };
  qs_test::LoopbackServer server;
  Uploader up;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.offset);
    server.Queue(c.status, "{\"name\":\"book.pdf\"}");
    std::vector<char> response(1, 'x');  // appended to, never cleared
    EXPECT_EQ(c.want, up.UploadPart(file_, c.offset, c.size, server.Url() + "/2/files/upload",
                                    headers_, &response));
    EXPECT_EQ(std::string("x{\"name\":\"book.pdf\"}", 21),
              std::string(response.begin(), response.end()));
    EXPECT_EQ(c.status, up.GetStatus().http_status);
    EXPECT_EQ(c.body_len, up.GetStatus().uploaded_bytes);
    EXPECT_EQ(-1, up.file_);

    const qs_test::RecordedRequest req = server.Requests().back();
    EXPECT_EQ("POST", req.method);
    EXPECT_EQ("/2/files/upload", req.target);
    EXPECT_EQ(content_.substr(c.body_from, c.body_len), req.body);
    EXPECT_EQ(std::to_string(c.body_len), req.Header("Content-Length"));
    EXPECT_FALSE(req.HasHeader("Expect"));
    for (const auto& h : headers_) EXPECT_EQ(h.second, req.Header(h.first));
  }
}

TEST_F(UploaderTest, AbortRefusedConnectionAndMissingFile) {
  qs_test::LoopbackServer server;
  Uploader up;
  AbortAt callback(&up);
  up.callback_ = &callback;
  std::vector<char> response;
  server.Queue(200, "{}");
  EXPECT_EQ(Uploader::kUploadAborted, up.Upload(file_, server.Url(), headers_, &response));
  EXPECT_FALSE(up.abort_);
  EXPECT_EQ(1, callback.ticks);

  // The next transfer is not affected by the abort before it.
  response.clear();
  EXPECT_EQ(Uploader::kUploadOk, up.Upload(file_, server.Url(), headers_, &response));
  EXPECT_EQ(std::string("{}", 3), std::string(response.begin(), response.end()));

  // Refused twice, then reported without an HTTP code.
  const std::string log = quillstone::utilities::DevicePath("/var/log/quillstone.log");
  const size_t log_size = qs_test::ReadFile(log).size();
  response.clear();
  const std::string refused = "http://127.0.0.1:" + std::to_string(qs_test::UnusedPort());
  EXPECT_EQ(Uploader::kUploadTransferFailed, up.Upload(file_, refused, headers_, &response));
  EXPECT_EQ(0, up.GetStatus().http_status);
  EXPECT_EQ(1u, response.size());
  const std::string lines = qs_test::ReadFile(log).substr(log_size);
  size_t retries = 0;
  for (size_t at = 0; (at = lines.find("trying once more", at)) != std::string::npos; ++at)
    ++retries;
  EXPECT_EQ(1u, retries);

  // A file shorter than the part (it shrank) ends the transfer at once:
  // the server would wait for the missing bytes until the stall rule.
  response.clear();
  EXPECT_EQ(Uploader::kUploadSetupFailed,
            up.UploadPart(file_, 9000, 4000, server.Url(), headers_, &response));
  EXPECT_EQ(1000u, up.GetStatus().uploaded_bytes);

  // A file that cannot be opened never reaches libcurl.
  response.clear();
  EXPECT_EQ(Uploader::kUploadSetupFailed,
            up.Upload(file_ + ".gone", server.Url(), headers_, &response));
  EXPECT_TRUE(response.empty());
}

}  // namespace
