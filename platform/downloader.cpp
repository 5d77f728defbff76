// Files beyond 2 GiB need 64-bit offsets also where off_t is 32 bits wide.
#define _FILE_OFFSET_BITS 64
#define QS_SOURCE_NAME "platform/downloader"

#include "downloader.h"

#include <curl/curl.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <system_error>

#include "curl_transport.h"
#include "device_root.h"
#include "download_files.h"
#include "host_common.h"
#include "qs_log.h"
#include "tessera.h"

namespace quillstone {
namespace utilities {

namespace {

using namespace kept;

constexpr size_t kMaxErrorBody = 64 * 1024;
constexpr size_t kMaxEtagBytes = 256;
constexpr int kPollMillis = 100;  // bounds the delay of an Abort
constexpr std::chrono::milliseconds kNotifyInterval(100);

int ClampToInt(int64_t value) {
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

// Results by which the network, not the server or the device, failed: the
// transfer may succeed when tried again.
bool IsNetworkFailure(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP2:
    case CURLE_PARTIAL_FILE:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2_STREAM:
    case CURLE_HTTP3:
    case CURLE_QUIC_CONNECT_ERROR:
    case CURLE_PROXY:
      return true;
    default:
      return false;
  }
}

bool StartsWithNoCase(const std::string& text, const char* prefix) {
  return strncasecmp(text.c_str(), prefix, strlen(prefix)) == 0;
}

std::string Trim(const std::string& text) {
  size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return std::string();
  size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

int64_t ParseCount(const std::string& text) {
  char* rest = nullptr;
  errno = 0;
  long long value = strtoll(text.c_str(), &rest, 10);
  if (errno != 0 || rest == text.c_str() || value < 0) return -1;
  return value;
}

}  // namespace

struct Downloader::Transfer {
  enum BodyKind { kBodyUndecided, kBodyData, kBodyError };
  enum Outcome { kDone, kRestart, kNetwork, kHttp, kStorage, kOther, kAborted };

  Downloader* owner = nullptr;
  void* user = nullptr;
  CURL* easy = nullptr;
  std::string url;
  std::string target;
  std::string part_path;
  int64_t expected = 0;  // the announced size, as an unsigned 32-bit figure
  std::vector<std::pair<std::string, std::string>> headers;

  int fd = -1;
  int64_t offset = 0;       // bytes of the data file that this request continues
  int64_t received = 0;     // body bytes written by this request
  std::string resume_etag;  // sent in If-Range when offset > 0

  // Of the answer being received; reset at each status line, so that
  // redirects and interim answers leave nothing behind.
  long code = 0;
  std::string etag;
  int64_t content_length = -1;
  int64_t range_start = -1;
  int64_t range_total = -1;

  BodyKind body = kBodyUndecided;
  std::vector<char> error_body;
  bool error_body_overflow = false;
  bool storage_failed = false;
  int storage_errno = 0;
  bool restart = false;  // the partial answer does not continue the kept data
  std::string message;
  std::chrono::steady_clock::time_point last_notify;

  static size_t OnHeader(char* data, size_t size, size_t count, void* self);
  static size_t OnBody(char* data, size_t size, size_t count, void* self);
  static int OnProgress(void* self, curl_off_t dltotal, curl_off_t dlnow, curl_off_t, curl_off_t);

