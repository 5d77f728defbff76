// Small files of the safe profile, sent side by side and committed together.
//
// Each file goes up whole in one session start that also closes the session
// and carries the content hash of its bytes, so the service keeps nothing
// but the bytes that were measured. A file handed in starts at once on one
// of up to `transfers` worker threads, each with an uploader of its own, so
// the starts go on while the caller walks on. Finish then commits every
// session that is still the file it began with (size and modification time
// checked, as the chunked sessions do), at most kMostPerCommit to a request.
// The service asks that the commits of one account never overlap: they are
// sent one after another from the caller's thread. A 429, on a start or on
// the commit, waits what the service asked for and sends again; so does an
// entry the service refused for too many writes.
//
// What each file's answer means for its row is the caller's to decide: the
// batch only says what happened.
//
// Threads: Add and Finish are called on the sync thread; the workers live
// from the first Add to Finish, which joins them. A worker touches only its
// own uploader, the items it took and the transfer board. Clearing the run
// flag ends the transfers in flight within about a second. Owns its
// uploaders, which keep their connections from one batch to the next.
#pragma once

#include <json/json.h>
#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "chunked_upload.h"
#include "sync_env.h"
#include "uploader.h"

namespace quillstone {
namespace dropbox {

class UploadBatch {
 public:
  // The service commits at most this many sessions in one request.
  static constexpr size_t kMostPerCommit = 1000;

  enum class Outcome {
    kDone,     // committed; `record` holds the service's record
    kRefused,  // the commit refused the file; `failure` says why
    kAgain,    // not committed, and no fault of the run: the file changed,
               // could not be read, or its session was refused; send it alone
    kFailed,   // not committed: `err` is what ended it (a stop, no network,
               // a wait too long)
  };

  struct Item {
    std::string path;                  // in the sync folder and on the service
    DropboxProtocol::CommitMode mode;  // how it commits
    bool change = false;               // the caller's: a change, not a new file

    Outcome outcome = Outcome::kFailed;
    int err = DropboxProtocol::kSuccess;  // kFailed only
    FileMetadata* record = nullptr;       // kDone; the caller takes it
    Json::Value failure;                  // kRefused: an UploadSessionFinishError

    // The worker's: what the session began with, and its id once started.
    FileStamp stamp;
    std::string session_id;
  };

  UploadBatch(const RunContext& run, SyncService& service);
  ~UploadBatch();
  UploadBatch(const UploadBatch&) = delete;
  UploadBatch& operator=(const UploadBatch&) = delete;

  // Hands `item` to the workers, which start its session as soon as one
  // is free.
  void Add(const Item& item);
  // Items handed in since the last Finish.
  size_t size() const { return items_.size(); }
  // The first code that ended a start (a stop, no network), or kSuccess:
  // the caller need not hand in more.
  int failure() const { return failure_; }
  // Waits for every start, commits what started, and moves every item, with
  // its outcome, to `items`. Returns kSuccess, or the first code that ended
  // an item as kFailed. A stop ends the batch with nothing more committed.
  int Finish(std::vector<Item>* items);

 private:
  struct Worker;
  // One worker's loop: takes the next item until Finish has none left.
  void Work(Worker* worker);
  // One session start for `item`; sets its outcome unless it started.
  void Start(Worker* worker, Item* item, const std::string& url, Headers headers);
  // Commits the started items, sending again what the service put off.
  void Commit(std::vector<Item*> started);
  // Ends the workers; the items are theirs no longer.
  void Join();

  const RunContext& run_;
  SyncService& service_;
  std::vector<std::unique_ptr<Worker>> workers_;  // one per thread, kept

  // Shared with the workers under mutex_; an item taken is the taker's
  // until Join (a deque keeps it in place while more are added).
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Item> items_;
  size_t next_ = 0;  // the next item to start
  size_t idle_ = 0;  // workers waiting for an item
  bool closing_ = false;
  std::string url_;  // of every start of the batch, with headers_
  Headers headers_;
  std::vector<std::thread> threads_;
  std::atomic<int> failure_{0};
};

}  // namespace dropbox
}  // namespace quillstone
