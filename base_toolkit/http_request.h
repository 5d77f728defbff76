// One HTTP request and the runner that carries it out (libcurl).
//
// The runner verifies TLS against the device's CA bundle, uses the device's
// proxy, reuses its connection between requests, and bounds both the
// connection time and a stalled transfer so that a dead network cannot hang
// a caller. Thread safety: a runner is used by one thread at a time.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace quillstone {
namespace utilities {

class HttpRequest {
 public:
  HttpRequest(const std::string& method, const std::string& url);
  ~HttpRequest();

  void AddPostData(const std::string& data);  // the body, sent as it stands
  void AddHeader(const std::string& key, const std::string& value);

  const std::string& method() const { return method_; }
  const std::string& url() const { return url_; }
  const std::string& body() const { return body_; }
  const std::vector<std::pair<std::string, std::string>>& headers() const { return headers_; }

 private:
  std::string method_;
  std::string url_;
  std::string body_;
  std::vector<std::pair<std::string, std::string>> headers_;  // in the order added
};

class HttpRequestRunner {
 public:
  HttpRequestRunner();
  ~HttpRequestRunner();
  HttpRequestRunner(const HttpRequestRunner&) = delete;
  HttpRequestRunner& operator=(const HttpRequestRunner&) = delete;

  // Blocks until the exchange ends. 0 when an HTTP answer came, whatever its
  // code, with the code in *response_code and the body appended to *data;
  // non-zero when none came (no connection, TLS failure, time-out), with
  // nothing else written.
  int PerformRequest(const HttpRequest& request, long* response_code, std::vector<char>* data);

 private:
  void* curl_;  // CURL*, kept for connection reuse
};

// Largest reply body a runner keeps; a longer reply counts as a failed
// exchange rather than exhausting memory.
constexpr size_t kMaxReplyBytes = 64u * 1024u * 1024u;

}  // namespace utilities
}  // namespace quillstone