  void StorageFailure(const char* what) {
    if (!storage_failed) {
      storage_failed = true;
      storage_errno = errno;
      message = std::string(what) + " " + part_path + ": " + strerror(storage_errno);
    }
  }
  bool DecideBody();
  bool OpenData(bool resume);
  CURLcode Perform();
  Outcome Classify(CURLcode result);
  void PublishProgress(bool force);
};

size_t Downloader::Transfer::OnHeader(char* data, size_t size, size_t count, void* self) {
  Transfer* t = static_cast<Transfer*>(self);
  size_t length = size * count;
  std::string line(data, length);
  if (StartsWithNoCase(line, "HTTP/")) {
    size_t space = line.find(' ');
    t->code = space == std::string::npos ? 0 : strtol(line.c_str() + space + 1, nullptr, 10);
    t->etag.clear();
    t->content_length = t->range_start = t->range_total = -1;
    return length;
  }
  size_t colon = line.find(':');
  if (colon == std::string::npos) return length;
  std::string name = line.substr(0, colon), value = Trim(line.substr(colon + 1));
  if (strcasecmp(name.c_str(), "ETag") == 0) {
    t->etag = value.size() <= kMaxEtagBytes && value.find('\n') == std::string::npos ? value : "";
  } else if (strcasecmp(name.c_str(), "Content-Length") == 0) {
    t->content_length = ParseCount(value);
  } else if (strcasecmp(name.c_str(), "Content-Range") == 0 && StartsWithNoCase(value, "bytes ")) {
    // "bytes <first>-<last>/<total or *>"
    std::string range = value.substr(6);
    size_t slash = range.find('/');
    t->range_start = ParseCount(range.substr(0, range.find('-')));
    t->range_total = slash == std::string::npos ? -1 : ParseCount(range.substr(slash + 1));
  }
  return length;
}

// Called once, when the body of the final answer begins (or ends empty).
bool Downloader::Transfer::DecideBody() {
  if (body != kBodyUndecided) return true;
  long final_code = 0;
  if (curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &final_code) == CURLE_OK && final_code > 0)
    code = final_code;
  if (code < 200 || code >= 300) {
    body = kBodyError;
    return true;
  }
  body = kBodyData;
  if (code == 206) {
    // Appending is only safe when the server continues exactly our data of
    // exactly the version we kept.
    if (range_start != offset || (offset > 0 && etag != resume_etag)) {
      restart = true;
      return false;
    }
    return true;
  }
  if (offset > 0) {  // the whole file came: begin anew
    if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) {
      StorageFailure("cannot truncate");
      return false;
    }
    offset = 0;
    te_unlink(Beside(target, kRecordSuffix).c_str());  // it vouches for data that is gone
  }
  return true;
}

size_t Downloader::Transfer::OnBody(char* data, size_t size, size_t count, void* self) {
  Transfer* t = static_cast<Transfer*>(self);
  size_t length = size * count;
  if (t->owner->abort_.load()) return 0;
  if (!t->DecideBody()) return 0;
  if (t->body == kBodyError) {
    size_t room = kMaxErrorBody - t->error_body.size();
    if (length > room) {
      t->error_body_overflow = true;
      return 0;
    }
    t->error_body.insert(t->error_body.end(), data, data + length);
    return length;
  }
  if (!WriteAll(t->fd, data, length)) {
    t->StorageFailure("cannot write");
    return 0;
  }
  t->received += static_cast<int64_t>(length);
  return length;
}

int Downloader::Transfer::OnProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  Transfer* t = static_cast<Transfer*>(self);
  if (t->owner->abort_.load()) return 1;
  t->PublishProgress(false);
  return 0;
}

void Downloader::Transfer::PublishProgress(bool force) {
  int64_t total = -1;
  if (body == kBodyData && content_length >= 0) {
    total = offset + content_length;
  } else if (expected > 0) {
    total = expected;
  }
  {
    std::lock_guard<std::mutex> lock(owner->mutex_);
    owner->status_.downloaded_bytes = ClampToInt(offset + received);
    owner->status_.total_bytes = ClampToInt(total);
    if (code > 0) owner->status_.response_code = static_cast<int>(code);
  }
  auto now = std::chrono::steady_clock::now();
  if (force || now - last_notify >= kNotifyInterval) {
    last_notify = now;
    owner->Notify(user);
  }
}

