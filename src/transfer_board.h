// The transfers in flight of a run, for whoever shows progress: published on
// a status channel of their own, one file record per transfer (its path in
// the sync folder, size, bytes done, percent), in the order they started.
// The run's own channel keeps its meaning: it still names the one file in
// hand, while this one shows everything the window and the upload sessions
// hold at once.
//
// Publications are at most four a second: each rewrites the channel's file,
// and a window of small files starts and ends hundreds a second. What is held
// back goes out with a later call; the end of the last transfer in flight,
// and Settle at the end of a run, publish at once, so a reader never sees
// files in flight when none are.
//
// Threads: any; every call takes the board's lock. Owns its channel.
#pragma once

#include <stdint.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>

#include "download_status.h"

namespace quillstone {
namespace dropbox {

class TransferBoard {
 public:
  // Binds the channel; before that the board only counts.
  void Init(int pid);
  // A transfer of `path` (relative to the sync folder, leading "/") of
  // `size` bytes, -1 when not known, has started; the handle names it.
  int Begin(const std::string& path, int64_t size);
  void Advance(int handle, int64_t bytes_done);
  void End(int handle);  // an unknown handle is ignored
  // Publishes what is held back once its time has come; for callers that
  // tick while a transfer runs.
  void Tick();
  // Publishes what is held back now.
  void Settle();

 private:
  void Publish(bool at_once);  // REQUIRES: mutex_ held

  std::mutex mutex_;
  utilities::DownloadStatus channel_;
  bool bound_ = false;
  std::map<int, utilities::DownloadStatus::File> files_;  // by handle, in start order
  int next_handle_ = 1;
  std::chrono::steady_clock::time_point last_publish_;
  bool pending_ = false;  // a change not yet published
  size_t shown_ = 0;      // transfers in the last publication
};

}  // namespace dropbox
}  // namespace quillstone
