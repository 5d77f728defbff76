#define QS_SOURCE_NAME "src/download_pipeline"

#include "download_pipeline.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "qs_log.h"
#include "retry_wait.h"
#include "split_path.h"
#include "string_utils.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::Downloader;
using utilities::StringUtils;

namespace {

// What Cleanup and CleanupOnErr go by: the target and the size.
utilities::FileToSync FileToSyncOf(const std::string& local_path, uint64_t size) {
  utilities::FileToSync file;
  file.local_path = local_path;
  file.size = static_cast<int>(static_cast<uint32_t>(size));
  return file;
}

// Where the safe profile's transfers write, under the sync folder; the store
// lives there too, so a rename into place never crosses file systems.
const char kTransferFolder[] = "/.dropbox";

bool InFlight(int state) {
  return state == Downloader::kStateInProgress || state == Downloader::kStateFour;
}

}  // namespace

DownloadPipeline::DownloadPipeline(SyncService& service, std::vector<Transfer*> transfers,
                                   std::vector<int*> states, pthread_mutex_t* mutex,
                                   pthread_cond_t* cond, const std::atomic<bool>& running,
                                   const std::string& folder)
    : service_(service),
      mutex_(mutex),
      cond_(cond),
      running_(running),
      folder_(folder),
      current_(nullptr),
      waited_(transfers.at(0)),
      page_(nullptr),
      planner_(nullptr),
      index_(0),
      considered_(0),
      refused_(0) {
  SetTransfers(std::move(transfers), std::move(states));
}

void DownloadPipeline::SetTransfers(std::vector<Transfer*> transfers, std::vector<int*> states) {
  slots_.clear();
  ahead_.clear();
  current_ = nullptr;
  for (size_t i = 0; i < transfers.size() && i < states.size(); ++i) {
    slots_.push_back(Slot{transfers[i], states[i], "", "", 0, nullptr, 0});
  }
  // ahead_ and current_ point into slots_, which must never move.
  ahead_.reserve(slots_.size());
  waited_ = slots_.at(0).transfer;
}

void DownloadPipeline::BeginPage(const std::vector<FileMetadata*>* page, FetchPlanner* planner) {
  page_ = page;
  planner_ = planner;
  index_ = 0;
  considered_ = 0;
  refused_ = 0;
}

void DownloadPipeline::BeginEntry(size_t index) {
  index_ = index;
  considered_ = std::max(considered_, index);
}

void DownloadPipeline::EndEntry() {
  if (page_ == nullptr || index_ >= page_->size()) return;
  const FileMetadata* entry = (*page_)[index_];
  for (size_t i = 0; i < ahead_.size();) {
    if (ahead_[i]->entry == entry) {
      Slot* slot = ahead_[i];
      ahead_.erase(ahead_.begin() + static_cast<long>(i));
      Drop(slot);
    } else {
      ++i;
    }
  }
}

void DownloadPipeline::EndPage() {
  while (!ahead_.empty()) {
    Slot* slot = ahead_.back();
    ahead_.pop_back();
    Drop(slot);
  }
  page_ = nullptr;
  planner_ = nullptr;
}

utilities::FileToSync DownloadPipeline::TransferFile(const Slot& slot,
                                                     const std::string& local_path,
                                                     uint64_t size) const {
  if (profile_ != SyncProfile::kSafe) return FileToSyncOf(local_path, size);
  return FileToSyncOf("/transfer" + std::to_string(&slot - slots_.data()), size);
}

std::string DownloadPipeline::TransferFolder() const {
  return profile_ == SyncProfile::kSafe ? folder_ + kTransferFolder : folder_;
}