// Opens the data file; with `resume`, keeps what the record vouches for.
bool Downloader::Transfer::OpenData(bool resume) {
  ProgressRecord record;
  std::string record_path = Beside(target, kRecordSuffix);
  offset = 0;
  resume_etag.clear();
  if (resume && ReadRecord(record_path, &record) && record.url == url && record.size == expected) {
    struct stat st;
    if (stat(part_path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      // Only flushed bytes are trusted; anything after them may be garbage
      // from a power cut.
      offset = std::min<int64_t>(st.st_size, record.bytes);
      if (expected > 0 && offset >= expected) offset = 0;
      if (offset > 0) resume_etag = record.etag;
    }
  }
  if (offset == 0) te_unlink(record_path.c_str());

  fd = open(part_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (offset == 0 ? O_TRUNC : 0), 0644);
  if (fd < 0) {
    StorageFailure("cannot create");
    return false;
  }
  if (offset > 0 && (ftruncate(fd, offset) != 0 || lseek(fd, offset, SEEK_SET) != offset)) {
    StorageFailure("cannot position");
    return false;
  }
  return true;
}

CURLcode Downloader::Transfer::Perform() {
  code = 0;
  etag.clear();
  content_length = range_start = range_total = -1;
  body = kBodyUndecided;
  error_body.clear();
  error_body_overflow = false;
  restart = false;
  received = 0;

  // The handles outlive the transfer: the multi handle keeps the open
  // connection, its TLS session and the loaded CA store for the next file.
  if (!owner->multi_) {
    owner->multi_ = curl_multi_init();
    // The connection cache is the process's; a multi handle of one transfer
    // would prune it to 4.
    if (owner->multi_) {
      (void)curl_multi_setopt(static_cast<CURLM*>(owner->multi_), CURLMOPT_MAXCONNECTS,
                              kTransportCachedConnections);
    }
  }
  if (!owner->easy_) owner->easy_ = curl_easy_init();
  easy = static_cast<CURL*>(owner->easy_);
  CURLM* multi = static_cast<CURLM*>(owner->multi_);
  if (!easy || !multi) {
    easy = nullptr;
    return CURLE_FAILED_INIT;
  }
  curl_easy_reset(easy);

  struct curl_slist* list = nullptr;
  for (const auto& header : headers) {
    // "Key;" is libcurl's way to send a header with an empty value.
    std::string line = header.first + (header.second.empty() ? ";" : ": " + header.second);
    list = curl_slist_append(list, line.c_str());
  }
  // An empty POST, without the form Content-Type libcurl would add.
  list = curl_slist_append(list, "Content-Type:");
  list = curl_slist_append(list, "Expect:");
  if (offset > 0) {
    list = curl_slist_append(list, ("Range: bytes=" + std::to_string(offset) + "-").c_str());
    list = curl_slist_append(list, ("If-Range: " + resume_etag).c_str());
  }

  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_POST, 1L);
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, "");
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, 0L);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::OnHeader);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::OnBody);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &Transfer::OnProgress);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
  (void)SetTransportOptions(easy, true, *owner->transport_);
  quillstone::host::UseDeviceNetwork(easy);

  // The multi interface lets the loop look at abort_ every kPollMillis, also
  // while nothing arrives and libcurl would not call back.
  CURLcode result = CURLE_OK;
  curl_multi_add_handle(multi, easy);
  for (;;) {
    int running = 0;
    CURLMcode step = curl_multi_perform(multi, &running);
    if (step != CURLM_OK) {
      result = CURLE_FAILED_INIT;
      message = std::string("transfer failed: ") + curl_multi_strerror(step);
      break;
    }
    if (running == 0) {
      int left = 0;
      result = CURLE_GOT_NOTHING;
      while (CURLMsg* msg = curl_multi_info_read(multi, &left)) {
        if (msg->msg == CURLMSG_DONE) result = msg->data.result;
      }
      break;
    }
    if (owner->abort_.load()) {
      result = CURLE_ABORTED_BY_CALLBACK;
      break;
    }
    if (curl_multi_poll(multi, nullptr, 0, kPollMillis, nullptr) != CURLM_OK) {
      result = CURLE_FAILED_INIT;
      break;
    }
  }
  if (result == CURLE_OK && body == kBodyUndecided) (void)DecideBody();  // an empty body
  curl_multi_remove_handle(multi, easy);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, nullptr);  // the list dies here
  curl_slist_free_all(list);
  easy = nullptr;
  return result;
}

