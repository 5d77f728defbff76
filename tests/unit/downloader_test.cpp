// The downloader against an HTTP server on loopback: what lands on
// disk, when, and what the caller is told.

#include "downloader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <random>

#include "host_device.h"
#include "sqlite.h"
#include "support/loopback_server.h"
#include "support/test_root.h"

using quillstone::utilities::Downloader;
using quillstone::utilities::FileToSync;
using quillstone::utilities::IDownloaderCallback;

namespace {

qs_test::CannedReply Reply(int status, const std::string& body,
                           std::vector<std::pair<std::string, std::string>> headers = {}) {
  return qs_test::CannedReply{status, body, std::move(headers), false};
}

std::string RandomBytes(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string data(size, '\0');
  for (char& c : data) c = static_cast<char>(random());
  return data;
}

// Records the state each notification sees, asking GetStatus from inside the
// callback as the sync engine does.
struct Recorder : IDownloaderCallback {
  explicit Recorder(Downloader* d) : downloader(d) {}
  void NotifyDownloaderStatus(void*) override {
    int state = downloader->GetStatus().state;
    std::lock_guard<std::mutex> lock(mutex);
    states.push_back(state);
    cond.notify_all();
  }
  // Until a notification has seen a final state; false on time-out.
  bool WaitFinal(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex);
    return cond.wait_for(
        lock, limit, [this] { return !states.empty() && states.back() >= Downloader::kStateDone; });
  }
  std::vector<int> Take() {
    std::lock_guard<std::mutex> lock(mutex);
    return std::move(states);
  }

  Downloader* downloader;
  std::mutex mutex;
  std::condition_variable cond;
  std::vector<int> states;
};

class DownloaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qs_test::DeviceRoot();
    folder_ = qs_test::MakeTempDir("download");
    downloader_.Init(&recorder_);
  }

  FileToSync File(size_t size, const std::string& local_path = "/a/b/book.pdf") {
    return FileToSync{server_.Url() + "/2/files/download", local_path, static_cast<int>(size)};
  }
  Downloader::StatusInfo Run(const FileToSync& file) {
    recorder_.Take();
    EXPECT_EQ(0, downloader_.Start(file, folder_, nullptr));
    EXPECT_TRUE(recorder_.WaitFinal());
    return downloader_.GetStatus();
  }
  std::string Target(const std::string& local_path = "/a/b/book.pdf") {
    return folder_ + local_path;
  }
  bool KeptBeside(const std::string& target) {
    return qs_test::Exists(target + ".downloading") || qs_test::Exists(target + ".progress");
  }

  qs_test::LoopbackServer server_;
  std::string folder_;
  Recorder recorder_{&downloader_};  // outlives the downloader's callbacks
  Downloader downloader_;
};

TEST_F(DownloaderTest, GoodDownloadLandsOnlyAtCleanupAndReplacesTheOlderFile) {
  const std::string first = RandomBytes(300 * 1024 + 7, 1), second = RandomBytes(5000, 2);
  server_.Queue(Reply(200, first, {{"ETag", "W/\"rev1\""}}));
  server_.Queue(200, second);
  downloader_.AddHeader("Authorization", "Bearer token-1");
  downloader_.AddHeader("Dropbox-API-Arg", "{\"path\":\"/a/b/book.pdf\"}");

  FileToSync file = File(first.size());
  Downloader::StatusInfo status = Run(file);
  EXPECT_EQ(Downloader::kStateDone, status.state);
  EXPECT_EQ(Downloader::kErrorNone, status.error);
  EXPECT_EQ(200, status.response_code);
  EXPECT_EQ(static_cast<int>(first.size()), status.downloaded_bytes);
  EXPECT_EQ(static_cast<int>(first.size()), status.total_bytes);
  EXPECT_EQ(Target(), downloader_.last_file_);
  std::vector<int> states = recorder_.Take();
  ASSERT_FALSE(states.empty());
  EXPECT_EQ(Downloader::kStateInProgress, states.front());
  EXPECT_EQ(Downloader::kStateDone, states.back());

  EXPECT_FALSE(qs_test::Exists(Target())) << "nothing under the real name before Cleanup";
  downloader_.Cleanup(file);
  EXPECT_EQ(first, qs_test::ReadFile(Target()));
  EXPECT_FALSE(KeptBeside(Target()));

  const qs_test::RecordedRequest request = server_.Requests().at(0);
  EXPECT_EQ("POST /2/files/download", request.method + " " + request.target);
  EXPECT_EQ("Bearer token-1", request.Header("Authorization"));
  EXPECT_EQ("{\"path\":\"/a/b/book.pdf\"}", request.Header("Dropbox-API-Arg"));
  EXPECT_FALSE(request.HasHeader("Content-Type"));
  EXPECT_FALSE(request.HasHeader("Range"));
  EXPECT_EQ("0", request.Header("Content-Length"));

  // The same target again: the older file is replaced whole; cleared headers stay away.
  downloader_.ClearHeaders();
  file = File(second.size());
  EXPECT_EQ(Downloader::kStateDone, Run(file).state);
  EXPECT_EQ(first, qs_test::ReadFile(Target()));
  downloader_.Cleanup(file);
  EXPECT_EQ(second, qs_test::ReadFile(Target()));
  EXPECT_FALSE(server_.Requests().at(1).HasHeader("Authorization"));
}

