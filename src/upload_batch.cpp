#define QS_SOURCE_NAME "src/upload_batch"

#include "upload_batch.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include "qs_log.h"
#include "retry_wait.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::Uploader;

namespace {

// An entry put off for too many writes carries no wait of its own; the
// account's write lock is held for one commit, so a short one will do.
const int kEntryRetryAfter = 1;

std::string SessionIdOf(const std::vector<char>& reply) {
  const char* begin = reply.data();
  const char* end = begin + strnlen(begin, reply.size());
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  if (begin == end || !reader->parse(begin, end, &root, nullptr) || !root.isObject()) return "";
  const Json::Value& id = root["session_id"];
  return id.isString() ? id.asString() : "";
}

std::string TagOf(const Json::Value& value) {
  if (!value.isObject()) return "";
  const Json::Value& tag = value[".tag"];
  return tag.isString() ? tag.asString() : "";
}

}  // namespace

// The uploader of one worker and what its progress ticks report to.
struct UploadBatch::Worker : public utilities::IUploaderCallback {
  Worker(const std::atomic<bool>& running, TransferBoard* board) : running(running), board(board) {
    uploader.callback_ = this;
  }
  void Progress() override {
    if (!running) uploader.abort_ = true;
    if (board != nullptr && shown != 0) {
      board->Advance(shown, static_cast<int64_t>(uploader.bytes_read_));
    }
  }

  Uploader uploader;
  const std::atomic<bool>& running;
  TransferBoard* board;
  int shown = 0;  // the board's handle of the transfer in hand
};

UploadBatch::UploadBatch(const RunContext& run, SyncService& service)
    : run_(run), service_(service) {}

UploadBatch::~UploadBatch() { Join(); }

void UploadBatch::Add(const Item& item) {
  if (items_.empty()) {
    headers_.clear();
    url_ = service_.SessionStartUrl(&headers_);
  }
  std::unique_lock<std::mutex> lock(mutex_);
  items_.push_back(item);
  Item& added = items_.back();
  added.outcome = Outcome::kFailed;
  added.err = DropboxProtocol::kSuccess;
  added.session_id.clear();
  if (url_.empty()) {
    added.outcome = Outcome::kAgain;  // no start can be sent: each goes alone
    ++next_;
    return;
  }
  // A worker more only when every one is busy.
  const size_t waiting = items_.size() - next_;
  const size_t most = static_cast<size_t>(std::max(run_.transfers, 1));
  if (threads_.size() < most && idle_ < waiting) {
    if (workers_.size() == threads_.size()) {
      workers_.push_back(std::unique_ptr<Worker>(new Worker(run_.running, run_.board)));
    }
    Worker* worker = workers_[threads_.size()].get();
    worker->board = run_.board;
    try {
      threads_.emplace_back(&UploadBatch::Work, this, worker);
    } catch (const std::system_error& e) {
      // Fewer at once, not fewer files: the others take their share.
      QS_LOG(kLogError, "no upload thread: %s", e.what());
      if (threads_.empty()) {
        // Not one worker: the start is sent here, before the walk goes on.
        ++next_;
        lock.unlock();
        Start(worker, &added, url_, headers_);
        return;
      }
    }
  }
  wake_.notify_one();
}

void UploadBatch::Work(Worker* worker) {
  for (;;) {
    Item* item = nullptr;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      ++idle_;
      wake_.wait(lock, [this] { return closing_ || next_ < items_.size(); });
      --idle_;
      if (next_ >= items_.size()) return;  // closing, and nothing left
      item = &items_[next_++];
    }
    if (!run_.running) {
      item->err = DropboxProtocol::kStopped;
    } else {
      Start(worker, item, url_, headers_);
    }
    int none = DropboxProtocol::kSuccess;
    if (item->err != DropboxProtocol::kSuccess) failure_.compare_exchange_strong(none, item->err);
  }
}

void UploadBatch::Join() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
  closing_ = false;
}

int UploadBatch::Finish(std::vector<Item>* items) {
  Join();
  std::vector<Item*> started;
  for (Item& item : items_) {
    if (item.session_id.empty()) continue;
    if (!run_.running) {
      // What went up is not committed: the next run sends it again.
      item.outcome = Outcome::kFailed;
      item.err = DropboxProtocol::kStopped;
      continue;
    }
    started.push_back(&item);
  }
  for (size_t from = 0; from < started.size(); from += kMostPerCommit) {
    const size_t to = std::min(started.size(), from + kMostPerCommit);
    Commit(std::vector<Item*>(started.begin() + from, started.begin() + to));
  }
  int err = DropboxProtocol::kSuccess;
  items->clear();
  for (Item& item : items_) {
    if (err == DropboxProtocol::kSuccess && item.outcome == Outcome::kFailed) err = item.err;
    items->push_back(std::move(item));
  }
  items_.clear();
  next_ = 0;
  failure_ = DropboxProtocol::kSuccess;
  return err;
}

