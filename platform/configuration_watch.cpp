// ConfigurationWatch notices a change by the file's identity and times:
// device, inode, size, and modification and change times to the nanosecond.
// Saves replace the file by a rename, so each save is a new inode even when
// the clock is coarse. A missing file is a state of its own: the handle then
// is an empty settings object, and Init succeeds, because the device's
// settings screen may create the file only later.
#define QS_SOURCE_NAME "platform/configuration_watch"

#include "configuration_watch.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "host_common.h"
#include "qs_log.h"
#include "tessera.h"

namespace quillstone {
namespace utilities {

namespace {

struct FileState {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = -1;  // -1: no file
  long long mtime_ns = 0;
  long long ctime_ns = 0;
};

FileState Look(const std::string& path) {
  FileState state;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return state;
  state.dev = st.st_dev;
  state.ino = st.st_ino;
  state.size = st.st_size;
  state.mtime_ns = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  state.ctime_ns = static_cast<long long>(st.st_ctim.tv_sec) * 1000000000LL + st.st_ctim.tv_nsec;
  return state;
}

}  // namespace

ConfigurationWatch::ConfigurationWatch()
    : config_(nullptr),
      notify_(nullptr),
      have_state_(false),
      dev_(0),
      ino_(0),
      size_(-1),
      mtime_ns_(0),
      ctime_ns_(0) {}

ConfigurationWatch::~ConfigurationWatch() { CloseConfigNoSave(config_); }

int ConfigurationWatch::Init(const std::string& path, Notify* notify) {
  CloseConfigNoSave(config_);
  config_ = nullptr;
  have_state_ = false;
  path_ = path;
  notify_ = notify;
  // Look before loading: a change that lands in between is seen next time,
  // at the cost of one needless reload.
  FileState state = Look(path);
  config_ = OpenConfig(path.c_str(), nullptr);
  if (!config_) {
    int err = errno != 0 ? errno : EIO;
    QS_LOG(kLogError, "cannot watch %s: %s", path.c_str(), strerror(err));
    return err;
  }
  dev_ = state.dev;
  ino_ = state.ino;
  size_ = state.size;
  mtime_ns_ = state.mtime_ns;
  ctime_ns_ = state.ctime_ns;
  have_state_ = true;
  return 0;
}

void ConfigurationWatch::CheckChanges() {
  if (path_.empty()) return;
  FileState state = Look(path_);
  if (have_state_ && state.dev == dev_ && state.ino == ino_ && state.size == size_ &&
      state.mtime_ns == mtime_ns_ && state.ctime_ns == ctime_ns_) {
    return;
  }
  // Noted first, so a CheckChanges from inside Changed finds nothing new.
  dev_ = state.dev;
  ino_ = state.ino;
  size_ = state.size;
  mtime_ns_ = state.mtime_ns;
  ctime_ns_ = state.ctime_ns;
  have_state_ = true;
  void* fresh = OpenConfig(path_.c_str(), nullptr);
  if (fresh) {
    CloseConfigNoSave(config_);
    config_ = fresh;
  } else {
    // Unreadable for now: keep the last good view rather than none.
    QS_LOG(kLogError, "cannot reload %s; keeping the last view", path_.c_str());
  }
  if (notify_) notify_->Changed();
}

}  // namespace utilities
}  // namespace quillstone
