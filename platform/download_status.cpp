// DownloadStatus publishes its whole state as one JSON file,
// <root>/tmp/download_status/<name>.json, replaced by a rename, so a reader in
// another process always loads one complete state. Figures (current file,
// files done) come once or more per file and are throttled; a flusher thread
// writes a held-back update when its interval has passed, so the file is never
// stale for long. Phase, file list, totals and errors are published at once.
#define QS_SOURCE_NAME "platform/download_status"

#include "download_status.h"

#include <string.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <system_error>

#include "device_root.h"
#include "host_common.h"
#include "qs_log.h"

namespace quillstone {
namespace utilities {

namespace ServicesDownloadStatus {
const std::string dropbox_name = "dropbox";
}

namespace {

constexpr long long kMinCurrentFileIntervalMs = 100;
// Figures of a long list are held back longer, so that their publications
// write at most about this much a second: the list, which they repeat, is
// larger than the files themselves in a tree of small files.
constexpr long long kFigureBytesPerSecond = 1024 * 1024;
// How much of a record is made before it is written.
constexpr size_t kPieceBytes = 64 * 1024;

// Publishing state kept per object without changing the public header: the
// object's address is the key. Guarded by the object's own mutex_.
struct PublishState {
  long long last_publish_ms = -1000000;
  long long interval_ms = kMinCurrentFileIntervalMs;
  bool pending = false;  // a throttled update not yet written
  bool reported_failure = false;
};

std::mutex g_states_mutex;
std::map<const void*, PublishState>* g_states = new std::map<const void*, PublishState>;

PublishState& StateOf(const void* owner) {
  std::lock_guard<std::mutex> lock(g_states_mutex);
  return (*g_states)[owner];
}

void DropState(const void* owner) {
  std::lock_guard<std::mutex> lock(g_states_mutex);
  g_states->erase(owner);
}

void AppendFileJson(std::string* out, const DownloadStatus::File& file) {
  out->append("{\"id\":");
  host::AppendJsonString(out, file.id);
  out->append(",\"name\":");
  host::AppendJsonString(out, file.name);
  out->append(",\"path\":");
  host::AppendJsonString(out, file.path);
  out->append(",\"progress\":" + std::to_string(file.progress));
  out->append(",\"status\":" + std::to_string(file.status));
  out->append(",\"downloaded_bytes\":" + std::to_string(file.downloaded_bytes));
  out->append(",\"size\":" + std::to_string(file.size));
  out->append("}");
}

}  // namespace

DownloadStatus::File::File() : progress(0), status(0), downloaded_bytes(0), size(0) {}

DownloadStatus::File::File(const std::string& id, const std::string& name, int progress)
    : id(id), name(name), progress(progress), status(0), downloaded_bytes(0), size(0) {}

DownloadStatus::File::File(const File& other) = default;

DownloadStatus::File& DownloadStatus::File::operator=(const File& other) = default;

DownloadStatus::File& DownloadStatus::File::operator=(File&& other) noexcept {
  id = std::move(other.id);
  name = std::move(other.name);
  path = std::move(other.path);
  progress = other.progress;
  status = other.status;
  downloaded_bytes = other.downloaded_bytes;
  size = other.size;
  return *this;
}

DownloadStatus::DownloadStatus()
    : stop_flusher_(false), pid_(0), status_(kIdle), total_(0), done_(0), error_(0) {
  PublishState& state = StateOf(this);
  state = PublishState();
}

DownloadStatus::~DownloadStatus() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_flusher_ = true;
    // The last throttled update is still the final state a reader should see.
    if (StateOf(this).pending) Publish();
  }
  flush_cond_.notify_all();
  if (flusher_.joinable()) flusher_.join();
  DropState(this);
}

void DownloadStatus::PublishSoon() {
  PublishState& state = StateOf(this);
  if (host::MonotonicMs() - state.last_publish_ms >= state.interval_ms) {
    Publish();
    return;
  }
  const bool was_pending = state.pending;
  state.pending = true;
  if (!flusher_.joinable() && !stop_flusher_) {
    try {
      flusher_ = std::thread(&DownloadStatus::FlushLoop, this);
    } catch (const std::system_error&) {
      Publish();  // without a flusher nothing may be held back
      return;
    }
  }
  // A flusher that already holds an update back is waiting for the same
  // moment; waking it for every file would only cost a thread switch each.
  if (!was_pending) flush_cond_.notify_one();
}

