// A small HTTP/1.1 server on 127.0.0.1 for tests of request code.
//
// It listens on a port of the system's choice and answers on a thread of its
// own, several connections at once, with keep-alive. Each request takes the
// next canned reply the test queued (500 "no canned reply" when none is
// left), and is recorded with its exact method, target, headers and body.
// Request bodies must carry Content-Length (no chunked uploads). All members
// are safe to call from the test's thread while the server runs.
#pragma once

#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qs_test {

struct RecordedRequest {
  std::string method;
  std::string target;                                        // path and query as sent
  std::vector<std::pair<std::string, std::string>> headers;  // in order, as sent
  std::string body;

  // The value of the first header of that name (any case); "" when absent.
  std::string Header(const std::string& name) const;
  bool HasHeader(const std::string& name) const;
};

struct CannedReply {
  int status = 200;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;  // beside Content-Length
  bool drop = false;  // close the connection without any answer
};

class LoopbackServer {
 public:
  LoopbackServer();
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  std::string Url() const;  // "http://127.0.0.1:<port>"

  void Queue(CannedReply reply);
  void Queue(int status, const std::string& body);
  std::vector<RecordedRequest> Requests() const;
  int ConnectionCount() const;  // connections accepted so far

 private:
  void Run();

  int listen_fd_ = -1;
  int wake_fds_[2] = {-1, -1};
  int port_ = 0;
  mutable std::mutex mutex_;
  std::deque<CannedReply> replies_;
  std::vector<RecordedRequest> requests_;
  int connections_ = 0;
  std::thread thread_;
};

// A port on 127.0.0.1 where nothing listens (bound and released at once).
int UnusedPort();

}  // namespace qs_test