bool DownloadPipeline::PutInPlace(const Slot& slot, const std::string& local_path, uint64_t size) {
  const std::string from = TransferFolder() + TransferFile(slot, local_path, size).local_path;
  const std::string to = folder_ + local_path;
  (void)te_buildpath(to.c_str());  // a failure shows in the rename
  if (te_rename(from.c_str(), to.c_str()) == 0) {
    // The row follows at once: the rename must outlive a power cut first.
    const int dir =
        open(to.substr(0, to.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir != -1) {
      (void)fsync(dir);
      close(dir);
    }
    return true;
  }
  QS_LOG(kLogError, "cannot put %s in place: %s", to.c_str(), strerror(errno));
  (void)te_unlink(from.c_str());
  return false;
}

void DownloadPipeline::Start(Slot* slot, const std::string& server_path,
                             const std::string& local_path, uint64_t size) {
  Headers headers;
  std::string url = service_.DownloadUrl(server_path, &headers);
  QS_LOG(kLogNotice, "url = %s", url.c_str());
  utilities::FileToSync file = TransferFile(*slot, local_path, size);
  file.url = url;
  slot->server_path = server_path;
  slot->local_path = local_path;
  slot->size = size;
  if (board_ != nullptr && slot->shown == 0) {
    slot->shown = board_->Begin(local_path, static_cast<int64_t>(size));
  }
  // Another slot's thread may be telling of its own transfer meanwhile.
  pthread_mutex_lock(mutex_);
  *slot->state = Downloader::kStateInProgress;
  pthread_mutex_unlock(mutex_);
  slot->transfer->Start(file, headers, TransferFolder(), slot == &slots_[0] ? nullptr : slot);
}

DownloadPipeline::Slot* DownloadPipeline::FreeSlot(const Slot* besides) {
  for (Slot& slot : slots_) {
    if (&slot == besides) continue;
    if (std::find(ahead_.begin(), ahead_.end(), &slot) == ahead_.end()) return &slot;
  }
  return nullptr;
}

DownloadPipeline::Slot* DownloadPipeline::TakeAhead(const std::string& server_path,
                                                    const std::string& local_path, uint64_t size) {
  for (auto it = ahead_.begin(); it != ahead_.end(); ++it) {
    Slot* slot = *it;
    // Another file, or a plan that changed: dropped after its entry.
    if (slot->server_path != server_path || slot->local_path != local_path || slot->size != size) {
      continue;
    }
    ahead_.erase(it);
    return slot;
  }
  return nullptr;
}

bool DownloadPipeline::SameRow(const Slot& slot, const std::string& folder,
                               const std::string& lower_leaf) {
  std::string slot_folder, leaf;
  utilities::SplitPath(slot.local_path, &slot_folder, &leaf);
  if (StringUtils::ToLower(slot_folder) != StringUtils::ToLower(folder)) return false;
  return lower_leaf == StringUtils::ToLower(leaf) ||
         (slot.entry != nullptr && lower_leaf == StringUtils::ToLower(slot.entry->name));
}

void DownloadPipeline::LookAhead() {
  if (page_ == nullptr || planner_ == nullptr) return;
  // Each entry is looked at once, also when a retry of the one in hand comes
  // back here; an entry not taken closes the window until it is in hand, so
  // what is in flight always follows the entry in hand without a gap.
  while (refused_ <= index_ && ahead_.size() + 1 < slots_.size() &&
         considered_ + 1 < page_->size()) {
    const size_t index = ++considered_;
    refused_ = index;
    const FileMetadata* next = (*page_)[index];
    if (next == nullptr || next->is_deleted || next->is_folder) return;
    std::string folder, path;
    if (!planner_->PlanFetch(*next, &folder, &path)) return;
    // A row of a file in flight, once written, must not be one that this
    // entry's lookups could find: same folder and a name equal without case.
    const std::string lower_leaf = StringUtils::ToLower(path.substr(folder.size() + 1));
    if (current_ != nullptr && SameRow(*current_, folder, lower_leaf)) return;
    for (const Slot* slot : ahead_) {
      if (SameRow(*slot, folder, lower_leaf)) return;
    }
    Slot* slot = FreeSlot(current_);
    if (slot == nullptr) return;
    refused_ = 0;
    slot->entry = next;
    ahead_.push_back(slot);
    Start(slot, next->path_lower, path, next->size);
  }
}

void DownloadPipeline::Drop(Slot* slot) {
  slot->transfer->Abort();
  pthread_mutex_lock(mutex_);
  while (InFlight(*slot->state)) pthread_cond_wait(cond_, mutex_);
  pthread_mutex_unlock(mutex_);
  slot->transfer->CleanupOnErr(TransferFile(*slot, slot->local_path, slot->size));
  Unshow(slot);
}

void DownloadPipeline::Unshow(Slot* slot) {
  if (board_ != nullptr && slot->shown != 0) board_->End(slot->shown);
  slot->shown = 0;
}

std::tuple<int, std::string> DownloadPipeline::Fetch(const std::string& server_path,
                                                     const std::string& local_path, uint64_t size,
                                                     const StatusCallback& on_status) {
  Slot* slot = TakeAhead(server_path, local_path, size);
  if (slot == nullptr) {
    slot = FreeSlot(nullptr);
    Start(slot, server_path, local_path, size);
  }
  slot->entry = page_ != nullptr && index_ < page_->size() ? (*page_)[index_] : nullptr;
  current_ = slot;
  LookAhead();
  Transfer& transfer = *slot->transfer;
  waited_ = &transfer;
  const utilities::FileToSync file = TransferFile(*slot, local_path, size);

  std::vector<char> body;
  int code;
  pthread_mutex_lock(mutex_);
  for (int attempt = 1;; ++attempt) {
    Await(slot, on_status);
    code = Judge(slot, &body);
    if (code != DropboxProtocol::kTooManyRequests || profile_ != SyncProfile::kSafe) break;
    // The others in flight go on meanwhile; each waits out its own 429.
    transfer.CleanupOnErr(file);
    pthread_mutex_unlock(mutex_);
    if (!WaitOutRetryAfter(RetryAfterOf(body), attempt, running_, server_path)) {
      current_ = nullptr;
      Unshow(slot);
      return {running_ ? code : DropboxProtocol::kStopped, transfer.LastFile()};
    }
    Start(slot, server_path, local_path, size);
    pthread_mutex_lock(mutex_);
  }
  current_ = nullptr;
  Unshow(slot);
  QS_LOG(kLogInfo, "response_code = %d, err code = %d, error_data = %s",
         transfer.GetStatus().response_code, code, body.data());

  if (*slot->state == Downloader::kStateDone) {
    transfer.Cleanup(file);
    // Data that could not be put in place is no download, whatever the
    // transfer said: the file must not be recorded as synced.
    if (code == DropboxProtocol::kSuccess && transfer.GetStatus().state != Downloader::kStateDone) {
      code = DropboxProtocol::kErrStorage;
    }
    if (code == DropboxProtocol::kSuccess && profile_ == SyncProfile::kSafe &&
        !PutInPlace(*slot, local_path, size)) {
      code = DropboxProtocol::kErrStorage;
    }
  } else if (code != DropboxProtocol::kErrNoNetwork) {
    transfer.CleanupOnErr(file);
  }
  // After a lost connection the partial data stays for the retry.
  // The target as a transfer names it, also when the data came by rename.
  std::tuple<int, std::string> result(
      code, profile_ == SyncProfile::kSafe ? folder_ + local_path : transfer.LastFile());
  pthread_mutex_unlock(mutex_);
  return result;
}

void DownloadPipeline::Await(Slot* slot, const StatusCallback& on_status) {
  Transfer& transfer = *slot->transfer;
  while (InFlight(*slot->state)) {
    if (!running_) transfer.Abort();
    on_status(transfer.GetStatus());
    if (board_ != nullptr) {
      board_->Advance(slot->shown, transfer.GetStatus().downloaded_bytes);
      for (Slot* ahead : ahead_) {
        board_->Advance(ahead->shown, ahead->transfer->GetStatus().downloaded_bytes);
      }
    }
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct timespec deadline;
    long long nsec = static_cast<long long>(now.tv_usec) * 1000 + 500LL * 1000 * 1000;
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(nsec / 1000000000LL);
    deadline.tv_nsec = static_cast<long>(nsec % 1000000000LL);
    pthread_cond_timedwait(cond_, mutex_, &deadline);
    PostponeTimedPoweroff();
  }
}

int DownloadPipeline::Judge(Slot* slot, std::vector<char>* body) {
  Transfer& transfer = *slot->transfer;
  const Downloader::StatusInfo status = transfer.GetStatus();
  body->clear();
  // A 429 names its wait in its reply, which only the safe profile reads.
  if (status.response_code == 409 ||
      (status.response_code == 429 && profile_ == SyncProfile::kSafe)) {
    *body = transfer.ErrorBody(TransferFile(*slot, slot->local_path, slot->size));
  }
  body->push_back('\0');
  if (*slot->state == Downloader::kStateAborted) return DropboxProtocol::kStopped;
  QS_LOG(kLogInfo, "statusToError status.error = %d", status.error);
  switch (status.error) {
    case Downloader::kErrorNone:
      return DropboxProtocol::kSuccess;
    case Downloader::kErrorNetwork:
      return DropboxProtocol::kErrNoNetwork;
    case Downloader::kErrorHttp:
      return service_.ResponseCode(status.response_code, *body);
    case Downloader::kErrorStorage:
      return DropboxProtocol::kErrStorage;
    default:
      return DropboxProtocol::kErrServer;
  }
}

utilities::Downloader::StatusInfo DownloadPipeline::LastStatus() { return waited_->GetStatus(); }

void DownloadPipeline::NotifyDownloaderStatus(void* user) {
  Slot* slot = user == nullptr ? &slots_[0] : static_cast<Slot*>(user);
  pthread_mutex_lock(mutex_);
  if (*slot->state == Downloader::kStateInProgress) {
    Downloader::StatusInfo status = slot->transfer->GetStatus();
    if (status.state == Downloader::kStateDone || status.state == Downloader::kStateFailed ||
        status.state == Downloader::kStateAborted) {
      *slot->state = status.state;
    }
    pthread_cond_signal(cond_);
  }
  pthread_mutex_unlock(mutex_);
}

}  // namespace dropbox
}  // namespace quillstone