Downloader::Transfer::Outcome Downloader::Transfer::Classify(CURLcode result) {
  if (owner->abort_.load()) return kAborted;
  if (storage_failed) return kStorage;
  if (restart) return kRestart;
  if (code == 416 && offset > 0) return kRestart;  // the kept data no longer fits
  if (code >= 400 || (code >= 300 && (result == CURLE_OK || error_body_overflow))) {
    message = "HTTP " + std::to_string(code);
    return kHttp;
  }
  if (result != CURLE_OK) {
    message = std::string("transfer failed: ") + curl_easy_strerror(result);
    return IsNetworkFailure(result) ? kNetwork : kOther;
  }
  if (code < 200 || code >= 300) {
    message = "unexpected answer " + std::to_string(code);
    return kOther;
  }
  // libcurl checks the body against Content-Length; a body that ends short
  // of the announced range or size is just as broken.
  int64_t have = offset + received;
  if ((range_total >= 0 && have < range_total) || have < expected) {
    message = "body ended after " + std::to_string(have) + " bytes";
    return kNetwork;
  }
  if (fdatasync(fd) != 0) {
    StorageFailure("cannot flush");
    return kStorage;
  }
  return kDone;
}

Downloader::Downloader()
    : resume_partial_(false),
      callback_(nullptr),
      work_(false),
      busy_(false),
      stop_(false),
      work_user_(nullptr),
      abort_(false),
      alive_(std::make_shared<std::atomic<bool>>(true)),
      easy_(nullptr),
      multi_(nullptr) {
  InitCurlOnce();  // before the transfer thread uses libcurl
  status_ = StatusInfo{kStateIdle, kErrorNone, 0, 0, 0, "", "", ""};
  file_ = FileToSync{"", "", 0};
}

Downloader::~Downloader() {
  std::lock_guard<std::mutex> start_lock(start_mutex_);
  abort_ = true;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  work_cond_.notify_all();
  if (thread_.joinable()) {
    if (thread_.get_id() == std::this_thread::get_id()) {
      // Destroyed from its own callback: the thread ends without touching
      // the object once the callback returns.
      *alive_ = false;
      thread_.detach();
    } else {
      thread_.join();
    }
  }
  host::FlushFolderSyncs();
  if (easy_) curl_easy_cleanup(static_cast<CURL*>(easy_));
  if (multi_) curl_multi_cleanup(static_cast<CURLM*>(multi_));
}

void Downloader::Init(IDownloaderCallback* callback) {
  std::lock_guard<std::mutex> lock(mutex_);
  callback_ = callback;
}

void Downloader::ClearHeaders() {
  std::lock_guard<std::mutex> lock(mutex_);
  headers_.clear();
}

void Downloader::AddHeader(const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  headers_.emplace_back(key, value);
}

int Downloader::Start(const FileToSync& file, const std::string& folder, void* user) {
  std::lock_guard<std::mutex> start_lock(start_mutex_);
  bool on_own_thread = thread_.joinable() && thread_.get_id() == std::this_thread::get_id();
  {
    std::unique_lock<std::mutex> lock(mutex_);
    if (status_.state == kStateInProgress) return -1;
    // The last transfer has set its final state; at most its last
    // notification is still running. Waiting for it from inside would never end.
    if (busy_ && on_own_thread) return -1;
    idle_cond_.wait(lock, [this] { return !busy_; });
  }
  std::string target = folder + file.local_path;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    file_ = file;
    folder_ = folder;
    error_body_.clear();
    uint32_t size = static_cast<uint32_t>(file.size);
    status_ = StatusInfo{kStateInProgress, kErrorNone, 0, 0, size > 0 ? ClampToInt(size) : -1,
                         file.url,         target,     ""};
  }
  last_file_ = target;
  abort_ = false;
  if (!thread_.joinable()) {
    try {
      thread_ = std::thread(&Downloader::Loop, this, alive_);
    } catch (const std::system_error& e) {
      QS_LOG(kLogError, "cannot start the transfer thread: %s", e.what());
      {
        std::lock_guard<std::mutex> lock(mutex_);
        status_.state = kStateFailed;
        status_.error = kErrorOther;
        status_.message = "cannot start the transfer thread";
      }
      Notify(user);
      return 0;
    }
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    work_ = true;
    busy_ = true;
    work_user_ = user;
  }
  work_cond_.notify_one();
  return 0;
}

