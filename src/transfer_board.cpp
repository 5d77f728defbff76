#include "transfer_board.h"

#include <algorithm>
#include <vector>

#include "device_names.h"

namespace quillstone {
namespace dropbox {

namespace {

constexpr auto kPublishInterval = std::chrono::milliseconds(250);

int Clamp(int64_t value) {
  return static_cast<int>(std::min<int64_t>(std::max<int64_t>(value, 0), INT32_MAX));
}

}  // namespace

void TransferBoard::Init(int pid) {
  std::lock_guard<std::mutex> lock(mutex_);
  channel_.Init(kTransfersChannel, pid);
  bound_ = true;
  pending_ = true;
  Publish(true);
  // An empty board needs no room after it: the first transfer shows at once.
  last_publish_ = std::chrono::steady_clock::time_point();
}

int TransferBoard::Begin(const std::string& path, int64_t size) {
  std::lock_guard<std::mutex> lock(mutex_);
  const int handle = next_handle_++;
  utilities::DownloadStatus::File file(std::to_string(handle), path, 0);
  file.path = path;
  file.size = size < 0 ? -1 : Clamp(size);
  file.downloaded_bytes = 0;
  files_[handle] = file;
  pending_ = true;
  Publish(false);
  return handle;
}

void TransferBoard::Advance(int handle, int64_t bytes_done) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(handle);
  if (it == files_.end()) return;
  utilities::DownloadStatus::File& file = it->second;
  file.downloaded_bytes = Clamp(bytes_done);
  if (file.size > 0) {
    file.progress = static_cast<int>(std::min<int64_t>(100, bytes_done * 100 / file.size));
  }
  pending_ = true;
  Publish(false);
}

void TransferBoard::End(int handle) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (files_.erase(handle) == 0) return;
  pending_ = true;
  // Nothing in flight any more, while readers still see something: at once.
  // Bounded by the throttled publications that showed something.
  Publish(files_.empty() && shown_ > 0);
}

void TransferBoard::Tick() {
  std::lock_guard<std::mutex> lock(mutex_);
  Publish(false);
}

void TransferBoard::Settle() {
  std::lock_guard<std::mutex> lock(mutex_);
  Publish(true);
}

void TransferBoard::Publish(bool at_once) {
  const auto now = std::chrono::steady_clock::now();
  if (!pending_ || !bound_) return;
  // What is held back goes out with a later call: the waits and the
  // uploaders' progress call several times a second.
  if (!at_once && now - last_publish_ < kPublishInterval) return;
  std::vector<utilities::DownloadStatus::File> list;
  list.reserve(files_.size());
  for (const auto& entry : files_) list.push_back(entry.second);
  channel_.SetFileList(list);
  shown_ = list.size();
  last_publish_ = now;
  pending_ = false;
}

}  // namespace dropbox
}  // namespace quillstone
