// HttpRequest and HttpRequestRunner over libcurl's easy interface.
//
// One easy handle lives as long as the runner, so that consecutive requests
// to the same host reuse the connection (and its TLS session); the options
// are reset before each request, the connection cache is not.
#define QS_SOURCE_NAME "platform/http_request"

#include "http_request.h"

#include <curl/curl.h>
#include <stdint.h>

#include "curl_transport.h"
#include "qs_log.h"
#include "tessera.h"

namespace quillstone {
namespace utilities {

namespace {

struct ReplySink {
  CURL* curl = nullptr;
  std::vector<char> body;
  bool overflow = false;
  bool sized = false;
};

size_t WriteReply(char* ptr, size_t size, size_t nmemb, void* userdata) {
  ReplySink* sink = static_cast<ReplySink*>(userdata);
  const size_t count = size * nmemb;
  if (!sink->sized) {
    // A large listing page would otherwise grow by doubling, holding up to
    // twice its size at its peak.
    sink->sized = true;
    curl_off_t length = -1;
    if (curl_easy_getinfo(sink->curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK &&
        length > 0 && static_cast<uint64_t>(length) <= kMaxReplyBytes) {
      sink->body.reserve(static_cast<size_t>(length));
    }
  }
  if (count > kMaxReplyBytes - sink->body.size()) {
    sink->overflow = true;
    return 0;  // makes curl abort the transfer with a write error
  }
  sink->body.insert(sink->body.end(), ptr, ptr + count);
  return count;
}

// Sets the method and body. POST always carries a body, so that an empty
// one still goes out with "Content-Length: 0".
void SetMethod(CURL* curl, const HttpRequest& request) {
  const std::string& method = request.method();
  const std::string& body = request.body();
  if (method == "GET") {
    curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    return;
  }
  if (method == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
    return;
  }
  if (method != "POST") curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
  if (method == "POST" || !body.empty()) {
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
  }
}

}  // namespace

HttpRequest::HttpRequest(const std::string& method, const std::string& url)
    : method_(method), url_(url) {}

HttpRequest::~HttpRequest() {}

void HttpRequest::AddPostData(const std::string& data) { body_ += data; }

void HttpRequest::AddHeader(const std::string& key, const std::string& value) {
  headers_.emplace_back(key, value);
}

HttpRequestRunner::HttpRequestRunner() : curl_(nullptr) {
  InitCurlOnce();
  curl_ = curl_easy_init();
}

HttpRequestRunner::~HttpRequestRunner() {
  if (curl_) curl_easy_cleanup(static_cast<CURL*>(curl_));
}

int HttpRequestRunner::PerformRequest(const HttpRequest& request, long* response_code,
                                      std::vector<char>* data) {
  CURL* curl = static_cast<CURL*>(curl_);
  if (!curl) {
    QS_LOG(kLogError, "no curl handle");
    return -1;
  }
  curl_easy_reset(curl);

  char error_text[CURL_ERROR_SIZE] = {0};
  ReplySink sink;
  sink.curl = curl;

  curl_easy_setopt(curl, CURLOPT_URL, request.url().c_str());
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_text);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  // An RPC answer is never a redirect to follow.
  (void)SetTransportOptions(curl, false);
  curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxReplyBytes));
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteReply);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
  SetMethod(curl, request);

  curl_slist* headers = nullptr;
  bool has_expect = false;
  bool has_credentials = false;
  for (const auto& header : request.headers()) {
    if (curl_strequal(header.first.c_str(), "Authorization")) has_credentials = true;
    // "Name;" is curl's way to send a header with an empty value.
    const std::string line =
        header.second.empty() ? header.first + ";" : header.first + ": " + header.second;
    curl_slist* grown = curl_slist_append(headers, line.c_str());
    if (!grown) {
      curl_slist_free_all(headers);
      QS_LOG(kLogError, "out of memory for headers");
      return -1;
    }
    headers = grown;
    if (curl_strequal(header.first.c_str(), "Expect")) has_expect = true;
  }
  if (!has_expect) {
    // curl waits for "100 Continue" before a larger body; the service never
    // needs that round trip.
    curl_slist* grown = curl_slist_append(headers, "Expect:");
    if (grown) headers = grown;
  }
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  if (!has_credentials) {
    // Only the log-in exchange goes without credentials, and it carries a
    // one-time code. libcurl resends a request whose reused connection died
    // before any answer; a code must never go out twice, so it gets a
    // connection of its own.
    curl_easy_setopt(curl, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(curl, CURLOPT_FORBID_REUSE, 1L);
  }

  const CURLcode result = curl_easy_perform(curl);
  long code = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
  // The options point at locals; drop them before they go out of scope.
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
  curl_slist_free_all(headers);

  if (result != CURLE_OK) {
    if (sink.overflow || result == CURLE_FILESIZE_EXCEEDED) {
      QS_LOG(kLogError, "reply from %s exceeds %zu bytes", request.url().c_str(), kMaxReplyBytes);
    } else {
      QS_LOG(kLogError, "request to %s failed: %d %s", request.url().c_str(),
             static_cast<int>(result), error_text[0] ? error_text : curl_easy_strerror(result));
    }
    return static_cast<int>(result);
  }
  if (code <= 0) {
    QS_LOG(kLogError, "no HTTP answer from %s", request.url().c_str());
    return -1;
  }
  *response_code = code;
  if (data->empty()) {
    data->swap(sink.body);  // no second copy of a large reply
  } else {
    data->insert(data->end(), sink.body.begin(), sink.body.end());
  }
  return 0;
}

}  // namespace utilities
}  // namespace quillstone