// One thread for all the transfers of the object's life: no thread start per
// file, and the connection it holds stays with one thread.
void Downloader::Loop(std::shared_ptr<std::atomic<bool>> alive) {
  for (;;) {
    void* user;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      work_cond_.wait(lock, [this] { return work_ || stop_; });
      if (stop_) return;
      work_ = false;
      user = work_user_;
    }
    Run(user);
    if (!*alive) return;  // the callback destroyed the object
    {
      std::lock_guard<std::mutex> lock(mutex_);
      busy_ = false;
    }
    idle_cond_.notify_all();
  }
}

void Downloader::Run(void* user) {
  if (!transport_) {
    // Read once per downloader, that is once per sync run, not per file.
    transport_.reset(new TransportSettings(ReadTransportSettings()));
  }
  Transfer t;
  t.owner = this;
  t.user = user;
  int state = kStateFailed;
  int error = kErrorOther;
  try {
    bool resume = resume_partial_;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      t.url = file_.url;
      t.target = folder_ + file_.local_path;
      t.expected = static_cast<uint32_t>(file_.size);
      t.headers = headers_;
    }
    t.part_path = Beside(t.target, kPartSuffix);
    t.last_notify = std::chrono::steady_clock::now();
    Notify(user);

    (void)te_buildpath(t.target.c_str());  // a failure shows when the file is created
    Transfer::Outcome outcome = Transfer::kStorage;
    if (t.OpenData(resume)) {
      // One restart at most: when the server does not continue the kept data,
      // the second request asks for the whole file.
      for (int attempt = 0; attempt < 2; ++attempt) {
        CURLcode result = t.Perform();
        outcome = t.Classify(result);
        if (outcome != Transfer::kRestart) break;
        QS_LOG(kLogNotice, "the server did not continue %s at %lld; starting anew",
               t.part_path.c_str(), static_cast<long long>(t.offset));
        if (ftruncate(t.fd, 0) != 0 || lseek(t.fd, 0, SEEK_SET) != 0) {
          t.StorageFailure("cannot truncate");
          outcome = Transfer::kStorage;
          break;
        }
        t.offset = 0;
        t.resume_etag.clear();
        te_unlink(Beside(t.target, kRecordSuffix).c_str());
        outcome = Transfer::kOther;
        t.message = "the server does not continue the kept data";
      }
    }
    if (t.fd >= 0 && close(t.fd) != 0 && outcome == Transfer::kDone) {
      t.StorageFailure("cannot close");
      outcome = Transfer::kStorage;
    }
    t.fd = -1;

    if (outcome == Transfer::kNetwork) {
      // Keep the data for a range request only when a later answer can be
      // checked against it.
      bool data_answer = t.body == Transfer::kBodyData && t.code >= 200 && t.code < 300;
      ProgressRecord record;
      record.url = t.url;
      record.etag = data_answer ? t.etag : t.resume_etag;
      record.size = t.expected;
      record.bytes = t.offset + t.received;
      bool kept = false;
      if (resume && record.bytes > 0 && !record.etag.empty()) {
        if (!data_answer || t.received == 0) {
          kept = true;  // the record written before still holds
        } else {
          int fd = open(t.part_path.c_str(), O_WRONLY | O_CLOEXEC);
          kept = fd >= 0 && fdatasync(fd) == 0;
          if (fd >= 0) close(fd);
          kept = kept && WriteRecord(t.target, record);
        }
      }
      if (!kept) RemoveKept(t.target);
    }

    switch (outcome) {
      case Transfer::kDone:
        state = kStateDone;
        error = kErrorNone;
        break;
      case Transfer::kAborted:
        state = kStateAborted;
        error = kErrorNone;
        t.message = "aborted";
        break;
      case Transfer::kNetwork:
        error = kErrorNetwork;
        break;
      case Transfer::kHttp:
        error = kErrorHttp;
        break;
      case Transfer::kStorage:
        error = kErrorStorage;
        break;
      default:
        error = kErrorOther;
        break;
    }
    if (state != kStateDone) {
      QS_LOG(state == kStateAborted ? kLogNotice : kLogError,
             "download of %s ended in state %d, error %d: %s", t.target.c_str(), state, error,
             t.message.c_str());
    }
  } catch (...) {
    // Nothing of the transfer may escape its thread; the caller learns of the
    // failure from the final state.
    if (t.fd >= 0) close(t.fd);
    state = kStateFailed;
    error = kErrorOther;
    t.message = "internal failure";
  }

  {
    std::lock_guard<std::mutex> lock(mutex_);
    status_.downloaded_bytes = ClampToInt(t.offset + t.received);
    if (t.code > 0) status_.response_code = static_cast<int>(t.code);
    if (state == kStateDone) status_.total_bytes = status_.downloaded_bytes;
    status_.message = t.message;
    error_body_.swap(t.error_body);
    if (error != kErrorHttp) error_body_.clear();
    status_.error = error;
    status_.state = state;
  }
  Notify(user);
}

