// The downloader against a scripted HTTP server on loopback: what lands on
// disk, when, and what the caller is told.

#include "downloader.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <strings.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <random>
#include <thread>

#include "host_device.h"
#include "sqlite.h"
#include "support/loopback_server.h"
#include "support/test_root.h"

using quillstone::utilities::Downloader;
using quillstone::utilities::FileToSync;
using quillstone::utilities::IDownloaderCallback;

namespace {

// The value of header `name` in a request head; "" when absent.
std::string HeaderOf(const std::string& head, const std::string& name) {
  std::string key = "\r\n" + name + ":";
  const char* at = strcasestr(head.c_str(), key.c_str());
  if (!at) return "";
  size_t begin = head.find_first_not_of(' ', static_cast<size_t>(at - head.c_str()) + key.size());
  return head.substr(begin, head.find("\r\n", begin) - begin);
}

bool Send(int fd, const std::string& data) {
  return send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

// One connection at a time; each request is answered by the next handler,
// which writes whatever bytes it likes and may close early.
class ScriptedServer {
 public:
  using Handler = std::function<void(int fd)>;

  ScriptedServer() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listen_fd_, 8) != 0 ||
        getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "cannot listen on loopback";
    }
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/2/files/download";
    thread_ = std::thread([this] { Run(); });
  }
  ~ScriptedServer() {
    stop_ = true;
    thread_.join();
    close(listen_fd_);
  }
  const std::string& Url() const { return url_; }
  void Add(Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    handlers_.push_back(std::move(handler));
  }
  std::vector<std::string> Requests() {  // request line and headers of each
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  bool stopping() const { return stop_; }

 private:
  void Run() {
    while (!stop_) {
      pollfd p{listen_fd_, POLLIN, 0};
      int fd = poll(&p, 1, 50) > 0 ? accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
      if (fd < 0) continue;
      std::string head;
      char buffer[4096];
      ssize_t n = 1;
      while (head.find("\r\n\r\n") == std::string::npos && head.size() < 65536 && n > 0) {
        n = recv(fd, buffer, sizeof(buffer), 0);
        head.append(buffer, n > 0 ? static_cast<size_t>(n) : 0);
      }
      Handler handler = [](int fd) { Send(fd, "HTTP/1.1 500 None\r\n\r\n"); };
      {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(head);
        if (!handlers_.empty()) {
          handler = std::move(handlers_.front());
          handlers_.pop_front();
        }
      }
      handler(fd);
      close(fd);
    }
  }

  int listen_fd_ = -1;
  std::string url_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::deque<Handler> handlers_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

std::string Head(const std::string& status, const std::string& headers) {
  return "HTTP/1.1 " + status + "\r\n" + headers + "Connection: close\r\n\r\n";
}

// A whole answer; `sent` bytes of `body` go out (all when negative), after a
// Content-Length that announces all of it.
ScriptedServer::Handler Answer(const std::string& status, const std::string& headers,
                               const std::string& body, long sent = -1) {
  return [=](int fd) {
    std::string length = "Content-Length: " + std::to_string(body.size()) + "\r\n";
    Send(fd, Head(status, headers + length) + body.substr(0, sent < 0 ? body.size() : sent));
  };
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
    return FileToSync{server_.Url(), local_path, static_cast<int>(size)};
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

  ScriptedServer server_;
  std::string folder_;
  Recorder recorder_{&downloader_};  // outlives the downloader's callbacks
  Downloader downloader_;
};

TEST_F(DownloaderTest, GoodDownloadLandsOnlyAtCleanupAndReplacesTheOlderFile) {
  const std::string first = RandomBytes(300 * 1024 + 7, 1), second = RandomBytes(5000, 2);
  server_.Add(Answer("200 OK", "ETag: W/\"rev1\"\r\n", first));
  server_.Add(Answer("200 OK", "", second));
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

  std::string request = server_.Requests().at(0);
  EXPECT_EQ(0u, request.find("POST /2/files/download HTTP/1.1\r\n"));
  EXPECT_EQ("Bearer token-1", HeaderOf(request, "Authorization"));
  EXPECT_EQ("{\"path\":\"/a/b/book.pdf\"}", HeaderOf(request, "Dropbox-API-Arg"));
  EXPECT_EQ("", HeaderOf(request, "Content-Type"));
  EXPECT_EQ("", HeaderOf(request, "Range"));
  EXPECT_EQ("0", HeaderOf(request, "Content-Length"));

  // The same target again: the older file is replaced whole; cleared headers stay away.
  downloader_.ClearHeaders();
  file = File(second.size());
  EXPECT_EQ(Downloader::kStateDone, Run(file).state);
  EXPECT_EQ(first, qs_test::ReadFile(Target()));
  downloader_.Cleanup(file);
  EXPECT_EQ(second, qs_test::ReadFile(Target()));
  EXPECT_EQ("", HeaderOf(server_.Requests().at(1), "Authorization"));
}

// A rename's folder flush is shared, but must come before the store's log is
// flushed (at a checkpoint or at close): otherwise a power cut could keep a
// row that names a file whose rename was lost.
TEST_F(DownloaderTest, FolderFlushesRunBeforeTheStoreFlushesItsLog) {
  const std::string a = folder_ + "/a/", b = folder_ + "/b/";
  for (int i = 0; i < 3; ++i) {
    std::string local_path = (i < 2 ? "/a/f" : "/b/f") + std::to_string(i);
    server_.Add(Answer("200 OK", "", "data"));
    FileToSync file = File(4, local_path);
    ASSERT_EQ(Downloader::kStateDone, Run(file).state);
    downloader_.Cleanup(file);
    EXPECT_EQ("data", qs_test::ReadFile(folder_ + local_path));
  }
  EXPECT_EQ((std::vector<std::string>{a, b}), quillstone::host::PendingFolderSyncs());

  quillstone::utilities::Sqlite db;
  ASSERT_EQ(0, db.open(folder_ + "/store.db"));
  ASSERT_EQ(SQLITE_DONE, db.exec("PRAGMA journal_mode=WAL; CREATE TABLE t (b BLOB);"));
  EXPECT_EQ(2u, quillstone::host::PendingFolderSyncs().size()) << "a small commit flushes nothing";
  // A commit that fills the log past the checkpoint size.
  ASSERT_EQ(SQLITE_DONE, db.exec("INSERT INTO t VALUES (zeroblob(5000000));"));
  EXPECT_TRUE(quillstone::host::PendingFolderSyncs().empty());

  server_.Add(Answer("200 OK", "", "data"));
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
  server_.Add(Answer("409 Conflict", "Content-Type: application/json\r\n", conflict));
  server_.Add(Answer("500 Internal Server Error", "", std::string(200 * 1024, 'x')));

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

TEST_F(DownloaderTest, BrokenTransferResumesWithARangeRequest) {
  const std::string data = RandomBytes(200 * 1024 + 3, 3);
  const size_t half = 70 * 1024 + 11;
  FileToSync file = File(data.size());
  // By default a broken transfer leaves nothing to continue.
  server_.Add(Answer("200 OK", "ETag: \"v1\"\r\n", data, half));
  EXPECT_EQ(Downloader::kErrorNetwork, Run(file).error);
  EXPECT_FALSE(KeptBeside(Target()));

  downloader_.resume_partial_ = true;
  server_.Add(Answer("200 OK", "ETag: \"v1\"\r\n", data, half));
  const std::string range = std::to_string(half) + "-" + std::to_string(data.size() - 1) + "/";
  server_.Add(
      Answer("206 Partial Content",
             "ETag: \"v1\"\r\nContent-Range: bytes " + range + std::to_string(data.size()) + "\r\n",
             data.substr(half)));
  Downloader::StatusInfo status = Run(file);
  EXPECT_EQ(Downloader::kStateFailed, status.state);
  EXPECT_EQ(Downloader::kErrorNetwork, status.error) << "a short body is never a success";
  EXPECT_TRUE(qs_test::Exists(Target() + ".progress"));
  EXPECT_EQ(half, qs_test::ReadFile(Target() + ".downloading").size());

  EXPECT_EQ(Downloader::kStateDone, Run(file).state);
  std::string second = server_.Requests().at(2);
  EXPECT_EQ("bytes=" + std::to_string(half) + "-", HeaderOf(second, "Range"));
  EXPECT_EQ("\"v1\"", HeaderOf(second, "If-Range"));
  downloader_.Cleanup(file);
  EXPECT_EQ(data, qs_test::ReadFile(Target()));
  EXPECT_FALSE(qs_test::Exists(Target() + ".progress"));

  // The server's file changed meanwhile: its whole new content (200) replaces
  // the kept data instead of being appended to it.
  const std::string changed = RandomBytes(data.size(), 4);
  server_.Add(Answer("200 OK", "ETag: \"v1\"\r\n", data, half));
  server_.Add(Answer("200 OK", "ETag: \"v2\"\r\n", changed));
  EXPECT_EQ(Downloader::kErrorNetwork, Run(file).error);
  EXPECT_EQ(Downloader::kStateDone, Run(file).state);
  EXPECT_NE("", HeaderOf(server_.Requests().at(4), "Range"));
  downloader_.Cleanup(file);
  EXPECT_EQ(changed, qs_test::ReadFile(Target()));

  // A server that ignores If-Range: its partial answer of another version is
  // not appended; the whole file is asked for again.
  server_.Add(Answer("200 OK", "ETag: \"v1\"\r\n", data, half));
  server_.Add(Answer("206 Partial Content",
                     "ETag: \"v3\"\r\nContent-Range: bytes " + range + "9\r\n", "012345678"));
  server_.Add(Answer("200 OK", "ETag: \"v3\"\r\n", data));
  EXPECT_EQ(Downloader::kErrorNetwork, Run(file).error);
  EXPECT_EQ(Downloader::kStateDone, Run(file).state);
  ASSERT_EQ(8u, server_.Requests().size());
  EXPECT_EQ("", HeaderOf(server_.Requests().at(7), "Range"));
  downloader_.Cleanup(file);
  EXPECT_EQ(data, qs_test::ReadFile(Target()));

  // A body without a length that ends short of the announced size.
  server_.Add([&](int fd) { Send(fd, Head("200 OK", "") + data.substr(0, 9)); });
  EXPECT_EQ(Downloader::kErrorNetwork, Run(file).error);
  EXPECT_FALSE(qs_test::Exists(Target() + ".progress")) << "without an ETag nothing is kept";
  EXPECT_EQ(data, qs_test::ReadFile(Target()));
}

TEST_F(DownloaderTest, AbortEndsAStalledTransferPromptlyAndStartWaitsForTheEnd) {
  // A few bytes, then silence until the client goes away.
  server_.Add([this](int fd) {
    Send(fd, Head("200 OK", "Content-Length: 10000000\r\n") + std::string(64, 'z'));
    pollfd p{fd, POLLIN, 0};
    char byte;
    for (int i = 0; i < 400 && !server_.stopping(); ++i) {
      if (poll(&p, 1, 50) > 0 && recv(fd, &byte, 1, 0) <= 0) break;
    }
  });
  FileToSync file = File(10000000, "/slow.bin");
  recorder_.Take();
  ASSERT_EQ(0, downloader_.Start(file, folder_, nullptr));
  for (int i = 0; i < 200 && downloader_.GetStatus().downloaded_bytes == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_GT(downloader_.GetStatus().downloaded_bytes, 0);

  EXPECT_EQ(-1, downloader_.Start(File(5, "/other.bin"), folder_, nullptr));
  EXPECT_EQ(folder_ + "/slow.bin", downloader_.last_file_);
  EXPECT_EQ(Downloader::kStateInProgress, downloader_.GetStatus().state);

  auto begin = std::chrono::steady_clock::now();
  downloader_.Abort(nullptr);
  downloader_.Abort(nullptr);
  ASSERT_TRUE(recorder_.WaitFinal(std::chrono::seconds(1)));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
  EXPECT_EQ(Downloader::kStateAborted, downloader_.GetStatus().state);
  EXPECT_EQ(Downloader::kStateAborted, recorder_.Take().back());
  downloader_.CleanupOnErr(file);
  EXPECT_FALSE(KeptBeside(folder_ + "/slow.bin"));
  EXPECT_FALSE(qs_test::Exists(folder_ + "/slow.bin"));
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

  // A write that fails halfway (the file size limit stands in for a full disk).
  const std::string data = RandomBytes(256 * 1024, 6);
  server_.Add(Answer("200 OK", "", data));
  signal(SIGXFSZ, SIG_IGN);
  rlimit old_limit;
  getrlimit(RLIMIT_FSIZE, &old_limit);
  rlimit small = old_limit;
  small.rlim_cur = 64 * 1024;
  setrlimit(RLIMIT_FSIZE, &small);
  status = Run(File(data.size(), "/big.bin"));
  setrlimit(RLIMIT_FSIZE, &old_limit);
  EXPECT_EQ(Downloader::kErrorStorage, status.error);
  EXPECT_FALSE(qs_test::Exists(folder_ + "/big.bin"));

  // An address libcurl cannot use: neither network nor HTTP.
  status = Run(FileToSync{"nosuchscheme://x/", "/g", 3});
  EXPECT_EQ(Downloader::kStateFailed, status.state);
  EXPECT_EQ(Downloader::kErrorOther, status.error);
}

}  // namespace
