// Small files of the safe profile, sent side by side and committed together.
//
// Each file goes up whole in one session start that also closes the session
// and carries the content hash of its bytes, so the service keeps nothing
// but the bytes that were measured. Up to `transfers` starts are in flight
// at once, each on a worker thread with an uploader of its own; then one
// commit request takes every session that is still the file it began with
// (size and modification time checked, as the chunked sessions do). The
// service asks that the commits of one account never overlap: they are sent
// one after another from the caller's thread. A 429, on a start or on the
// commit, waits what the service asked for and sends again; so does an
// entry the service refused for too many writes.
//
// What each file's answer means for its row is the caller's to decide: the
// batch only says what happened.
//
// Threads: Run is called on the sync thread and returns when its workers
// have ended; a worker touches only its own uploader, the items it took and
// the transfer board. Clearing the run flag ends the transfers in flight
// within about a second. Owns its uploaders, which keep their connections
// from one batch to the next.
#pragma once

#include <json/json.h>
#include <stdint.h>

#include <memory>
#include <string>
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

  // Sends and commits `items` (at most kMostPerCommit); every item gets its
  // outcome. Returns kSuccess, or the first code that ended an item as
  // kFailed. A stop ends the batch with nothing committed.
  int Run(std::vector<Item>* items);

 private:
  struct Worker;
  // One worker's loop: takes the next item until none is left.
  void Send(Worker* worker, std::vector<Item>* items, const std::string& url,
            const Headers& headers);
  // One session start for `item`; sets its outcome unless it started.
  void Start(Worker* worker, Item* item, const std::string& url, Headers headers);
  // Commits the started items, sending again what the service put off.
  void Commit(std::vector<Item*> started);

  const RunContext& run_;
  SyncService& service_;
  std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace dropbox
}  // namespace quillstone
