// Fetches one file over HTTPS on a thread of its own (libcurl).
//
// While a transfer runs, its data lies beside the target under the name of
// the target followed by ".downloading", with a ".progress" record next to
// it; Cleanup renames the finished data over the target, so a half-written
// file never appears under the real name. TLS and proxy as HttpRequestRunner.
//
// Thread safety: Start, Abort, GetStatus, Cleanup and CleanupOnErr may be
// called from any thread. The callback runs on the downloader's thread and
// may call GetStatus; no lock of the downloader is held while it runs.
#pragma once

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quillstone {
namespace utilities {

class IDownloaderCallback {
 public:
  virtual void NotifyDownloaderStatus(void* user) = 0;
  virtual ~IDownloaderCallback() {}
};

struct FileToSync {
  std::string url;
  std::string local_path;  // relative to the folder given to Start, leading "/"
  int size;                // size from the service (low 32 bits)
};

class Downloader {
 public:
  enum State {
    kStateIdle = 0,
    kStateInProgress = 1,
    kStateDone = 2,
    kStateFailed = 3,
    kStateFour = 4,
    kStateAborted = 5,
  };
  enum ErrorValue {
    kErrorNone = 0,
    kErrorNetwork = 1,   // no connection, or the transfer broke off
    kErrorHttp = 2,      // a failing HTTP code, in response_code
    kErrorStorage = 3,   // a failure on the device's side (disk full, ...)
    kErrorOther = 4,
  };

  struct StatusInfo {
    int state;
    int error;
    int downloaded_bytes;
    int response_code;
    int total_bytes;  // below 1 when not known
    std::string url;
    std::string local_path;
    std::string message;  // a human-readable cause of a failure
  };

  Downloader();
  ~Downloader();  // aborts and joins a running transfer
  Downloader(const Downloader&) = delete;
  Downloader& operator=(const Downloader&) = delete;

  void Init(IDownloaderCallback* callback);

  // When set, a transfer that broke off keeps its partial data, and the next
  // Start of the same file continues it with a range request instead of
  // beginning anew (only if the server's ETag still matches).
  bool resume_partial_;

  void ClearHeaders();
  void AddHeader(const std::string& key, const std::string& value);

  // Returns at once; the transfer runs on the downloader's thread. A failure
  // to start shows as a final state with a notification. 0, or -1 when a
  // transfer is already running.
  int Start(const FileToSync& file, const std::string& folder, void* user);

  StatusInfo GetStatus();
  void Abort(void* user);  // the final state is then 5; repeated calls are harmless

  // The body of the last error answer (bounded), kept aside during the transfer.
  std::vector<char> getErrorBody(const FileToSync& file);
  // After state 2: renames the data over the target and removes the record.
  void Cleanup(const FileToSync& file);
  // After a failure: removes the partial data and its record.
  void CleanupOnErr(const FileToSync& file);

  // The full path of the file written by the last transfer (the target path,
  // also before Cleanup has put the data there).
  std::string last_file_;

 private:
  void Run();  // the transfer thread
  void Join();

  IDownloaderCallback* callback_;
  std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> headers_;
  StatusInfo status_;
  std::vector<char> error_body_;
  FileToSync file_;
  std::string folder_;
  bool abort_;
  std::thread thread_;
};

}  // namespace utilities
}  // namespace quillstone
