// Sends a file, or a byte range of one, as the body of one HTTP POST and
// collects the reply.
//
// The Uploader knows nothing of the service: the caller gives the address and
// the headers and judges the answer. A body of up to 8 KiB is read whole and
// sent with the request head; a larger one is read from the file in the
// pieces libcurl asks for, never held whole.
//
// Threads: a transfer runs on the caller's thread, one at a time per object.
// The callback is called on that thread from inside libcurl, and `abort_` is
// set from there, so nothing is locked. One object serves all uploads of a
// run; between transfers no file is open. Its libcurl handle lives as long
// as the object, so that the transfers of a run share its connection and its
// wake-up pipe rather than building them for every file.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace quillstone {
namespace utilities {

class IUploaderCallback {
 public:
  // Called at every progress tick of a transfer; may set the uploader's
  // abort_ to end it.
  virtual void Progress() = 0;
  virtual ~IUploaderCallback() {}
};

class Uploader {
 public:
  enum Error {
    kUploadOk = 0,              // the server answered 200 or 206
    kUploadTransferFailed = 1,  // no HTTP answer: refused, reset, stalled, TLS failure
    kUploadHttpError = 2,       // any other HTTP answer
    kUploadAborted = 3,         // ended through abort_
    kUploadSetupFailed = 4,     // the file could not be opened or positioned, or libcurl set up
  };

  struct Status {
    size_t uploaded_bytes;  // body bytes handed to libcurl
    long http_status;       // 0 after a transfer without an HTTP answer
  };

  Uploader();
  ~Uploader();
  Uploader(const Uploader&) = delete;
  Uploader& operator=(const Uploader&) = delete;

  // The whole of `file` as the body. Headers go out in map order, followed by
  // an empty "Expect:" that keeps libcurl from waiting for "100 Continue".
  // The reply body is appended to *response (never cleared here), followed
  // by one zero byte whenever the transfer ran, so the caller may read it as
  // text. A refused connection is tried once more at once.
  Error Upload(const std::string& file, const std::string& url,
               const std::map<std::string, std::string>& headers, std::vector<char>* response);
  // `size` bytes of `file` from `offset` (64-bit, as off_t is here); `size` 0 sends to the end of
  // the file. A file that gives fewer bytes than announced (it shrank, or a read failed) ends the
  // transfer at once with kUploadSetupFailed: the server would only wait for the rest.
  Error UploadPart(const std::string& file, off_t offset, size_t size, const std::string& url,
                   const std::map<std::string, std::string>& headers, std::vector<char>* response);
  // Of the last transfer; valid until the next one starts. After an abort
  // the HTTP code is the one before.
  Status GetStatus();

  // libcurl callbacks; `user` is the Uploader (the response vector for
  // AppendResponse).
  static size_t ReadFunction(void* buffer, size_t size, size_t count, void* user);
  static int ProgressFunctionCaller(void* user, double, double, double, double);
  int ProgressFunction(double, double, double, double);
  static size_t AppendResponse(void* data, size_t size, size_t count, void* user);

  IUploaderCallback* callback_;  // not owned; may be null
  long status_code_;             // HTTP code of the last transfer; 0 when none came
  int file_;                     // the open file, -1 between transfers
  bool abort_;                   // ends the transfer at the next progress tick
  size_t bytes_read_;            // body bytes handed to libcurl in this transfer
  size_t part_size_;             // bytes to send; 0 for the whole file

 private:
  // Bodies up to this size are sent from memory together with the request
  // head; libcurl does that below 64 KiB.
  static constexpr size_t kInlineBodyMax = 8 * 1024;

  size_t body_size_;               // the announced length of the body
  bool body_short_;                // the file gave fewer bytes than announced
  std::vector<char> inline_body_;  // a small body, read whole before the transfer
  void* curl_;  // the libcurl handle; made by the first transfer, reset after each

  Error UploadInt(const std::string& file, off_t offset, size_t size, const std::string& url,
                  const std::map<std::string, std::string>& headers, std::vector<char>* response);
};

// True when `fd` is a FIFO, socket or device: no content of a known length,
// and a read may block or never end. Such a file is never sent.
bool IsStream(int fd);

}  // namespace utilities
}  // namespace quillstone