void DownloadStatus::FlushLoop() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_flusher_) {
    PublishState& state = StateOf(this);
    if (!state.pending) {
      flush_cond_.wait(lock);
      continue;
    }
    long long wait = state.last_publish_ms + state.interval_ms - host::MonotonicMs();
    if (wait <= 0) {
      Publish();
    } else {
      flush_cond_.wait_for(lock, std::chrono::milliseconds(wait));
    }
  }
}

void DownloadStatus::Init(const std::string& name, int pid) {
  std::lock_guard<std::mutex> lock(mutex_);
  name_ = name;
  pid_ = pid;
  if (name.empty() || name.find('/') != std::string::npos || name[0] == '.') {
    QS_LOG(kLogError, "bad status channel name \"%s\"; nothing will be published", name.c_str());
    channel_path_.clear();
    return;
  }
  channel_path_ = DevicePath("/tmp/download_status/" + name + ".json");
  Publish();
}

void DownloadStatus::ResetProgress() {
  std::lock_guard<std::mutex> lock(mutex_);
  total_ = 0;
  done_ = 0;
  error_ = kErrorNone;
  error_text_.clear();
  current_file_ = File();
  files_.clear();
  Publish();
}

void DownloadStatus::SetProgressStatus(Status status) {
  std::lock_guard<std::mutex> lock(mutex_);
  status_ = status;
  Publish();
}

void DownloadStatus::SetTotalProgressStatus(int total, int done, int, int) {
  std::lock_guard<std::mutex> lock(mutex_);
  bool new_total = total != total_;
  total_ = total;
  done_ = done;
  // A new total comes with a new list; the last file done ends the list.
  if (new_total || done >= total) {
    Publish();
  } else {
    PublishSoon();
  }
}

void DownloadStatus::SetCurrentProgressStatus(const File& file) {
  std::lock_guard<std::mutex> lock(mutex_);
  current_file_ = file;
  PublishSoon();
}

void DownloadStatus::SetFileList(const std::vector<File>& files) {
  std::lock_guard<std::mutex> lock(mutex_);
  files_ = files;
  Publish();
}

std::vector<DownloadStatus::File> DownloadStatus::GetFileList() {
  std::lock_guard<std::mutex> lock(mutex_);
  return files_;
}

void DownloadStatus::SetErrorStatus(Error error, const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  error_ = error;
  error_text_ = text;
  Publish();
}

void DownloadStatus::Publish() {
  PublishState& state = StateOf(this);
  if (channel_path_.empty()) return;
  long long started = host::MonotonicMs();
  std::string out;
  out.append("{\"name\":");
  host::AppendJsonString(&out, name_);
  out.append(",\"pid\":" + std::to_string(pid_));
  out.append(",\"phase\":" + std::to_string(status_));
  out.append(",\"total\":" + std::to_string(total_));
  out.append(",\"done\":" + std::to_string(done_));
  out.append(",\"error\":" + std::to_string(error_));
  out.append(",\"error_text\":");
  host::AppendJsonString(&out, error_text_);
  out.append(",\"current_file\":");
  AppendFileJson(&out, current_file_);
  out.append(",\"files\":[");
  // The list, which makes the record large, is written a piece at a time
  // rather than held whole beside the list itself.
  size_t written = 0;
  auto produce = [this, &out, &written](const host::PieceWriter& write) {
    for (size_t i = 0; i < files_.size(); ++i) {
      if (i > 0) out.push_back(',');
      AppendFileJson(&out, files_[i]);
      if (out.size() < kPieceBytes) continue;
      written += out.size();
      const int err = write(out);
      if (err != 0) return err;
      out.clear();
    }
    out.append("]}\n");
    written += out.size();
    return write(out);
  };
  // No fsync: the state is only of interest while the device runs.
  int err = host::ReplaceFileWith(channel_path_, produce, false);
  long long finished = host::MonotonicMs();
  if (err != 0) {
    if (!state.reported_failure) {
      QS_LOG(kLogError, "cannot publish %s: %s", channel_path_.c_str(), strerror(err));
      state.reported_failure = true;
    }
  } else {
    state.reported_failure = false;
  }
  state.pending = false;
  state.last_publish_ms = finished;
  // A large list makes each write dear; keep throttled writes to about a
  // tenth of the time, and within the byte budget.
  long long cost = finished - started;
  long long by_size = static_cast<long long>(written) * 1000 / kFigureBytesPerSecond;
  state.interval_ms = std::max({kMinCurrentFileIntervalMs, cost * 10, by_size});
}

}  // namespace utilities
}  // namespace quillstone
