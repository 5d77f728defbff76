#define QS_SOURCE_NAME "src/uploader"

#include "uploader.h"

#include <curl/curl.h>
#include <errno.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>

#include "curl_transport.h"
#include "qs_log.h"

namespace quillstone {
namespace utilities {

namespace {

// Upload replies are one metadata record or an error; a peer that sends more
// is not to be believed.
constexpr size_t kMaxReplyBytes = 1 << 20;

bool HasContentType(const std::map<std::string, std::string>& headers) {
  for (const auto& header : headers) {
    if (strcasecmp(header.first.c_str(), "Content-Type") == 0) return true;
  }
  return false;
}

}  // namespace

bool IsStream(int fd) {
  struct stat st;
  return fstat(fd, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode) ||
                                 S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode));
}

#define QS_CHECK_SETUP(cond, text)                     \
  if (cond) {                                          \
    QS_LOG(kLogError, "Condition %s is true. ", text); \
    result = kUploadSetupFailed;                       \
    goto cleanup;                                      \
  }

#define QS_SETOPT(option, value)                                                            \
  if ((err = curl_easy_setopt(curl, option, value)) != CURLE_OK) {                          \
    QS_LOG(kLogError, "Condition %s failed. curl_easy_setopt failed with [%d]", "0 == err", \
           static_cast<int>(err));                                                          \
    result = kUploadSetupFailed;                                                            \
    goto cleanup;                                                                           \
  }

Uploader::Uploader()
    : callback_(nullptr),
      status_code_(0),
      file_(-1),
      abort_(false),
      bytes_read_(0),
      part_size_(0),
      body_size_(0),
      body_short_(false),
      curl_(nullptr) {
  utilities::InitCurlOnce();
}

Uploader::~Uploader() {
  if (file_ != -1) close(file_);
  if (curl_ != nullptr) curl_easy_cleanup(curl_);
}

Uploader::Error Uploader::Upload(const std::string& file, const std::string& url,
                                 const std::map<std::string, std::string>& headers,
                                 std::vector<char>* response) {
  return UploadInt(file, 0, 0, url, headers, response);
}

Uploader::Error Uploader::UploadPart(const std::string& file, off_t offset, size_t size,
                                     const std::string& url,
                                     const std::map<std::string, std::string>& headers,
                                     std::vector<char>* response) {
  return UploadInt(file, offset, size, url, headers, response);
}

Uploader::Status Uploader::GetStatus() {
  Status status;
  status.uploaded_bytes = bytes_read_;
  status.http_status = status_code_;
  return status;
}

