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

#include "support/test_root.h"

using quillstone::utilities::Downloader;
using quillstone::utilities::FileToSync;
using quillstone::utilities::IDownloaderCallback;

namespace {

struct SeenRequest {
  std::string head;  // request line and headers
  std::string Header(const std::string& name) const {
    std::string key = "\r\n" + name + ":";
    for (size_t at = 0; (at = head.find("\r\n", at)) != std::string::npos; at += 2) {
      if (strncasecmp(head.c_str() + at, key.c_str(), key.size()) == 0) {
        size_t begin = head.find_first_not_of(' ', at + key.size());
        return head.substr(begin, head.find("\r\n", begin) - begin);
      }
    }
    return "";
  }
  bool Has(const std::string& name) const {
    return strcasestr(head.c_str(), ("\r\n" + name + ":").c_str()) != nullptr;
  }
};

bool Send(int fd, const std::string& data) {
  return send(fd, data.data(), data.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(data.size());
}

// One connection at a time; each request is answered by the next handler,
// which writes whatever bytes it likes and may close early.
class ScriptedServer {
 public:
  using Handler = std::function<void(int fd, const SeenRequest&)>;

  ScriptedServer() {
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bind(listen_fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    listen(listen_fd_, 8);
    getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
  }
  ~ScriptedServer() {
    stop_ = true;
    thread_.join();
    close(listen_fd_);
  }
  std::string Url() const {
    return "http://127.0.0.1:" + std::to_string(port_) + "/2/files/download";
  }
  void Add(Handler handler) {
    std::lock_guard<std::mutex> lock(mutex_);
    handlers_.push_back(std::move(handler));
  }
  std::vector<SeenRequest> Requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  bool stopping() const { return stop_; }

 private:
  void Run() {
    while (!stop_) {
      pollfd p{listen_fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) continue;
      SeenRequest request;
      char buffer[4096];
      while (request.head.find("\r\n\r\n") == std::string::npos && request.head.size() < 65536) {
        ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n <= 0) break;
        request.head.append(buffer, static_cast<size_t>(n));
      }
      Handler handler = [](int fd, const SeenRequest&) { Send(fd, "HTTP/1.1 500 None\r\n\r\n"); };
      {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(request);
        if (!handlers_.empty()) {
          handler = std::move(handlers_.front());
          handlers_.pop_front();
        }
      }
      handler(fd, request);
      close(fd);
    }
  }

  int listen_fd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::deque<Handler> handlers_;
  std::vector<SeenRequest> requests_;
  std::thread thread_;
};

std::string Head(const std::string& status, const std::string& headers) {
  return "HTTP/1.1 " + status + "\r\n" + headers + "Connection: close\r\n\r\n";
}

// A whole answer; `sent` bytes of `body` go out (all when negative), after a
// Content-Length that announces all of it.
ScriptedServer::Handler Answer(const std::string& status, const std::string& headers,
                               const std::string& body, long sent = -1) {
  return [=](int fd, const SeenRequest&) {
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

class Recorder : public IDownloaderCallback {
 public:
  explicit Recorder(Downloader* downloader) : downloader_(downloader) {}
  // GetStatus from inside the callback, as the sync engine does.
  void NotifyDownloaderStatus(void*) override {
    int state = downloader_->GetStatus().state;
    std::lock_guard<std::mutex> lock(mutex_);
    states_.push_back(state);
    if (state >= Downloader::kStateDone) final_seen_ = true;
    cond_.notify_all();
  }
  // Waits until a notification has seen a final state; false on time-out.
  bool WaitFinal(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, limit, [this] { return final_seen_; });
  }
  std::vector<int> TakeStates() {
    std::lock_guard<std::mutex> lock(mutex_);
    final_seen_ = false;
    return std::move(states_);
  }

 private:
  Downloader* downloader_;
  std::mutex mutex_;
  std::condition_variable cond_;
  std::vector<int> states_;
  bool final_seen_ = false;
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
    recorder_.TakeStates();
    EXPECT_EQ(0, downloader_.Start(file, folder_, nullptr));
    EXPECT_TRUE(recorder_.WaitFinal());
    return downloader_.GetStatus();
  }
  std::string Target(const std::string& local_path = "/a/b/book.pdf") {
    return folder_ + local_path;
  }

  ScriptedServer server_;
  std::string folder_;
  Recorder recorder_{&downloader_};  // outlives the downloader's last callback
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
  std::vector<int> states = recorder_.TakeStates();
  ASSERT_FALSE(states.empty());
  EXPECT_EQ(Downloader::kStateInProgress, states.front());
  EXPECT_EQ(Downloader::kStateDone, states.back());

  EXPECT_FALSE(qs_test::Exists(Target())) << "nothing under the real name before Cleanup";
  downloader_.Cleanup(file);
  EXPECT_EQ(first, qs_test::ReadFile(Target()));
  EXPECT_FALSE(qs_test::Exists(Target() + ".downloading"));
  EXPECT_FALSE(qs_test::Exists(Target() + ".progress"));

  SeenRequest request = server_.Requests().at(0);
  EXPECT_EQ(0u, request.head.find("POST /2/files/download HTTP/1.1\r\n"));
  EXPECT_EQ("Bearer token-1", request.Header("Authorization"));
  EXPECT_EQ("{\"path\":\"/a/b/book.pdf\"}", request.Header("Dropbox-API-Arg"));
  EXPECT_FALSE(request.Has("Content-Type"));
  EXPECT_FALSE(request.Has("Range"));
  EXPECT_EQ("0", request.Header("Content-Length"));

  // The same target again: the older file is replaced whole; cleared headers stay away.
  downloader_.ClearHeaders();
  file = File(second.size());
  EXPECT_EQ(Downloader::kStateDone, Run(file).state);
  EXPECT_EQ(first, qs_test::ReadFile(Target()));
  downloader_.Cleanup(file);
  EXPECT_EQ(second, qs_test::ReadFile(Target()));
  EXPECT_FALSE(server_.Requests().at(1).Has("Authorization"));
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
  EXPECT_FALSE(qs_test::Exists(folder_ + "/old.txt.downloading"));
  EXPECT_FALSE(qs_test::Exists(folder_ + "/old.txt.progress"));
  EXPECT_EQ("old", qs_test::ReadFile(folder_ + "/old.txt"));

  status = Run(file);
  EXPECT_EQ(Downloader::kErrorHttp, status.error);
  EXPECT_EQ(500, status.response_code);
  EXPECT_GT(downloader_.getErrorBody(file).size(), 0u);
  EXPECT_LE(downloader_.getErrorBody(file).size(), 64u * 1024u);
}

TEST_F(DownloaderTest, BrokenTransferResumesWithARangeRequest) {
  downloader_.resume_partial_ = true;
  const std::string data = RandomBytes(200 * 1024 + 3, 3);
  const size_t half = 70 * 1024 + 11;
  server_.Add(Answer("200 OK", "ETag: \"v1\"\r\n", data, half));
  server_.Add([&](int fd, const SeenRequest& request) {
    std::string rest = data.substr(half);
    Send(fd, Head("206 Partial Content",
                  "ETag: \"v1\"\r\nContent-Range: bytes " + std::to_string(half) + "-" +
                      std::to_string(data.size() - 1) + "/" + std::to_string(data.size()) +
                      "\r\nContent-Length: " + std::to_string(rest.size()) + "\r\n") +
                 rest);
  });

  FileToSync file = File(data.size());
  Downloader::StatusInfo status = Run(file);
  EXPECT_EQ(Downloader::kStateFailed, status.state);
  EXPECT_EQ(Downloader::kErrorNetwork, status.error) << "a short body is never a success";
  EXPECT_TRUE(qs_test::Exists(Target() + ".progress"));
  EXPECT_EQ(half, qs_test::ReadFile(Target() + ".downloading").size());

  EXPECT_EQ(Downloader::kStateDone, Run(file).state);
  SeenRequest second = server_.Requests().at(1);
  EXPECT_EQ("bytes=" + std::to_string(half) + "-", second.Header("Range"));
  EXPECT_EQ("\"v1\"", second.Header("If-Range"));
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
  EXPECT_TRUE(server_.Requests().at(3).Has("Range"));
  downloader_.Cleanup(file);
  EXPECT_EQ(changed, qs_test::ReadFile(Target()));

  // A server that ignores If-Range: its partial answer of another version is
  // not appended; the whole file is asked for again.
  server_.Add(Answer("200 OK", "ETag: \"v1\"\r\n", data, half));
  server_.Add([&](int fd, const SeenRequest&) {
    Send(fd, Head("206 Partial Content",
                  "ETag: \"v3\"\r\nContent-Range: bytes " + std::to_string(half) + "-9/10\r\n") +
                 "0123456789");
  });
  server_.Add(Answer("200 OK", "ETag: \"v3\"\r\n", data));
  EXPECT_EQ(Downloader::kErrorNetwork, Run(file).error);
  EXPECT_EQ(Downloader::kStateDone, Run(file).state);
  ASSERT_EQ(7u, server_.Requests().size());
  EXPECT_FALSE(server_.Requests().at(6).Has("Range"));
  downloader_.Cleanup(file);
  EXPECT_EQ(data, qs_test::ReadFile(Target()));

  // A body without a length that ends short of the announced size.
  server_.Add(
      [&](int fd, const SeenRequest&) { Send(fd, Head("200 OK", "") + data.substr(0, 9)); });
  EXPECT_EQ(Downloader::kErrorNetwork, Run(file).error);
  EXPECT_FALSE(qs_test::Exists(Target() + ".progress")) << "without an ETag nothing is kept";
  EXPECT_EQ(data, qs_test::ReadFile(Target()));
}

TEST_F(DownloaderTest, WithoutResumeEveryStartBeginsAnewAndLeavesNothing) {
  const std::string data = RandomBytes(50000, 5);
  server_.Add(Answer("200 OK", "ETag: \"v1\"\r\n", data, 20000));
  server_.Add(Answer("200 OK", "ETag: \"v1\"\r\n", data));
  FileToSync file = File(data.size());
  EXPECT_EQ(Downloader::kErrorNetwork, Run(file).error);
  EXPECT_FALSE(qs_test::Exists(Target() + ".downloading"));
  EXPECT_FALSE(qs_test::Exists(Target() + ".progress"));
  EXPECT_EQ(Downloader::kStateDone, Run(file).state);
  EXPECT_FALSE(server_.Requests().at(1).Has("Range"));
  downloader_.Cleanup(file);
  EXPECT_EQ(data, qs_test::ReadFile(Target()));
}

TEST_F(DownloaderTest, AbortEndsASlowTransferPromptlyAndStartWaitsForTheEnd) {
  server_.Add([this](int fd, const SeenRequest&) {
    Send(fd, Head("200 OK", "Content-Length: 10000000\r\n"));
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!server_.stopping() && std::chrono::steady_clock::now() < until &&
           Send(fd, std::string(16, 'z'))) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  FileToSync file = File(10000000, "/slow.bin");
  recorder_.TakeStates();
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
  EXPECT_EQ(Downloader::kStateAborted, recorder_.TakeStates().back());
  downloader_.CleanupOnErr(file);
  EXPECT_FALSE(qs_test::Exists(folder_ + "/slow.bin.downloading"));
  EXPECT_FALSE(qs_test::Exists(folder_ + "/slow.bin"));
}

TEST_F(DownloaderTest, FailuresAreToldApartAndAlwaysEndInAFinalState) {
  // Nothing listens: a network failure.
  int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  close(probe);
  FileToSync file{"http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/", "/f", 3};
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
