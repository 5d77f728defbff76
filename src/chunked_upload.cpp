#define QS_SOURCE_NAME "src/chunked_upload"

#include "chunked_upload.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>

#include "json_parser_utils.h"
#include "qs_log.h"
#include "tessera.h"

namespace quillstone {
namespace dropbox {

using utilities::Uploader;

namespace {

const off_t kChunkSize = 0x400000;
const int kRejectedChunksAllowed = 3;  // the next HTTP 400 in one upload ends it
const char kUploadIdSuffix[] = ":upload_id";
const char kUploadedOffsetSuffix[] = ":uploaded_offset";

}  // namespace

off_t MeasureFile(const std::string& full_path) {
  // Never blocking: a FIFO would hang the run here. It, a socket or a device
  // has no size to send.
  const int fd = open(full_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd == -1) return -1;
  const off_t size = utilities::IsStream(fd) ? -1 : lseek(fd, 0, SEEK_END);
  close(fd);
  return size;
}

ChunkedUpload::ChunkedUpload(const RunContext& run, SyncService& service, Uploader& uploader)
    : run_(run), service_(service), uploader_(uploader) {}

int ChunkedUpload::Upload(const std::string& path, FileMetadata** result) {
  FileMetadataManager& store = run_.store;
  const std::string full_path = run_.folder + path;
  const std::string id_key = path + kUploadIdSuffix;
  const std::string offset_key = path + kUploadedOffsetSuffix;
  // An absent key leaves the start value: a fresh upload.
  std::string upload_id;
  int offset = 0;
  (void)store.GetParam(id_key, &upload_id);
  (void)store.GetParamInt(offset_key, &offset);
  if (offset < 0) {
    // Not an offset this code writes; start over rather than fail every run.
    offset = 0;
    upload_id.clear();
  }

  const off_t file_size = MeasureFile(full_path);
  if ((off_t)-1 == file_size) {
    QS_LOG_CONDITION("(off_t)-1 == file_size", "DropboxProtocol::kFail");
    return DropboxProtocol::kFail;
  }
  // The stored offset is an int; a larger file could not be resumed.
  if (file_size > static_cast<off_t>(INT_MAX)) {
    QS_LOG_CONDITION("file_size <= INT_MAX", "DropboxProtocol::kFail");
    return DropboxProtocol::kFail;
  }

  int offset_error_count = 0;
  Headers headers;
  std::vector<char> response;
  while (offset < file_size) {
    const off_t chunk = std::min(kChunkSize, file_size - offset);
    const bool finish = offset + chunk == file_size;
    PostponeTimedPoweroff();
    headers.clear();
    const std::string url = service_.ChunkUrl(path, &headers, upload_id, offset, finish);
    QS_LOG(kLogNotice, "url = %s", url.c_str());
    response.clear();
    const Uploader::Error sent =
        uploader_.UploadPart(full_path, static_cast<size_t>(offset), static_cast<size_t>(chunk),
                             url, headers, &response);
    if (sent != Uploader::kUploadHttpError) {
      // A stop or a lost network leaves the keys as they were: the chunk in
      // flight counts as not sent.
      const int err = UploadResultCode(service_, uploader_, sent);
      if (err != DropboxProtocol::kSuccess) {
        QS_LOG_ERR(err);
        return err;
      }
    }
    // Counted as sent before the answer is judged, so a rejected chunk is
    // skipped rather than sent again.
    offset += static_cast<int>(chunk);
    (void)store.SetParamInt(offset_key, offset);
    if (!response.empty()) {
      utilities::JsonParser parser;
      if (parser.Init(response) == 0 && upload_id.empty()) {
        upload_id = parser.GetString("session_id");
        (void)store.SetParam(id_key, upload_id);
      }
    }

    const long http_status = uploader_.GetStatus().http_status;
    if (http_status == 404) {
      // The session is gone: the whole file again, in a new one.
      upload_id.clear();
      offset = 0;
      (void)store.SetParam(id_key, upload_id);
      (void)store.SetParamInt(offset_key, offset);
      continue;
    }
    if (http_status == 400) {
      if (offset_error_count++ >= kRejectedChunksAllowed) {
        QS_LOG_CONDITION("offset_error_count > 3", "DropboxProtocol::kFail");
        return DropboxProtocol::kFail;
      }
      continue;
    }
    if (http_status == 200) continue;
    const int err = service_.ResponseCode(http_status, std::vector<char>());
    if (err != DropboxProtocol::kSuccess) {
      QS_LOG_ERR(err);
      return err;
    }
  }
  (void)store.RemoveParam(id_key);
  (void)store.RemoveParam(offset_key);
  return ParseUploadReply(service_, response, result);
}

int ParseUploadReply(SyncService& service, const std::vector<char>& response,
                     FileMetadata** result) {
  try {
    *result = service.ParseEntry(response);
  } catch (const Json::Exception& e) {
    // A record with a member of the wrong type; the file is not known to
    // have arrived.
    QS_LOG(kLogError, "bad upload reply: %s", e.what());
    return DropboxProtocol::kErrServer;
  }
  NotifyFileBrowser();
  return DropboxProtocol::kSuccess;
}

int UploadResultCode(SyncService& service, Uploader& uploader, Uploader::Error error) {
  switch (error) {
    case Uploader::kUploadOk:
      return DropboxProtocol::kSuccess;
    case Uploader::kUploadTransferFailed:
      return DropboxProtocol::kErrNoNetwork;
    case Uploader::kUploadHttpError:
      return service.ResponseCode(uploader.GetStatus().http_status, std::vector<char>());
    case Uploader::kUploadAborted:
      return DropboxProtocol::kStopped;
    default:
      return DropboxProtocol::kErrServer;
  }
}

}  // namespace dropbox
}  // namespace quillstone
