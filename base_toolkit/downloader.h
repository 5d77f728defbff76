// Fetches one file at a time over HTTPS on a thread of its own (libcurl).
//
// While a transfer runs, its data lies beside the target under the name of
// the target followed by ".downloading", with a ".progress" record next to
// it; Cleanup renames the flushed data over the target, so a half-written
// file never appears under the real name, also after a power cut. TLS and
// proxy as HttpRequestRunner.
//
// One transfer thread and one set of libcurl handles serve every transfer of
// the object's life, so consecutive files reuse the open connection, its TLS
// session and the loaded CA bundle; the proxy setting is read at the first
// transfer.
//
// Thread safety: Start, Abort, GetStatus, Cleanup and CleanupOnErr may be
// called from any thread. The callback runs on the downloader's thread and
// may call GetStatus and Abort; no lock of the downloader is held while it
// runs. It is told of progress at most about ten times a second, of every
// change of state, and always once after the final state has been set.
#pragma once

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace quillstone {
namespace utilities {

struct TransportSettings;

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
    kErrorNetwork = 1,  // no connection, or the transfer broke off
    kErrorHttp = 2,     // a failing HTTP code, in response_code
    kErrorStorage = 3,  // a failure on the device's side (disk full, ...)
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

  // When set, a transfer that broke off on the network (error 1) keeps its
  // partial data and the ".progress" record (address, ETag, expected size,
  // bytes kept), and the next Start of the same target continues it with
  // "Range: bytes=N-" and "If-Range: <ETag>": a 206 that fits the kept data is
  // appended, a 200 starts anew. The data is only kept when the answer had an
  // ETag. When clear (the default), every Start begins anew and a broken
  // transfer leaves nothing behind.
  bool resume_partial_;

  void ClearHeaders();
  void AddHeader(const std::string& key, const std::string& value);

  // Returns at once; the transfer runs on the downloader's thread. A failure
  // to start shows as a final state with a notification. 0, or -1 when a
  // transfer is still running (or when called from the callback), in which
  // case nothing changes. Waits for the last notification of the previous
  // transfer to return.
  int Start(const FileToSync& file, const std::string& folder, void* user);

  StatusInfo GetStatus();
  void Abort(void* user);  // the final state is then 5; repeated calls are harmless

  // The body of the last error answer, kept aside during the transfer; at
  // most 64 KiB (a longer one ends the transfer as an HTTP failure).
  std::vector<char> getErrorBody(const FileToSync& file);
  // After state 2 (and only then): renames the flushed data over the target
  // and removes the record. When the rename fails the data is removed and the
  // status turns to state 3 with error 3 (storage). The flush of the folder is
  // shared with the other renames into it and runs at the latest before the
  // store flushes its log or when the downloader is destroyed.
  void Cleanup(const FileToSync& file);
  // After a failure: removes the partial data and its record.
  void CleanupOnErr(const FileToSync& file);

  // The full path of the file written by the last transfer (the target path,
  // also before Cleanup has put the data there).
  std::string last_file_;

 private:
  struct Transfer;  // the working state of one transfer, on its thread

  void Loop(std::shared_ptr<std::atomic<bool>> alive);  // the transfer thread
  void Run(void* user);
  void Notify(void* user);  // REQUIRES: mutex_ not held

  IDownloaderCallback* callback_;
  // Serialises Start, the clean-ups and destruction, so that joining the last
  // thread never races a second Start; the transfer thread never takes it.
  std::mutex start_mutex_;
  std::mutex mutex_;  // guards the members below, but abort_ and thread_
  std::vector<std::pair<std::string, std::string>> headers_;
  StatusInfo status_;
  std::vector<char> error_body_;  // bounded, see getErrorBody
  FileToSync file_;
  std::string folder_;
  std::condition_variable work_cond_;  // a transfer to run, or the end
  std::condition_variable idle_cond_;  // busy_ went false
  bool work_;                          // Start has posted a transfer
  bool busy_;  // from Start to the return of the transfer's last notification
  bool stop_;
  void* work_user_;
  std::atomic<bool> abort_;
  std::shared_ptr<std::atomic<bool>> alive_;  // false once destroyed from the callback
  std::thread thread_;                        // started by the first Start, ends with the object

  // Used on the transfer thread only, and by the destructor after it ended.
  void* easy_;   // CURL*
  void* multi_;  // CURLM*: holds the connection cache and the CA store
  std::unique_ptr<TransportSettings> transport_;  // read at the first transfer
};

}  // namespace utilities
}  // namespace quillstone
