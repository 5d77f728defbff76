// The progress of a sync run, published for other programs of the device.
//
// A DownloadStatus is bound by Init to a named channel. Each publication
// replaces the whole state (phase, totals, current file, file list, error)
// atomically, so that a reader in another process never sees half of an
// update, and sees every change within about a tenth of a second:
// - a change of phase, of the file list, of the total or of the error, a
//   reset, and the figures that finish the list (done reaching total) are
//   published at once, together with anything held back;
// - figures alone (the current file, files done) are published at most about
//   every 100 ms, and less often for a large file list: so that such
//   publications take at most a tenth of the time and write at most about
//   1 MiB a second (a list of 10,000 files: every 1.5 s); an update held back is published by a
//   background thread when that interval has passed, by the next setter, or at
//   the latest by the destructor, so the last figures are never lost.
// Thread safety: setters may be called from several threads; each takes the
// object's lock.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quillstone {
namespace utilities {

namespace ServicesDownloadStatus {
extern const std::string dropbox_name;
}

class DownloadStatus {
 public:
  struct File {
    File();
    File(const std::string& id, const std::string& name, int progress);
    File(const File& other);
    File& operator=(const File& other);
    File& operator=(File&& other) noexcept;

    std::string id;
    std::string name;
    std::string path;
    int progress;  // percent, 0 to 100
    int status;    // 0 at first; 7 after a failed attempt
    int downloaded_bytes;
    int size;
  };

  enum Status { kIdle = 0, kServerChanges = 1, kUploadLocalChanges = 2 };
  enum Error {
    kErrorNone = 0,
    kErrorOne = 1,
    kErrorTwo = 2,
    kErrorThree = 3,
    kErrorFive = 5,
    kErrorSix = 6,
    kErrorSeven = 7,
    kErrorEight = 8,
  };

  DownloadStatus();
  ~DownloadStatus();

  void Init(const std::string& name, int pid);
  void ResetProgress();
  void SetProgressStatus(Status status);
  void SetTotalProgressStatus(int total, int done, int, int);
  void SetCurrentProgressStatus(const File& file);
  void SetFileList(const std::vector<File>& files);
  std::vector<File> GetFileList();
  void SetErrorStatus(Error error, const std::string& text);

  File current_file_;  // the last record given to SetCurrentProgressStatus

 private:
  void Publish();      // REQUIRES: mutex_ held
  void PublishSoon();  // throttled Publish; REQUIRES: mutex_ held
  void FlushLoop();    // the flusher thread

  std::mutex mutex_;
  std::condition_variable flush_cond_;
  std::thread flusher_;  // started by the first held-back update
  bool stop_flusher_;
  std::string name_;
  std::string channel_path_;  // empty until Init
  int pid_;
  int status_;
  int total_;
  int done_;
  int error_;
  std::string error_text_;
  std::vector<File> files_;
};

}  // namespace utilities
}  // namespace quillstone