Uploader::Error Uploader::UploadInt(const std::string& file, off_t offset, size_t size,
                                    const std::string& url,
                                    const std::map<std::string, std::string>& headers,
                                    std::vector<char>* response) {
  Error result = kUploadSetupFailed;
  CURL* curl = curl_;
  curl_slist* header_list = nullptr;
  CURLcode err = CURLE_OK;
  off_t seek_res = 0;
  off_t length = 0;
  bool inline_body = false;
  size_t have = 0;

  bytes_read_ = 0;
  part_size_ = size;
  body_short_ = false;
  // Never blocking: a FIFO in the tree must not hang the run, and neither it
  // nor a socket or device has a length to send.
  file_ = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  QS_CHECK_SETUP(-1 == file_, "-1 == file_");
  QS_CHECK_SETUP(IsStream(file_), "IsStream(file_)");
  // The bytes from `offset` to the end; the body's length when no size is
  // given.
  seek_res = lseek(file_, 0, SEEK_END);
  QS_CHECK_SETUP((off_t)(-1) == seek_res, "(off_t)(-1) == seek_res");
  length = seek_res > offset ? seek_res - offset : 0;
  seek_res = lseek(file_, offset, SEEK_SET);
  QS_CHECK_SETUP((off_t)(-1) == seek_res, "(off_t)(-1) == seek_res");
  body_size_ = size != 0 ? size : static_cast<size_t>(length);

  // A small body is read at once and goes out with the request head in one
  // write: the server wakes once per request instead of twice, which is most
  // of what a small file's upload costs besides the answer.
  inline_body = body_size_ <= kInlineBodyMax;
  if (inline_body) {
    // Through the read callback, which counts the bytes and notices a file
    // that gives fewer than announced.
    inline_body_.resize(body_size_);
    while (have < body_size_) {
      const size_t got = ReadFunction(inline_body_.data() + have, 1, body_size_ - have, this);
      if (body_short_) goto cleanup;  // `got` is then libcurl's abort code
      have += got;
    }
  }

  if (curl == nullptr) curl = curl_ = curl_easy_init();
  if (curl == nullptr) {
    QS_LOG(kLogError, "Condition %s failed. ", "curl");
    goto cleanup;
  }

  for (const auto& header : headers) {
    curl_slist* grown =
        curl_slist_append(header_list, (header.first + ": " + header.second).c_str());
    QS_CHECK_SETUP(grown == nullptr, "nullptr == header_list");
    header_list = grown;
  }
  if (header_list != nullptr) {
    // libcurl would otherwise wait for "100 Continue" before every body.
    curl_slist* grown = curl_slist_append(header_list, "Expect:");
    QS_CHECK_SETUP(grown == nullptr, "nullptr == header_list");
    header_list = grown;
  }
  if (inline_body && !HasContentType(headers)) {
    // A body given in memory would otherwise be announced as a form.
    curl_slist* grown = curl_slist_append(header_list, "Content-Type:");
    QS_CHECK_SETUP(grown == nullptr, "nullptr == header_list");
    header_list = grown;
  }

  QS_SETOPT(CURLOPT_CUSTOMREQUEST, "POST");
  if (inline_body) {
    QS_SETOPT(CURLOPT_POSTFIELDSIZE, static_cast<long>(body_size_));
    QS_SETOPT(CURLOPT_POSTFIELDS, body_size_ != 0 ? inline_body_.data() : "");
  } else {
    QS_SETOPT(CURLOPT_UPLOAD, 1L);
    QS_SETOPT(CURLOPT_INFILESIZE, static_cast<long>(body_size_));
    QS_SETOPT(CURLOPT_READFUNCTION, &Uploader::ReadFunction);
    QS_SETOPT(CURLOPT_READDATA, this);
  }
  QS_SETOPT(CURLOPT_URL, url.c_str());
  QS_SETOPT(CURLOPT_WRITEFUNCTION, &Uploader::AppendResponse);
  QS_SETOPT(CURLOPT_WRITEDATA, response);
  if (header_list != nullptr) QS_SETOPT(CURLOPT_HTTPHEADER, header_list);
  QS_SETOPT(CURLOPT_NOPROGRESS, 0L);
  // The double-valued progress callback is deprecated in libcurl but still
  // served; it is all an abort check needs.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  QS_SETOPT(CURLOPT_PROGRESSFUNCTION, &Uploader::ProgressFunctionCaller);
  QS_SETOPT(CURLOPT_PROGRESSDATA, this);
#pragma GCC diagnostic pop
  if ((err = SetTransportOptions(curl, true)) != CURLE_OK) {
    QS_LOG(kLogError, "Condition %s failed. curl_easy_setopt failed with [%d]", "0 == err",
           static_cast<int>(err));
    goto cleanup;
  }

  err = curl_easy_perform(curl);
  if (err == CURLE_COULDNT_CONNECT) {
    // A server that is restarting refuses for a moment; one more try costs
    // nothing when it is really down.
    QS_LOG(kLogNotice, "Connection to [%s] refused, trying once more", url.c_str());
    if (file_ != -1) (void)lseek(file_, offset, SEEK_SET);
    bytes_read_ = 0;
    err = curl_easy_perform(curl);
  }
  if (err == CURLE_OK) {
    CURLcode info = curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status_code_);
    if (info != CURLE_OK) {
      QS_LOG(kLogError, "Condition %s failed. curl_easy_getinfo failed with [%d]", "0 == err",
             static_cast<int>(info));
      goto cleanup;
    }
    response->push_back('\0');
    if (status_code_ == 200 || status_code_ == 206) {
      result = kUploadOk;
    } else {
      QS_LOG(kLogError, "File updoading failed with http error [%d]",
             static_cast<int>(status_code_));
      QS_LOG(kLogError, "response is [%s]", response->data());
      result = kUploadHttpError;
    }
  } else if (err == CURLE_ABORTED_BY_CALLBACK && body_short_) {
    response->push_back('\0');
    result = kUploadSetupFailed;
  } else if (err == CURLE_ABORTED_BY_CALLBACK) {
    abort_ = false;
    response->push_back('\0');
    result = kUploadAborted;
  } else {
    QS_LOG(kLogError, "File download failed [%s] with curl error [%d]", url.c_str(),
           static_cast<int>(err));
    status_code_ = 0;
    response->push_back('\0');
    result = kUploadTransferFailed;
  }

cleanup:
  // Reset keeps the open connection but drops every option, so that the
  // handle points at no header list or reply of this transfer.
  if (curl != nullptr) curl_easy_reset(curl);
  if (header_list != nullptr) curl_slist_free_all(header_list);
  if (file_ != -1) {
    close(file_);
    file_ = -1;
  }
  return result;
}

size_t Uploader::ReadFunction(void* buffer, size_t size, size_t count, void* user) {
  Uploader* self = static_cast<Uploader*>(user);
  if (self == nullptr) return 0;
  size_t length = size * count;
  if (self->part_size_ != 0) {
    const size_t left =
        self->part_size_ > self->bytes_read_ ? self->part_size_ - self->bytes_read_ : 0;
    if (length > left) length = left;
  }
  const ssize_t got = read(self->file_, buffer, length);
  if (got == -1) QS_LOG(kLogError, "read failed with errno = [%d]", errno);
  if (got > 0) self->bytes_read_ += static_cast<size_t>(got);
  if (got <= 0 && length > 0 && self->bytes_read_ < self->body_size_) {
    // The announced length can no longer be met, and a server waits for it
    // until the stall rule ends the transfer; end it now instead.
    QS_LOG(kLogError, "file ended after %zu of %zu bytes", self->bytes_read_, self->body_size_);
    self->body_short_ = true;
    return CURL_READFUNC_ABORT;
  }
  return got > 0 ? static_cast<size_t>(got) : 0;
}

int Uploader::ProgressFunctionCaller(void* user, double a, double b, double c, double d) {
  return static_cast<Uploader*>(user)->ProgressFunction(a, b, c, d);
}

int Uploader::ProgressFunction(double, double, double, double) {
  if (callback_ != nullptr) callback_->Progress();
  if (abort_) {
    QS_LOG(kLogNotice, "Aborting from progress function");
    abort_ = false;
    return 1;  // libcurl gives up with CURLE_ABORTED_BY_CALLBACK
  }
  return 0;
}

size_t Uploader::AppendResponse(void* data, size_t size, size_t count, void* user) {
  std::vector<char>* response = static_cast<std::vector<char>*>(user);
  const size_t bytes = size * count;
  if (bytes > kMaxReplyBytes - std::min(kMaxReplyBytes, response->size())) {
    return 0;  // libcurl ends the transfer with a write error
  }
  const char* begin = static_cast<const char*>(data);
  response->insert(response->end(), begin, begin + bytes);
  return bytes;
}

}  // namespace utilities
}  // namespace quillstone
