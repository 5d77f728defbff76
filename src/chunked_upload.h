// Upload of a large file in chunks through an upload session.
//
// The session id and the offset are kept in the store after every chunk
// (keys path + ":upload_id" and path + ":uploaded_offset"), so a later run or
// process goes on where an interrupted one stopped; they are removed when the
// file has gone up. Also here: how an uploader outcome and an upload reply
// become a result code, which the single-request upload shares.
//
// Threads: the sync thread only; the uploader reports progress on its own
// thread to whoever the engine made its callback. Owns nothing.
#pragma once

#include <string>
#include <vector>

#include "sync_env.h"
#include "uploader.h"

namespace quillstone {
namespace dropbox {

class ChunkedUpload {
 public:
  ChunkedUpload(const RunContext& run, SyncService& service, utilities::Uploader& uploader);

  // Uploads `path` (relative to the sync folder, leading "/", also the
  // service path). On kSuccess *result is a new record, owned by the caller.
  int Upload(const std::string& path, FileMetadata** result);

 private:
  RunContext run_;
  SyncService& service_;
  utilities::Uploader& uploader_;
};

// The result code of an uploader outcome; HTTP answers go through the
// service's mapping without their body, so a 409 can only be kErrServer.
int UploadResultCode(SyncService& service, utilities::Uploader& uploader,
                     utilities::Uploader::Error error);

// The service's record from an upload reply, for the caller, and the file
// browser told; kErrServer for a record that cannot be read.
int ParseUploadReply(SyncService& service, const std::vector<char>& response,
                     FileMetadata** result);

// The size of the file at `full_path`; -1 when it cannot be opened.
off_t MeasureFile(const std::string& full_path);

}  // namespace dropbox
}  // namespace quillstone