void UploadBatch::Start(Worker* worker, Item* item, const std::string& url, Headers headers) {
  const std::string full_path = run_.folder + item->path;
  // The stamp is taken before the bytes are read, so a change while they go
  // up shows in the check before the commit.
  if (!StampOf(full_path, &item->stamp) ||
      !AddContentHash(full_path, 0, item->stamp.size, &headers)) {
    item->outcome = Outcome::kAgain;
    return;
  }
  TransferBoard* board = run_.board;
  if (board != nullptr) worker->shown = board->Begin(item->path, item->stamp.size);
  std::vector<char> response;
  Uploader::Error sent = Uploader::kUploadAborted;
  long http_status = 0;
  for (int waits = 1; run_.running; ++waits) {
    response.clear();
    PostponeTimedPoweroff();
    sent = worker->uploader.UploadPart(full_path, 0, static_cast<size_t>(item->stamp.size), url,
                                       headers, &response);
    http_status = worker->uploader.GetStatus().http_status;
    if (sent != Uploader::kUploadHttpError || http_status != 429 ||
        !WaitOutRetryAfter(RetryAfterOf(response), waits, run_.running, item->path)) {
      break;
    }
  }
  if (board != nullptr && worker->shown != 0) board->End(worker->shown);
  worker->shown = 0;
  if (!run_.running) sent = Uploader::kUploadAborted;

  switch (sent) {
    case Uploader::kUploadOk:
      item->session_id = SessionIdOf(response);
      if (item->session_id.empty()) item->outcome = Outcome::kAgain;
      return;
    case Uploader::kUploadTransferFailed:
      item->err = DropboxProtocol::kErrNoNetwork;
      return;
    case Uploader::kUploadAborted:
      item->err = DropboxProtocol::kStopped;
      return;
    case Uploader::kUploadHttpError:
      if (http_status == 429) {
        item->err = DropboxProtocol::kTooManyRequests;
      } else if (http_status == 401) {
        item->err = DropboxProtocol::kNotAuthorized;
      } else {
        // A body that no longer matches its hash, or a start refused for a
        // reason of its own: the single upload judges the answer.
        QS_LOG(kLogNotice, "%s - session start answered %ld; sent alone", item->path.c_str(),
               http_status);
        item->outcome = Outcome::kAgain;
      }
      return;
    default:
      item->outcome = Outcome::kAgain;  // the file could not be read as measured
      return;
  }
}

void UploadBatch::Commit(std::vector<Item*> started) {
  std::vector<Item*> pending;
  for (Item* item : started) {
    FileStamp now;
    if (!StampOf(run_.folder + item->path, &now) || !(now == item->stamp)) {
      QS_LOG(kLogNotice, "%s changed while it went up; sent again alone", item->path.c_str());
      item->outcome = Outcome::kAgain;
      continue;
    }
    pending.push_back(item);
  }
  int waits = 0;
  while (!pending.empty()) {
    std::vector<DropboxProtocol::BatchEntry> entries;
    for (const Item* item : pending) {
      DropboxProtocol::BatchEntry entry;
      entry.session_id = item->session_id;
      entry.offset = item->stamp.size;
      entry.path = item->path;
      entry.mode = item->mode;
      entries.push_back(entry);
    }
    std::vector<DropboxProtocol::BatchResult> results;
    int err = service_.FinishBatch(entries, &results);
    if (err == DropboxProtocol::kSuccess && results.size() != pending.size()) {
      for (DropboxProtocol::BatchResult& result : results) delete result.record;
      err = DropboxProtocol::kErrServer;
    }
    const std::string what = "commit of " + std::to_string(pending.size()) + " files";
    if (err == DropboxProtocol::kTooManyRequests &&
        WaitOutRetryAfter(service_.RetryAfter(), ++waits, run_.running, what)) {
      continue;
    }
    if (err != DropboxProtocol::kSuccess) {
      for (Item* item : pending) item->err = run_.running ? err : DropboxProtocol::kStopped;
      return;
    }
    std::vector<Item*> later;
    for (size_t i = 0; i < pending.size(); ++i) {
      Item* item = pending[i];
      DropboxProtocol::BatchResult& result = results[i];
      if (result.record != nullptr) {
        item->outcome = Outcome::kDone;
        item->record = result.record;
        continue;
      }
      const std::string tag = TagOf(result.failure);
      if (tag == "too_many_write_operations") {
        later.push_back(item);
      } else if (tag == "path") {
        item->outcome = Outcome::kRefused;
        item->failure = result.failure;
      } else {
        // A hash that does not match, a lost session or an entry that could
        // not be read: nothing of this file is known to be there.
        QS_LOG(kLogNotice, "%s - commit answered %s; sent alone", item->path.c_str(), tag.c_str());
        item->outcome = Outcome::kAgain;
      }
    }
    pending.swap(later);
    if (!pending.empty() &&
        !WaitOutRetryAfter(kEntryRetryAfter, ++waits, run_.running, "commit of the rest")) {
      for (Item* item : pending) {
        item->err = run_.running ? DropboxProtocol::kTooManyRequests : DropboxProtocol::kStopped;
      }
      return;
    }
  }
}

}  // namespace dropbox
}  // namespace quillstone
