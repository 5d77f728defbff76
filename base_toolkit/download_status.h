// The progress of a sync run, published for other programs of the device.
//
// A DownloadStatus is bound by Init to a named channel; every setter publishes
// the whole state at once (phase, totals, current file, file list, error), so
// that a reader in another process never sees half of an update.
// Thread safety: setters may be called from several threads; each takes the
// object's lock.
#pragma once

#include <mutex>
#include <string>
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
    int progress;          // percent, 0 to 100
    int status;            // 0 at first; 7 after a failed attempt
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
  void Publish();  // REQUIRES: mutex_ held

  std::mutex mutex_;
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