// A rename's folder flush is shared, but must come before the store's log is
// flushed (at a checkpoint or at close): otherwise a power cut could keep a
// row that names a file whose rename was lost.
TEST_F(DownloaderTest, FolderFlushesRunBeforeTheStoreFlushesItsLog) {
  const std::string a = folder_ + "/a/", b = folder_ + "/b/";
  for (int i = 0; i < 3; ++i) {
    std::string local_path = (i < 2 ? "/a/f" : "/b/f") + std::to_string(i);
    server_.Queue(200, "data");
    FileToSync file = File(4, local_path);
    ASSERT_EQ(Downloader::kStateDone, Run(file).state);
    downloader_.Cleanup(file);
    EXPECT_EQ("data", qs_test::ReadFile(folder_ + local_path));
  }
  // The new folders' own names wait in their parent.
  EXPECT_EQ((std::vector<std::string>{folder_, a, b}), quillstone::host::PendingFolderSyncs());

  quillstone::utilities::Sqlite db;
  ASSERT_EQ(0, db.open(folder_ + "/store.db"));
  ASSERT_EQ(SQLITE_DONE, db.exec("PRAGMA journal_mode=WAL; CREATE TABLE t (b BLOB);"));
  EXPECT_EQ(3u, quillstone::host::PendingFolderSyncs().size()) << "a small commit flushes nothing";
  // A commit that fills the log past the checkpoint size.
  ASSERT_EQ(SQLITE_DONE, db.exec("INSERT INTO t VALUES (zeroblob(5000000));"));
  EXPECT_TRUE(quillstone::host::PendingFolderSyncs().empty());

  server_.Queue(200, "data");
  FileToSync file = File(4, "/a/g");
  ASSERT_EQ(Downloader::kStateDone, Run(file).state);
  downloader_.Cleanup(file);
  EXPECT_EQ(1u, quillstone::host::PendingFolderSyncs().size());
  db.close();
  EXPECT_TRUE(quillstone::host::PendingFolderSyncs().empty());
}

TEST_F(DownloaderTest, HttpFailureKeepsTheBoundedErrorBodyAndLosesNothing) {
  qs_test::WriteFile(folder_ + "/old.txt", "old");
  const std::string conflict = "{\"error_summary\": \"path/not_found/.\"}";
  server_.Queue(Reply(409, conflict, {{"Content-Type", "application/json"}}));
  server_.Queue(500, std::string(200 * 1024, 'x'));

  FileToSync file = File(10, "/old.txt");
  Downloader::StatusInfo status = Run(file);
  EXPECT_EQ(Downloader::kStateFailed, status.state);
  EXPECT_EQ(Downloader::kErrorHttp, status.error);
  EXPECT_EQ(409, status.response_code);
  std::vector<char> body = downloader_.getErrorBody(file);
  EXPECT_EQ(conflict, std::string(body.begin(), body.end()));
  EXPECT_EQ(0, status.downloaded_bytes) << "an error body is no file data";

  downloader_.Cleanup(file);  // refused: only a finished transfer may take the name
  EXPECT_EQ("old", qs_test::ReadFile(folder_ + "/old.txt"));
  downloader_.CleanupOnErr(file);
  EXPECT_FALSE(KeptBeside(folder_ + "/old.txt"));
  EXPECT_EQ("old", qs_test::ReadFile(folder_ + "/old.txt"));

  status = Run(file);
  EXPECT_EQ(Downloader::kErrorHttp, status.error);
  EXPECT_EQ(500, status.response_code);
  EXPECT_GT(downloader_.getErrorBody(file).size(), 0u);
  EXPECT_LE(downloader_.getErrorBody(file).size(), 64u * 1024u);
}