void Downloader::Notify(void* user) {
  IDownloaderCallback* callback;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    callback = callback_;
  }
  if (callback) callback->NotifyDownloaderStatus(user);
}

Downloader::StatusInfo Downloader::GetStatus() {
  std::lock_guard<std::mutex> lock(mutex_);
  return status_;
}

void Downloader::Abort(void* /*user*/) { abort_ = true; }

std::vector<char> Downloader::getErrorBody(const FileToSync& /*file*/) {
  std::lock_guard<std::mutex> lock(mutex_);
  return error_body_;
}

void Downloader::Cleanup(const FileToSync& file) {
  std::lock_guard<std::mutex> start_lock(start_mutex_);
  std::string target;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // Anything but a finished transfer of this very file would put partial
    // data under the real name.
    if (status_.state != kStateDone || file.local_path != file_.local_path) {
      QS_LOG(kLogError, "Cleanup of %s refused in state %d", file.local_path.c_str(),
             status_.state);
      return;
    }
    target = folder_ + file.local_path;
  }
  std::string part = Beside(target, kPartSuffix);
  if (te_rename(part.c_str(), target.c_str()) != 0) {
    QS_LOG(kLogError, "cannot rename %s: %s", part.c_str(), strerror(errno));
    RemoveKept(target);
    // The transfer is not done until the file is in place: a caller that
    // looks again must not record it as downloaded.
    std::lock_guard<std::mutex> lock(mutex_);
    status_.state = kStateFailed;
    status_.error = kErrorStorage;
    return;
  }
  // The data was flushed before the state became 2, so a power cut leaves
  // the whole new file or the old one. The folder's flush, which makes the
  // rename itself durable, is shared by the renames into that folder: it runs
  // before the store's log is next flushed, so no durable row ever names a
  // rename that could still be lost.
  host::DeferFolderSync(FolderOf(target));
  te_unlink(Beside(target, kRecordSuffix).c_str());
}

void Downloader::CleanupOnErr(const FileToSync& file) {
  std::lock_guard<std::mutex> start_lock(start_mutex_);
  std::string target;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (status_.state == kStateInProgress) {
      QS_LOG(kLogError, "CleanupOnErr of %s refused while the transfer runs",
             file.local_path.c_str());
      return;
    }
    target = folder_ + file.local_path;
  }
  RemoveKept(target);
}

}  // namespace utilities
}  // namespace quillstone
