// Upload of a large file in chunks through an upload session.
//
// The session id and the offset are kept in the store after every chunk
// (keys path + ":upload_id" and path + ":uploaded_offset"), so a later run or
// process goes on where an interrupted one stopped; they are removed when the
// file has gone up. Also here: how an uploader outcome and an upload reply
// become a result code, which the single-request upload shares.
//
// In the safe profile a session is one key, path + ":upload_session", that
// also holds the file's size and modification time at the session's start,
// written in one store call after each chunk the service accepted: a changed
// file, a lost session or an answer that names no session starts over from
// the first byte, and the last request carries the content hash of its own
// bytes after a check that the file is still the one the session began
// with. Offsets are 64-bit there; the classic keys stay 32-bit.
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
  // The safe profile's session loop.
  int UploadChecked(const std::string& path, FileMetadata** result);

  const RunContext& run_;  // the engine's, so the profile set before a run reaches here
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

// What an upload began with; a file that differs from it is another file.
struct FileStamp {
  int64_t size = -1;
  int64_t mtime_ns = -1;
  bool operator==(const FileStamp& other) const {
    return size == other.size && mtime_ns == other.mtime_ns;
  }
};

// The size and modification time of the regular file at `full_path`; false
// for anything else, or when it cannot be opened.
bool StampOf(const std::string& full_path, FileStamp* stamp);

// Adds the content hash of `size` bytes of `full_path` from `offset` to the
// argument of the upload request in *headers. False, and nothing added, when
// the file cannot give those bytes.
bool AddContentHash(const std::string& full_path, int64_t offset, int64_t size, Headers* headers);

}  // namespace dropbox
}  // namespace quillstone