// A kept partial continues with a ranged request, and only a continuation of
// exactly the kept version is appended; anything else starts the file anew.
TEST_F(DownloaderTest, KeptPartialResumesOnlyWithTheSameVersion) {
  const std::string data = RandomBytes(200 * 1024 + 3, 3), changed = RandomBytes(data.size(), 4);
  const size_t half = 70 * 1024 + 11;
  const std::string range = "bytes " + std::to_string(half) + "-" +
                            std::to_string(data.size() - 1) + "/" + std::to_string(data.size());
  FileToSync file = File(data.size(), "/part.bin");
  const std::string target = Target("/part.bin");
  downloader_.resume_partial_ = true;
  struct Case {
    std::vector<qs_test::CannedReply> replies;
    const std::string& result;
  } cases[] = {
      {{Reply(206, data.substr(half), {{"ETag", "\"v1\""}, {"Content-Range", range}})}, data},
      {{Reply(200, changed, {{"ETag", "\"v2\""}})}, changed},  // changed meanwhile
      // A server that ignores If-Range: its other version is not appended.
      {{Reply(206, data.substr(half), {{"ETag", "\"v3\""}, {"Content-Range", range}}),
        Reply(200, data, {{"ETag", "\"v3\""}})},
       data},
  };
  for (const Case& c : cases) {
    qs_test::WriteFile(target + ".downloading", data.substr(0, half));
    qs_test::WriteFile(target + ".progress",
                       "url=" + file.url + "\netag=\"v1\"\nsize=" + std::to_string(data.size()) +
                           "\nbytes=" + std::to_string(half) + "\n");
    const size_t before = server_.Requests().size();
    for (const auto& reply : c.replies) server_.Queue(reply);
    ASSERT_EQ(Downloader::kStateDone, Run(file).state);
    const qs_test::RecordedRequest request = server_.Requests().at(before);
    EXPECT_EQ("bytes=" + std::to_string(half) + "-", request.Header("Range"));
    EXPECT_EQ("\"v1\"", request.Header("If-Range"));
    EXPECT_EQ(c.replies.size(), server_.Requests().size() - before);
    if (c.replies.size() > 1) {
      EXPECT_FALSE(server_.Requests().back().HasHeader("Range"));
    }
    downloader_.Cleanup(file);
    EXPECT_TRUE(c.result == qs_test::ReadFile(target));
    EXPECT_FALSE(KeptBeside(target));
  }
}

TEST_F(DownloaderTest, FailuresAreToldApartAndAlwaysEndInAFinalState) {
  // Nothing listens: a network failure.
  FileToSync file{"http://127.0.0.1:" + std::to_string(qs_test::UnusedPort()) + "/", "/f", 3};
  Downloader::StatusInfo status = Run(file);
  EXPECT_EQ(Downloader::kStateFailed, status.state);
  EXPECT_EQ(Downloader::kErrorNetwork, status.error);
  EXPECT_EQ(0, status.response_code);

  // A target folder that cannot exist (its parent is a file; permissions
  // would not stop a test run as root): the device's side, and no request.
  qs_test::WriteFile(folder_ + "/plain", "x");
  status = Run(File(3, "/plain/sub/f"));
  EXPECT_EQ(Downloader::kErrorStorage, status.error);
  EXPECT_TRUE(server_.Requests().empty());
}

}  // namespace
