#define QS_SOURCE_NAME "src/upload_batch"

#include "upload_batch.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>

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
  int shown = 0;                        // the board's handle of the transfer in hand
  std::atomic<size_t>* next = nullptr;  // the batch's next item to take
};

UploadBatch::UploadBatch(const RunContext& run, SyncService& service)
    : run_(run), service_(service) {}

UploadBatch::~UploadBatch() = default;

int UploadBatch::Run(std::vector<Item>* items) {
  for (Item& item : *items) {
    item.outcome = Outcome::kFailed;
    item.err = DropboxProtocol::kSuccess;
    item.session_id.clear();
  }
  if (items->empty()) return DropboxProtocol::kSuccess;
  Headers headers;
  const std::string url = service_.SessionStartUrl(&headers);
  if (url.empty()) {
    for (Item& item : *items) item.outcome = Outcome::kAgain;
    return DropboxProtocol::kSuccess;
  }

  const size_t count = std::min<size_t>(std::max(run_.transfers, 1), items->size());
  while (workers_.size() < count) {
    workers_.push_back(std::unique_ptr<Worker>(new Worker(run_.running, run_.board)));
  }
  std::atomic<size_t> next(0);
  std::vector<std::thread> threads;
  for (size_t k = 0; k < count; ++k) {
    workers_[k]->board = run_.board;
    workers_[k]->next = &next;
  }
  for (size_t k = 1; k < count; ++k) {
    try {
      threads.emplace_back(&UploadBatch::Send, this, workers_[k].get(), items, std::cref(url),
                           std::cref(headers));
    } catch (const std::system_error& e) {
      // Fewer at once, not fewer files: the others take their share.
      QS_LOG(kLogError, "no upload thread: %s", e.what());
      break;
    }
  }
  Send(workers_[0].get(), items, url, headers);  // the sync thread takes its share too
  for (std::thread& thread : threads) thread.join();

  std::vector<Item*> started;
  for (Item& item : *items) {
    if (item.session_id.empty()) continue;
    if (!run_.running) {
      // What went up is not committed: the next run sends it again.
      item.outcome = Outcome::kFailed;
      item.err = DropboxProtocol::kStopped;
      continue;
    }
    started.push_back(&item);
  }
  if (!started.empty()) Commit(started);
  for (const Item& item : *items) {
    if (item.outcome == Outcome::kFailed && item.err != DropboxProtocol::kSuccess) return item.err;
  }
  return DropboxProtocol::kSuccess;
}

void UploadBatch::Send(Worker* worker, std::vector<Item>* items, const std::string& url,
                       const Headers& headers) {
  for (;;) {
    const size_t i = (*worker->next)++;
    if (i >= items->size()) return;
    Item* item = &(*items)[i];
    if (!run_.running) {
      item->err = DropboxProtocol::kStopped;
      continue;
    }
    Start(worker, item, url, headers);
  }
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
