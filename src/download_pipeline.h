// The downloads of the server pass: the transfers in flight, the wait for
// the one in hand, and the look-ahead.
//
// The pipeline owns a set of slots, one per Transfer, and keeps up to all but
// one of them busy with the entries that follow the one in hand in its page,
// when the store already says they must be fetched and nothing before them
// can change that (the setting "transfers"; one slot fetches nothing ahead). A transfer started
// ahead shows nothing until its own entry asks for it with the same plan; then it is waited for,
// put in place and reported as if started there. Otherwise, and at the end of each page, it is
// aborted and its data removed. So other processes see the same order as with one transfer: a file
// in place before its row, rows entry by entry.
//
// In the safe profile a transfer writes under the store's folder, on the
// same file system, under a short name of its slot, and the pipeline renames
// the finished file into place: no name of the user's can meet the
// transfer's partial data, and any name the service allows downloads.
//
// Threads: all calls but NotifyDownloaderStatus come from the sync thread.
// NotifyDownloaderStatus comes on a transfer's own thread, with the `user`
// value of its slot; `mutex` guards the slots' states and `cond` is signalled
// on each final state. The pipeline owns none of what it is given.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <atomic>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "sync_env.h"

namespace quillstone {
namespace dropbox {

// Decides, for the look-ahead, where a listed file would go.
class FetchPlanner {
 public:
  virtual ~FetchPlanner() = default;
  // True when `entry` must be fetched whatever the entries before it do to
  // its own lookups; then its stored folder and local path. Changes nothing.
  virtual bool PlanFetch(const FileMetadata& entry, std::string* folder,
                         std::string* local_path) = 0;
};

class DownloadPipeline {
 public:
  using StatusCallback = std::function<void(const utilities::Downloader::StatusInfo&)>;

  // `transfers` and `states` pair up, one slot each; at least one. The first
  // slot's transfer is started with a null `user`, the others with their slot.
  DownloadPipeline(SyncService& service, std::vector<Transfer*> transfers, std::vector<int*> states,
                   pthread_mutex_t* mutex, pthread_cond_t* cond, const std::atomic<bool>& running,
                   const std::string& folder);

  DownloadPipeline(const DownloadPipeline&) = delete;
  DownloadPipeline& operator=(const DownloadPipeline&) = delete;

  // Of the runs that follow; set between runs.
  void SetProfile(SyncProfile profile) { profile_ = profile; }
  // Where each transfer is shown while in flight; null shows nothing.
  void SetBoard(TransferBoard* board) { board_ = board; }
  // New slots, as in the constructor; between runs, nothing in flight.
  void SetTransfers(std::vector<Transfer*> transfers, std::vector<int*> states);
  // The transfers in flight now, the one in hand included; sync thread.
  size_t InFlightCount() const { return ahead_.size() + (current_ != nullptr ? 1 : 0); }

  // The page whose entries are applied now, and who plans them; no page (the
  // retry of failed files) fetches nothing ahead.
  void BeginPage(const std::vector<FileMetadata*>* page, FetchPlanner* planner);
  void BeginEntry(size_t index);
  // Drops what was fetched ahead for the entry in hand and not taken by it.
  void EndEntry();
  // Drops everything fetched ahead; the page ends.
  void EndPage();

  // Fetches one file into `local_path` and waits for it: kSuccess and the
  // target's relative path, or the failure's code. A cleared run flag aborts
  // the wait with kStopped. After kErrNoNetwork the partial data stays for a
  // retry; after other failures it is removed. In the safe profile a 429
  // waits what the service asked for and fetches again, within the bounds of
  // retry_wait.h.
  std::tuple<int, std::string> Fetch(const std::string& server_path, const std::string& local_path,
                                     uint64_t size, const StatusCallback& on_status);
  // The status of the transfer waited for last.
  utilities::Downloader::StatusInfo LastStatus();

  void NotifyDownloaderStatus(void* user);

 private:
  struct Slot {
    Transfer* transfer;
    int* state;  // guarded by mutex_
    std::string server_path;
    std::string local_path;
    uint64_t size;
    const FileMetadata* entry;  // of a look-ahead, the entry it was started for
    int shown;                  // its handle on the board, 0 when not shown
  };

  void Start(Slot* slot, const std::string& server_path, const std::string& local_path,
             uint64_t size);
  // What the slot's transfer writes and the folder it is relative to: the
  // target itself, or in the safe profile the slot's name under the store.
  utilities::FileToSync TransferFile(const Slot& slot, const std::string& local_path,
                                     uint64_t size) const;
  std::string TransferFolder() const;
  // Safe profile: the finished file from the slot's name to `local_path`;
  // false, and the data removed, when it cannot be put there.
  bool PutInPlace(const Slot& slot, const std::string& local_path, uint64_t size);
  Slot* FreeSlot(const Slot* besides);
  // The look-ahead that holds this very transfer, taken out of the window.
  Slot* TakeAhead(const std::string& server_path, const std::string& local_path, uint64_t size);
  // Fills the window with the entries after the one in hand, while certain.
  void LookAhead();
  // Whether the row of `slot`'s file, once written, could be found by the
  // lookups of a file planned at `folder` + "/" + `lower_leaf`.
  static bool SameRow(const Slot& slot, const std::string& folder, const std::string& lower_leaf);
  void Drop(Slot* slot);
  // The slot's transfer is over: off the board.
  void Unshow(Slot* slot);
  // Waits for the slot's transfer to end; REQUIRES: mutex_ held.
  void Await(Slot* slot, const StatusCallback& on_status);
  // The result code of the slot's ended transfer; its error reply in *body,
  // ended by a zero byte. REQUIRES: mutex_ held.
  int Judge(Slot* slot, std::vector<char>* body);

  SyncService& service_;
  std::vector<Slot> slots_;
  pthread_mutex_t* mutex_;
  pthread_cond_t* cond_;
  const std::atomic<bool>& running_;
  const std::string& folder_;
  std::vector<Slot*> ahead_;  // in flight ahead, in listing order
  Slot* current_;             // the slot of the file in hand
  Transfer* waited_;
  const std::vector<FileMetadata*>* page_;
  FetchPlanner* planner_;
  size_t index_;       // of the entry in hand
  size_t considered_;  // the last index looked at for the window, or index_
  size_t refused_;     // the last index refused a place in the window, 0 for none
  SyncProfile profile_ = SyncProfile::kClassic;
  TransferBoard* board_ = nullptr;
};

}  // namespace dropbox
}  // namespace quillstone
